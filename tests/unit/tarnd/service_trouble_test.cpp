// Messages and notes of the service when the kernel or the packet filter refuses.
#include <cerrno>

#include "tests/unit/tarnd/service_rig.h"

namespace qv::tarnd {
namespace {

using test::kernel;
using test::nft;
using test::ServiceRig;
using Lines = std::vector<std::string>;
using Ports = std::vector<uint32_t>;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kPort = 1000007;  // no interface of this machine

struct Refusal {
    int error;
    const char* text;
};
constexpr Refusal kRefusals[] = {{EPERM, "Operation not permitted"},
                                 {ENOBUFS, "No buffer space available"},
                                 {ENETDOWN, "Network is down"}};

TEST(ServiceTrouble, CutThatCannotBeUndoneIsTriedAgainUntilItIs) {
    for (const auto& [error, text] : kRefusals) {
        ServiceRig rig({kPort});
        kernel().links[kPort].up = false;
        EXPECT_EQ(rig.take_log(), Lines{"TARN-4-LEFT: An earlier tarnd has cut interface 1000007 "
                                        "and then ended."});
        kernel().answers = {error, error, error, error};
        rig.platform.run_for(seconds(7));
        EXPECT_EQ(rig.take_log(), Lines{"TARN-3-RETURN: interface 1000007 cannot be brought into "
                                        "service again: " +
                                        std::string(text) + "."});
        EXPECT_EQ(rig.cuts.noted(), Ports{kPort});
        rig.platform.run_for(seconds(6));
        EXPECT_EQ(rig.take_log(), Lines{});
        EXPECT_EQ(rig.cuts.noted(), Ports{kPort});
        EXPECT_FALSE(kernel().links[kPort].up);
        rig.platform.run_for(seconds(6));
        EXPECT_EQ(rig.take_log(), Lines{"TARN-4-RETURN: interface 1000007 is in service again: "
                                        "nobody has taken it over."});
        EXPECT_TRUE(kernel().links[kPort].up);
        EXPECT_EQ(rig.cuts.noted(), Ports{});
    }
}

TEST(ServiceTrouble, CutThatCannotBeUndoneAtTheEndIsLeftToTheNextProcess) {
    ServiceRig rig({kPort});
    kernel().links[kPort].up = false;
    rig.take_log();
    kernel().answers = {EPERM, EPERM};
    rig.service.close();
    EXPECT_EQ(rig.take_log(), Lines{"TARN-3-RETURN: interface 1000007 cannot be brought into "
                                    "service again: Operation not permitted."});
    EXPECT_EQ(rig.cuts.noted(), Ports{kPort});
}

TEST(ServiceTrouble, CutOfAnInterfaceThatIsGoneIsForgottenSilently) {
    ServiceRig rig({kPort});
    rig.take_log();
    rig.platform.run_for(seconds(60));
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.cuts.noted(), Ports{});
    EXPECT_EQ(kernel().requests.size(), 2u);
}

TEST(ServiceTrouble, CutThatIsRefusedIsReportedAndNotUndone) {
    for (const auto& [error, text] : kRefusals) {
        ServiceRig rig;
        kernel().links[kPort] = {};
        rig.report({{.kind = Report::Kind::kCut, .ifx = kPort, .error = error}});
        EXPECT_EQ(rig.take_log(),
                  Lines{"TARN-3-CUT: interface 1000007 cannot be cut: " + std::string(text) + "."});
        rig.platform.run_for(seconds(60));
        EXPECT_EQ(kernel().requests, Lines{});
    }
}

TEST(ServiceTrouble, CutThatMayHaveBeenMadeIsUndone) {
    ServiceRig rig;
    kernel().links[kPort].up = false;
    ASSERT_TRUE(rig.cuts.note(kPort));
    rig.report({{.kind = Report::Kind::kCut, .ifx = kPort, .error = EIO}});
    rig.platform.run_for(seconds(7));
    EXPECT_EQ(rig.take_log(),
              (Lines{"TARN-3-CUT: interface 1000007 cannot be cut: Input/output error.",
                     "TARN-4-RETURN: interface 1000007 is in service again: nobody has taken it "
                     "over."}));
    EXPECT_TRUE(kernel().links[kPort].up);
}

TEST(ServiceTrouble, PortThatCannotBeGuardedIsReported) {
    ServiceRig rig;
    for (const auto& [error, text] : kRefusals) {
        rig.report({{.kind = Report::Kind::kGuard, .ifx = kPort, .error = error, .closed = true}});
        EXPECT_EQ(rig.take_log(), Lines{"TARN-3-GUARD_PORT: interface 1000007 cannot be guarded, "
                                        "it forwards as soon as its link is up: " +
                                        std::string(text) + "."});
    }
}

TEST(ServiceTrouble, PortThatCannotBeOpenedIsReportedOnceForEachReason) {
    ServiceRig rig;
    const auto opened = [&](int error) {
        rig.report({{.kind = Report::Kind::kGuard, .ifx = kPort, .error = error}});
        return rig.take_log();
    };
    const Lines refused{
        "TARN-3-GUARD_PORT: interface 1000007 cannot be opened: Operation not permitted."};
    EXPECT_EQ(opened(EPERM), refused);
    EXPECT_EQ(opened(EPERM), Lines{});
    EXPECT_EQ(opened(ENOBUFS),
              Lines{"TARN-3-GUARD_PORT: interface 1000007 cannot be opened: No buffer space "
                    "available."});
    EXPECT_EQ(opened(0), Lines{});
    EXPECT_EQ(opened(EPERM), refused);
}

TEST(ServiceTrouble, PortThatCannotBeOpenedAtTheEndIsReportedAndStaysNoted) {
    ServiceRig rig;
    kernel().links[kPort].flags = kClosed;
    kernel().links[kPort + 1].flags = kClosed;
    rig.guards.note(kPort, pack(PortFlags{}));
    rig.guards.note(kPort + 1, pack(PortFlags{}));
    kernel().answers = {0, ENOBUFS};
    rig.service.close();
    EXPECT_EQ(rig.take_log(), Lines{"TARN-3-GUARD_PORT: interface 1000007 cannot be opened: No "
                                    "buffer space available."});
    EXPECT_EQ(rig.guards.noted(), Ports{kPort});
    EXPECT_EQ(kernel().links[kPort + 1].flags, PortFlags{});
}

TEST(ServiceTrouble, TableThatIsGoneIsBackWithinTenSeconds) {
    ServiceRig rig;
    nft().table = false;
    rig.platform.run_for(milliseconds(9900));
    EXPECT_FALSE(nft().table);
    rig.platform.run_for(milliseconds(100));
    EXPECT_TRUE(nft().table);
    EXPECT_EQ(rig.take_log(),
              Lines{"TARN-4-GUARD: The rule that drops returned probes was gone; it is back."});
}

TEST(ServiceTrouble, TableThatIsRefusedIsTriedAgain) {
    ServiceRig rig;
    nft().table = false;
    nft().refusals = 2;
    nft().error = "Error: Could not process rule: Operation not permitted\nadd table\n";
    rig.platform.run_for(seconds(10));
    EXPECT_FALSE(nft().table);
    EXPECT_EQ(rig.take_log(),
              Lines{"TARN-4-GUARD: The rule that drops returned probes was gone and cannot be put "
                    "back: Error: Could not process rule: Operation not permitted."});
    rig.platform.run_for(seconds(10));
    EXPECT_TRUE(nft().table);
    EXPECT_EQ(rig.take_log(),
              Lines{"TARN-4-GUARD: The rule that drops returned probes was gone; it is back."});
}

}  // namespace
}  // namespace qv::tarnd
