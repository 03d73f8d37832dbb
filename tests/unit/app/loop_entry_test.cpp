// Publication of looped ports as p_app.lda_loop_entry records.
#include <gtest/gtest.h>

#include "lda_main.h"
#include "lda_notify.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::error;
using fake::info;
using fake::Lines;

namespace {

class LoopEntry : public AgentTest {
 protected:
    // The entry that is published for port "swp5" of a mode under a policy.
    static Lines published(uint32_t policy, uint32_t mode) {
        lda_intf_t* record = add_record(5, mode);
        record->mode = mode;
        g_lda_loop_set->policy = policy;
        EXPECT_EQ(lda_mom_set_loop_entry(record), 0);
        return fake::take_calls();
    }

    static Lines set_lines(const char* log_text, const char* fields) {
        return {
            info("lda_mom_set_loop_entry", log_text),
            std::string("qv_mom_set db=4 p_app.lda_loop_entry ") + fields,
        };
    }
};

const char kNeither[] = "set loop entry: name=swp5, policy=0,is_src=0\n";
const char kSourceOnly[] = "set loop entry: name=swp5, policy=0,is_src=1\n";
const char kBoth[] = "set loop entry: name=swp5, policy=1,is_src=1\n";
const char kNameRecord[] = "index{name=\"swp5\"}";
const char kSourceRecord[] = "index{name=\"swp5\"} src_port=1";
const char kBothRecord[] = "index{name=\"swp5\"} policy=1 src_port=1";

}  // namespace

TEST_F(LoopEntry, AccessPortIsShutUnderAccessAndAccessHybrid) {
    EXPECT_EQ(published(2, 1), set_lines(kBoth, kBothRecord));
    EXPECT_EQ(published(4, 1), set_lines(kBoth, kBothRecord));
}

TEST_F(LoopEntry, AccessPortIsOnlyWarnedOtherwise) {
    for (uint32_t policy : {0u, 1u, 3u, 5u})
        EXPECT_EQ(published(policy, 1), set_lines(kSourceOnly, kSourceRecord)) << policy;
}

TEST_F(LoopEntry, HybridPortIsShutUnderHybridAndAccessHybrid) {
    EXPECT_EQ(published(3, 7), set_lines(kBoth, kBothRecord));
    EXPECT_EQ(published(4, 7), set_lines(kBoth, kBothRecord));
}

TEST_F(LoopEntry, HybridPortIsOnlyWarnedOtherwise) {
    for (uint32_t policy : {0u, 1u, 2u, 5u})
        EXPECT_EQ(published(policy, 7), set_lines(kSourceOnly, kSourceRecord)) << policy;
}

TEST_F(LoopEntry, OtherModesNeverShutDownWhateverThePolicy) {
    for (uint32_t mode : {0u, 2u, 3u, 6u, 8u})
        for (uint32_t policy : {0u, 1u, 2u, 3u, 4u})
            EXPECT_EQ(published(policy, mode), set_lines(kNeither, kNameRecord)) << mode;
}

TEST_F(LoopEntry, SettingTwiceWritesTheSameKeyAgain) {
    lda_intf_t* record = add_record(5);
    g_lda_loop_set->policy = 2;
    EXPECT_EQ(lda_mom_set_loop_entry(record), 0);
    g_lda_loop_set->policy = 1;
    EXPECT_EQ(lda_mom_set_loop_entry(record), 0);
    EXPECT_EQ(
        fake::calls_of({"qv_mom_set"}),
        (Lines{"qv_mom_set db=4 p_app.lda_loop_entry index{name=\"swp5\"} policy=1 src_port=1",
               "qv_mom_set db=4 p_app.lda_loop_entry index{name=\"swp5\"} src_port=1"}));
}

TEST_F(LoopEntry, RefusedSetIsLoggedAndReturned) {
    lda_intf_t* record = add_record(5);
    fake::fail("qv_mom_set", 107);
    EXPECT_EQ(lda_mom_set_loop_entry(record), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_set_loop_entry", kSourceOnly),
                                 "qv_mom_set db=4 p_app.lda_loop_entry index{name=\"swp5\"} "
                                 "src_port=1",
                                 error("lda_mom_set_loop_entry", "qv_mom_set lda entry failed"),
                             }));
}

TEST_F(LoopEntry, RefusedSetKeepsTheLoopState) {
    lda_intf_t* record = add_looped(5);
    fake::fail("qv_mom_set", 107);
    lda_mom_set_loop_entry(record);
    EXPECT_EQ(record->total_result, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 1);
    EXPECT_EQ(fake::calls_of({"qv_mom_set"}).size(), 1u);
}

TEST_F(LoopEntry, DeleteCarriesOnlyTheKey) {
    lda_intf_t* record = add_looped(5);
    g_lda_loop_set->policy = 2;
    EXPECT_EQ(lda_mom_del_loop_entry(record), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_del_loop_entry", "delete loop entry: name=swp5\n"),
                                 "qv_mom_del db=4 p_app.lda_loop_entry index{name=\"swp5\"}",
                             }));
}

TEST_F(LoopEntry, RefusedDeleteIsLoggedAndReturned) {
    lda_intf_t* record = add_record(5);
    fake::fail("qv_mom_del", 107);
    EXPECT_EQ(lda_mom_del_loop_entry(record), -1);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_del_loop_entry", "delete loop entry: name=swp5\n"),
                                 "qv_mom_del db=4 p_app.lda_loop_entry index{name=\"swp5\"}",
                                 error("lda_mom_del_loop_entry", "qv_mom_del lda entry failed"),
                             }));
}

TEST_F(LoopEntry, BulkDeleteHasAnEmptyName) {
    add_record(5);
    EXPECT_EQ(lda_mom_del_all_loop_entry(), 0);
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_mom_del_all_loop_entry", "delete all loop entry\n"),
                                 "qv_mom_pdel db=4 p_app.lda_loop_entry index{}",
                             }));
}

TEST_F(LoopEntry, RefusedBulkDeleteIsLoggedWithItsResult) {
    fake::fail("qv_mom_pdel", -107);
    EXPECT_EQ(lda_mom_del_all_loop_entry(), -1);
    EXPECT_EQ(fake::calls(),
              (Lines{
                  info("lda_mom_del_all_loop_entry", "delete all loop entry\n"),
                  "qv_mom_pdel db=4 p_app.lda_loop_entry index{}",
                  error("lda_mom_del_all_loop_entry", "qv_mom_pdel lda entry failed, rv=-107"),
              }));
}
