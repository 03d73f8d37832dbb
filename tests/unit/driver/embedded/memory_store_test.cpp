// The memory store below the client of qv/mom.h: which reports reach which client.
#include "platform/driver/embedded/memory_store.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

std::string text_of(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

class RecordingListener final : public StoreListener {
 public:
    void session_up(uint32_t db) override { lines.push_back("up " + std::to_string(db)); }
    void session_down(uint32_t db) override { lines.push_back("down " + std::to_string(db)); }
    void subscribed(uint64_t number) override {
        lines.push_back("subscribed " + std::to_string(number));
    }
    // The operation byte as a digit, then the record.
    void notice(uint64_t number, Bytes notice) override {
        lines.push_back("notice " + std::to_string(number) + " " + std::to_string(notice.front()) +
                        text_of(notice.subspan(1)));
    }
    void scanned(uint64_t scan, std::string_view key, Bytes record) override {
        lines.push_back("scanned " + std::to_string(scan) + " " + std::string(key) + " " +
                        text_of(record));
    }
    void scan_done(uint64_t scan) override { lines.push_back("done " + std::to_string(scan)); }

    Lines lines;
};

struct MemoryStoreTest : testing::Test {
    test::ManualClock clock;
    EventLoop loop{clock};
    MemoryStore store{loop};
    RecordingListener listener;
    std::unique_ptr<StoreClient> client = store.connect(listener);

    Lines heard() {
        test::run_ready(loop, clock);
        return std::exchange(listener.lines, {});
    }
};

TEST_F(MemoryStoreTest, DestroyedClientGetsNoReports) {
    client->open(4);
    client->subscribe(4, "t", 1);
    client->scan(4, "t", 2);
    client.reset();
    store.put(4, "t/a=1", bytes_of("x"));
    store.drop(4);
    EXPECT_EQ(heard(), Lines{});
}

TEST_F(MemoryStoreTest, LossConcernsOpenDatabasesOnce) {
    client->open(4);
    EXPECT_EQ(heard(), Lines{"up 4"});
    store.drop(3);
    store.restore(3);
    store.restore(4);
    EXPECT_EQ(heard(), Lines{});
    store.drop(4);
    store.drop(4);
    EXPECT_EQ(heard(), Lines{"down 4"});
    store.restore(4);
    store.restore(4);
    EXPECT_EQ(heard(), Lines{"up 4"});
}

TEST_F(MemoryStoreTest, MissingRecordIsSetAndAnExistingOneKept) {
    EXPECT_FALSE(client->set_missing(4, "t", "t/a=1", bytes_of("x"))) << "not open";
    client->open(4);
    client->subscribe(4, "t", 1);
    EXPECT_TRUE(client->set_missing(4, "t", "t/a=1", bytes_of("x")));
    EXPECT_TRUE(client->set_missing(4, "t", "t/a=1", bytes_of("y")));
    EXPECT_EQ(store.get(4, "t/a=1"), "x");
    EXPECT_EQ(heard(), (Lines{"up 4", "subscribed 1", "notice 1 0x"}));
    store.drop(4);
    EXPECT_FALSE(client->set_missing(4, "t", "t/b=1", bytes_of("x")));
    EXPECT_EQ(store.get(4, "t/b=1"), std::nullopt);
}

TEST_F(MemoryStoreTest, LaterSubscriptionReplacesTheEarlierOne) {
    client->open(4);
    client->subscribe(4, "t", 1);
    client->subscribe(4, "t", 2);
    store.put(4, "t/a=1", bytes_of("x"));
    EXPECT_EQ(heard(), (Lines{"up 4", "subscribed 1", "subscribed 2", "notice 2 0x"}));
}

TEST_F(MemoryStoreTest, LossDropsUnreportedNotices) {
    store.put(4, "t/a=1", bytes_of("x"));
    client->open(4);
    heard();
    client->subscribe(4, "t", 1);
    client->scan(4, "t", 2);
    store.drop(4);
    EXPECT_EQ(heard(), Lines{"down 4"});
}

}  // namespace
}  // namespace qv
