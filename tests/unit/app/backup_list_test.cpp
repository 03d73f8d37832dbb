// Ports that the saved configuration names before they exist.
#include <gtest/gtest.h>

#include "lda_main.h"
#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/agent_fixture.h"

using fake::info;
using fake::Lines;

namespace {

const lda_intf_t* node_at(const lda_list_t* links) {
    return reinterpret_cast<const lda_intf_t*>(links);
}

class BackupList : public AgentTest {
 protected:
    // The listed ports, front to back; checks the links both ways.
    static std::vector<uint32_t> listed() {
        std::vector<uint32_t> ports;
        const lda_list_t* node = &backup_node_list;
        for (; node->next != &backup_node_list; node = node->next) {
            EXPECT_EQ(node->next->prev, node);
            ports.push_back(node_at(node->next)->ifx);
        }
        EXPECT_EQ(backup_node_list.prev, node);
        return ports;
    }

    // Links a node that lda_back_node_add would have refused.
    static void force(uint32_t ifx) {
        auto* node = static_cast<lda_intf_t*>(calloc(1, sizeof(lda_intf_t)));
        node->ifx = ifx;
        lda_list_add_tail(&backup_node_list, &node->link);
    }
};

using Ports = std::vector<uint32_t>;

}  // namespace

TEST_F(BackupList, AddsAtTheTail) {
    lda_back_node_add(7);
    lda_back_node_add(5);
    EXPECT_EQ(listed(), (Ports{7, 5}));
    EXPECT_EQ(fake::calls(), (Lines{
                                 info("lda_back_node_add", "--- add backup_node_list :ifx=7\n"),
                                 info("lda_back_node_add", "--- add backup_node_list :ifx=5\n"),
                             }));
}

TEST_F(BackupList, NodeHoldsOnlyThePortAndItsMark) {
    lda_back_node_add(7);
    const lda_intf_t* node = node_at(backup_node_list.next);
    EXPECT_EQ(node->ifx, 7u);
    EXPECT_EQ(node->is_shutdown, 1);
    EXPECT_EQ(node->clear_timer, nullptr);
    EXPECT_EQ(node->recover_ticks, 0u);
    EXPECT_STREQ(node->name, "");
    EXPECT_EQ(node->total_result, 0);
    EXPECT_EQ(node->tarn_result, 0);
    EXPECT_EQ(node->storm_result, 0);
    EXPECT_EQ(node->spare_word, 0u);
    EXPECT_EQ(node->shutdown_timer, nullptr);
    EXPECT_EQ(node->mode, 0u);
    EXPECT_EQ(node->mode_arg, 0);
    EXPECT_EQ(node->vsl_member, 0u);
}

TEST_F(BackupList, ListedPortsAreNotCounted) {
    lda_back_node_add(7);
    lda_back_node_add(5);
    EXPECT_EQ(g_lda_loop_set->intf_num, 0);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
    EXPECT_EQ(lda_loop_result_get(7), nullptr);
    add_record(3);
    lda_back_node_del(7);
    EXPECT_EQ(g_lda_loop_set->intf_num, 1);
    EXPECT_EQ(g_lda_loop_set->loop_num, 0);
}

TEST_F(BackupList, AddingTwiceLeavesOneNodeAndIsLogged) {
    lda_back_node_add(7);
    fake::clear_calls();
    lda_back_node_add(7);
    EXPECT_EQ(listed(), (Ports{7}));
    EXPECT_EQ(fake::calls(),
              (Lines{info("lda_back_node_add", "---backup_node_list have been added :ifx=7\n")}));
}

TEST_F(BackupList, AddWithoutMemoryIsSilent) {
    fake::fail_calloc(1);
    lda_back_node_add(7);
    EXPECT_EQ(listed(), Ports{});
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(BackupList, LookupFindsWhatWasAdded) {
    EXPECT_EQ(lda_back_node_lookup(7), 0);
    lda_back_node_add(5);
    lda_back_node_add(7);
    fake::clear_calls();
    EXPECT_EQ(lda_back_node_lookup(7), 1);
    EXPECT_EQ(lda_back_node_lookup(5), 1);
    EXPECT_EQ(lda_back_node_lookup(6), 0);
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(BackupList, LookupOfAnEmptyListFindsNothing) {
    EXPECT_EQ(lda_back_node_lookup(0), 0);
}

TEST_F(BackupList, DeleteRemovesThePort) {
    for (uint32_t ifx : {5u, 7u, 9u})
        lda_back_node_add(ifx);
    fake::clear_calls();
    lda_back_node_del(7);
    EXPECT_EQ(listed(), (Ports{5, 9}));
    EXPECT_EQ(fake::calls(),
              (Lines{info("lda_back_node_del", "---LDA delete backup_node_list :ifx=7\n")}));
    EXPECT_EQ(lda_back_node_lookup(7), 0);
}

TEST_F(BackupList, DeleteOfTheLastNodeEmptiesTheList) {
    lda_back_node_add(7);
    lda_back_node_del(7);
    EXPECT_EQ(backup_node_list.next, &backup_node_list);
    EXPECT_EQ(backup_node_list.prev, &backup_node_list);
}

TEST_F(BackupList, DeleteRemovesOnlyTheFirstNodeOfThePort) {
    for (uint32_t ifx : {5u, 7u, 9u, 7u, 3u})
        force(ifx);
    lda_back_node_del(7);
    EXPECT_EQ(listed(), (Ports{5, 9, 7, 3}));
}

TEST_F(BackupList, DeleteOfAnUnlistedPortIsSilent) {
    lda_back_node_add(5);
    fake::clear_calls();
    lda_back_node_del(7);
    EXPECT_EQ(listed(), (Ports{5}));
    EXPECT_EQ(fake::calls(), Lines{});
}

TEST_F(BackupList, AddAndDeleteWorkUnderTheLoopLock) {
    lda_loop_lock();
    lda_back_node_add(5);
    lda_back_node_del(5);
    EXPECT_EQ(lda_loop_unlock(), 0);
    EXPECT_EQ(listed(), Ports{});
}

TEST_F(BackupList, LoopLockIsReleasedOnEveryPath) {
    lda_back_node_add(5);
    lda_back_node_add(5);
    lda_back_node_del(9);
    lda_back_node_del(5);
    EXPECT_FALSE(is_held(&g_lda_loop_set->lock));
}

TEST_F(BackupList, AddLinksItsNodeUnderTheLoopLock) {
    Lines seen;
    fake::on_lock(&g_lda_loop_set->lock, [&](bool taken) {
        seen.push_back((taken ? "locked " : "unlocking ") + std::to_string(listed().size()));
    });
    lda_back_node_add(5);
    EXPECT_EQ(seen, (Lines{"locked 0", "unlocking 1"}));
}

TEST_F(BackupList, DeleteLogsUnderTheLoopLock) {
    lda_back_node_add(5);
    bool held = false;
    fake::on_call("qvdf_zlog", [&] { held = is_held(&g_lda_loop_set->lock); });
    lda_back_node_del(5);
    EXPECT_TRUE(held);
}

TEST_F(BackupList, AddLogsAfterTheLoopLockIsReleased) {
    bool held = true;
    fake::on_call("qvdf_zlog", [&] { held = is_held(&g_lda_loop_set->lock); });
    lda_back_node_add(5);
    EXPECT_FALSE(held);
}

TEST_F(BackupList, PortOnTheListIsMarkedWhenItAppears) {
    g_lda_loop_set->policy = 2;
    lda_back_node_add(5);
    fake::add_port(5);
    fake::clear_calls();
    lda_intf_t* record = lda_add_intf(5);
    EXPECT_EQ(record->is_shutdown, 1);
    EXPECT_EQ(lda_back_node_lookup(5), 0);
    EXPECT_EQ(queued(), (Lines{"type=2 mid=2 ifx=5 shutdown=1"}));
}
