// The storm commands and the lists behind them. The nodes of their trees are visible in their own
// source only, so this test is compiled together with it.
#include "app/src/storm_cli_tree.cpp"

#include <cstring>

#include "tests/unit/storm/storm_fixture.h"

namespace {

cli_pcdb interface_mode(uint32_t ifx) {
    cli_pcdb pcdb{};
    strcpy(pcdb.mode, "interface");
    pcdb.ifx = ifx;
    return pcdb;
}

int execute(cli_handler handler, uint32_t ifx, uint32_t prefix, int64_t rate = 0,
            int64_t burst = 0) {
    cli_pcdb pcdb = interface_mode(ifx);
    pcdb.prefix = prefix;
    pcdb.number[0] = rate;
    pcdb.number[1] = burst;
    return handler(&pcdb);
}

// The lines that a handler adds to the configuration of an interface.
Lines generated(cli_handler handler, uint32_t ifx, unsigned long flags = CLI_FLAG_C2P) {
    cli_pcdb pcdb = interface_mode(ifx);
    pcdb.flags = flags;
    fake::clear_calls();
    EXPECT_EQ(handler(&pcdb), 0);
    const Lines lines = fake::calls_of({"c2p_printf"});
    EXPECT_EQ(fake::calls_of({"fp_acl_create", "fp_acl_delete"}), Lines{});
    fake::clear_calls();
    return lines;
}

class StormCommand : public RunningStormTest {
 protected:
    static void enable(uint32_t ifx, uint32_t prefix = 0) {
        EXPECT_EQ(execute(cfg_port_enable_storm, ifx, prefix), 0);
    }
    static void rate(uint32_t ifx, int64_t rate, int64_t burst = 0, uint32_t prefix = 0) {
        EXPECT_EQ(execute(cfg_port_set_storm_burst_limit, ifx, prefix, rate, burst), 0);
    }
};

TEST_F(StormCommand, EnablingInstallsTheSharedRuleThenTheDefaults) {
    enable(1);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
    EXPECT_EQ(enabled(), "1");
    EXPECT_EQ(rates(), "");
    ASSERT_NE(record(101), nullptr);
    EXPECT_EQ(storm_port_num, 1u);
}

TEST_F(StormCommand, EnablingWithoutARateUsesTheCurrentDefault) {
    g_pps_value = 9000;
    enable(1);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "9000/1024"));
}

TEST_F(StormCommand, DisablingKeepsTheRate) {
    rate(1, 5000, 64);
    enable(1);
    enable(1, CLI_PREFIX_NO);
    EXPECT_EQ(enabled(), "");
    EXPECT_EQ(rates(), "1:5000/64");
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1),
              (Lines{"c2p_printf 1 \"storm-loop-rate ratelimit 5000 burst 64\""}));
}

TEST_F(StormCommand, EnablingTwiceDoesNothingTheSecondTime) {
    enable(1);
    take_calls();
    enable(1);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormCommand, NewEntriesAreAddedAtTheFrontOfTheirLists) {
    enable(1);
    enable(2);
    rate(1, 5000);
    rate(2, 6000);
    EXPECT_EQ(enabled(), "2 1");
    EXPECT_EQ(rates(), "2:6000/0 1:5000/0");
    EXPECT_EQ(lda_list_record<storm_port_info>(storm_port_head.next)->phyid, 102u);
    EXPECT_EQ(lda_list_record<storm_port_info>(storm_port_head.prev)->phyid, 101u);
}

TEST_F(StormCommand, NoAndDefaultPrefixDisable) {
    for (const uint32_t prefix : {CLI_PREFIX_NO, CLI_PREFIX_DEFAULT}) {
        enable(1);
        take_calls();
        enable(1, prefix);
        EXPECT_EQ(take_calls(), port_rule_removed("101") + shared_rule_removed());
        EXPECT_EQ(enabled(), "");
        EXPECT_EQ(record(101), nullptr);
        EXPECT_EQ(storm_port_num, 0u);
    }
}

TEST_F(StormCommand, DisablingADisabledInterfaceDoesNothing) {
    enable(1, CLI_PREFIX_NO);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(StormCommand, EnablingUsesTheStoredRate) {
    rate(1, 5000, 64);
    EXPECT_EQ(take_calls(), Lines{});
    enable(1);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "5000/64"));
    EXPECT_EQ(rates(), "1:5000/64");
}

TEST_F(StormCommand, StoredDefaultsArePrintedAndDroppedWhenDetectionIsEnabled) {
    rate(1, 8000, 1024);
    EXPECT_EQ(rates(), "1:8000/1024");
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1),
              (Lines{"c2p_printf 1 \"storm-loop-rate ratelimit 8000 burst 1024\""}));
    enable(1);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1), Lines{});
}

TEST_F(StormCommand, DefaultsOnAnEnabledInterfaceAreNotKept) {
    enable(1);
    take_calls();
    rate(1, 8000, 1024);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1), Lines{});
}

TEST_F(StormCommand, RateWithoutBurstIsInstalledWith1024AndPrintedWithoutBurst) {
    enable(1);
    take_calls();
    rate(1, 5000);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_installed("101", "5000/1024"));
    EXPECT_EQ(rates(), "1:5000/0");
    EXPECT_EQ(record(101)->burst, 1024u);
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1),
              (Lines{"c2p_printf 1 \"storm-loop-rate ratelimit 5000\""}));
}

TEST_F(StormCommand, DefaultRateWithoutBurstIsKept) {
    rate(1, 8000);
    enable(1);
    EXPECT_EQ(rates(), "1:8000/0");
    EXPECT_EQ(generated(cfg_port_set_storm_burst_limit, 1),
              (Lines{"c2p_printf 1 \"storm-loop-rate ratelimit 8000\""}));
}

TEST_F(StormCommand, RemovingTheRateOfAnEnabledInterfaceReinstallsTheDefaults) {
    g_pps_value = 9000;
    rate(1, 5000, 64);
    enable(1);
    take_calls();
    rate(1, 0, 0, CLI_PREFIX_NO);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_installed("101", "9000/1024"));
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormCommand, DefaultPrefixRemovesTheRate) {
    rate(1, 5000, 64);
    rate(1, 0, 0, CLI_PREFIX_DEFAULT);
    EXPECT_EQ(rates(), "");
}

TEST_F(StormCommand, NoFormHasEmptyNumbers) {
    rate(1, 5000, 64);
    fake::clear_calls();
    rate(1, 0, 0, CLI_PREFIX_NO);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"libddm_get_phyid_by_ifx 1",
                     fake::info("storm_set_rate_burst",
                                "phyid = 65 , rate = 0, burst = 0, is_add = 0")}));
}

// Enabled without memory for its entry, the interface has a rule and is not listed.
TEST_F(StormCommand, RemovingTheRateOfAnUnlistedInterfaceRemovesItsRule) {
    rate(1, 5000, 64);
    fake::fail_calloc(1);
    enable(1);
    EXPECT_EQ(enabled(), "");
    ASSERT_NE(record(101), nullptr);
    take_calls();
    rate(1, 0, 0, CLI_PREFIX_NO);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + shared_rule_removed());
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormCommand, EnabledInterfacePrintsItsLine) {
    EXPECT_EQ(generated(cfg_port_enable_storm, 1), Lines{});
    enable(1);
    EXPECT_EQ(generated(cfg_port_enable_storm, 1),
              (Lines{"c2p_printf 1 \"storm-loop-detect enable\""}));
    EXPECT_EQ(generated(cfg_port_enable_storm, 1, CLI_FLAG_SHOW_RUN),
              (Lines{"c2p_printf 1 \"storm-loop-detect enable\""}));
    EXPECT_EQ(generated(cfg_port_enable_storm, 2), Lines{});
}

TEST_F(StormCommand, GenerationIgnoresThePrefix) {
    cli_pcdb pcdb = interface_mode(1);
    pcdb.flags = CLI_FLAG_SHOW_RUN;
    pcdb.prefix = CLI_PREFIX_NO;
    enable(1);
    cfg_port_enable_storm(&pcdb);
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormCommand, EntryAllocationFailureStillInstallsTheRule) {
    fake::fail_calloc(1);
    enable(1);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
    EXPECT_EQ(enabled(), "");
    EXPECT_NE(record(101), nullptr);
}

TEST_F(StormCommand, RateAllocationFailureIsPrintedAndChangesNothing) {
    enable(1);
    take_calls();
    fake::fail_calloc(1);
    testing::internal::CaptureStdout();
    rate(1, 5000);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output.substr(0, 28), "## [storm_set_burst_limit] [");
    EXPECT_EQ(output.substr(output.find(']', 28)), "] no mem");
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(record(101)->rate, 8000);
}

TEST_F(StormCommand, InterfaceWithoutForwardingPlaneIdStaysListed) {
    fake::unmap_port(1);
    enable(1);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"libddm_get_phyid_by_ifx 1",
                     fake::error("storm_set_rate_burst", "ifx convert is failed")}));
    EXPECT_EQ(enabled(), "1");
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormCommand, FailedRuleLeavesTheInterfaceListed) {
    fake::fail("fp_entry_alloc");
    enable(1);
    EXPECT_EQ(enabled(), "1");
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormCommand, ChangesAreMadeUnderTheLock) {
    bool held = false;
    fake::on_call("fp_acl_create", [&held] {
        pthread_mutex_t* mutex = &g_libstorm_mutex;
        held = mutex->__data.__owner != 0;
    });
    enable(1);
    EXPECT_TRUE(held);
    EXPECT_EQ(g_libstorm_mutex.__data.__owner, 0);
}

// ---- Dropping an interface ----

TEST_F(StormCommand, DropForgetsSettingsAndLeavesTheRule) {
    rate(1, 5000, 64);
    enable(1);
    fake::clear_calls();
    storm_del_list(1);
    EXPECT_EQ(fake::take_calls(), (Lines{fake::info("storm_del_list", "enter ifx 1"),
                                         fake::info("storm_del_list", "release storm_ifx_info"),
                                         fake::info("storm_del_list", "release storm_rate_info"),
                                         fake::info("storm_del_list", "exit")}));
    EXPECT_EQ(enabled(), "");
    EXPECT_EQ(rates(), "");
    EXPECT_NE(record(101), nullptr);
}

TEST_F(StormCommand, DropOfAnUnknownInterfaceOnlyLogs) {
    enable(1);
    fake::clear_calls();
    storm_del_list(2);
    EXPECT_EQ(fake::take_calls(), (Lines{fake::info("storm_del_list", "enter ifx 2"),
                                         fake::info("storm_del_list", "exit")}));
    EXPECT_EQ(enabled(), "1");
}

// ---- Port-manager events ----

TEST_F(StormCommand, EventTwoRemovesRateEntryAndDetection) {
    rate(1, 5000, 64);
    enable(1);
    take_calls();
    uint32_t message[2] = {1, 99};
    libp_policy_std_lsm_msg_handler(2, message);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_installed("101", "8000/1024") +
                                port_rule_removed("101") + shared_rule_removed());
    EXPECT_EQ(enabled(), "");
    EXPECT_EQ(rates(), "");
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormCommand, EventTwoOnAnInterfaceWithoutSettingsDoesNothing) {
    uint32_t message = 1;
    libp_policy_std_lsm_msg_handler(2, &message);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(StormCommand, OtherEventsDoNothing) {
    enable(1);
    fake::clear_calls();
    uint32_t message = 1;
    for (const uint32_t event : {0u, 1u, 3u, 48u}) {
        libp_policy_std_lsm_msg_handler(event, &message);
    }
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormCommand, EventWithoutMessageIsPrinted) {
    testing::internal::CaptureStdout();
    libp_policy_std_lsm_msg_handler(2, nullptr);
    libp_policy_std_lsm_msg_handler(1, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "std:receive lsm event=2, msgp=NULL\nstd:receive lsm event=1, msgp=NULL\n");
}

// ---- Visibility ----

using StormVisibility = StormTest;

int offered(const cli_pcdb& given) {
    cli_pcdb pcdb = given;
    const int storm = testfunc_cfg_storm(&pcdb);
    EXPECT_EQ(testfunc_cfg_rate(&pcdb), storm);
    EXPECT_EQ(storm_cfg_intf_mode_select(&pcdb), storm);
    return storm;
}

TEST_F(StormVisibility, OnlyTheTypesDecideForARange) {
    cli_pcdb range{};
    strcpy(range.mode, "ifrange");
    range.ifx = 1;
    for (const uint32_t bit : {0, 1, 2, 7, 8, 16, 18, 27, 28}) {
        range.ifrange_types = 1u << bit;
        EXPECT_NE(offered(range), 0) << bit;
    }
    for (const uint32_t bit : {3, 4, 5, 6, 9, 10, 15, 17, 19, 26, 29, 31}) {
        range.ifrange_types = 1u << bit;
        EXPECT_EQ(offered(range), 0) << bit;
    }
    range.ifrange_types = 0;
    EXPECT_EQ(offered(range), 0);
}

TEST_F(StormVisibility, ControlBlockFlagTwoOffersTheCommands) {
    fake::add_port({.ifx = 5, .name = "vlan5", .type = 11, .intfcb_flags = 2, .phyid = 0});
    EXPECT_NE(offered(interface_mode(5)), 0);
    fake::add_port({.ifx = 5, .name = "vlan5", .type = 11, .intfcb_flags = 0xfd, .phyid = 0});
    EXPECT_EQ(offered(interface_mode(5)), 0);
}

TEST_F(StormVisibility, TypesTwoToTenOfferTheCommands) {
    for (uint32_t type = 0; type <= 12; ++type) {
        fake::add_port({.ifx = 5, .name = "port", .type = type, .intfcb_flags = 0, .phyid = 0});
        EXPECT_EQ(offered(interface_mode(5)) != 0, type >= 2 && type <= 10) << type;
    }
}

TEST_F(StormVisibility, InterfaceTypeDecidesWithoutAControlBlock) {
    fake::fail("lsm_get_intfcb");
    fake::add_port({.ifx = 5, .name = "port", .type = 3, .phyid = 0});
    EXPECT_NE(offered(interface_mode(5)), 0);
    fake::add_port({.ifx = 5, .name = "port", .type = 11, .phyid = 0});
    EXPECT_EQ(offered(interface_mode(5)), 0);
}

TEST_F(StormVisibility, UnknownInterfaceIsNotOfferedTheCommands) {
    EXPECT_EQ(offered(interface_mode(77)), 0);
}

// ---- Trees ----

using StormTree = StormTest;

TEST_F(StormTree, EnableTree) {
    start();
    fake::name(reinterpret_cast<const void*>(testfunc_cfg_storm), "testfunc_cfg_storm");
    fake::name(reinterpret_cast<const void*>(cfg_port_enable_storm), "cfg_port_enable_storm");
    EXPECT_EQ(fake::tree(fake::command_root(59, "configure port storm detect")),
              "append\n"
              "  test testfunc_cfg_storm\n"
              "    keyword \"storm-loop-detect\" [\"Set storm\"] 0 32782,32782 1,2,0,0,0 "
              "\"storm-loop-detect\" 1\n"
              "      keyword \"enable\" [\"Set loop detect\"] 0 32782,32782 1,2,0,0,0 "
              "\"enable\" 1\n"
              "        c2p cfg_port_enable_storm\n"
              "          noprefix\n"
              "            eol 1 cfg_port_enable_storm\n"
              "          else defaultprefix\n"
              "            eol 1 cfg_port_enable_storm\n"
              "          else eol 1 cfg_port_enable_storm\n");
}

// The nodes by their names, each with the node that follows when its word matches.
TEST_F(StormTree, NamedNodesOfTheTrees) {
    EXPECT_EQ(Tcfg_port_std_cmd.accept, &Tcfg_storm);
    EXPECT_EQ(Tcfg_storm.accept, &Tcfg_port_std);
    EXPECT_EQ(Tcfg_port_std.accept, &Tcfg_port_std_storm);
    EXPECT_EQ(Tcfg_port_std_storm.accept, &Tcfg_port_enable_storm_c2p);
    EXPECT_EQ(Tcfg_port_enable_storm_c2p.accept, &Tcfg_port_enable_no);
    EXPECT_EQ(Tcfg_port_enable_no.accept, &Tcfg_port_enable_no_eol);
    EXPECT_EQ(Tcfg_port_enable_no.alternative, &Tcfg_port_enable_def);
    EXPECT_EQ(Tcfg_port_enable_def.accept, &Tcfg_port_enable_def_eol);
    EXPECT_EQ(Tcfg_port_enable_def.alternative, &Tcfg_port_storm_enable_eol);

    EXPECT_EQ(Tcfg_port_rate_cmd.accept, &Tcfg_rate);
    EXPECT_EQ(Tcfg_rate.accept, &Tcfg_port_rate);
    EXPECT_EQ(Tcfg_port_rate.accept, &Tcfg_port_rate_storm);
    EXPECT_EQ(Tcfg_port_rate_storm.accept, &Tcfg_port_ratelimit_c2p);
    EXPECT_EQ(Tcfg_port_ratelimit_c2p.accept, &Tcfg_port_ratelimit_no);
    EXPECT_EQ(Tcfg_port_ratelimit_no.accept, &Tcfg_port_ratelimit_no_eol);
    EXPECT_EQ(Tcfg_port_ratelimit_no.alternative, &Tcfg_port_ratelimit_def);
    EXPECT_EQ(Tcfg_port_ratelimit_def.accept, &Tcfg_port_ratelimit_def_eol);
    EXPECT_EQ(Tcfg_port_ratelimit_def.alternative, &Tcfg_port_storm_limit_value);
    EXPECT_EQ(Tcfg_port_storm_limit_value.accept, &Tcfg_port_storm_limit_burst);
    EXPECT_EQ(Tcfg_port_storm_limit_burst.accept, &Tcfg_port_storm_burst_value);
    EXPECT_EQ(Tcfg_port_storm_limit_burst.alternative, &Tcfg_port_ratelimit_eol);
    EXPECT_EQ(Tcfg_port_storm_burst_value.accept, &Tcfg_port_storm_limit_burst_eol);
}

TEST_F(StormTree, RateTree) {
    start();
    fake::name(reinterpret_cast<const void*>(testfunc_cfg_rate), "testfunc_cfg_rate");
    fake::name(reinterpret_cast<const void*>(cfg_port_set_storm_burst_limit), "rate handler");
    EXPECT_EQ(fake::tree(fake::command_root(59, "configure port limit rate set")),
              "append\n"
              "  test testfunc_cfg_rate\n"
              "    keyword \"storm-loop-rate\" [\"Set storm\"] 0 32782,32782 1,2,0,0,0 "
              "\"storm-loop-rate\" 1\n"
              "      keyword \"ratelimit\" [\"Set storm ratelimit\"] 0 32782,32782 1,2,0,0,0 "
              "\"ratelimit\" 1\n"
              "        c2p rate handler\n"
              "          noprefix\n"
              "            eol 1 rate handler\n"
              "          else defaultprefix\n"
              "            eol 1 rate handler\n"
              "          else number [\"rate limit size, default: 8000\"] 1..1000000 0 258 slot 0\n"
              "            keyword \"burst\" [\"Set burst ratelimit\"] 0 32782,32782 1,2,0,0,0 "
              "\"burst\" 1\n"
              "              number [\"burst limit size, default: 1024\"] 32..10000 0 258 slot 1\n"
              "                eol 1 rate handler\n"
              "            else eol 1 rate handler\n");
}

}  // namespace
