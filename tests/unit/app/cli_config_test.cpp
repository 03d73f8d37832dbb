// Handlers of the configuration commands, and the agent's lines in the running configuration.
#include <cstring>

#include "lda_cli.h"
#include "lda_main.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class CliConfig : public StartedAgent {
 protected:
    static cli_pcdb context(uint32_t prefix = 0, unsigned long flags = 0) {
        cli_pcdb pcdb{};
        strcpy(pcdb.mode, "config");
        pcdb.prefix = prefix;
        pcdb.flags = flags;
        return pcdb;
    }
    static cli_pcdb on_port(uint32_t ifx, uint32_t prefix = 0, unsigned long flags = 0) {
        cli_pcdb pcdb = context(prefix, flags);
        strcpy(pcdb.mode, "interface");
        pcdb.ifx = ifx;
        return pcdb;
    }
    static int recover_time(int64_t seconds, uint32_t prefix = 0) {
        cli_pcdb pcdb = context(prefix);
        pcdb.number[0] = seconds;
        return cfg_lda_cli_recover_command(&pcdb);
    }
    static Lines generated(cli_handler handler, unsigned long flags) {
        fake::clear_calls();
        cli_pcdb pcdb = context(0, flags);
        EXPECT_EQ(handler(&pcdb), 0);
        return fake::take_calls();
    }
    static bool offered_on(const fake::Port& port) {
        fake::add_port(port);
        cli_pcdb pcdb = on_port(port.ifx);
        return testfunc_cfg_loop_detect_apply_shutdown_kw(&pcdb) != 0;
    }
};

struct PolicyCommand {
    cli_handler handler;
    uint32_t policy;
    const char* name;
    const char* line;
};
const PolicyCommand policy_commands[] = {
    {cfg_lda_cli_warning_command, 1, "cfg_lda_cli_warning_command",
     "c2p_printf 1 \"loop-detect enable\""},
    {cfg_lda_cli_shutdown_access_command, 2, "cfg_lda_cli_shutdown_access_command",
     "c2p_printf 1 \"loop-detect enable shutdown access-mode\""},
    {cfg_lda_cli_shutdown_hybrid_command, 3, "cfg_lda_cli_shutdown_hybrid_command",
     "c2p_printf 1 \"loop-detect enable shutdown hybrid-mode\""},
    {cfg_lda_cli_shutdown_access_hybrid_command, 4, "cfg_lda_cli_shutdown_access_hybrid_command",
     "c2p_printf 1 \"loop-detect enable shutdown access-hybrid-mode\""}};

// ---- Policy ----

TEST_F(CliConfig, EachPolicyCommandSetsItsPolicy) {
    for (const PolicyCommand& command : policy_commands) {
        SCOPED_TRACE(command.name);
        lda_loop_detect_ptype_set(0);
        cli_pcdb pcdb = context();
        EXPECT_EQ(command.handler(&pcdb), 0);
        EXPECT_EQ(lda_loop_detect_ptype_get(), command.policy);
        EXPECT_EQ(fake::take_calls(),
                  Lines{"qv_mom_set db=22 p_app.lda_nc_policy loop_policy_cli=" +
                        std::to_string(command.policy)});
        EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=" + std::to_string(command.policy)});
    }
}

TEST_F(CliConfig, NoFormOfAnyPolicyCommandDisablesDetection) {
    for (const PolicyCommand& command : policy_commands) {
        SCOPED_TRACE(command.name);
        lda_loop_detect_ptype_set(3);
        cli_pcdb pcdb = context(CLI_PREFIX_NO);
        EXPECT_EQ(command.handler(&pcdb), 0);
        EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
        EXPECT_EQ(fake::take_calls(), Lines{"qv_mom_set db=22 p_app.lda_nc_policy"});
        EXPECT_EQ(take_posted(), Lines{"type=4 mid=2 old_type=3"});
    }
}

TEST_F(CliConfig, PolicyCommandLogsItsSteps) {
    log_everything();
    cli_pcdb pcdb = context(0, 0x20);
    cfg_lda_cli_shutdown_hybrid_command(&pcdb);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("cfg_lda_cli_shutdown_hybrid_command", "enter"),
                     info("lda_policy_set", "enter type=3, pcdb=32"),
                     "qv_mom_set db=22 p_app.lda_nc_policy loop_policy_cli=3",
                     info("lda_cli_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[2,0,3,0]."),
                     info("lda_cli_policy_set", "old_type=0, new_type=3, msg_type=5")}));
}

TEST_F(CliConfig, NoFormLogsTheDisabledType) {
    log_everything();
    for (const PolicyCommand& command : policy_commands) {
        cli_pcdb pcdb = context(CLI_PREFIX_NO);
        command.handler(&pcdb);
        const Lines calls = fake::take_calls();
        ASSERT_GE(calls.size(), 2u);
        EXPECT_EQ(calls[1], info("lda_policy_set", "enter type=0, pcdb=0")) << command.name;
    }
}

TEST_F(CliConfig, PolicyHandlersHoldTheLoopLock) {
    bool held = false;
    fake::on_call("qv_mom_set", [&] { held = !free_for_others(&g_lda_loop_set->lock); });
    for (const PolicyCommand& command : policy_commands) {
        held = false;
        cli_pcdb pcdb = context();
        command.handler(&pcdb);
        EXPECT_TRUE(held) << command.name;
        EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
    }
}

TEST_F(CliConfig, EveryPolicyHandlerWritesTheCurrentPolicy) {
    for (unsigned long flags : {CLI_FLAG_SHOW_RUN, CLI_FLAG_C2P})
        for (const PolicyCommand& current : policy_commands)
            for (const PolicyCommand& asked : policy_commands) {
                lda_loop_detect_ptype_set(current.policy);
                EXPECT_EQ(generated(asked.handler, flags), Lines{current.line});
                EXPECT_EQ(lda_loop_detect_ptype_get(), current.policy);
            }
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(CliConfig, GenerationLogsTheCurrentPolicy) {
    log_everything();
    lda_loop_detect_ptype_set(4);
    EXPECT_EQ(
        generated(cfg_lda_cli_warning_command, CLI_FLAG_C2P),
        (Lines{info("cfg_lda_cli_warning_command", "enter"),
               info("lda_policy_set", "enter type=1, pcdb=16"), info("lda_policy_set", "su=4"),
               "c2p_printf 1 \"loop-detect enable shutdown access-hybrid-mode\""}));
}

TEST_F(CliConfig, DisabledDetectionHasNoLine) {
    log_everything();
    for (uint32_t policy : {0u, 5u}) {
        lda_loop_detect_ptype_set(policy);
        EXPECT_EQ(generated(cfg_lda_cli_warning_command, CLI_FLAG_SHOW_RUN),
                  (Lines{info("cfg_lda_cli_warning_command", "enter"),
                         info("lda_policy_set", "enter type=1, pcdb=2"),
                         info("lda_policy_set", "su=" + std::to_string(policy)),
                         info("lda_policy_set", "show nothing")}));
    }
}

// ---- Recovery time ----

TEST_F(CliConfig, RecoveryTimeIsSetAndLogged) {
    log_everything();
    EXPECT_EQ(recover_time(90), 0);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("cfg_lda_cli_recover_command", "loop-detect shutdown-recover-time 90")});
    EXPECT_EQ(g_lda_recover_time.time, 90u);
    EXPECT_EQ(g_lda_recover_time.enabled, 1);
    recover_time(1000000);
    EXPECT_EQ(lda_cli_recover_time_get(), 1000000u);
}

TEST_F(CliConfig, NoFormRestoresTheDefaultRecoveryTime) {
    lda_cli_recover_time_set(90, 0);
    log_everything();
    EXPECT_EQ(recover_time(0, CLI_PREFIX_NO), 0);
    EXPECT_EQ(g_lda_recover_time.time, 300u);
    EXPECT_EQ(g_lda_recover_time.enabled, 1);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("cfg_lda_cli_recover_command", "loop-detect shutdown-recover-time 0")});
}

TEST_F(CliConfig, DefaultRecoveryTimeIsNeverWritten) {
    for (unsigned long flags : {CLI_FLAG_SHOW_RUN, CLI_FLAG_C2P}) {
        lda_cli_recover_time_set(300, 1);
        EXPECT_EQ(generated(cfg_lda_cli_recover_command, flags), Lines{});
        lda_cli_recover_time_set(301, 1);
        EXPECT_EQ(generated(cfg_lda_cli_recover_command, flags),
                  Lines{"c2p_printf 1 \"loop-detect shutdown-recover-time 301\\n\""});
        lda_cli_recover_time_set(301, 0);
        EXPECT_EQ(generated(cfg_lda_cli_recover_command, flags), Lines{});
    }
}

TEST_F(CliConfig, GenerationDoesNotChangeTheRecoveryTime) {
    lda_cli_recover_time_set(90, 1);
    generated(cfg_lda_cli_recover_command, CLI_FLAG_C2P);
    EXPECT_EQ(lda_cli_recover_time_get(), 90u);
}

// ---- "loop-detect apply shutdown-port" ----

const std::string refused =
    "syslog 3 LOOP_DETECT ERROR \"loop-detect shutdown-port policy can not be applied while "
    "loop-detect is disabled.\\n\\r\\n\"";

TEST_F(CliConfig, ApplyMarksThePortAndRequestsItsShutdown) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    log_everything();
    cli_pcdb pcdb = on_port(7);
    EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
    expect_golden("cli_config/apply_shuts_the_port", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(CliConfig, NoApplyReleasesThePort) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    log_everything();
    cli_pcdb pcdb = on_port(7, CLI_PREFIX_NO);
    EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
    EXPECT_EQ(fake::calls().back(),
              info("cfg_lda_cli_apply_shutdown_command_int", "port 7 is no_shutdown"));
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7"});
}

TEST_F(CliConfig, DefaultPrefixIsIgnored) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    cli_pcdb pcdb = on_port(7, CLI_PREFIX_DEFAULT);
    cfg_lda_cli_apply_shutdown_command(&pcdb);
    EXPECT_EQ(record->is_shutdown, 1);
}

TEST_F(CliConfig, ApplyToAnUnknownPortKeepsItForLater) {
    lda_loop_detect_ptype_set(2);
    cli_pcdb pcdb = on_port(7);
    EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
    EXPECT_EQ(lda_back_node_lookup(7), 1);
    pcdb.prefix = CLI_PREFIX_NO;
    EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
    EXPECT_EQ(lda_back_node_lookup(7), 0);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(CliConfig, ApplyWhileDetectionIsDisabledIsRefused) {
    lda_intf_t* record = add(7, 1);
    record->is_shutdown = 1;
    log_everything();
    for (uint32_t prefix : {0u, CLI_PREFIX_NO}) {
        cli_pcdb pcdb = on_port(7, prefix);
        EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{info("cfg_lda_cli_apply_shutdown_command", "commnad cli_apply_shutdown=7"),
                         info("cfg_lda_cli_apply_shutdown_command_int", "enter"), refused}));
    }
    EXPECT_EQ(record->is_shutdown, 1);
    cli_pcdb unknown = on_port(9);
    cfg_lda_cli_apply_shutdown_command(&unknown);
    EXPECT_EQ(lda_back_node_lookup(9), 0);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(CliConfig, ApplyHandlerHoldsTheLoopLock) {
    add(7, 1);
    lda_loop_detect_ptype_set(2);
    bool held = false;
    fake::on_call("nc_lib_notification_send",
                  [&] { held = !free_for_others(&g_lda_loop_set->lock); });
    cli_pcdb pcdb = on_port(7);
    cfg_lda_cli_apply_shutdown_command(&pcdb);
    EXPECT_TRUE(held);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(CliConfig, HeldPortHasItsLineInTheConfiguration) {
    lda_intf_t* record = add(7, 1);
    record->is_shutdown = 1;
    log_everything();
    for (unsigned long flags : {CLI_FLAG_SHOW_RUN, CLI_FLAG_C2P}) {
        cli_pcdb pcdb = on_port(7, 0, flags);
        EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
        EXPECT_EQ(fake::take_calls(),
                  (Lines{info("cfg_lda_cli_apply_shutdown_command", "commnad cli_apply_shutdown=7"),
                         info("cfg_lda_cli_apply_shutdown_command_int", "enter"),
                         info("cfg_lda_cli_apply_shutdown_command_int", "port is 7, shutdown =1"),
                         "c2p_printf 1 \"loop-detect apply shutdown-port\""}));
    }
}

TEST_F(CliConfig, PortThatIsUpHasNoLine) {
    add(7, 1);
    log_everything();
    cli_pcdb pcdb = on_port(7, 0, CLI_FLAG_C2P);
    cfg_lda_cli_apply_shutdown_command(&pcdb);
    EXPECT_EQ(fake::calls().back(),
              info("cfg_lda_cli_apply_shutdown_command_int", "port is 7, shutdown =0"));
    cli_pcdb unknown = on_port(9, 0, CLI_FLAG_C2P);
    cfg_lda_cli_apply_shutdown_command(&unknown);
    EXPECT_EQ(fake::calls_of({"c2p_printf", "syslog"}), Lines{});
    EXPECT_EQ(lda_back_node_lookup(9), 0);
}

TEST_F(CliConfig, PortThatIsOnlyPendingHasNoLine) {
    pend(9);
    log_everything();
    cli_pcdb pcdb = on_port(9, 0, CLI_FLAG_C2P);
    EXPECT_EQ(cfg_lda_cli_apply_shutdown_command(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("cfg_lda_cli_apply_shutdown_command", "commnad cli_apply_shutdown=9"),
                     info("cfg_lda_cli_apply_shutdown_command_int", "enter"),
                     info("cfg_lda_cli_apply_shutdown_command_int", "port is 9, shutdown =0")}));
    EXPECT_EQ(lda_back_node_lookup(9), 1);
}

// ---- Where the interface command is offered ----

TEST_F(CliConfig, SwitchPortsOfferTheInterfaceCommand) {
    EXPECT_TRUE(offered_on({.ifx = 1, .type = 1, .intfcb_flags = 0x2}));
    EXPECT_TRUE(offered_on({.ifx = 1, .type = 99, .intfcb_flags = 0x3}));
    for (uint32_t type = 2; type <= 10; type++)
        EXPECT_TRUE(offered_on({.ifx = 1, .type = type, .intfcb_flags = 0}));
}

TEST_F(CliConfig, OtherPortsDoNotOfferTheInterfaceCommand) {
    for (uint32_t type : {0u, 1u, 11u, 12u})
        EXPECT_FALSE(offered_on({.ifx = 1, .type = type, .intfcb_flags = 0xFFFFFFFD}));
    cli_pcdb unknown = on_port(77);
    EXPECT_EQ(testfunc_cfg_loop_detect_apply_shutdown_kw(&unknown), 0);
}

TEST_F(CliConfig, PortTypeDecidesWithoutAControlBlock) {
    fake::fail("lsm_get_intfcb");
    for (uint32_t type = 0; type <= 12; type++)
        EXPECT_EQ(offered_on({.ifx = 1, .type = type}), type >= 2 && type <= 10) << type;
}

TEST_F(CliConfig, PortTypesDecideForARange) {
    cli_pcdb pcdb = context();
    strcpy(pcdb.mode, "ifrange");
    // The mask 0x18050187 has the bits 0, 1, 2, 7, 8, 16, 18, 27 and 28.
    for (unsigned bit = 0; bit < 32; bit++) {
        pcdb.ifrange_types = 1u << bit;
        bool in_mask = bit == 0 || bit == 1 || bit == 2 || bit == 7 || bit == 8 || bit == 16 ||
                       bit == 18 || bit == 27 || bit == 28;
        EXPECT_EQ(testfunc_cfg_loop_detect_apply_shutdown_kw(&pcdb) != 0, in_mask) << bit;
    }
    pcdb.ifrange_types = 0;
    EXPECT_EQ(lda_cfg_intf_mode_select(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

// ---- Interface sections ----

TEST_F(CliConfig, InterfaceSectionsAreWrittenForVisiblePorts) {
    fake::add_port(3);
    fake::add_port({.ifx = 5, .name = "hidden", .flags = 0x1});
    fake::add_port({.ifx = 9, .name = "swp9", .flags = 0x2});
    cli_pcdb pcdb = context(0, CLI_FLAG_SHOW_RUN);
    EXPECT_EQ(fake::show_run_hook()(&pcdb), 0);
    expect_golden("cli_config/interface_sections", fake::calls_without({"lsm_if_get_sname"}));
    EXPECT_STREQ(pcdb.mode, "config");
}

TEST_F(CliConfig, ContextNamesThePortBeforeItsModeIsEntered) {
    fake::add_port(3);
    cli_pcdb pcdb = context(0, CLI_FLAG_SHOW_RUN);
    std::vector<uint64_t> ports;
    fake::on_call("cli_change_mode", [&] { ports.push_back(pcdb.ifx); });
    EXPECT_EQ(libproxy_cli_interface_walk(&pcdb), 0);
    EXPECT_EQ(ports, (std::vector<uint64_t>{3, 3}));
}

TEST_F(CliConfig, WithoutPortsThereAreNoInterfaceSections) {
    cli_pcdb pcdb = context(0, CLI_FLAG_SHOW_RUN);
    EXPECT_EQ(libproxy_cli_interface_walk(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"lsm_walk_through_ex"});
}

// ---- The handler without a node ----

TEST_F(CliConfig, EnableHandlerPostsADisableWhenExecuted) {
    cli_ready = 1;
    lda_loop_detect_ptype_set(2);
    log_everything();
    cli_pcdb pcdb = context();
    EXPECT_EQ(cfg_lda_loop_detect_enable_command(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("cfg_lda_loop_detect_enable_command", "enter type=2, pcdb=0"),
                     info("lda_loop_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[0,2,0].")}));
    EXPECT_EQ(take_posted(), Lines{"type=0 mid=2"});
    EXPECT_EQ(lda_loop_detect_ptype_get(), 2u);
}

TEST_F(CliConfig, EnableHandlerWritesItsLineOrReturns18) {
    cli_pcdb pcdb = context(0, CLI_FLAG_C2P);
    EXPECT_EQ(cfg_lda_loop_detect_enable_command(&pcdb), 18);
    EXPECT_EQ(fake::take_calls(), Lines{});
    lda_loop_detect_ptype_set(3);
    EXPECT_EQ(cfg_lda_loop_detect_enable_command(&pcdb), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"c2p_printf 1 \"loop-detect enable\""});
    EXPECT_EQ(take_posted(), Lines{});
}

}  // namespace
