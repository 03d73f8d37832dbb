// Cuts and guarded ports when the kernel refuses a change, or its answer is lost.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "services/tarnd/link_cut.h"
#include "services/tarnd/link_guard.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/tarnd/kernel_script.h"

namespace qv::tarnd {
namespace {

using test::kernel;
using test::kUnanswered;
using test::kUnsent;
using Lines = std::vector<std::string>;
using Ports = std::vector<uint32_t>;

constexpr int kRefusals[] = {EPERM, ENOBUFS, ENETDOWN, ENODEV};
const PortFlags kFormer{.locked = 0, .learning = 1, .flood = 1, .mcast_flood = 0};

struct PortTrouble : testing::Test {
    PortTrouble() {
        kernel() = {};
        kernel().links[7].flags = kFormer;
    }
    static test::KernelLink& link() { return kernel().links.at(7); }
    static Lines take_requests() { return std::exchange(kernel().requests, {}); }
    void fill(CutJournal& journal) const {
        for (uint32_t ifx = 1000; journal.note(ifx); ++ifx) {
        }
    }

    qv::test::TemporaryDirectory folder;
    CutJournal cuts{folder.file("cuts"), "boot"};
    CutJournal guards{folder.file("guards"), "boot"};
    PortControl control;
    LinkCut cut{control, cuts};
    LinkGuard guard{control, guards};
};

TEST_F(PortTrouble, EveryRequestReturnsTheErrorOfTheKernel) {
    for (const int error : kRefusals) {
        kernel().answers = {error, error, error, error};
        PortFlags flags;
        EXPECT_EQ(control.set_up(7, false), error);
        EXPECT_EQ(control.set_state(7, 0), error);
        EXPECT_EQ(control.read_flags(7, flags), error);
        EXPECT_EQ(control.set_flags(7, kClosed), error);
        EXPECT_EQ(flags, PortFlags{});
    }
    EXPECT_TRUE(link().up);
    EXPECT_FALSE(link().blocked);
    EXPECT_EQ(link().flags, kFormer);
}

TEST_F(PortTrouble, RequestWithoutAnAnswerIsAnInputOutputError) {
    for (const int loss : {kUnsent, kUnanswered}) {
        kernel().answers = {loss, loss, loss, loss};
        PortFlags flags;
        EXPECT_EQ(control.set_up(7, true), EIO);
        EXPECT_EQ(control.set_state(7, 0), EIO);
        EXPECT_EQ(control.read_flags(7, flags), EIO);
        EXPECT_EQ(control.set_flags(7, kFormer), EIO);
    }
    PortFlags flags;
    EXPECT_EQ(control.read_flags(7, flags), 0);
    EXPECT_EQ(flags, kFormer);
}

TEST_F(PortTrouble, CutThatIsRefusedIsNotNoted) {
    for (const int error : kRefusals) {
        kernel().answers = {error};
        EXPECT_EQ(cut.cut(7, false), error);
        EXPECT_EQ(cuts.noted(), Ports{});
        kernel().answers = {error, error};
        EXPECT_EQ(cut.cut(7, true), error);
        EXPECT_EQ(cuts.noted(), Ports{});
    }
    EXPECT_TRUE(link().up);
    EXPECT_EQ(cut.cut(7, false), 0);
    EXPECT_FALSE(link().up);
    EXPECT_EQ(cuts.noted(), Ports{7});
}

TEST_F(PortTrouble, PortThatIsOnlyBlockedIsCut) {
    for (const int error : {EPERM, ENOBUFS, ENETDOWN}) {
        kernel().answers = {0, error};
        EXPECT_EQ(cut.cut(7, true), 0) << error;
        EXPECT_TRUE(link().blocked);
        EXPECT_EQ(cuts.noted(), Ports{7});
        EXPECT_EQ(cut.give_back(7), 0);
        EXPECT_FALSE(link().blocked);
        EXPECT_EQ(cuts.noted(), Ports{});
    }
}

TEST_F(PortTrouble, CutThatIsMadeWhileThePortIsGivenBackStaysNoted) {
    PortControl probing_thread;
    LinkCut again{probing_thread, cuts};
    EXPECT_EQ(cut.cut(7, false), 0);
    kernel().meanwhile = [&] {
        EXPECT_EQ(again.cut(7, false), 0);
    };
    EXPECT_EQ(cut.give_back(7), 0);
    EXPECT_EQ(take_requests(), (Lines{"down 7", "down 7", "up 7", "down 7"}));
    EXPECT_FALSE(link().up);
    EXPECT_EQ(cuts.noted(), Ports{7});
    EXPECT_EQ(cut.give_back(7), 0);
    EXPECT_TRUE(link().up);
    EXPECT_EQ(cuts.noted(), Ports{});
}

TEST_F(PortTrouble, CutIsMadeWhenSpanningTreeKeepsThePortsState) {
    kernel().answers = {EBUSY};
    EXPECT_EQ(cut.cut(7, true), 0);
    EXPECT_EQ(take_requests(), (Lines{"block 7", "down 7"}));
    EXPECT_FALSE(link().up);
}

TEST_F(PortTrouble, CutWhoseAnswerIsLostStaysNoted) {
    kernel().answers = {kUnanswered};
    EXPECT_EQ(cut.cut(7, false), EIO);
    EXPECT_FALSE(link().up);
    EXPECT_EQ(cuts.noted(), Ports{7});
    EXPECT_EQ(cut.give_back(7), 0);
    EXPECT_TRUE(link().up);

    kernel().answers = {kUnanswered, EPERM};
    EXPECT_EQ(cut.cut(7, true), EPERM);
    EXPECT_TRUE(link().blocked);
    EXPECT_EQ(cuts.noted(), Ports{7});
}

TEST_F(PortTrouble, NoCutIsMadeThatCannotBeNoted) {
    fill(cuts);
    EXPECT_EQ(cut.cut(7, true), ENOSPC);
    EXPECT_EQ(take_requests(), Lines{});
}

TEST_F(PortTrouble, CutThatCannotBeUndoneStaysNoted) {
    for (const int error : {EPERM, ENOBUFS, ENETDOWN, kUnsent}) {
        const int result = error == kUnsent ? EIO : error;
        ASSERT_EQ(cut.cut(7, false), 0);
        kernel().answers = {0, error};
        EXPECT_EQ(cut.give_back(7), result);
        EXPECT_EQ(cuts.noted(), Ports{7});
        kernel().answers = {error};
        EXPECT_EQ(cut.give_back(7), result) << "an unfinished cut may still block the port";
        EXPECT_TRUE(link().up);
        EXPECT_EQ(cuts.noted(), Ports{7});
        EXPECT_EQ(cut.give_back(7), 0);
        EXPECT_EQ(cuts.noted(), Ports{});
    }
}

TEST_F(PortTrouble, CutOfAnInterfaceThatIsGoneIsForgotten) {
    ASSERT_EQ(cut.cut(7, false), 0);
    kernel().links.clear();
    EXPECT_EQ(cut.give_back(7), ENODEV);
    EXPECT_EQ(cuts.noted(), Ports{});
}

TEST_F(PortTrouble, PortThatCannotBeClosedIsNotNoted) {
    for (const int error : kRefusals) {
        kernel().answers = {error};
        EXPECT_EQ(guard.close(7), error);
        kernel().answers = {0, error};
        EXPECT_EQ(guard.close(7), error);
        EXPECT_EQ(guards.noted(), Ports{});
    }
    EXPECT_EQ(link().flags, kFormer);
    link().is_port = false;
    EXPECT_EQ(guard.close(7), EINVAL);
    EXPECT_EQ(guards.noted(), Ports{});
}

TEST_F(PortTrouble, PortWhoseClosingIsNotAnsweredIsOpenedAllTheSame) {
    kernel().answers = {0, kUnanswered};
    EXPECT_EQ(guard.close(7), EIO);
    EXPECT_EQ(link().flags, kClosed);
    EXPECT_EQ(guards.noted(), Ports{7});
    EXPECT_EQ(guard.open(7), 0);
    EXPECT_EQ(link().flags, kFormer);
    EXPECT_EQ(guards.noted(), Ports{});
}

TEST_F(PortTrouble, NoPortIsClosedThatCannotBeNoted) {
    fill(guards);
    EXPECT_EQ(guard.close(7), ENOSPC);
    EXPECT_EQ(link().flags, kFormer);
}

TEST_F(PortTrouble, PortThatCannotBeOpenedKeepsItsNote) {
    ASSERT_EQ(guard.close(7), 0);
    for (const int error : {EPERM, ENOBUFS, ENETDOWN, kUnsent}) {
        const int result = error == kUnsent ? EIO : error;
        kernel().answers = {error};
        EXPECT_EQ(guard.open(7), result);
        kernel().answers = {0, error};
        EXPECT_EQ(guard.open(7), result);
        EXPECT_EQ(link().flags, kClosed);
        EXPECT_EQ(guards.notes(), (std::vector<CutJournal::Note>{{7, pack(kFormer)}}));
    }
    EXPECT_EQ(guard.open(7), 0);
    EXPECT_EQ(link().flags, kFormer);
    EXPECT_EQ(guards.noted(), Ports{});
}

TEST_F(PortTrouble, PortThatIsGoneOrHasLeftItsBridgeIsOpen) {
    ASSERT_EQ(guard.close(7), 0);
    link().is_port = false;
    EXPECT_EQ(guard.open(7), 0);
    EXPECT_EQ(guards.noted(), Ports{});
    link() = {};
    ASSERT_EQ(guard.close(7), 0);
    kernel().links.clear();
    EXPECT_EQ(guard.open(7), 0);
    EXPECT_EQ(guards.noted(), Ports{});
}

}  // namespace
}  // namespace qv::tarnd
