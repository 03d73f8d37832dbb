// The storm commands as an operator types them: bounds, prefixes, saving and replay.
#include <gtest/gtest.h>

#include "storm_detect.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

SwitchRig::Options one_port(std::string saved_configuration = "") {
    SwitchRig::Options options;
    options.ports = 1;
    options.saved_configuration = std::move(saved_configuration);
    return options;
}

void enter_port(SwitchRig& rig) {
    EXPECT_EQ(rig.type({"configure terminal", "interface swp1"}), "");
}

// "rate/burst" of every installed rule.
Lines installed(SwitchRig& rig) {
    Lines rules;
    rig.on_main([&] {
        for (lda_list_t* node = storm_port_head.next; node != &storm_port_head; node = node->next) {
            const auto* info = lda_list_record<storm_port_info>(node);
            rules.push_back(std::to_string(info->rate) + "/" + std::to_string(info->burst));
        }
    });
    return rules;
}

TEST(StormCommands, RatesAndBurstsWithinTheirBoundsAreAccepted) {
    SwitchRig rig(one_port());
    enter_port(rig);
    for (const char* line : {"storm-loop-rate ratelimit 1", "storm-loop-rate ratelimit 1000000",
                             "storm-loop-rate ratelimit 1 burst 32",
                             "storm-loop-rate ratelimit 1000000 burst 10000"}) {
        SCOPED_TRACE(line);
        EXPECT_EQ(rig.type(line), "");
        EXPECT_EQ(rig.section("swp1"), Lines{line});
    }
}

TEST(StormCommands, RatesAndBurstsBeyondTheirBoundsAreRefusedAndChangeNothing) {
    SwitchRig rig(one_port());
    enter_port(rig);
    rig.type({"storm-loop-detect enable", "storm-loop-rate ratelimit 5000 burst 64"});
    const Lines before{"storm-loop-detect enable", "storm-loop-rate ratelimit 5000 burst 64"};
    ASSERT_EQ(rig.section("swp1"), before);
    for (const char* line :
         {"storm-loop-rate ratelimit 0", "storm-loop-rate ratelimit 1000001",
          "storm-loop-rate ratelimit 0 burst 32", "storm-loop-rate ratelimit 4294967297",
          "storm-loop-rate ratelimit 6000 burst 31", "storm-loop-rate ratelimit 6000 burst 10001",
          "storm-loop-rate ratelimit 6000 burst 0", "storm-loop-rate ratelimit 6000 burst",
          "storm-loop-rate ratelimit -1", "storm-loop-rate ratelimit"}) {
        SCOPED_TRACE(line);
        EXPECT_EQ(rig.type(line).substr(0, 2), "% ");
        EXPECT_EQ(rig.section("swp1"), before);
        EXPECT_EQ(installed(rig), Lines{"5000/64"});
    }
    EXPECT_EQ(rig.type("storm-loop-rate ratelimit 1000001"),
              "% Number out of range: '1000001' (1-1000000).\n");
    EXPECT_EQ(rig.type("storm-loop-rate ratelimit 6000 burst 31"),
              "% Number out of range: '31' (32-10000).\n");
}

TEST(StormCommands, NoAndDefaultUndoBothCommands) {
    SwitchRig rig(one_port());
    enter_port(rig);
    for (const std::string prefix : {"no", "default"}) {
        SCOPED_TRACE(prefix);
        rig.type({"storm-loop-detect enable", "storm-loop-rate ratelimit 5000 burst 64"});
        EXPECT_EQ(installed(rig), Lines{"5000/64"});
        EXPECT_EQ(rig.type(prefix + " storm-loop-rate ratelimit"), "");
        EXPECT_EQ(rig.section("swp1"), Lines{"storm-loop-detect enable"});
        EXPECT_EQ(installed(rig), Lines{"8000/1024"});
        EXPECT_EQ(rig.type(prefix + " storm-loop-detect enable"), "");
        EXPECT_EQ(rig.section("swp1"), Lines{});
        EXPECT_EQ(installed(rig), Lines{});
    }
}

TEST(StormCommands, DefaultFormOfTheApplyCommandReleasesThePort) {
    SwitchRig rig(one_port());
    rig.set_policy("shutdown access-mode");
    enter_port(rig);
    EXPECT_EQ(rig.type("loop-detect apply shutdown-port"), "");
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"shutdown", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
                     "storm-loop-detect enable"}));
    rig.forget();
    EXPECT_EQ(rig.type("default loop-detect apply shutdown-port"), "");
    EXPECT_EQ(rig.take_executed(),
              (Lines{"interface 1: errdisable recovery \r\n", "interface 1: no shutdown  \r\n"}));
    EXPECT_EQ(rig.section("swp1"),
              (Lines{"tarn port loop-detect warning", "storm-loop-detect enable"}));
}

// ---- A rate without a burst ----

constexpr char kSaved[] =
    "interface swp1\n"
    " storm-loop-detect enable\n"
    " storm-loop-rate ratelimit 5000\n"
    "!\n";

TEST(StormCommands, RateBeforeEnableIsShownAndSavedWithoutABurst) {
    SwitchRig rig(one_port());
    enter_port(rig);
    rig.type("storm-loop-rate ratelimit 5000");
    EXPECT_EQ(rig.section("swp1"), Lines{"storm-loop-rate ratelimit 5000"});
    EXPECT_EQ(installed(rig), Lines{});
    rig.type("storm-loop-detect enable");
    EXPECT_EQ(rig.running_config(), kSaved);
    EXPECT_EQ(installed(rig), Lines{"5000/1024"});
    rig.type({"end", "write"});
    EXPECT_EQ(rig.saved_text(), std::string(kSaved) + "end\n");
}

TEST(StormCommands, RateAfterEnableIsShownAndSavedWithoutABurst) {
    SwitchRig rig(one_port());
    enter_port(rig);
    rig.type({"storm-loop-detect enable", "storm-loop-rate ratelimit 5000"});
    EXPECT_EQ(rig.running_config(), kSaved);
    EXPECT_EQ(installed(rig), Lines{"5000/1024"});
    rig.type({"end", "write"});
    EXPECT_EQ(rig.saved_text(), std::string(kSaved) + "end\n");
}

void expect_restored_from(const std::string& saved) {
    SwitchRig rig(one_port(saved));
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.running_config(), kSaved);
    EXPECT_EQ(installed(rig), Lines{"5000/1024"});
}

TEST(StormCommands, SavedRateIsTheSameAfterARestart) {
    expect_restored_from(kSaved);
}

TEST(StormCommands, RateSavedInFrontOfEnableIsTheSameAfterARestart) {
    expect_restored_from(
        "interface swp1\n"
        " storm-loop-rate ratelimit 5000\n"
        " storm-loop-detect enable\n"
        "!\n");
}

TEST(StormCommands, RateWithoutEnableIsTheSameAfterARestart) {
    const std::string saved = "interface swp1\n storm-loop-rate ratelimit 5000\n!\n";
    SwitchRig rig(one_port(saved));
    EXPECT_EQ(rig.take_log(), Lines{});
    EXPECT_EQ(rig.running_config(), saved);
    EXPECT_EQ(installed(rig), Lines{});
}

}  // namespace
}  // namespace qv::test
