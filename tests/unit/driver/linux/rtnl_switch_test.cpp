// The driver on a real kernel, in a network namespace of this process.
#include "platform/driver/linux/rtnl_switch.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <optional>

#include <gtest/gtest.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <sched.h>
#include <unistd.h>

#include "platform/base/clock.h"
#include "platform/driver/linux/rtnl_link.h"
#include "platform/driver/linux/rtnl_requests.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_platform.h"
#include "tests/unit/driver/linux/recording_sink.h"

// Runs once after the next acknowledgement, before the driver sees it.
static std::function<void()> g_after_acknowledgement;

// The library finds no memory for the next acknowledgement, which stays in the socket.
static bool g_acknowledgement_finds_no_memory = false;

// The linker puts this in place of nl_wait_for_ack.
extern "C" {
int __real_nl_wait_for_ack(nl_sock* socket);
int __wrap_nl_wait_for_ack(nl_sock* socket) {
    if (std::exchange(g_acknowledgement_finds_no_memory, false)) {
        return -NLE_NOMEM;
    }
    const int result = __real_nl_wait_for_ack(socket);
    if (const auto act = std::exchange(g_after_acknowledgement, nullptr)) {
        act();
    }
    return result;
}
}

// The same for qv::parse_link.
static bool g_links_find_no_memory = false;
std::optional<qv::LinkMessage> real_parse_link(nlmsghdr* header) asm(
    "__real__ZN2qv10parse_linkEP8nlmsghdr");
std::optional<qv::LinkMessage> wrapped_parse_link(nlmsghdr* header) asm(
    "__wrap__ZN2qv10parse_linkEP8nlmsghdr");
std::optional<qv::LinkMessage> wrapped_parse_link(nlmsghdr* header) {
    if (g_links_find_no_memory) {
        throw std::bad_alloc();
    }
    return real_parse_link(header);
}

namespace qv {
namespace {

using Lines = std::vector<std::string>;

// Runs the lines as commands of ip(8).
void ip(const std::string& lines) {
    FILE* const pipe = popen("ip -batch -", "w");
    ASSERT_NE(pipe, nullptr);
    std::fputs(lines.c_str(), pipe);
    ASSERT_EQ(pclose(pipe), 0) << lines;
}

// A pair of which the first end is a member of br0.
std::string port_line(const std::string& name) {
    return "link add " + name + " type veth peer name p-" + name + "\nlink set p-" + name +
           " up\nlink set " + name + " up\nlink set " + name + " master br0\n";
}

struct RtnlSwitchTest : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace of our own: " << std::strerror(errno);
        }
    }

    bool wait_for(const std::function<bool()>& done) { return test::run_until(loop, done); }

    bool wait_for_name(const std::string& name) {
        return wait_for([&] { return sink.find(name) != nullptr; });
    }

    bool wait_for_up(const std::string& name) {
        return wait_for([&] {
            const Port* const port = sink.find(name);
            return port != nullptr && port->admin_up && port->oper_up;
        });
    }

    test::TestPlatform platform;
    SteadyClock clock;
    EventLoop loop{clock};
    test::RecordingSink sink;
};

TEST_F(RtnlSwitchTest, AnswerThatWasNotReadIsNotThatOfTheNextRequest) {
    constexpr uint32_t kLoopback = 1, kNone = 12345;
    const RtnlRequests requests;
    g_acknowledgement_finds_no_memory = true;
    EXPECT_EQ(requests.set_up(kLoopback, true), EIO);
    EXPECT_EQ(requests.set_up(kNone, true), ENODEV);
    EXPECT_EQ(requests.set_up(kLoopback, false), 0);
    g_acknowledgement_finds_no_memory = true;
    EXPECT_EQ(requests.set_up(kNone, true), EIO);
    EXPECT_EQ(requests.read_link(kLoopback, [](nlmsghdr*) {}), 0);
}

TEST_F(RtnlSwitchTest, ReportsThePortsThatAreThereThenCompletes) {
    ip("link add br0 type bridge\n" + port_line("swp1") + port_line("swp2") +
       "link add alone type veth peer name alone-p\n");
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    EXPECT_EQ(sink.reports, Lines{}) << "nothing is reported from inside start()";
    ASSERT_TRUE(
        wait_for([&] { return !sink.reports.empty() && sink.reports.back() == "complete"; }));
    EXPECT_EQ(sink.take(), (Lines{"added swp1", "added swp2", "complete"}));
    EXPECT_EQ(platform.log.lines(), Lines{}) << "a bridge that is there is no news";
    EXPECT_EQ(sink.find("swp1")->ifx, if_nametoindex("swp1"));
    EXPECT_EQ(sink.find("swp1")->phyid, 1u);
    EXPECT_EQ(sink.find("swp2")->phyid, 2u);
    EXPECT_TRUE(sink.find("swp1")->admin_up);
}

TEST_F(RtnlSwitchTest, FollowsAddRenameLeaveAndDelete) {
    ip("link add br0 type bridge\n");
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ip(port_line("swp1"));
    ASSERT_TRUE(wait_for_name("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;

    ip("link set swp1 down\nlink set swp1 name uplink\n");
    ASSERT_TRUE(wait_for_name("uplink"));
    EXPECT_EQ(sink.find("uplink")->ifx, ifx);
    EXPECT_FALSE(sink.find("uplink")->admin_up);

    sink.take();
    ip("link set uplink nomaster\n");
    ASSERT_TRUE(wait_for([&] { return sink.ports.empty(); }));
    EXPECT_EQ(sink.take(), (Lines{"left uplink", "removed uplink"}));

    ip("link set uplink master br0\n");
    ASSERT_TRUE(wait_for_name("uplink"));
    ip("link del uplink\n");
    ASSERT_TRUE(wait_for([&] { return sink.ports.empty(); }));
    EXPECT_EQ(sink.reports.back(), "removed uplink");
}

TEST_F(RtnlSwitchTest, AdminStateIsTheKernelsOwn) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;

    EXPECT_EQ(driver.set_admin(ifx, false), "");
    EXPECT_EQ(std::system("ip link show swp1 | grep -q 'state DOWN'"), 0);
    ASSERT_TRUE(wait_for([&] { return !sink.find("swp1")->admin_up; }));
    EXPECT_FALSE(sink.find("swp1")->oper_up);

    EXPECT_EQ(driver.set_admin(ifx, true), "");
    EXPECT_TRUE(wait_for_up("swp1"));
}

TEST_F(RtnlSwitchTest, OtherFlagsOfTheLinkStayAsTheyAre) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") +
       "link set swp1 arp off\n");
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    EXPECT_EQ(driver.set_admin(ifx, false), "");
    EXPECT_EQ(std::system("ip link show swp1 | grep -q NOARP"), 0);
    EXPECT_EQ(driver.set_admin(ifx, true), "");
    EXPECT_EQ(std::system("ip link show swp1 | grep -q NOARP"), 0);
}

TEST_F(RtnlSwitchTest, AcknowledgedAdminStateIsReportedBeforeTheCallReturns) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;

    EXPECT_EQ(driver.set_admin(ifx, false), "");
    EXPECT_FALSE(sink.find("swp1")->admin_up);
    EXPECT_FALSE(sink.find("swp1")->oper_up);
    EXPECT_EQ(driver.set_admin(ifx, true), "");
    EXPECT_TRUE(sink.find("swp1")->admin_up);
}

TEST_F(RtnlSwitchTest, PortThatIsGoneIsReportedBeforeARequestForItFails) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    ip("link del swp1\n");
    EXPECT_EQ(driver.set_admin(ifx, false), "cannot set swp1 down: No such device");
    EXPECT_EQ(sink.reports.back(), "removed swp1");
}

// The state must not flap through changes from before the request.
TEST_F(RtnlSwitchTest, OlderNotificationsAreTakenBeforeTheAcknowledgedState) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") + port_line("swp2"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1") && wait_for_up("swp2"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    // More than one turn of the loop reads.
    std::string flaps;
    for (int i = 0; i < 200; ++i) {
        flaps += "link set swp1 down\nlink set swp1 up\n";
    }
    ip(flaps + "link set swp2 down\n");

    EXPECT_EQ(driver.set_admin(ifx, false), "");
    EXPECT_FALSE(sink.find("swp1")->admin_up);
    EXPECT_FALSE(sink.find("swp2")->admin_up);
    sink.take();
    ip("link set swp2 up\n");
    ASSERT_TRUE(wait_for_up("swp2"));
    for (const std::string& report : sink.take()) {
        EXPECT_EQ(report, "changed swp2");
    }
}

TEST_F(RtnlSwitchTest, AdminStateChangedInsideAReportIsReportedBeforeThatCallReturns) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") + port_line("swp2"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1") && wait_for_up("swp2"));
    const uint32_t ifx = sink.find("swp2")->ifx;
    std::string refusal = "not asked";
    bool up_inside = true;
    sink.on_next_change = [&] {
        refusal = driver.set_admin(ifx, false);
        up_inside = sink.find("swp2")->admin_up;
    };
    ip("link set swp1 down\n");
    ASSERT_TRUE(wait_for([&] { return refusal != "not asked"; }));
    EXPECT_EQ(refusal, "");
    EXPECT_FALSE(up_inside);
    ip("link set swp1 up\n");
    ASSERT_TRUE(wait_for_up("swp1"));
    EXPECT_FALSE(sink.find("swp2")->admin_up);
}

// Inside a report the driver cannot read its notifications and asks the kernel for the state.
TEST_F(RtnlSwitchTest, RequestAfterTheKernelWasAskedForAStateGetsItsOwnAnswer) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") + port_line("swp2"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1") && wait_for_up("swp2"));
    const uint32_t ifx = sink.find("swp2")->ifx;
    Lines answers;
    sink.on_next_change = [&] {
        answers.push_back(driver.set_admin(ifx, false));
        ASSERT_EQ(seteuid(65534), 0);
        answers.push_back(driver.set_admin(ifx, true));
        ASSERT_EQ(seteuid(0), 0);
        answers.push_back(driver.set_admin(ifx, true));
    };
    ip("link set swp1 down\n");
    ASSERT_TRUE(wait_for([&] { return answers.size() == 3; }));
    EXPECT_EQ(answers, (Lines{"", "cannot set swp2 up: Operation not permitted", ""}));
    EXPECT_TRUE(sink.find("swp2")->admin_up);
}

// The kernel has acknowledged the state, though its answer cannot be kept.
TEST_F(RtnlSwitchTest, AdminStateThatFindsNoMemoryForTheKernelsAnswerIsTheAcknowledgedOne) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1") + port_line("swp2"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1") && wait_for_up("swp2"));
    const uint32_t ifx = sink.find("swp2")->ifx;
    std::string refusal = "not asked";
    std::string next_refusal = "not asked";
    sink.on_next_change = [&] {
        g_links_find_no_memory = true;
        EXPECT_NO_THROW(refusal = driver.set_admin(ifx, false));
        g_links_find_no_memory = false;
        next_refusal = driver.set_admin(ifx, true);
    };
    ip("link set swp1 down\n");
    ASSERT_TRUE(wait_for([&] { return next_refusal != "not asked"; }));
    EXPECT_EQ(refusal, "");
    EXPECT_EQ(next_refusal, "") << "the socket is in step with the kernel";
    EXPECT_TRUE(wait_for_up("swp2"));
}

TEST_F(RtnlSwitchTest, StateRevertedByAnotherProgramIsNotASuccess) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    g_after_acknowledgement = [] {
        ip("link set swp1 up\n");
    };
    EXPECT_EQ(driver.set_admin(ifx, false),
              "cannot set swp1 down: another program has changed it back");
    EXPECT_TRUE(sink.find("swp1")->admin_up);
    EXPECT_EQ(platform.log.lines(),
              Lines{"PORT-3-ADMIN: swp1 cannot be shut: another program has changed it back."});
}

TEST_F(RtnlSwitchTest, PortThatAnotherProgramShutsAtOnceWasBroughtUp) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    EXPECT_EQ(driver.set_admin(ifx, false), "");
    g_after_acknowledgement = [] {
        ip("link set swp1 down\n");
    };
    EXPECT_EQ(driver.set_admin(ifx, true), "");
    EXPECT_FALSE(sink.find("swp1")->admin_up);
    EXPECT_EQ(platform.log.lines(),
              Lines{"PORT-4-SHUT: swp1 was brought up, and another program has shut it at once."});
}

TEST_F(RtnlSwitchTest, RefusedAdminStateIsLoggedOnceWithItsReasonAndOnceWhenItWorksAgain) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp3"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp3"));
    const uint32_t ifx = sink.find("swp3")->ifx;

    ASSERT_EQ(seteuid(65534), 0);
    driver.set_admin(ifx, false);
    driver.set_admin(ifx, false);
    driver.set_admin(ifx, true);
    ASSERT_EQ(seteuid(0), 0);
    Lines expected{
        "PORT-3-ADMIN: swp3 cannot be shut: Operation not permitted; the process lacks "
        "CAP_NET_ADMIN.",
        "PORT-3-ADMIN: swp3 cannot be brought up: Operation not permitted; the process "
        "lacks CAP_NET_ADMIN."};
    EXPECT_EQ(platform.log.lines(), expected);
    EXPECT_TRUE(sink.find("swp3")->admin_up);

    EXPECT_EQ(driver.set_admin(ifx, false), "");
    EXPECT_EQ(driver.set_admin(ifx, true), "");
    EXPECT_EQ(driver.set_admin(ifx, false), "");
    expected.push_back("PORT-6-ADMIN: swp3 can be shut again.");
    expected.push_back("PORT-6-ADMIN: swp3 can be brought up again.");
    EXPECT_EQ(platform.log.lines(), expected);

    ip("link del swp3\n");
    driver.set_admin(ifx, true);
    expected.push_back("PORT-3-ADMIN: swp3 cannot be brought up: No such device.");
    EXPECT_EQ(platform.log.lines(), expected);
}

TEST_F(RtnlSwitchTest, OperStateFollowsThePeer) {
    ip("link add br0 type bridge\nlink set br0 up\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_up("swp1"));
    ip("link set p-swp1 down\n");
    ASSERT_TRUE(wait_for([&] { return !sink.find("swp1")->oper_up; }));
    EXPECT_TRUE(sink.find("swp1")->admin_up);
}

TEST_F(RtnlSwitchTest, RefusedRequestsCarryTheKernelsReason) {
    ip("link add br0 type bridge\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    EXPECT_EQ(driver.set_admin(1, false), "no such port");
    driver.start(sink);
    ASSERT_TRUE(wait_for_name("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;

    EXPECT_EQ(driver.set_admin(99999, false), "no such port");
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_EQ(driver.set_admin(ifx, false), "cannot set swp1 down: Operation not permitted");
    ASSERT_EQ(seteuid(0), 0);
    ip("link del swp1\n");  // the driver does not know yet
    EXPECT_EQ(driver.set_admin(ifx, true), "cannot set swp1 up: No such device");
}

TEST_F(RtnlSwitchTest, ModeIsAccessUntilSetAndRefusedWhenUnknown) {
    ip("link add br0 type bridge\n" + port_line("swp1"));
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for_name("swp1"));
    const uint32_t ifx = sink.find("swp1")->ifx;
    EXPECT_EQ(sink.find("swp1")->mode, 1u);
    EXPECT_EQ(driver.set_mode(ifx, 7), "");
    EXPECT_EQ(sink.find("swp1")->mode, 7u);
    EXPECT_EQ(driver.set_mode(ifx, 3), "no such VLAN mode");
    EXPECT_EQ(driver.set_mode(99999, 2), "no such port");
    EXPECT_EQ(sink.find("swp1")->mode, 7u);
}

TEST_F(RtnlSwitchTest, BridgeMayAppearLaterVanishAndReturn) {
    RtnlSwitch driver(loop, "br0");
    driver.start(sink);
    ASSERT_TRUE(wait_for([&] { return !sink.reports.empty(); }));
    EXPECT_EQ(sink.take(), Lines{"complete"});
    const std::string missing =
        "PORT-4-BRIDGE: There is no bridge br0: waiting for it, without ports until then.";
    const std::string appeared =
        "PORT-6-BRIDGE: Bridge br0 has appeared: its members are the ports.";
    EXPECT_EQ(platform.log.lines(), Lines{missing});

    ip("link add br0 type bridge\n" + port_line("swp1") + port_line("swp2"));
    ASSERT_TRUE(wait_for([&] { return sink.ports.size() == 2; }));
    ip("link del br0\n");
    ASSERT_TRUE(wait_for([&] { return sink.ports.empty(); }));
    ip("link add br0 type bridge\nlink set swp2 master br0\n");
    ASSERT_TRUE(wait_for_name("swp2"));
    EXPECT_EQ(sink.ports.size(), 1u);
    EXPECT_EQ(platform.log.lines(), (Lines{missing, appeared, missing, appeared}));

    // A bridge with another name is not ours.
    ip("link set br0 name br1\n");
    ASSERT_TRUE(wait_for([&] { return sink.ports.empty(); }));
    ip("link set br1 name br0\n");
    ASSERT_TRUE(wait_for_name("swp2"));
}

TEST_F(RtnlSwitchTest, ReportsTheIndexOfTheBridge) {
    ip("link add br0 type bridge\nlink add br1 type bridge\n");
    RtnlSwitch driver(loop, "br0");
    EXPECT_EQ(driver.bridge(), 0u);
    driver.start(sink);
    ASSERT_TRUE(wait_for([&] { return !sink.reports.empty(); }));
    EXPECT_EQ(driver.bridge(), if_nametoindex("br0"));
    ip("link set br0 name br2\n");
    EXPECT_TRUE(wait_for([&] { return driver.bridge() == 0; }));
    ip("link set br1 name br0\n");
    EXPECT_TRUE(wait_for([&] { return driver.bridge() == if_nametoindex("br0"); }));
    ip("link del br0\n");
    EXPECT_TRUE(wait_for([&] { return driver.bridge() == 0; }));
}

// Every link of a hundred pairs down and up, `rounds` times, then changes of every kind.
std::string flapping(int rounds) {
    std::string lines;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < 100; ++i) {
            const std::string name = "e" + std::to_string(i);
            lines += "link set " + name + " down\nlink set p-" + name + " down\n";
            lines += "link set " + name + " up\nlink set p-" + name + " up\n";
        }
    }
    lines += "link set e0 down\nlink del e1\nlink set e2 nomaster\n";
    lines += "link set e3 down\nlink set e3 name e1\n" + port_line("fresh");
    return lines;
}

// A receive buffer with room for barely one notification.
struct RtnlSwitchOverrunTest : RtnlSwitchTest {
    static constexpr int kTinyBuffer = 2048;

    void add_hundred_ports() {
        std::string add = "link add br0 type bridge\nlink set br0 up\n";
        for (int i = 0; i < 100; ++i) {
            add += port_line("e" + std::to_string(i));
        }
        ip(add);
    }

    // The state that flapping() leaves behind.
    bool settled() const {
        const Port* const e0 = sink.find("e0");
        const Port* const e1 = sink.find("e1");
        const Port* const fresh = sink.find("fresh");
        const Port* const last = sink.find("e99");
        return sink.ports.size() == 99 && e0 != nullptr && !e0->admin_up && e1 != nullptr &&
               !e1->admin_up && fresh != nullptr && fresh->admin_up && last != nullptr &&
               last->admin_up && last->oper_up && sink.find("e3") == nullptr;
    }

    void expect_the_kernels_state() {
        EXPECT_EQ(sink.find("e2"), nullptr);
        EXPECT_EQ(sink.find("e1")->ifx, if_nametoindex("e1"));
        // The new socket receives later changes.
        ip("link set e99 down\n");
        EXPECT_TRUE(wait_for([&] { return !sink.find("e99")->admin_up; }));
    }
};

TEST_F(RtnlSwitchOverrunTest, TwoHundredLinksFlappingBetweenTwoLooksLoseNothing) {
    add_hundred_ports();
    RtnlSwitch driver(loop, "br0", kTinyBuffer);
    driver.start(sink);
    ASSERT_TRUE(wait_for([&] { return sink.ports.size() == 100; }));
    ip(flapping(3));
    ASSERT_TRUE(wait_for([&] { return settled(); }));
    EXPECT_GE(driver.resyncs(), 1u);
    expect_the_kernels_state();
}

TEST_F(RtnlSwitchOverrunTest, AcknowledgedAdminStateIsReportedAlthoughItsNotificationIsLost) {
    add_hundred_ports();
    RtnlSwitch driver(loop, "br0", kTinyBuffer);
    driver.start(sink);
    ASSERT_TRUE(wait_for([&] { return sink.ports.size() == 100 && sink.find("e50")->oper_up; }));
    ip(flapping(1));
    const unsigned before = driver.resyncs();
    EXPECT_EQ(driver.set_admin(sink.find("e50")->ifx, false), "");
    EXPECT_EQ(driver.resyncs(), before) << "not read again yet";
    EXPECT_FALSE(sink.find("e50")->admin_up);
    EXPECT_FALSE(sink.find("e50")->oper_up);
    ASSERT_TRUE(wait_for([&] { return settled(); }));
    EXPECT_GT(driver.resyncs(), before);
    EXPECT_FALSE(sink.find("e50")->admin_up);
}

TEST_F(RtnlSwitchOverrunTest, TwoHundredLinksFlappingWhileAllIsReadAgainLoseNothing) {
    add_hundred_ports();
    RtnlSwitch driver(loop, "br0", kTinyBuffer);
    driver.start(sink);
    const test::TemporaryDirectory directory;
    const std::string command = "ip -batch " + directory.write("flapping", flapping(10));
    FILE* const running = popen(command.c_str(), "r");
    ASSERT_NE(running, nullptr);
    EXPECT_TRUE(wait_for([&] { return settled(); }));
    EXPECT_EQ(pclose(running), 0);
    EXPECT_GE(driver.resyncs(), 1u);
    expect_the_kernels_state();
}

}  // namespace
}  // namespace qv
