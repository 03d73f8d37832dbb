// Changes of the loop policy: publication, re-judgement, the message to the delivery thread.
#include "lda_cli_policy.h"

#include "lda_state.h"
#include "p_app.pb-c.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

class PolicyChange : public StartedAgent {
 protected:
    static lda_cli_msg_t change(uint32_t old_type, uint32_t new_type,
                                uint8_t is_config_delivery = 0) {
        lda_cli_msg_t result{};
        result.mid = 2;
        result.type = new_type == 0 ? 4 : 5;
        result.old_type = old_type;
        result.new_type = new_type;
        result.is_config_delivery = is_config_delivery;
        return result;
    }
    // The shut-down flag that a change sets on a port, with the current policy.
    uint8_t judged(lda_intf_t* record, uint32_t old_type, uint32_t new_type, uint8_t config) {
        lda_loop_detect_ptype_set(new_type);
        lda_cli_msg_t message = change(old_type, new_type, config);
        lda_policy_chg_notify_ntf(&message);
        take_posted();
        return record->is_shutdown;
    }
};

const std::string published_0 = "qv_mom_set db=22 p_app.lda_nc_policy";
std::string published(uint32_t policy) {
    return published_0 + " loop_policy_cli=" + std::to_string(policy);
}

TEST_F(PolicyChange, ValuesAboveFiveAreRejected) {
    looped(7, 1, 2);
    EXPECT_EQ(lda_cli_policy_set(6), -2);
    EXPECT_EQ(lda_cli_policy_set(0xFFFFFFFF), -2);
    EXPECT_EQ(fake::take_calls(), (Lines{error("lda_cli_policy_set", "para wrong type(6)"),
                                         error("lda_cli_policy_set", "para wrong type(-1)")}));
    EXPECT_EQ(lda_cli_detect_policy_get(), 2u);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(PolicyChange, FiveIsAccepted) {
    EXPECT_EQ(lda_cli_policy_set(5), 0);
    EXPECT_EQ(fake::take_calls(), Lines{published(5)});
    EXPECT_EQ(lda_loop_detect_ptype_get(), 5u);
    EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=5"});
}

TEST_F(PolicyChange, SamePolicyIsOnlyPublishedAgain) {
    log_everything();
    EXPECT_EQ(lda_cli_policy_set(2), 0);
    take_posted();
    fake::clear_calls();
    looped(7, 1, 2);
    EXPECT_EQ(lda_cli_policy_set(2), 0);
    EXPECT_EQ(fake::take_calls(), Lines{published(2)});
    EXPECT_EQ(take_posted(), Lines{});
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
}

TEST_F(PolicyChange, DisabledAgainIsOnlyPublished) {
    EXPECT_EQ(lda_cli_policy_set(0), 0);
    EXPECT_EQ(fake::take_calls(), Lines{published_0});
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(PolicyChange, DatabaseResultIsIgnored) {
    fake::fail("qv_mom_set", 107);
    EXPECT_EQ(lda_cli_policy_set(1), 0);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 1u);
    EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=1"});
}

TEST_F(PolicyChange, ChangeWithoutPortsPublishesAndPosts) {
    log_everything();
    EXPECT_EQ(lda_cli_policy_set(4), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{published(4),
                     info("lda_cli_cmd_send",
                          "+++The number of cli_msg is 1, send cond signal[2,0,4,0]."),
                     info("lda_cli_policy_set", "old_type=0, new_type=4, msg_type=5")}));
    EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=4"});
}

TEST_F(PolicyChange, PolicyIsPublishedWithItsDescriptor) {
    lda_cli_policy_set(3);
    EXPECT_EQ(fake::mom_set_descriptor(), &p_app__lda_nc_policy__descriptor);
}

TEST_F(PolicyChange, PolicyIsPublishedBeforeItTakesEffect) {
    uint32_t in_force = 99;
    fake::on_call("qv_mom_set", [&] { in_force = lda_loop_detect_ptype_get(); });
    lda_cli_policy_set(3);
    EXPECT_EQ(in_force, 0u);
}

// An access port is brought up and a hybrid port shut down; the shutdowns are queued first.
TEST_F(PolicyChange, LoopedPortsAreRejudged) {
    lda_intf_t* access = looped(1, 1, 2);
    access->is_shutdown = 1;
    lda_intf_t* quiet = add(2, 7);
    lda_intf_t* hybrid = looped(3, 7, 2);
    log_everything();
    EXPECT_EQ(lda_cli_policy_set(3), 0);
    expect_golden("policy_change/from_access_to_hybrid", fake::take_calls());
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=1", "type=2 mid=2 ifx=3 shutdown=1",
                                    "type=5 mid=2 new_type=3 old_type=2"}));
    EXPECT_EQ(access->is_shutdown, 0);
    EXPECT_EQ(quiet->is_shutdown, 0);
    EXPECT_EQ(hybrid->is_shutdown, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 2);
    EXPECT_EQ(access->total_result, 1);
}

TEST_F(PolicyChange, WarningRecoversEveryShutDownAccessPort) {
    looped(1, 1, 2)->is_shutdown = 1;
    looped(2, 1, 2)->is_shutdown = 1;
    EXPECT_EQ(lda_cli_policy_set(1), 0);
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=1", "type=2 mid=2 ifx=2",
                                    "type=5 mid=2 new_type=1 old_type=2"}));
}

// The ports are brought up first; only then are the results cleared.
TEST_F(PolicyChange, DisablingRecoversPortsAndThenClearsLoops) {
    lda_intf_t* record = looped(7, 1, 2);
    record->is_shutdown = 1;
    log_everything();
    EXPECT_EQ(lda_cli_policy_set(0), 0);
    expect_golden("policy_change/disabling", fake::take_calls());
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=7", "type=4 mid=2 old_type=2"}));
    EXPECT_EQ(record->total_result, 0);
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 0u);
}

TEST_F(PolicyChange, ChangeBetweenPoliciesKeepsTheResults) {
    lda_intf_t* record = looped(7, 1, 1);
    EXPECT_EQ(lda_cli_policy_set(3), 0);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(lda_loop_detect_ptype_get(), 3u);
    EXPECT_EQ(take_posted(), Lines{"type=5 mid=2 new_type=3 old_type=1"});
}

TEST_F(PolicyChange, PolicyChangeRecoversAHeldPortWithoutALoop) {
    lda_intf_t* record = add(7, 1);
    record->is_shutdown = 1;
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(lda_cli_policy_set(4), 0);
    EXPECT_EQ(record->is_shutdown, 0);
    EXPECT_EQ(take_posted(), (Lines{"type=2 mid=2 ifx=7", "type=5 mid=2 new_type=4 old_type=2"}));
}

// ---- Re-judgement of one port ----

TEST_F(PolicyChange, LoopedPortFollowsTheNewPolicyAndItsMode) {
    lda_intf_t* record = looped(7, 1, 1);
    struct Row {
        uint32_t mode, policy;
        uint8_t shut;
    };
    for (const Row& row :
         {Row{1, 1, 0}, Row{1, 2, 1}, Row{1, 3, 0}, Row{1, 4, 1}, Row{1, 5, 0}, Row{7, 1, 0},
          Row{7, 2, 0}, Row{7, 3, 1}, Row{7, 4, 1}, Row{2, 4, 0}, Row{0, 2, 0}}) {
        SCOPED_TRACE(testing::Message() << "mode " << row.mode << " policy " << row.policy);
        record->mode = row.mode;
        for (uint8_t before : {uint8_t{0}, uint8_t{1}})
            for (uint8_t config : {uint8_t{0}, uint8_t{1}}) {
                record->is_shutdown = before;
                EXPECT_EQ(judged(record, 9, row.policy, config), row.shut);
            }
    }
}

TEST_F(PolicyChange, PortWithoutALoopIsReleasedUnlessAReloadKeepsIt) {
    lda_intf_t* record = add(7, 1);
    for (uint8_t before : {uint8_t{0}, uint8_t{1}}) {
        record->is_shutdown = before;
        EXPECT_EQ(judged(record, 0, 2, 1), before);
        EXPECT_EQ(judged(record, 0, 2, 0), 0);
    }
}

TEST_F(PolicyChange, UnchangedPolicyRejudgesNoPort) {
    lda_intf_t* record = looped(7, 1, 2);
    log_everything();
    lda_cli_msg_t message = change(2, 2);
    EXPECT_EQ(lda_cfg_policy_chg_cbk(record, reinterpret_cast<const uint32_t*>(&message)), 0u);
    EXPECT_EQ(fake::take_calls(), Lines{info("lda_cfg_policy_chg_cbk", "ifx=7, is_shutdown=0")});
    EXPECT_EQ(record->is_shutdown, 0);
}

TEST_F(PolicyChange, ReloadRejudgesALoopedPort) {
    lda_intf_t* record = looped(7, 1, 2);
    log_everything();
    lda_cli_msg_t message = change(0, 2, 1);
    EXPECT_EQ(lda_cfg_policy_chg_cbk(record, reinterpret_cast<const uint32_t*>(&message)), 0u);
    Lines calls = fake::take_calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0], info("lda_cfg_policy_chg_cbk", "is_config_delivery ifx=7, is_shutdown=0"));
    EXPECT_EQ(calls[1], info("lda_intf_ret_proc", "ifx=7 act_shut=1/1,act_notify=1,\n"));
    EXPECT_EQ(calls.back(), info("lda_cfg_policy_chg_cbk", "ifx=7, is_shutdown=1"));
    EXPECT_EQ(record->is_shutdown, 1);
}

// ---- The pair for one port ----

TEST_F(PolicyChange, OnePortVariantNotifiesALoopedPortWhoseFlagChanges) {
    looped(6, 1, 2);
    lda_intf_t* record = looped(7, 1, 2);
    lda_cli_msg_t message{};
    message.ifx = 7;
    message.shutdown = 1;
    log_everything();
    lda_intf_policy_chg_proc(&message);
    expect_golden("policy_change/one_port_variant", fake::take_calls());
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(take_posted(), Lines{});
}

TEST_F(PolicyChange, OnePortVariantOnlyStoresForAPortWithoutAChangeOrALoop) {
    lda_intf_t* same = looped(7, 1, 2);
    same->is_shutdown = 1;
    lda_intf_t* quiet = add(8, 1);
    lda_cli_msg_t message{};
    message.shutdown = 1;
    message.ifx = 7;
    lda_intf_policy_chg_proc(&message);
    message.ifx = 8;
    lda_intf_policy_chg_proc(&message);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(same->is_shutdown, 1);
    EXPECT_EQ(quiet->is_shutdown, 1);
}

TEST_F(PolicyChange, OnePortVariantStopsAtItsPort) {
    lda_intf_t* record = add(7);
    lda_intf_t* other = add(8);
    lda_cli_msg_t message{};
    message.ifx = 7;
    auto* words = reinterpret_cast<const uint32_t*>(&message);
    EXPECT_EQ(lda_intf_policy_chg_cbk(other, words), 0u);
    EXPECT_EQ(lda_intf_policy_chg_cbk(record, words), 1u);
    message.ifx = 99;
    lda_intf_policy_chg_proc(&message);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(PolicyChange, DisplayNames) {
    EXPECT_STREQ(detect_loop_policy_type(1), "warning");
    EXPECT_STREQ(detect_loop_policy_type(2), "shutdown access");
    EXPECT_STREQ(detect_loop_policy_type(3), "shutdown hybrid");
    EXPECT_STREQ(detect_loop_policy_type(4), "shutdown access-hybrid");
    EXPECT_STREQ(detect_loop_policy_type(0), "N/A");
    EXPECT_STREQ(detect_loop_policy_type(5), "N/A");
    EXPECT_STREQ(detect_loop_policy_type(0xFFFFFFFF), "N/A");
}

}  // namespace
