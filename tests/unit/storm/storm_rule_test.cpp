// Rules in the forwarding plane and the port records.
#include <algorithm>

#include "tests/support/golden/golden.h"
#include "tests/unit/storm/storm_fixture.h"

namespace {

class StormRule : public RunningStormTest {
 protected:
    static void enable_port_1() {
        storm_set(1, true);
        fake::clear_calls();
    }
};

TEST_F(StormRule, SharedRuleIsInstalledBeforeTheFirstPortRule) {
    storm_set_rate_burst(1, 8000, 1024, true);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
    EXPECT_EQ(fake::fp_objects(), 0);
}

TEST_F(StormRule, FurtherPortsInstallNoSharedRule) {
    enable_port_1();
    storm_set_rate_burst(2, 8000, 1024, true);
    EXPECT_EQ(take_calls(), port_rule_installed("102", "8000/1024"));
    EXPECT_EQ(storm_port_num, 2u);
}

TEST_F(StormRule, SharedRuleIsRemovedAfterTheLastPortRule) {
    enable_port_1();
    storm_set_rate_burst(2, 8000, 1024, true);
    take_calls();
    storm_set_rate_burst(1, 0, 0, false);
    EXPECT_EQ(take_calls(), port_rule_removed("101"));
    storm_set_rate_burst(2, 0, 0, false);
    EXPECT_EQ(take_calls(), port_rule_removed("102") + shared_rule_removed());
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormRule, InstallationIsLogged) {
    storm_set_rate_burst(1, 5000, 64, true);
    expect_golden("storm_rule/installation", take_log());
}

TEST_F(StormRule, RemovalIsLogged) {
    enable_port_1();
    storm_set_rate_burst(1, 0, 0, false);
    expect_golden("storm_rule/removal", take_log());
}

TEST_F(StormRule, BurstZeroIsLoggedAsZeroAndInstalledAs1024) {
    storm_set_rate_burst(1, 5000, 0, true);
    EXPECT_EQ(
        fake::calls_of({"zlog"})[0],
        fake::info("storm_set_rate_burst", "phyid = 65 , rate = 5000, burst = 0, is_add = 1"));
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "5000/1024"));
    EXPECT_EQ(record(101)->burst, 1024u);
}

TEST_F(StormRule, NewRecordHoldsOnlyTheRule) {
    storm_set_rate_burst(1, 5000, 64, true);
    const storm_port_info* info = record(101);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->rate, 5000);
    EXPECT_EQ(info->burst, 64u);
    EXPECT_EQ(info->acl_id, 101u);
    EXPECT_EQ(info->phyid, 101u);
    const auto* bytes = reinterpret_cast<const uint8_t*>(info);
    EXPECT_TRUE(std::all_of(bytes + 32, bytes + 88, [](uint8_t byte) { return byte == 0; }));
}

TEST_F(StormRule, SameRateAndBurstKeepTheRuleAndCounters) {
    enable_port_1();
    count(101, 50);
    record(101)->packet_count = 20;
    record(101)->flow_over_times = 2;
    fake::clear_calls();
    storm_set_rate_burst(1, 8000, 1024, true);
    EXPECT_EQ(take_log(),
              (Lines{fake::info("storm_set_rate_burst",
                                "phyid = 65 , rate = 8000, burst = 1024, is_add = 1"),
                     fake::info("storm_set_rate_burst", "the same rate = 8000 and burst = 1024")}));
    EXPECT_EQ(record(101)->packet_count, 20);
    EXPECT_EQ(record(101)->cur_packet_count, 50u);
    EXPECT_EQ(record(101)->flow_over_times, 2u);
}

TEST_F(StormRule, BurstZeroIsTheSameAs1024) {
    enable_port_1();
    storm_set_rate_burst(1, 8000, 0, true);
    EXPECT_EQ(take_calls(), Lines{});
}

TEST_F(StormRule, UpdateReplacesTheRuleAndResetsTheRunsButNotTheTotals) {
    enable_port_1();
    storm_port_info* info = record(101);
    info->packet_count = 1;
    info->byte_count = 2;
    info->flow_over_times = 3;
    info->unloop_times = 4;
    info->poll_times = 5;
    info->timer_notify = 6;
    count(101, 700, 800);
    fake::clear_calls();
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_installed("101", "5000/64"));
    EXPECT_EQ(record(101), info);
    EXPECT_EQ(info->rate, 5000);
    EXPECT_EQ(info->burst, 64u);
    EXPECT_EQ(info->packet_count, 0);
    EXPECT_EQ(info->byte_count, 0);
    EXPECT_EQ(info->flow_over_times, 0u);
    EXPECT_EQ(info->unloop_times, 0u);
    EXPECT_EQ(info->poll_times, 0);
    EXPECT_EQ(info->timer_notify, 0);
    EXPECT_EQ(info->cur_packet_count, 700u);
    EXPECT_EQ(info->cur_byte_count, 800u);
    EXPECT_EQ(storm_port_num, 1u);
}

TEST_F(StormRule, UpdateOfALoopedPortNotifiesBetweenTheOldRuleAndTheNew) {
    enable_port_1();
    record(101)->is_loop = 1;
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + Lines{"verdict is_loop=0 ifx=1"} +
                                port_rule_installed("101", "5000/64"));
    EXPECT_EQ(record(101)->is_loop, 0);
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 0);
}

TEST_F(StormRule, UpdateStopsWhenTheNotifiedEndRemovesThePortFromDetection) {
    enable_port_1();
    record(101)->is_loop = 1;
    notify_msg_proc = [](const storm_loop_msg*) {
        return storm_del_storm_detect(101);
    };
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_removed("101"));
    EXPECT_EQ(record(101), nullptr);
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormRule, UpdateWhoseApplyFailsAtOnceRemovesThePortFromDetection) {
    enable_port_1();
    fake::on_call("fp_apply_add", [] {
        const fp_acl_key key = fake::fp_key(101);
        fake::fp_handlers().apply_failed(fake::mom_client(), &key, 28);
    });
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(record(101), nullptr);
    EXPECT_EQ(storm_port_num, 0u);
    EXPECT_EQ(enabled(), "");
}

TEST_F(StormRule, FailedUpdateLeavesARecordWithoutRule) {
    enable_port_1();
    fake::fail("fp_entry_alloc");
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(take_calls(),
              (port_rule_removed("101") + Lines{"fp_acl_create 101 flags=260", "fp_entry_alloc"}));
    ASSERT_NE(record(101), nullptr);
    EXPECT_EQ(record(101)->rate, 8000);
    EXPECT_EQ(record(101)->burst, 1024u);
    EXPECT_EQ(storm_port_num, 1u);
}

TEST_F(StormRule, FailedUpdateResetsTheRunsButNotTheTotals) {
    enable_port_1();
    storm_port_info* info = record(101);
    info->packet_count = info->byte_count = 4711;
    info->flow_over_times = info->unloop_times = 3;
    info->poll_times = info->timer_notify = 2;
    info->cur_packet_count = info->cur_byte_count = 5000;
    fake::fail("fp_entry_alloc");
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(record(101), info);
    EXPECT_EQ(info->packet_count, 0);
    EXPECT_EQ(info->byte_count, 0);
    EXPECT_EQ(info->flow_over_times, 0u);
    EXPECT_EQ(info->unloop_times, 0u);
    EXPECT_EQ(info->poll_times, 0);
    EXPECT_EQ(info->timer_notify, 0);
    EXPECT_EQ(info->cur_packet_count, 5000u);
    EXPECT_EQ(info->cur_byte_count, 5000u);
}

TEST_F(StormRule, FailedUpdateIsLogged) {
    enable_port_1();
    fake::fail("fp_apply_alloc");
    storm_set_rate_burst(1, 5000, 64, true);
    const Lines log = take_log();
    EXPECT_EQ(Lines(log.end() - 3, log.end()),
              (Lines{fake::error("storm_enable_by_fp", "Error: failed to alloc_apply."),
                     fake::error("storm_enable_by_fp", "rv: -1"),
                     fake::error("storm_set_rate_burst", "rv: -1")}));
}

// The record keeps the numbers of the rule that is gone, so these change nothing, others do.
TEST_F(StormRule, RecordWithoutRuleCountsAsInstalledWithItsOldNumbers) {
    enable_port_1();
    fake::fail_nth("fp_entry_alloc", 1);
    storm_set_rate_burst(1, 5000, 64, true);
    fake::clear_calls();
    storm_set_rate_burst(1, 8000, 1024, true);
    EXPECT_EQ(take_calls(), Lines{});
    storm_set_rate_burst(1, 5000, 64, true);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + port_rule_installed("101", "5000/64"));
    EXPECT_EQ(record(101)->rate, 5000);
}

TEST_F(StormRule, UnknownInterfaceIsLoggedAndDropped) {
    storm_set_rate_burst(9, 5000, 64, true);
    EXPECT_EQ(fake::take_calls(),
              (Lines{"libddm_get_phyid_by_ifx 9",
                     fake::error("storm_set_rate_burst", "ifx convert is failed")}));
}

TEST_F(StormRule, RemovalWithoutRecordDoesNothing) {
    storm_set_rate_burst(1, 0, 0, false);
    EXPECT_EQ(take_calls(), Lines{});
}

// ---- Failures of an installation ----

TEST_F(StormRule, SharedEntryAllocationFailureDeletesTheAcl) {
    fake::fail_nth("fp_entry_alloc", 1);
    storm_set_rate_burst(1, 8000, 1024, true);
    expect_golden("storm_rule/shared_entry_allocation_failure", fake::calls_of({"zlog"}));
    EXPECT_EQ(take_calls(),
              (Lines{"fp_acl_create 0 flags=260", "fp_entry_alloc", "fp_acl_delete 0"}));
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormRule, SharedApplyAllocationFailureDeletesEntryAndAcl) {
    fake::fail_nth("fp_apply_alloc", 1);
    storm_set_rate_burst(1, 8000, 1024, true);
    const Lines log = fake::calls_of({"zlog"});
    EXPECT_EQ(
        Lines(log.end() - 6, log.end()),
        (Lines{
            fake::info("storm_add_mpls_fp", "aclid 0\n"),
            fake::error("storm_add_mpls_fp", "Error: failed to alloc_apply."),
            fake::info("std_ace_entry_delete", "del_ace, acl_id:0x0, acl_app:loop_detection_app"),
            fake::info("std_acl_delete", "aclid 0x0\n"), fake::error("storm_add_mpls_fp", "rv: -1"),
            fake::error("storm_set_rate_burst", "add mpls entry failed")}));
    EXPECT_EQ(take_calls(),
              (Lines{"fp_acl_create 0 flags=260", "fp_entry_alloc",
                     "fp_entry_add 0 control=1 etype=4788ffff", "fp_entry_free", "fp_apply_alloc 0",
                     "fp_entry_delete 0 entry 0", "fp_acl_delete 0"}));
    EXPECT_EQ(fake::fp_objects(), 0);
}

TEST_F(StormRule, FirstPortEntryAllocationFailureLeavesItsAclAndRemovesTheSharedRule) {
    fake::fail_nth("fp_entry_alloc", 2);
    storm_set_rate_burst(1, 8000, 1024, true);
    const Lines log = fake::calls_of({"zlog"});
    EXPECT_EQ(Lines(log.begin() + 7, log.begin() + 12),
              (Lines{fake::error("storm_enable_by_fp", "alloc ace fail."),
                     fake::error("storm_enable_by_fp", "alloc ace error\n"),
                     fake::error("storm_add_by_fp", "rv: -1"),
                     fake::error("storm_set_rate_burst", "add fp table is failed"),
                     fake::info("storm_del_mpls_fp", "del mpls entry")}));
    EXPECT_EQ(take_calls(),
              (shared_rule_installed() + Lines{"fp_acl_create 101 flags=260", "fp_entry_alloc"} +
               shared_rule_removed()));
}

TEST_F(StormRule, PortApplyAllocationFailureLeavesAclAndEntry) {
    enable_port_1();
    fake::fail("fp_apply_alloc");
    EXPECT_EQ(storm_enable_by_fp(5000, 64, 102), -1);
    EXPECT_EQ(take_calls(), (Lines{"fp_acl_create 102 flags=260", "fp_entry_alloc",
                                   "fp_entry_add 102 control=1 l2_da_hit=00 l3_uc=0100000000000000",
                                   "fp_entry_free", "fp_apply_alloc 102"}));
}

TEST_F(StormRule, FurtherPortFailureKeepsTheSharedRule) {
    enable_port_1();
    fake::fail("fp_entry_alloc");
    storm_set_rate_burst(2, 8000, 1024, true);
    EXPECT_EQ(take_calls(), (Lines{"fp_acl_create 102 flags=260", "fp_entry_alloc"}));
    EXPECT_EQ(storm_port_num, 1u);
}

// ---- Items ----

TEST_F(StormRule, EachObjectsBuilderBuildsItsItems) {
    enable_port_1();
    EXPECT_EQ(fake::count("fp_entry_build_item"), 1 + 2);
    EXPECT_EQ(fake::count("fp_entry_add_item"), 1 + 2);
    EXPECT_EQ(fake::count("fp_apply_build_item"), 3);
    EXPECT_EQ(fake::count("fp_apply_add_item"), 3);
}

TEST_F(StormRule, RefusedMatchOfTheSharedRuleInstallsNothing) {
    for (const char* refused : {"fp_entry_build_item", "fp_entry_add_item"}) {
        SCOPED_TRACE(refused);
        fake::fail_nth(refused, 1, 22);
        storm_set_rate_burst(1, 8000, 1024, true);
        const Lines log = fake::calls_of({"zlog"});
        EXPECT_EQ(Lines(log.end() - 3, log.end()),
                  (Lines{fake::error("add_item", "item etype error[22]"),
                         fake::info("std_acl_delete", "aclid 0x0\n"),
                         fake::error("storm_set_rate_burst", "add mpls entry failed")}));
        EXPECT_EQ(take_calls(), (Lines{"fp_acl_create 0 flags=260", "fp_entry_alloc",
                                       "fp_entry_free", "fp_acl_delete 0"}));
        EXPECT_EQ(record(101), nullptr);
    }
}

TEST_F(StormRule, RefusedMatchOfAPortInstallsNoEntry) {
    enable_port_1();
    struct Row {
        const char* refused;
        int nth;
        const char* text;
    };
    for (const Row& row : {Row{"fp_entry_build_item", 1, "item l2_da_hit error[22]"},
                           Row{"fp_entry_add_item", 1, "item l2_da_hit error[22]"},
                           Row{"fp_entry_build_item", 2, "item l3_uc error[22]"},
                           Row{"fp_entry_add_item", 2, "item l3_uc error[22]"}}) {
        SCOPED_TRACE(testing::Message() << row.refused << " " << row.nth);
        fake::fail_nth(row.refused, row.nth, 22);
        EXPECT_EQ(storm_enable_by_fp(5000, 64, 102), -1);
        EXPECT_EQ(fake::calls_of({"zlog"}).back(), fake::error("add_item", row.text));
        EXPECT_EQ(take_calls(),
                  (Lines{"fp_acl_create 102 flags=260", "fp_entry_alloc", "fp_entry_free"}));
    }
}

TEST_F(StormRule, RefusedActionOfAPortAppliesNothing) {
    enable_port_1();
    const char* const names[] = {"meter", "counter", "fwd"};
    for (int nth = 1; nth <= 3; ++nth) {
        for (const char* refused : {"fp_apply_build_item", "fp_apply_add_item"}) {
            SCOPED_TRACE(testing::Message() << refused << " " << nth);
            fake::fail_nth(refused, nth, 28);
            EXPECT_EQ(storm_enable_by_fp(5000, 64, 102), -1);
            EXPECT_EQ(
                fake::calls_of({"zlog"}).back(),
                fake::error("add_item", std::string("item ") + names[nth - 1] + " error[28]"));
            EXPECT_EQ(take_calls(),
                      (Lines{"fp_acl_create 102 flags=260", "fp_entry_alloc",
                             "fp_entry_add 102 control=1 l2_da_hit=00 l3_uc=0100000000000000",
                             "fp_entry_free", "fp_apply_alloc 102", "fp_apply_free"}));
        }
    }
    EXPECT_EQ(fake::fp_objects(), 0);
}

TEST_F(StormRule, FirstPortWithARefusedItemRemovesTheSharedRule) {
    fake::fail("fp_apply_build_item", 22);
    storm_set_rate_burst(1, 8000, 1024, true);
    const Lines calls = take_calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(Lines(calls.end() - 3, calls.end()), shared_rule_removed());
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormRule, RecordAllocationFailureLeavesTheRuleAndRemovesTheSharedRule) {
    fake::fail_calloc(1);
    storm_set_rate_burst(1, 8000, 1024, true);
    const Lines log = fake::calls_of({"zlog"});
    EXPECT_EQ(Lines(log.begin() + 9, log.begin() + 12),
              (Lines{fake::error("storm_add_by_fp", "rv: -2"),
                     fake::error("storm_set_rate_burst", "add fp table is failed"),
                     fake::info("storm_del_mpls_fp", "del mpls entry")}));
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024") +
                                shared_rule_removed());
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormRule, AddReturnsTheErrorOfEachStep) {
    EXPECT_EQ(storm_add_by_fp(8000, 1024, 101), 0);
    fake::fail_nth("fp_entry_alloc", 1);
    EXPECT_EQ(storm_add_by_fp(8000, 1024, 102), -1);
    fake::fail_calloc(1);
    EXPECT_EQ(storm_add_by_fp(8000, 1024, 102), -2);
}

TEST_F(StormRule, ResultsOfTheServiceCallsAreIgnored) {
    for (const char* call : {"fp_acl_create", "fp_entry_add", "fp_apply_add", "fp_apply_delete",
                             "fp_entry_delete", "fp_acl_delete"}) {
        fake::fail(call, 22);
    }
    storm_set_rate_burst(1, 8000, 1024, true);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
    EXPECT_NE(record(101), nullptr);
    storm_set_rate_burst(1, 0, 0, false);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + shared_rule_removed());
    EXPECT_EQ(record(101), nullptr);
}

// ---- Removal of a detection ----

TEST_F(StormRule, DeletionOfALoopedPortNotifiesItsEnd) {
    enable_port_1();
    record(101)->is_loop = 1;
    EXPECT_EQ(storm_del_storm_detect(101), 0);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + Lines{"verdict is_loop=0 ifx=1"});
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 0);
    EXPECT_EQ(storm_port_num, 0u);
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormRule, DeletionRepeatedByTheNotifiedEndDropsTheRecordOnce) {
    enable_port_1();
    record(101)->is_loop = 1;
    notify_msg_proc = [](const storm_loop_msg*) {
        return storm_del_storm_detect(101);
    };
    EXPECT_EQ(storm_del_storm_detect(101), 0);
    EXPECT_EQ(storm_port_num, 0u);
    EXPECT_EQ(record(101), nullptr);
}

TEST_F(StormRule, DeletionWithoutRecordRemovesTheRule) {
    EXPECT_EQ(storm_del_storm_detect(101), 0);
    EXPECT_EQ(take_calls(), port_rule_removed("101"));
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormRule, DeletionKeepsTheSharedRule) {
    enable_port_1();
    storm_del_storm_detect(101);
    EXPECT_EQ(take_calls(), port_rule_removed("101"));
    // The next first port creates it again.
    storm_set_rate_burst(1, 8000, 1024, true);
    EXPECT_EQ(take_calls(), shared_rule_installed() + port_rule_installed("101", "8000/1024"));
}

// ---- No service ----

class StormWithoutService : public StormTest {
 protected:
    StormWithoutService() {
        start();
        fake::clear_calls();
    }
};

TEST_F(StormWithoutService, UnapplyReportsItAndFails) {
    EXPECT_EQ(std_acl_unapply(101, 101, 2), -1);
    EXPECT_EQ(fake::take_calls(),
              (Lines{fake::info("std_acl_unapply", "phyid: 0x65, aclid: 0x65\n"),
                     fake::error("std_acl_unapply", "storm_udp_mgr is NULL !")}));
}

TEST_F(StormWithoutService, RemovalReportsEveryOperation) {
    EXPECT_EQ(storm_del_storm_fp(101), 0);
    expect_golden("storm_rule/removal_without_service", take_log());
}

TEST_F(StormWithoutService, PortRuleFailsAtItsEntry) {
    EXPECT_EQ(storm_add_by_fp(8000, 1024, 101), -1);
    expect_golden("storm_rule/port_rule_without_service", take_log());
    EXPECT_EQ(storm_port_num, 0u);
}

TEST_F(StormWithoutService, EnablingFailsAtTheSharedRule) {
    storm_set(1, true);
    expect_golden("storm_rule/shared_rule_without_service", take_log());
    EXPECT_EQ(enabled(), "1");
}

// ---- Results ----

class StormResult : public StormRule {
 protected:
    static const fp_udp_acl_handler& handlers() { return fake::fp_handlers(); }
    static inline const fp_acl_key kKey = fake::fp_key(101);
};

TEST_F(StormResult, SuccessesAreOnlyLogged) {
    enable_port_1();
    handlers().acl_success(fake::mom_client(), &kKey);
    handlers().entry_success(fake::mom_client(), &kKey);
    handlers().apply_success(fake::mom_client(), &kKey);
    const std::string text = "aclid:0x65, acl_app:loop_detection_app\n";
    EXPECT_EQ(fake::take_calls(), (Lines{fake::info("storm_install_on_acl_success", text),
                                         fake::info("storm_install_on_ace_success", text),
                                         fake::info("storm_install_on_apply_success", text)}));
}

TEST_F(StormResult, AclAndEntryFailuresAreOnlyLogged) {
    enable_port_1();
    handlers().acl_failed(fake::mom_client(), &kKey, 5);
    handlers().entry_failed(fake::mom_client(), &kKey, -6);
    EXPECT_EQ(fake::take_calls(), (Lines{fake::info("storm_install_on_acl_failed",
                                                    "aclid:0x65, acl_app:loop_detection_app, "
                                                    "err:5\n"),
                                         fake::info("storm_install_on_ace_failed",
                                                    "aclid:0x65, acl_app:loop_detection_app, "
                                                    "err:-6\n")}));
    EXPECT_NE(record(101), nullptr);
    EXPECT_EQ(enabled(), "1");
}

TEST_F(StormResult, FailedApplyRemovesTheRecordAndTheConfiguration) {
    storm_set_burst_limit(1, 5000, 64, true);
    enable_port_1();
    handlers().apply_failed(fake::mom_client(), &kKey, 28);
    expect_golden("storm_rule/failed_apply", fake::calls_of({"zlog"}));
    EXPECT_EQ(take_calls(), port_rule_removed("101"));
    EXPECT_EQ(record(101), nullptr);
    EXPECT_EQ(enabled(), "");
    EXPECT_EQ(rates(), "");
}

TEST_F(StormResult, FailedApplyOfALoopedPortNotifiesItsEnd) {
    enable_port_1();
    record(101)->is_loop = 1;
    handlers().apply_failed(fake::mom_client(), &kKey, 28);
    EXPECT_EQ(take_calls(), port_rule_removed("101") + Lines{"verdict is_loop=0 ifx=1"});
}

TEST_F(StormResult, FailedApplyOfAnUnknownPortIsLogged) {
    enable_port_1();
    const fp_acl_key key = fake::fp_key(0x999);
    handlers().apply_failed(fake::mom_client(), &key, 28);
    const Lines log = take_log();
    EXPECT_EQ(log.back(),
              fake::error("storm_install_on_apply_failed", "rv: -1, acl_key->acl_id: 0x999"));
    EXPECT_EQ(enabled(), "1");
    EXPECT_NE(record(101), nullptr);
}

TEST_F(StormResult, FailedApplyOfTheSharedRuleDropsNoInterface) {
    enable_port_1();
    const fp_acl_key key = fake::fp_key(0);
    handlers().apply_failed(fake::mom_client(), &key, 28);
    EXPECT_EQ(fake::calls_of({"zlog"}).back(),
              fake::error("storm_install_on_apply_failed", "rv: -1, acl_key->acl_id: 0x0"));
    EXPECT_EQ(take_calls(), (Lines{"fp_apply_delete 0 at type=2 port=0",
                                   "fp_entry_delete 0 entry 0", "fp_acl_delete 0"}));
    EXPECT_EQ(enabled(), "1");
    EXPECT_NE(record(101), nullptr);
}

}  // namespace
