// The history of loops of a whole switch.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "platform/cli/loop_history_text.h"
#include "platform/client/own_records.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

// The events without their times, with single blanks.
Lines events(SwitchRig& rig) {
    std::istringstream table(rig.type("show loop-detect history"));
    Lines found;
    std::string row;
    std::getline(table, row);
    while (std::getline(table, row)) {
        row = std::regex_replace(row.substr(20), std::regex(" +"), " ");
        found.push_back(row);
    }
    return found;
}

TEST(LoopHistory, HasTheWholeStoryInOrder) {
    SwitchRig rig;
    rig.type({"configure terminal", "loop-detect shutdown-recover-time 90", "end"});
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 5);
    rig.report(3, 0, 5);
    rig.advance(200s);
    EXPECT_EQ(events(rig).size(), 8U);
    const Lines found = events(rig);
    Lines of_swp3;
    for (const std::string& event : found) {
        if (event.starts_with("swp3 ")) {
            of_swp3.push_back(std::regex_replace(event, std::regex("1 [0-9]+ - -$"), "1 N - -"));
        }
    }
    EXPECT_EQ(of_swp3,
              (Lines{"swp3 loop found tarn swp5 1 - - -", "swp3 shut tarn swp5 1 - - -",
                     "swp3 brought back tarn swp5 1 N - -", "swp3 recovered tarn swp5 1 N - -"}));
}

TEST(LoopHistory, PolicyThatOnlyWarnsShutsNothing) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.advance(10s);
    rig.report(3, 0, 3);
    rig.advance(60s);
    EXPECT_EQ(events(rig),
              (Lines{"swp3 loop found tarn swp3 1 - - -", "swp3 recovered tarn swp3 1 70 - -"}));
}

TEST(LoopHistory, EntryThatIsSetAgainAtOnceIsNoEndOfTheLoop) {
    SwitchRig rig;
    rig.set_policy("");
    rig.report(3, 1, 3);
    rig.on_main([&] {
        constexpr char kKey[] = "p_app.lda_loop_entry/name=swp3";
        const std::string packed = rig.store().get(4, kKey).value_or("");
        own_records().erase(4, kKey);
        own_records().set(nullptr, 4, kKey, {packed.begin(), packed.end()});
    });
    EXPECT_EQ(events(rig), Lines{"swp3 loop found tarn swp3 1 - - -"});
}

TEST(LoopHistory, CommandsOfTheAgentBesideItAreAsBefore) {
    SwitchRig rig;
    const std::string shown = rig.type("show loop-detect");
    EXPECT_TRUE(shown.starts_with("loop-detect state   : disable\n")) << shown;
    EXPECT_EQ(rig.type("show loop"), shown);
    EXPECT_TRUE(rig.type("show loop-detect detail").starts_with("loop-detect state"));
    std::string help;
    rig.on_main([&] {
        cli::SessionState session;
        help = cli::help_text(session, "show loop");
    });
    EXPECT_EQ(help, "  loop-detect             loop detect interface\n");
}

TEST(LoopHistory, HeldPortIsStillKnownAfterARestart) {
    SwitchRig::Options options;
    options.saved_configuration =
        "loop-detect enable shutdown access-mode\n"
        "interface swp2\n shutdown\n loop-detect apply shutdown-port\n!\n";
    SwitchRig rig(options);
    rig.advance(2s);
    EXPECT_EQ(events(rig), Lines{"swp2 shut - - - - - -"});
    std::ifstream file(rig.saved_file().string() + ".history");
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_EQ(cli::read_history(text.str()).events.size(), 1U);
}

}  // namespace
}  // namespace qv::test
