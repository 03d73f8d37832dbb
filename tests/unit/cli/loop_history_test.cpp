// The events of loops: which there are, "show loop-detect history", and their file.
#include "platform/cli/loop_history.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/cli/loop_history_text.h"
#include "tests/unit/cli/errdisable_fixture.h"
#include "tests/unit/cli/operator_session.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

constexpr char kHeading[] =
    "Time                Port             Action       Source     Other port       VLAN  "
    "Duration/s Times Reason\n";

class LoopHistory : public Errdisable {
 protected:
    std::string file() const { return rig.saved() + ".history"; }
    Lines log() const { return logged(rig.platform.log, "CLI-3-HISTORY"); }
    // What an earlier process wrote. The rig's own keeper has looked for a file already.
    void was_written(const std::deque<cli::LoopEvent>& events) {
        write_text(file(), cli::history_text(events));
    }
    // "PORT ACTION" of each event in the file.
    Lines written() const {
        const cli::ReadHistory history = cli::read_history(read_text(file()));
        Lines lines;
        for (const cli::LoopEvent& event : history.events) {
            lines.push_back(event.port + " " + cli::action_name(event.action));
        }
        return history.intact ? lines : Lines{"not intact"};
    }
    static cli::LoopEvent event(const std::string& port, cli::LoopAction action,
                                std::chrono::seconds ago) {
        cli::LoopEvent made;
        made.time = *g_wall_time - ago;
        made.port = port;
        made.action = action;
        return made;
    }
    // A keeper that starts now, as in a new process.
    std::unique_ptr<cli::LoopHistory> restarted() {
        return std::make_unique<cli::LoopHistory>(rig.platform.loop(), rig.platform.background(),
                                                  file());
    }
};

// ---- Events ----

TEST_F(LoopHistory, StoryOfALoopIsShown) {
    EXPECT_EQ(rig.type("show loop-detect history"), kHeading);
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 10}, true);
    held.loop_found("swp1");
    held.loop_found("swp1");
    pass(1s);
    hold(101);
    pass(299s);
    rig.hardware.refusal = "Device or resource busy";
    bring_back(101);
    rig.hardware.refusal = "";
    pass(300s);
    bring_back(101);
    pass(60s);
    held.loop_ended("swp1");
    held.loop_ended("swp1");
    EXPECT_EQ(rig.type("show loop-detect history"),
              std::string(kHeading) +
                  "2026-01-31 23:00:00 swp1             loop found   tarn       swp2             "
                  "10    -          -     -\n"
                  "2026-01-31 23:00:01 swp1             shut         tarn       swp2             "
                  "10    -          -     -\n"
                  "2026-01-31 23:05:00 swp1             refused      tarn       swp2             "
                  "10    -          -     Device or resource busy\n"
                  "2026-01-31 23:10:00 swp1             brought back tarn       swp2             "
                  "10    599        -     -\n"
                  "2026-01-31 23:11:00 swp1             recovered    tarn       swp2             "
                  "10    660        -     -\n");
}

TEST_F(LoopHistory, AnswerIsAVersionedObject) {
    held.loop_found("swp1");
    pass(1s);
    held.loop_ended("swp1");
    EXPECT_EQ(
        rig.type("show loop-detect history | json"),
        R"({"version":1,"events":[{"time":"2026-01-31 23:00:00","port":"swp1",)"
        R"("action":"loop found","sources":["storm"],"other_port":null,"vlan":null,)"
        R"("duration_s":null,"times":null,"reason":null},{"time":"2026-01-31 23:00:01","port":"swp1",)"
        R"("action":"recovered","sources":["storm"],"other_port":null,"vlan":null,)"
        R"("duration_s":1,"times":null,"reason":null}]})"
        "\n");
}

TEST_F(LoopHistory, RefusedShutdownIsAnEvent) {
    rig.hardware.refusal = "Operation not permitted";
    hold(101);
    EXPECT_NE(rig.type("show loop-detect history | include refused .*Operation not permitted"), "");
    EXPECT_EQ(rig.type("show loop-detect history | include shut "), "");
}

TEST_F(LoopHistory, OperatorsLinesAreNoEvents) {
    operator_types(101, "shutdown");
    operator_types(101, "no shutdown");
    rig.hardware.refusal = "Operation not permitted";
    operator_types(101, "shutdown");
    EXPECT_EQ(rig.type("show loop-detect history"), kHeading);
}

TEST_F(LoopHistory, OperatorWhoOpensAHeldPortBringsItBack) {
    hold(101);
    pass(7s);
    operator_types(101, "no shutdown");
    EXPECT_NE(rig.type("show loop-detect history | include brought back .* 7 "), "");
}

TEST_F(LoopHistory, LateProbeCorrectsOnlyThePresentLoop) {
    held.loop_found("swp1");
    pass(2s);
    hold(101);
    bring_back(101);
    held.loop_ended("swp1");
    held.loop_found("swp1");
    hold(101);
    held.probe_reports({.ifx = 101, .src_ifx = 101, .vid = 1}, true);
    Lines sources;
    for (const cli::LoopEvent& known : held.events()) {
        std::string names;
        for (const std::string& name : cli::source_names(known.facts)) {
            names += name;
        }
        sources.push_back(names);
    }
    EXPECT_EQ(sources, (Lines{"storm", "storm", "storm", "storm", "tarn", "tarn"}));
}

TEST_F(LoopHistory, ShutdownBeforeTheLoopHasNoPartInIt) {
    hold(101);  // somebody has typed the mark
    held.loop_found("swp1");
    held.probe_reports({.ifx = 101, .src_ifx = 102, .vid = 1}, true);
    ASSERT_EQ(held.events().size(), 2U);
    EXPECT_EQ(held.events()[0].facts, cli::LoopFacts{});
    EXPECT_TRUE(held.events()[1].facts.tarn);
}

TEST_F(LoopHistory, OnlyTheNewestThousandAreKept) {
    held.loop_found("first");
    for (int i = 0; i < 500; ++i) {
        held.loop_found("swp1");
        held.loop_ended("swp1");
    }
    EXPECT_EQ(held.events().size(), 1000U);
    EXPECT_EQ(held.events().front().port, "swp1");
}

// ---- The file ----

TEST_F(LoopHistory, EventsAreWrittenWithinASecond) {
    held.loop_found("swp1");
    hold(101);
    rig.platform.run_for(999ms);
    EXPECT_FALSE(std::filesystem::exists(file()));
    rig.platform.run_for(1ms);
    EXPECT_EQ(written(), (Lines{"swp1 loop found", "swp1 shut"}));
    rig.platform.run_for(1s);
    EXPECT_TRUE(cli::read_history(read_text(file())).events[0].facts.storm)
        << "decided during the first write";
    hold(102);
    rig.platform.run_for(1s);
    EXPECT_EQ(written(), (Lines{"swp1 loop found", "swp1 shut", "swp2 shut"}));
}

TEST_F(LoopHistory, EventsOfTheLastSecondAreWrittenAtTheEnd) {
    cli::loop_history()->save_last();
    EXPECT_FALSE(std::filesystem::exists(file())) << "there is nothing to write";
    hold(101);
    cli::loop_history()->save_last();
    EXPECT_EQ(written(), Lines{"swp1 shut"});
}

TEST_F(LoopHistory, SurvivesARestart) {
    using cli::LoopAction;
    cli::LoopEvent shut = event("swp1", LoopAction::kShut, 1h);
    shut.facts = {.tarn = true, .storm = false, .other_port = "swp2", .vlan = 10};
    was_written({shut, event("swp2", LoopAction::kShut, 1h),
                 event("swp2", LoopAction::kBroughtBack, 30min)});
    change(101, [](Port& port) { port.admin_up = false; });
    const auto keeper = restarted();
    EXPECT_EQ(rig.type("show loop-detect history | count"), "4\n");
    EXPECT_EQ(held.find("swp2"), nullptr);
    hold(101);  // the agent repeats its line when it knows its mark again
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop tarn swp2 10 2026-01-31 22:00:00 300 1 -");
    EXPECT_EQ(held.events().size(), 3U);
    bring_back(101);
    EXPECT_EQ(held.events().back().duration, 1h);
    EXPECT_EQ(log(), Lines{});
}

TEST_F(LoopHistory, PortThatCameUpBetweenTwoProcessesIsShutAnew) {
    was_written({event("swp1", cli::LoopAction::kShut, 1h)});
    const auto keeper = restarted();
    hold(101);
    EXPECT_EQ(row("show errdisable", "swp1"), "swp1 loop - - - 2026-01-31 23:00:00 300 2 -");
}

TEST_F(LoopHistory, PortThatIsUpAfterTheReplayHasComeBack) {
    was_written({event("swp1", cli::LoopAction::kShut, 1h)});
    const auto keeper = restarted();
    start();
    ASSERT_EQ(held.events().size(), 2U);
    EXPECT_EQ(held.events().back().action, cli::LoopAction::kBroughtBack);
    EXPECT_EQ(held.find("swp1"), nullptr);
}

TEST_F(LoopHistory, ClockThatWasSetBackGivesNoNegativeTime) {
    was_written({event("swp1", cli::LoopAction::kShut, -1h)});
    change(101, [](Port& port) { port.admin_up = false; });
    const auto keeper = restarted();
    hold(101);
    bring_back(101);
    EXPECT_EQ(held.events().back().duration, 0s);
}

TEST_F(LoopHistory, DamagedFileIsKeptAndReportedOnce) {
    const std::string text = cli::history_text(
        {event("swp1", cli::LoopAction::kShut, 1h), event("swp2", cli::LoopAction::kShut, 1h)});
    const std::string cut = text.substr(0, text.find("swp2"));
    write_text(file(), cut);
    const auto keeper = restarted();
    const Lines reported{"CLI-3-HISTORY: The history of loops " + file() +
                         " is damaged (cut off or changed): its first 1 events are used, and it is "
                         "kept as " +
                         file() + ".damaged."};
    EXPECT_EQ(log(), reported);
    EXPECT_EQ(read_text(file() + ".damaged"), cut);
    EXPECT_FALSE(std::filesystem::exists(file()));
    rig.platform.run_for(1s);
    EXPECT_EQ(written(), Lines{"swp1 shut"});
    const auto next = restarted();
    EXPECT_EQ(log(), reported);
}

TEST_F(LoopHistory, PathThatCannotBeReadIsReported) {
    std::filesystem::create_directory(file());
    const auto keeper = restarted();
    EXPECT_EQ(log(), Lines{"CLI-3-HISTORY: The history of loops " + file() +
                           " is damaged (Invalid argument): its first 0 events are used, and it is "
                           "kept as " +
                           file() + ".damaged."});
}

TEST_F(LoopHistory, FullDiskIsReportedOnceAndLosesNothing) {
    {
        const FullDisk full(16);
        hold(101);
        rig.platform.run_for(10min);
        hold(102);
        rig.platform.run_for(10min);
    }
    EXPECT_EQ(log(), Lines{"CLI-3-HISTORY: The history of loops cannot be saved to " + file() +
                           ": File too large."});
    EXPECT_FALSE(std::filesystem::exists(file()));
    rig.platform.run_for(30s);
    EXPECT_EQ(written(), (Lines{"swp1 shut", "swp2 shut"}));
    const FullDisk full(16);
    hold(103);
    rig.platform.run_for(1s);
    EXPECT_EQ(log().size(), 2U) << "another failure";
    EXPECT_EQ(written(), (Lines{"swp1 shut", "swp2 shut"})) << "the old file survives";
}

TEST_F(LoopHistory, WithoutASavedConfigurationThereIsNoFile) {
    const cli::LoopHistory none(rig.platform.loop(), rig.platform.background(), "");
    held.on_event(nullptr);
    hold(101);
    rig.platform.run_for(10s);
    EXPECT_EQ(log(), Lines{});
    EXPECT_NE(rig.type("show loop-detect history | include shut"), "");
}

}  // namespace
}  // namespace qv::test
