// The configuration of the detection features: executors, and the calls that post them.
#include <cstdlib>

#include "lda_cli_exec.h"
#include "lda_cli_post.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class FeaturePush : public StartedAgent {
 protected:
    // Lines in the first session.
    static std::string global(const std::string& line) { return executed(1001, line); }
    static std::string port(uint32_t ifx, const std::string& line) {
        return executed(1001, line, ifx);
    }
    void three_ports() {
        for (uint32_t ifx : {9u, 3u, 5u})
            add(ifx);
    }
    static Lines in_session(const Lines& lines) {
        return joined({{"cli_sub_create_session"}, lines, {"close session 1001"}});
    }
};

// ---- The list of ports ----

TEST_F(FeaturePush, PortListIsInTableOrder) {
    three_ports();
    uint16_t count = 77;
    uint32_t* list = lda_all_intf_ifx_get(&count);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(list[0], 9u);
    EXPECT_EQ(list[1], 3u);
    EXPECT_EQ(list[2], 5u);
    free(list);
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(FeaturePush, PortListWithoutPortsIsNull) {
    log_everything();
    uint16_t count = 77;
    EXPECT_EQ(lda_all_intf_ifx_get(&count), nullptr);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_all_intf_ifx_get", "The interface number is 0")});
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(FeaturePush, PortListWithoutMemoryIsNull) {
    three_ports();
    fake::fail_calloc(1);
    uint16_t count = 77;
    EXPECT_EQ(lda_all_intf_ifx_get(&count), nullptr);
    EXPECT_EQ(fake::take_calls(), Lines{error("lda_all_intf_ifx_get", "Malloc p_ifx error.")});
    EXPECT_TRUE(free_for_others(&g_lda_loop_set->lock));
}

TEST_F(FeaturePush, PortListIsTakenUnderTheLoopLock) {
    three_ports();
    bool held = false;
    fake::fail_calloc(1);
    fake::on_call("qvdf_zlog", [&] { held = !free_for_others(&g_lda_loop_set->lock); });
    uint16_t count = 0;
    lda_all_intf_ifx_get(&count);
    EXPECT_TRUE(held);
}

// ---- Switching on ----

TEST_F(FeaturePush, EnablingBothExecutesTwoGlobalLinesAndTwoForEachPort) {
    three_ports();
    EXPECT_EQ(lda_loop_cmd_enable(2), 0);
    EXPECT_EQ(
        fake::take_calls(),
        in_session(
            {global("tarn enable\r\n"), global("tarn error-recover interval 90\r\n"),
             port(9, "tarn port loop-detect warning\r\n"), port(9, "storm-loop-detect enable\r\n"),
             port(3, "tarn port loop-detect warning\r\n"), port(3, "storm-loop-detect enable\r\n"),
             port(5, "tarn port loop-detect warning\r\n"),
             port(5, "storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, EnablingThePeerProtocolAlone) {
    three_ports();
    EXPECT_EQ(lda_loop_cmd_enable(0), 0);
    EXPECT_EQ(fake::take_calls(),
              in_session({global("tarn enable\r\n"), global("tarn error-recover interval 90\r\n"),
                          port(9, "tarn port loop-detect warning\r\n"),
                          port(3, "tarn port loop-detect warning\r\n"),
                          port(5, "tarn port loop-detect warning\r\n")}));
}

TEST_F(FeaturePush, EnablingStormDetectionAlone) {
    three_ports();
    EXPECT_EQ(lda_loop_cmd_enable(1), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(9, "storm-loop-detect enable\r\n"),
                                              port(3, "storm-loop-detect enable\r\n"),
                                              port(5, "storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, EnablingWithAnotherSelectorExecutesPortLinesOfBoth) {
    add(3);
    EXPECT_EQ(lda_loop_cmd_enable(3), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(3, "tarn port loop-detect warning\r\n"),
                                              port(3, "storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, EnablingWithoutPortsExecutesTheGlobalLines) {
    log_everything();
    EXPECT_EQ(lda_loop_cmd_enable(2), 0);
    expect_golden("feature_push/enabling_without_ports", fake::take_calls());
}

TEST_F(FeaturePush, EnablingWithoutMemoryExecutesTheGlobalLines) {
    three_ports();
    fake::fail_calloc(1);
    EXPECT_EQ(lda_loop_cmd_enable(2), 0);
    EXPECT_EQ(fake::take_calls(),
              in_session({global("tarn enable\r\n"), global("tarn error-recover interval 90\r\n"),
                          error("lda_all_intf_ifx_get", "Malloc p_ifx error.")}));
}

TEST_F(FeaturePush, SequenceContinuesAfterAFailedLine) {
    add(3);
    fake::on_line("tarn enable\r\n", "% unknown command", -1);
    fake::on_line("tarn port loop-detect warning\r\n", "", -1);
    EXPECT_EQ(lda_loop_cmd_enable(2), 0);
    EXPECT_EQ(fake::calls_of({"cli_execute_cmd_buf_fd", "close"}),
              (Lines{global("tarn enable\r\n"), global("tarn error-recover interval 90\r\n"),
                     port(3, "tarn port loop-detect warning\r\n"),
                     port(3, "storm-loop-detect enable\r\n"), "close session 1001"}));
}

// ---- Switching off ----

TEST_F(FeaturePush, DisablingBothKeepsTheStormRate) {
    three_ports();
    EXPECT_EQ(lda_loop_cmd_disable(2), 0);
    EXPECT_EQ(
        fake::take_calls(),
        in_session(
            {global("no tarn enable\r\n"), global("no tarn error-recover interval\r\n"),
             port(9, "no tarn port loop-detect\r\n"), port(9, "no storm-loop-detect enable\r\n"),
             port(3, "no tarn port loop-detect\r\n"), port(3, "no storm-loop-detect enable\r\n"),
             port(5, "no tarn port loop-detect\r\n"), port(5, "no storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, DisablingThePeerProtocolAlone) {
    add(3);
    EXPECT_EQ(lda_loop_cmd_disable(0), 0);
    EXPECT_EQ(fake::take_calls(), in_session({global("no tarn enable\r\n"),
                                              global("no tarn error-recover interval\r\n"),
                                              port(3, "no tarn port loop-detect\r\n")}));
}

TEST_F(FeaturePush, DisablingStormDetectionAlone) {
    add(3);
    EXPECT_EQ(lda_loop_cmd_disable(1), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(3, "no storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, DisablingLogsItsStartAndEnd) {
    log_everything();
    EXPECT_EQ(lda_loop_cmd_disable(1), 0);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{info("lda_loop_cmd_disable", "LDA:***lda_loop_cmd_disable mid[1] start."),
               "cli_sub_create_session", info("lda_all_intf_ifx_get", "The interface number is 0"),
               "close session 1001",
               info("lda_loop_cmd_disable", "LDA:***lda_loop_cmd_disable mid[1] end.")}));
}

// ---- One port ----

TEST_F(FeaturePush, OnePortRepeatsTheGlobalLines) {
    log_everything();
    EXPECT_EQ(lda_intf_loop_cmd_enable(2, 7), 0);
    expect_golden("feature_push/enabling_one_port", fake::take_calls());
}

TEST_F(FeaturePush, OnePortWithThePeerProtocolAlone) {
    EXPECT_EQ(lda_intf_loop_cmd_enable(0, 7), 0);
    EXPECT_EQ(fake::take_calls(),
              in_session({global("tarn enable\r\n"), global("tarn error-recover interval 90\r\n"),
                          port(7, "tarn port loop-detect warning\r\n")}));
}

TEST_F(FeaturePush, OnePortWithStormDetectionAlone) {
    EXPECT_EQ(lda_intf_loop_cmd_enable(1, 7), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(7, "storm-loop-detect enable\r\n")}));
}

TEST_F(FeaturePush, OnePortWithAnotherSelectorGetsBothPortLines) {
    EXPECT_EQ(lda_intf_loop_cmd_enable(9, 7), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(7, "tarn port loop-detect warning\r\n"),
                                              port(7, "storm-loop-detect enable\r\n")}));
}

// ---- Cleaning one port ----

TEST_F(FeaturePush, CleaningThePeerProtocolOfAPort) {
    log_everything();
    EXPECT_EQ(lda_intf_default_cmd(0, 7), 0);
    EXPECT_EQ(fake::take_calls(),
              in_session({port(7, "no tarn port loop-detect\r\n"),
                          info("lda_loop_cmd_execute",
                               "ifx 7 cmd no tarn port loop-detect\r\n out ret=0 "),
                          info("lda_intf_default_cmd", "no tarn port loop-detect ifx=7")}));
}

TEST_F(FeaturePush, CleaningStormDetectionOfAPort) {
    EXPECT_EQ(lda_intf_default_cmd(1, 7), 0);
    EXPECT_EQ(fake::take_calls(), in_session({port(7, "no storm-loop-detect enable\r\n"),
                                              port(7, "no storm-loop-rate ratelimit\r\n")}));
}

TEST_F(FeaturePush, CleaningEverythingOfAPort) {
    for (uint32_t mid : {2u, 9u}) {
        int session = mid == 2 ? 1001 : 1002;
        EXPECT_EQ(lda_intf_default_cmd(mid, 7), 0);
        EXPECT_EQ(
            fake::take_calls(),
            (Lines{"cli_sub_create_session", executed(session, "no tarn port loop-detect\r\n", 7),
                   executed(session, "no storm-loop-detect enable\r\n", 7),
                   executed(session, "no storm-loop-rate ratelimit\r\n", 7),
                   "close session " + std::to_string(session)}));
    }
}

TEST_F(FeaturePush, CleaningLogsEachLine) {
    log_everything();
    lda_intf_default_cmd(2, 7);
    Lines lines;
    for (const std::string& line : fake::calls_of({"zlog"}))
        if (line.find("zlog 40 lda_intf_default_cmd ") == 0)
            lines.push_back(line);
    EXPECT_EQ(lines, (Lines{info("lda_intf_default_cmd", "no tarn port loop-detect ifx=7"),
                            info("lda_intf_default_cmd", "no storm-loop-detect enable ifx=7"),
                            info("lda_intf_default_cmd", "no storm-loop-rate ratelimit ifx=7")}));
}

TEST_F(FeaturePush, WithoutASessionTheWorkIsDropped) {
    add(7);
    fake::fail("cli_sub_create_session", -2);
    EXPECT_EQ(lda_loop_cmd_enable(2), -1);
    EXPECT_EQ(lda_loop_cmd_disable(2), -1);
    EXPECT_EQ(lda_intf_loop_cmd_enable(2, 7), -1);
    EXPECT_EQ(lda_intf_default_cmd(2, 7), -1);
    expect_golden("feature_push/without_a_session", fake::take_calls());
}

// ---- Posting ----

TEST_F(FeaturePush, ReloadWithoutAPolicyPushesNothing) {
    looped(7, 1, 0);
    log_everything();
    lda_loop_config_delivery(2);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_loop_config_delivery", "enter")});
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(FeaturePush, ReloadRejudgesLoopedPortsAndThenPostsTheFeatures) {
    looped(7, 1, 2);
    lda_loop_config_delivery(2);
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=7 shutdown=1", "type=5 mid=2 new_type=2"}));
}

TEST_F(FeaturePush, ReloadKeepsPortsThatAreHeldWithoutALoop) {
    lda_intf_t* held = add(7, 1);
    held->is_shutdown = 1;
    lda_intf_t* quiet = add(8, 1);
    lda_loop_detect_ptype_set(2);
    log_everything();
    lda_loop_config_delivery(2);
    expect_golden("feature_push/reload_with_a_held_port", fake::take_calls());
    EXPECT_EQ(held->is_shutdown, 1);
    EXPECT_EQ(quiet->is_shutdown, 0);
    EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=2"});
}

TEST_F(FeaturePush, OnePortIsConfiguredUnderAPolicyAndAllAreCleanedUnderNone) {
    log_everything();
    lda_send_intfcfg(7);
    EXPECT_EQ(fake::take_calls(),
              Lines{info("lda_send_intfcfg", "enter ifx=7, cli_ready=0, type=0")});
    EXPECT_EQ(take_posted(), Lines{});
    cli_ready = 1;
    lda_send_intfcfg(7);
    EXPECT_EQ(take_posted(), Lines{"type=4 mid=2"});
    lda_loop_detect_ptype_set(3);
    fake::clear_calls();
    lda_send_intfcfg(7);
    EXPECT_EQ(fake::calls()[0], info("lda_send_intfcfg", "enter ifx=7, cli_ready=1, type=3"));
    EXPECT_EQ(take_posted(), Lines{"type=1 mid=2 ifx=7 new_type=3 old_type=3"});
    cli_ready = 0;
    lda_send_intfcfg(7);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(FeaturePush, DefaultConfigurationOfAPortIsAlwaysPosted) {
    log_everything();
    lda_intf_default_config_delivery(1, 7);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info("lda_intf_default_config_delivery", "enter"),
                     info("lda_cli_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[1,7,0,0].")}));
    EXPECT_EQ(take_posted(), Lines{"type=6 mid=1 ifx=7"});
}

TEST_F(FeaturePush, EnableAndDisableWaitForTheCommandLine) {
    lda_loop_detect_enable();
    lda_loop_detect_disable();
    EXPECT_EQ(take_posted(), Lines{});
    cli_ready = 1;
    lda_loop_detect_enable();
    lda_loop_detect_disable();
    EXPECT_EQ(take_posted(), (Lines{"type=0 enable=1 mid=2", "type=0 mid=2"}));
}

TEST_F(FeaturePush, AsynchronousSwitchRegeneratesTheConfiguration) {
    cli_ready = 1;
    log_everything();
    lda_async_enable_loop(0);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{info("lda_loop_cmd_send", "+++The number of cli_msg is 1, send cond signal[0,2,0]."),
               "cli_client_c2p_reform", "cli_syn_config_notify"}));
    lda_async_enable_loop(5);
    EXPECT_EQ(
        fake::take_calls(),
        (Lines{info("lda_loop_cmd_send", "+++The number of cli_msg is 2, send cond signal[1,2,0]."),
               "cli_client_c2p_reform", "cli_syn_config_notify"}));
    cli_ready = 0;
    lda_async_enable_loop(1);
    EXPECT_EQ(fake::take_calls(), (Lines{"cli_client_c2p_reform", "cli_syn_config_notify"}));
}

}  // namespace
