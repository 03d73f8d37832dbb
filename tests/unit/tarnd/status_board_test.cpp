#include "services/tarnd/status_board.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace qv::tarnd {
namespace {

using Lines = std::vector<std::string>;
using std::chrono::microseconds;

constexpr uint32_t kAccess = 1, kTrunk = 2;

struct StatusBoardTest : testing::Test {
    StatusBoardTest() {
        board.observe([this](const BoardEvent& event) {
            const char* const kinds[] = {"state",      "loop",       "end",   "cut",
                                         "cut failed", "given back", "asked", "returned"};
            lines.push_back(std::string(kinds[static_cast<size_t>(event.kind)]) + " " +
                            std::to_string(event.ifx));
        });
        board.enable(true);
    }

    void port(uint32_t ifx, bool present, bool forwarding) {
        board.take({.kind = Report::Kind::kPort,
                    .ifx = ifx,
                    .present = present,
                    .forwarding = forwarding});
    }
    // A port that is watched and forwards.
    void add_port(uint32_t ifx) {
        board.configure(ifx, {.watched = true, .vlan_mode = kAccess});
        port(ifx, true, true);
        lines.clear();
    }
    void loop(uint32_t ifx, uint32_t src_ifx, Trigger trigger = Trigger::kMove, uint16_t vid = 0,
              uint16_t src_vid = 0) {
        board.take({.kind = Report::Kind::kLoop,
                    .ifx = ifx,
                    .src_ifx = src_ifx,
                    .vid = vid,
                    .src_vid = src_vid,
                    .trigger = trigger,
                    .path = microseconds(40)});
    }
    void end(uint32_t ifx, uint32_t src_ifx, uint16_t src_vid = 0) {
        board.take(
            {.kind = Report::Kind::kEnd, .ifx = ifx, .src_ifx = src_ifx, .src_vid = src_vid});
    }
    std::string state(uint32_t ifx) {
        const auto status = board.status(ifx);
        return status ? state_text(status->state) : "absent";
    }
    Lines take_lines() { return std::exchange(lines, {}); }

    StatusBoard board;
    Lines lines;
};

TEST_F(StatusBoardTest, APortIsOffUntilItIsWatchedAndInactiveUntilItForwards) {
    port(3, true, true);
    EXPECT_EQ(state(3), "off");
    board.configure(3, {.watched = true, .vlan_mode = kTrunk, .guard_ms = 30});
    EXPECT_EQ(state(3), "probing");
    EXPECT_EQ(board.status(3)->vlan_mode, kTrunk);
    EXPECT_EQ(board.status(3)->guard_ms, 30u);
    port(3, true, false);
    EXPECT_EQ(state(3), "inactive");
    board.enable(false);
    EXPECT_EQ(state(3), "off");
    EXPECT_EQ(take_lines(), (Lines{"state 3", "state 3", "state 3", "state 3"}));
}

TEST_F(StatusBoardTest, AClosedPortIsGuardedWhileItsLinkIsUp) {
    add_port(1);
    const auto guard = [this](bool closed, int error = 0) {
        board.take({.kind = Report::Kind::kGuard, .ifx = 1, .error = error, .closed = closed});
        return state(1);
    };
    EXPECT_EQ(guard(true), "guarded");
    port(1, true, false);
    EXPECT_EQ(state(1), "inactive");
    port(1, true, true);
    EXPECT_EQ(guard(false, EPERM), "guarded");
    EXPECT_EQ(guard(false), "probing");
    EXPECT_EQ(guard(true, EPERM), "probing");
}

TEST_F(StatusBoardTest, BothPortsOfALoopAreLoopedUntilItEnds) {
    add_port(1);
    add_port(2);
    add_port(3);
    loop(2, 1);
    EXPECT_EQ(take_lines(), (Lines{"loop 2", "state 2", "state 1"}));
    EXPECT_EQ(state(1), "looped");
    EXPECT_EQ(state(2), "looped");
    EXPECT_EQ(state(3), "probing");
    ASSERT_TRUE(board.status(1)->loop.has_value());
    EXPECT_EQ(board.status(1)->loop->ifx, 2u);
    EXPECT_EQ(board.status(1)->loop->src_ifx, 1u);
    EXPECT_EQ(board.status(1)->loop->vid, 1u);
    EXPECT_EQ(board.status(1)->loop->path, Duration(microseconds(40)));
    EXPECT_EQ(trigger_text(board.status(2)->loop->trigger), "move");
    loop(1, 2);
    end(2, 1);
    EXPECT_EQ(state(1), "looped");
    end(1, 2);
    EXPECT_EQ(state(1), "probing");
    EXPECT_EQ(state(2), "probing");
    EXPECT_TRUE(board.status(2)->loop.has_value()) << "the latest loop stays on the board";
    EXPECT_FALSE(board.status(3)->loop.has_value());
}

TEST_F(StatusBoardTest, APortIsLoopedUntilItsLoopInEveryVlanHasEnded) {
    add_port(1);
    add_port(2);
    loop(2, 1);
    loop(2, 1, Trigger::kPeriod, 7, 7);
    loop(2, 1, Trigger::kPeriod, 9, 8);
    EXPECT_EQ(board.status(1)->loop->vid, 9u);
    EXPECT_EQ(board.status(1)->loop->src_vid, 8u);
    end(2, 1);
    end(2, 1, 8);
    EXPECT_EQ(state(1), "looped");
    EXPECT_EQ(state(2), "looped");
    end(2, 1, 7);
    EXPECT_EQ(state(1), "probing");
    EXPECT_EQ(state(2), "probing");
}

TEST_F(StatusBoardTest, ACutPortIsCutUntilTheSwitchOwnsItOrItIsGivenBack) {
    add_port(1);
    board.take({.kind = Report::Kind::kCut, .ifx = 1});
    board.begin_cut(1);
    EXPECT_EQ(state(1), "cut");
    board.configure(1, {.watched = true, .shut = true, .vlan_mode = kAccess});
    board.end_cut(1);
    EXPECT_EQ(state(1), "shut");
    board.configure(1, {.watched = true, .vlan_mode = kAccess});
    board.begin_cut(1);
    lines.clear();
    board.give_back(1, 0);
    EXPECT_EQ(state(1), "probing");
    EXPECT_EQ(take_lines(), (Lines{"given back 1", "state 1"}));
}

TEST_F(StatusBoardTest, APortThatCannotBeGivenBackIsStillCut) {
    add_port(1);
    board.begin_cut(1);
    board.give_back(1, EPERM);
    EXPECT_EQ(state(1), "cut");
    board.give_back(1, ENODEV);
    EXPECT_EQ(state(1), "probing");
}

TEST_F(StatusBoardTest, APortThatHasLeftTheBridgeIsAbsentAndKeepsItsConfiguration) {
    add_port(5);
    add_port(7);
    EXPECT_EQ(board.ports(), (std::vector<uint32_t>{5, 7}));
    EXPECT_EQ(board.next_port(0), 5u);
    EXPECT_EQ(board.next_port(5), 7u);
    EXPECT_EQ(board.next_port(7), 0u);
    port(5, false, false);
    EXPECT_EQ(state(5), "absent");
    EXPECT_EQ(board.ports(), std::vector<uint32_t>{7});
    port(5, true, true);
    EXPECT_EQ(state(5), "probing");
    board.forget_configuration(5);
    EXPECT_EQ(state(5), "off");
}

// The probing thread's own numbers.
struct Thread {
    uint64_t counted(Counted what) const { return 100 + static_cast<uint64_t>(what); }
    uint64_t ignored(Ignored why) const { return 200 + static_cast<uint64_t>(why); }
};

TEST_F(StatusBoardTest, CountersAreThoseOfTheThreadAndOfTheReports) {
    loop(1, 2, Trigger::kPeriod);
    loop(1, 2, Trigger::kMove);
    loop(1, 2, Trigger::kMove);
    loop(1, 2, Trigger::kCarrier);
    loop(1, 2, Trigger::kOverrun);
    board.take({.kind = Report::Kind::kCut, .ifx = 1});
    board.take({.kind = Report::Kind::kCut, .ifx = 1, .error = EPERM});
    board.give_back(1, 0);
    board.give_back(1, EPERM);
    const PBridge__TarnCounters counters = board.counters(Thread{});
    EXPECT_EQ(counters.loops_period, 1u);
    EXPECT_EQ(counters.loops_move, 2u);
    EXPECT_EQ(counters.loops_carrier, 1u);
    EXPECT_EQ(counters.loops_overrun, 1u);
    EXPECT_EQ(counters.cuts, 1u);
    EXPECT_EQ(counters.cuts_failed, 1u);
    EXPECT_EQ(counters.given_back, 1u);
    EXPECT_EQ(counters.sent, 100u);
    EXPECT_EQ(counters.not_sent, 101u);
    EXPECT_EQ(counters.returned, 102u);
    EXPECT_EQ(counters.leaked, 103u);
    EXPECT_EQ(counters.malformed, 200u);
    EXPECT_EQ(counters.forged, 201u);
    EXPECT_EQ(counters.foreign, 202u);
    EXPECT_EQ(counters.blocked, 203u);
    EXPECT_EQ(counters.stale, 204u);
    EXPECT_EQ(counters.duplicate, 205u);
    EXPECT_EQ(counters.late, 206u);
}

}  // namespace
}  // namespace qv::tarnd
