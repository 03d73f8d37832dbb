// The list of the process's own records, as the calls of qv/mom.h keep it.
#include "platform/client/own_records.h"

#include <cerrno>

#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

class OwnRecordsTest : public testing::Test {
 protected:
    OwnRecordsTest() {
        master = qv_thread_master_create();
        client = qv_mom_client_init("TEST", master, nullptr);
        qv_mom_client_connect(client, 4, nullptr, nullptr);
        platform.run_ready();
        own.on_erased([this](uint32_t db, const std::string& key) {
            erased.push_back(std::to_string(db) + " " + key);
        });
    }
    ~OwnRecordsTest() override {
        own.on_erased(nullptr);
        qv_mom_pdel(client, 4, LoopEntry("", 0, false).record(), 0, 0, 0);
        qv_thread_master_finish(master);
    }

    int set(const char* name) {
        return qv_mom_set(client, 4, LoopEntry(name, 1, true).record(), 0, 0);
    }
    int del(const char* name) {
        return qv_mom_del(client, 4, LoopEntry(name, 0, false).record(), 0, 0);
    }
    int delete_all() { return qv_mom_pdel(client, 4, LoopEntry("", 0, false).record(), 0, 0, 0); }

    qv::test::TestPlatform platform;
    qv_thread_master* master;
    qv_mom_client* client;
    qv::OwnRecords& own = qv::own_records();
    Lines erased;
};

using OwnRecords = OwnRecordsTest;

TEST_F(OwnRecords, RecordIsThereFromSetToDelete) {
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
    ASSERT_EQ(set("swp3"), 0);
    EXPECT_TRUE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
    EXPECT_FALSE(own.contains(3, "p_app.lda_loop_entry/name=swp3"));
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp"));
    ASSERT_EQ(del("swp3"), 0);
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
}

TEST_F(OwnRecords, RecordIsReportedInsideTheCallThatAddsIt) {
    Lines added;
    own.on_added([&](uint32_t db, const std::string& key, const std::vector<uint8_t>& packed) {
        added.push_back(std::to_string(db) + " " + key + " " + std::to_string(packed.size()));
    });
    set("swp3");
    // Tags and lengths of the index and of its name, the name, then two fields of two bytes.
    EXPECT_EQ(added, Lines{"4 p_app.lda_loop_entry/name=swp3 12"});
    set("swp3");
    EXPECT_EQ(added.size(), 1U) << "it was there";
    del("swp3");
    set("swp3");
    EXPECT_EQ(added.size(), 2U);
    own.on_added(nullptr);
    set("swp4");
    EXPECT_EQ(added.size(), 2U);
}

TEST_F(OwnRecords, DeleteIsReportedThroughTheLoopOnce) {
    set("swp3");
    set("swp4");
    del("swp3");
    del("swp3");
    EXPECT_EQ(erased, Lines{});
    platform.run_ready();
    EXPECT_EQ(erased, Lines{"4 p_app.lda_loop_entry/name=swp3"});
}

TEST_F(OwnRecords, DeleteIsNotReportedToAListenerThatHasGoneMeanwhile) {
    set("swp3");
    del("swp3");
    own.on_erased(nullptr);
    EXPECT_NO_THROW(platform.run_ready());
    EXPECT_EQ(erased, Lines{});
}

TEST_F(OwnRecords, BulkDeleteReportsEachRecordOfTheTypeAndDatabase) {
    qv_mom_client_connect(client, 3, nullptr, nullptr);
    qv_mom_client_connect(client, 8, nullptr, nullptr);
    const LoopEntry entry("swp9", 1, true);
    qv_mom_set(client, 3, entry.record(), 0, 0);
    qv_mom_set(client, 8, entry.record(), 0, 0);
    set("swp3");
    set("a/b");
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    ASSERT_EQ(delete_all(), 0);
    platform.run_ready();
    EXPECT_EQ(erased,
              (Lines{"4 p_app.lda_loop_entry/name=a%2Fb", "4 p_app.lda_loop_entry/name=swp3"}));
    EXPECT_TRUE(own.contains(4, "p_bridge.tarn_loop_info/ifx=7"));
    EXPECT_TRUE(own.contains(3, "p_app.lda_loop_entry/name=swp9"));
    EXPECT_TRUE(own.contains(8, "p_app.lda_loop_entry/name=swp9"));
}

TEST_F(OwnRecords, RefusedSetIsNotKept) {
    platform.memory_store().drop(4);
    EXPECT_EQ(set("swp3"), ENOTCONN);
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
}

TEST_F(OwnRecords, DeleteWhileTheDatabaseIsAwayRemovesTheRecord) {
    set("swp3");
    set("swp4");
    platform.memory_store().drop(4);
    EXPECT_EQ(del("swp3"), ENOTCONN);
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
    EXPECT_TRUE(own.contains(4, "p_app.lda_loop_entry/name=swp4"));
    EXPECT_EQ(delete_all(), ENOTCONN);
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp4"));
    platform.run_ready();
    EXPECT_EQ(erased,
              (Lines{"4 p_app.lda_loop_entry/name=swp3", "4 p_app.lda_loop_entry/name=swp4"}));
}

TEST_F(OwnRecords, EachClientOwnsTheRecordsThatItSetLast) {
    qv_mom_client* const other = qv_mom_client_init("OTHER", master, nullptr);
    qv::OwnRecords records;
    records.set(client, 4, "a", {1});
    records.set(client, 4, "b", {2});
    records.set(other, 4, "b", {3});
    records.set(other, 3, "c", {4});
    const auto all_of = [&](const qv_mom_client* owner) {
        Lines lines;
        records.for_each(owner, [&](const qv::OwnRecords::Id& id, const auto& packed) {
            lines.push_back(std::to_string(id.first) + id.second + std::to_string(packed.at(0)));
        });
        return lines;
    };
    EXPECT_EQ(all_of(client), Lines{"4a1"});
    EXPECT_EQ(all_of(other), (Lines{"3c4", "4b3"}));
    EXPECT_EQ(records.keys_after(client, {}, 64).keys, Lines{"a"});
    EXPECT_EQ(records.keys_after(other, {}, 64).keys, Lines{"c"});
    EXPECT_EQ(records.keys_after(other, {3, "c"}, 64).keys, Lines{"b"});
    EXPECT_EQ(records.keys_after(other, {4, "b"}, 64).keys, Lines{"c"});
    EXPECT_EQ(records.keys_after(nullptr, {}, 64).keys, Lines{});
}

TEST_F(OwnRecords, PublishedRecordIsNotAnOwnRecord) {
    ASSERT_EQ(qv_mom_publish(client, 4, LoopEntry("swp3", 1, true).record(), 0, 0), 0);
    EXPECT_FALSE(own.contains(4, "p_app.lda_loop_entry/name=swp3"));
}

}  // namespace
}  // namespace store_test
