// The subscription to the peer protocol's loop reports.
#include <cstdio>

#include "lda_msg.h"
#include "lda_tarn.h"
#include "p_bridge.pb-c.h"
#include "tests/support/golden/golden.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

const std::string type = "p_bridge.tarn_loop_info";
const std::string callback = "lda_tarn_mom_subscribe_callback";

std::string pointer(const void* value) {
    char text[32];
    snprintf(text, sizeof text, "%p", value);
    return text;
}

class TarnReport : public StartedAgent {
 protected:
    TarnReport() {
        lda_tarn_mom_reg_subscribe();
        fake::clear_calls();
    }
    static int report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx, uint32_t vid = 0,
                      int oper = 0) {
        PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
        PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
        index.ifx = ifx;
        record.index = &index;
        record.vid = vid;
        record.is_loop = is_loop;
        record.src_ifx = src_ifx;
        return fake::mom_message(4, type, 1, oper, &record.base);
    }
};

TEST_F(TarnReport, SubscribesToAllRecordsInTheApplicationDatabase) {
    EXPECT_EQ(lda_tarn_mom_reg_subscribe(), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_mom_subscribe db=4 p_bridge.tarn_loop_info index{}"});
    EXPECT_EQ(fake::mom_subscriber(4, type), lda_tarn_mom_subscribe_callback);
}

TEST_F(TarnReport, DatabaseResultIsIgnored) {
    fake::fail("qv_mom_subscribe", 107);
    EXPECT_EQ(lda_tarn_mom_reg_subscribe(), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_mom_subscribe db=4 p_bridge.tarn_loop_info index{}"});
}

TEST_F(TarnReport, BadCallIsReported) {
    qv_mom_msg message{1, 0, 4, nullptr};
    EXPECT_EQ(lda_tarn_mom_subscribe_callback(nullptr, &message), -1);
    EXPECT_EQ(lda_tarn_mom_subscribe_callback(fake::mom_client(), nullptr), -1);
    EXPECT_EQ(lda_tarn_mom_subscribe_callback(nullptr, nullptr), -1);
    EXPECT_EQ(fake::take_calls(),
              (Lines{error(callback, "global[(nil)] mom_msg[" + pointer(&message) + "]"),
                     error(callback, "global[" + pointer(fake::mom_client()) + "] mom_msg[(nil)]"),
                     error(callback, "global[(nil)] mom_msg[(nil)]")}));
}

TEST_F(TarnReport, ConfirmationStartsAScan) {
    log_everything();
    EXPECT_EQ(fake::mom_message(4, type, 29, 0, nullptr), 0);
    EXPECT_EQ(fake::take_calls(), (Lines{info(callback, "recv mom msg, cmd[29]"),
                                         info(callback, "mom subscribe success"),
                                         "qv_mom_scan db=4 p_bridge.tarn_loop_info index{}"}));
    EXPECT_EQ(fake::mom_scanner(4, type), lda_tarn_mom_subscribe_callback);
}

TEST_F(TarnReport, ConfirmationTakesPrecedenceOverTheOperationCode) {
    fake::fail("qv_mom_scan", 107);
    EXPECT_EQ(fake::mom_message(4, type, 29, 1, nullptr), 0);
    EXPECT_EQ(fake::take_calls(), Lines{"qv_mom_scan db=4 p_bridge.tarn_loop_info index{}"});
}

TEST_F(TarnReport, OperationCodeOneIsIgnored) {
    looped(7, 1, 1);
    log_everything();
    EXPECT_EQ(report(7, 0, 7, 0, 1), 0);
    EXPECT_EQ(fake::mom_message(4, type, 1, 1, nullptr), 0);
    EXPECT_EQ(fake::take_calls(), (Lines{info(callback, "recv mom msg, cmd[1]"),
                                         info(callback, "recv mom msg, cmd[1]")}));
}

TEST_F(TarnReport, PublishedReportIsHandledLikeASetOne) {
    lda_intf_t* record = add(7);
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(report(7, 1, 7, 0, 2), 0);
    EXPECT_EQ(record->total_result, 1);
}

TEST_F(TarnReport, MessageWithoutARecordIsReported) {
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(fake::mom_message(4, type, 1, 0, nullptr), -1);
    EXPECT_EQ(fake::take_calls(), Lines{error(callback, "value is null err!")});
}

TEST_F(TarnReport, RecordWithoutItsIndexIsReported) {
    lda_loop_detect_ptype_set(1);
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    record.is_loop = 1;
    EXPECT_EQ(fake::mom_message(4, type, 1, 0, &record.base), -1);
    EXPECT_EQ(fake::take_calls(), Lines{error(callback, "value is null err!")});
}

TEST_F(TarnReport, ReportWhileDetectionIsDisabledIsDropped) {
    lda_intf_t* record = add(7);
    log_everything();
    EXPECT_EQ(report(7, 1, 7, 20), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info(callback, "recv mom msg, cmd[1]"),
                     info(callback, "recv tarn msg, ifx[7] vid[20] is_loop[1] src_ifx[7]"),
                     info(callback,
                          "current lda is disable, thus does not process the relevant "
                          "business logic.")}));
    EXPECT_EQ(record->tarn_result, 0);
    EXPECT_EQ(record->total_result, 0);

    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(record->total_result, 0);
    report(7, 1, 7, 20);
    EXPECT_EQ(record->total_result, 1);
}

TEST_F(TarnReport, LoopSeenOnThePortItselfMarksOnlyThatPort) {
    lda_intf_t* record = add(7);
    lda_intf_t* other = add(8);
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(report(7, 1, 7), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 1), entry_set("swp7", 0, 1), detected("swp7")}));
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(other->tarn_result, 0);
}

TEST_F(TarnReport, LoopSeenOnThePortItselfIsRecordedOnce) {
    lda_intf_t* record = add(7, 1);
    lda_loop_detect_ptype_set(2);
    report(7, 1, 7);
    EXPECT_EQ(take_posted(), Lines{"type=2 mid=2 ifx=7 shutdown=1"});
    EXPECT_EQ(record->tarn_result, 1);
}

TEST_F(TarnReport, LoopSeenOnAnotherPortMarksBoth) {
    lda_intf_t* record = add(7);
    lda_intf_t* other = add(8);
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(report(7, 1, 8, 5), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 1), entry_set("swp7", 0, 1), detected("swp7"),
                     notification("swp8", 1, 0, 1), entry_set("swp8", 0, 1), detected("swp8")}));
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(other->tarn_result, 1);
}

TEST_F(TarnReport, ReportLinesInOrder) {
    add(7);
    add(8);
    lda_loop_detect_ptype_set(1);
    log_everything();
    report(7, 4096, 8, 5);
    expect_golden("tarn_report/loop_seen_on_another_port", fake::calls_of({"zlog"}));
}

TEST_F(TarnReport, AnyNonZeroLoopIsStoredAsOne) {
    lda_intf_t* record = add(7);
    lda_loop_detect_ptype_set(1);
    report(7, 256, 7);
    EXPECT_EQ(record->tarn_result, 1);
    EXPECT_EQ(record->storm_result, 0);
}

TEST_F(TarnReport, EndOfALoopOnAQuietPortChangesNothing) {
    add(7);
    lda_loop_detect_ptype_set(2);
    EXPECT_EQ(report(7, 0, 7), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
}

TEST_F(TarnReport, EndOfALoopArmsTheClearTimersOfBothPorts) {
    looped(7, 1, 1);
    looped(8, 1, 1);
    report(7, 0, 8);
    EXPECT_EQ(fake::take_calls(), (Lines{"qv_thread_add_timer 60", "qv_thread_add_timer 60"}));
}

TEST_F(TarnReport, ReportsForPortsWithoutARecordAreDropped) {
    add(7);
    lda_loop_detect_ptype_set(1);
    EXPECT_EQ(report(0, 1, 99), 0);
    EXPECT_EQ(fake::take_calls(), Lines{});
    EXPECT_EQ(report(99, 1, 7), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{notification("swp7", 1, 0, 1), entry_set("swp7", 0, 1), detected("swp7")}));
}

TEST_F(TarnReport, SourcePortZeroIsTreatedAsAnotherPort) {
    add(7);
    lda_loop_detect_ptype_set(1);
    log_everything();
    EXPECT_EQ(report(7, 0, 0), 0);
    EXPECT_EQ(fake::take_calls(),
              (Lines{info(callback, "recv mom msg, cmd[1]"),
                     info(callback, "recv tarn msg, ifx[7] vid[0] is_loop[0] src_ifx[0]"),
                     info(callback, "lda_loop_result_set src loop")}));
}

TEST_F(TarnReport, TenThousandReportsInARow) {
    lda_intf_t* record = add(7);
    add(8);
    lda_loop_detect_ptype_set(2);
    for (int i = 0; i < 10000; i++)
        ASSERT_EQ(report(7, 1, 8), 0);
    // The first report marks both ports, each later one forces them down once more.
    EXPECT_EQ(take_posted().size(), 20000u);
    EXPECT_EQ(g_lda_loop_set->loop_num, 2);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(fake::calls_of({"syslog"}), (Lines{detected("swp7"), detected("swp8")}));
}

}  // namespace
