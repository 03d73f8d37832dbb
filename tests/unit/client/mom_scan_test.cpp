// Scans beside notices, in orders that only a distant store produces. The test plays the store,
// report by report.
#include "tests/support/store_fixture.h"

#include <set>

#include "platform/client/mom_key.h"

namespace store_test {
namespace {

using namespace std::string_literals;

// Accepts everything and reports nothing by itself.
class ScriptedStore final : public qv::StoreDriver {
 public:
    std::unique_ptr<qv::StoreClient> connect(qv::StoreListener& heard_by) override {
        listener = &heard_by;
        return std::make_unique<Client>(*this);
    }

    void notice(const std::string& text) const { listener->notice(subscription, bytes_of(text)); }
    void scanned(const std::string& key, const std::string& record) const {
        listener->scanned(scan, key, bytes_of(record));
    }

    qv::StoreListener* listener = nullptr;
    uint64_t subscription = 0;
    uint64_t scan = 0;
    bool up = true;
    std::set<uint32_t> opened;

 private:
    static qv::Bytes bytes_of(const std::string& text) {
        return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
    }

    struct Client final : qv::StoreClient {
        explicit Client(ScriptedStore& owner) : store(owner) {}
        void open(uint32_t db) override {
            if (store.opened.insert(db).second) {
                store.listener->session_up(db);
            }
        }
        bool up(uint32_t) const override { return store.up; }
        bool set(uint32_t, std::string_view, std::string_view, qv::Bytes) override { return true; }
        bool set_missing(uint32_t, std::string_view, std::string_view, qv::Bytes) override {
            return true;
        }
        bool erase(uint32_t, std::string_view, std::string_view, qv::Bytes) override {
            return true;
        }
        bool erase_matching(uint32_t, std::string_view, std::string_view) override { return true; }
        bool publish(uint32_t, std::string_view, qv::Bytes) override { return true; }
        bool subscribe(uint32_t, std::string_view, uint64_t number) override {
            store.subscription = number;
            return true;
        }
        bool scan(uint32_t, std::string_view, uint64_t number) override {
            store.scan = number;
            return true;
        }
        ScriptedStore& store;
    };
};

class MomScan : public testing::Test {
 protected:
    MomScan() {
        g_heard.clear();
        master = qv_thread_master_create();
        platform.store_in_use = &store;
        client = qv_mom_client_init("TEST", master, nullptr);
        qv_mom_client_connect(client, 4, nullptr, nullptr);
        qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
        qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    }
    ~MomScan() override { qv_thread_master_finish(master); }

    qv::test::TestPlatform platform;
    ScriptedStore store;
    qv_thread_master* master;
    qv_mom_client* client;
};

TEST_F(MomScan, NoticeOvertakesTheScannedRecord) {
    store.notice("\0"s + LoopInfo(7, 1, 0, 7).packed());
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    store.scanned("p_bridge.tarn_loop_info/ifx=8", LoopInfo(8, 1, 1, 8).packed());
    EXPECT_EQ(g_heard, (Lines{"1/0/4 ifx=7 vid=1 loop=0 src=7", "1/0/4 ifx=8 vid=1 loop=1 src=8"}));
}

TEST_F(MomScan, DeletedRecordIsNotDelivered) {
    store.notice("\1"s + LoopInfo(7, 0, 0, 0).packed());
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, Lines{"1/1/4 ifx=7 vid=0 loop=0 src=0"});
}

TEST_F(MomScan, PublishedRecordIsNotStored) {
    store.notice("\2"s + LoopInfo(7, 1, 0, 7).packed());
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, (Lines{"1/2/4 ifx=7 vid=1 loop=0 src=7", "1/0/4 ifx=7 vid=1 loop=1 src=7"}));
}

TEST_F(MomScan, LaterScanDeliversTheKeyAgain) {
    store.notice("\0"s + LoopInfo(7, 1, 0, 7).packed());
    store.listener->scan_done(store.scan);
    g_heard.clear();
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 0, 7).packed());
    EXPECT_EQ(g_heard, Lines{"1/0/4 ifx=7 vid=1 loop=0 src=7"});
}

TEST_F(MomScan, LossEndsTheScan) {
    store.listener->session_down(4);
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, Lines{});
}

TEST_F(MomScan, LossOfAnotherDatabaseDoesNotEndTheScan) {
    store.listener->session_down(3);
    store.listener->session_down(22);
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, Lines{"1/0/4 ifx=7 vid=1 loop=1 src=7"});
}

TEST_F(MomScan, FinishedScanIsForgotten) {
    store.listener->scan_done(store.scan);
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, Lines{});
}

TEST_F(MomScan, NoticeOfAnotherDatabaseDoesNotOvertake) {
    qv_mom_subscribe(client, 3, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    store.notice("\0"s + LoopInfo(7, 3, 0, 7).packed());
    store.scanned("p_bridge.tarn_loop_info/ifx=7", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, (Lines{"1/0/3 ifx=7 vid=3 loop=0 src=7", "1/0/4 ifx=7 vid=1 loop=1 src=7"}));
}

TEST_F(MomScan, NoticeOvertakesTheScanOfItsOwnTypeOnly) {
    qv_mom_subscribe(client, 4, LoopEntry("", 0, false).record(), 0, on_loop_entry, nullptr);
    store.notice("\0"s + LoopEntry("swp1", 1, true).packed());
    store.scanned("p_app.lda_loop_entry/name=swp1", LoopInfo(7, 1, 1, 7).packed());
    EXPECT_EQ(g_heard, (Lines{"1/0/4 swp1 policy=1 src=1", "1/0/4 ifx=7 vid=1 loop=1 src=7"}));
}

TEST_F(MomScan, ConnectIsNotReportedWhileTheSessionIsDown) {
    qv_mom_client_set_reconnect_cb(client, 4, on_back, nullptr);
    qv_mom_client_connect(client, 4, on_up, nullptr);
    store.up = false;
    store.listener->session_down(4);
    platform.run_ready();
    EXPECT_EQ(g_heard, Lines{});
    store.up = true;
    store.listener->session_up(4);
    EXPECT_EQ(std::exchange(g_heard, {}), Lines{"up"});
    store.listener->session_up(4);
    EXPECT_EQ(g_heard, Lines{"back"});
}

TEST_F(MomScan, ReportsForNumbersNobodyKnowsAreIgnored) {
    store.listener->subscribed(99);
    store.listener->scan_done(99);
    store.listener->scanned(99, "p_bridge.tarn_loop_info/ifx=7", {});
    store.listener->notice(99, {});
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

}  // namespace
}  // namespace store_test
