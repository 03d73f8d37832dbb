// The record of a NETCONF notification as another program receives it from the store.
#include <cerrno>
#include <chrono>

#include "p_nc.pb-c.h"
#include "platform/client/notification_ring.h"
#include "qv/netconf.h"
#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

using namespace std::string_literals;

constexpr uint32_t kLocalDb = 3;

// Receives the notices of one channel unchanged.
class RawListener final : public qv::StoreListener {
 public:
    explicit RawListener(World& world) : world_(world), store_(world.driver().connect(*this)) {
        store_->open(kLocalDb);
        EXPECT_TRUE(world_.run_until([this] { return placed; }));
    }

    void session_up(uint32_t db) override { store_->subscribe(db, "p_nc.notification", 1); }
    void session_down(uint32_t /*db*/) override { placed = false; }
    void subscribed(uint64_t /*number*/) override { placed = true; }
    void notice(uint64_t /*number*/, qv::Bytes bytes) override {
        notices.emplace_back(bytes.begin(), bytes.end());
    }
    void scanned(uint64_t /*number*/, std::string_view /*key*/, qv::Bytes /*record*/) override {}
    void scan_done(uint64_t /*number*/) override {}

    // Removes and returns the only notice so far.
    std::string take_one() {
        EXPECT_TRUE(world_.run_until([this] { return notices.size() == 1; }));
        Lines taken = std::move(notices);
        notices.clear();
        return taken.size() == 1 ? taken[0] : "";
    }

    bool placed = false;
    Lines notices;

 private:
    World& world_;
    std::unique_ptr<qv::StoreClient> store_;
};

// Cuts off the part that depends on the clock: everything from the field time_ms (8, a varint) on.
std::string without_time(const std::string& notice) {
    const size_t bytes_of_this_century = 7;
    EXPECT_GT(notice.size(), bytes_of_this_century);
    EXPECT_EQ(notice[notice.size() - bytes_of_this_century], '\x40');
    return notice.substr(0, notice.size() - bytes_of_this_century);
}

int send_two_leaves(qv_mom_client* client) {
    const nc_lib_leaf leaves[] = {{"/m:n/e[name='a']/vid", NC_LIB_TYPE_UINT32, 300},
                                  {"/m:n/e[name='a']/f", NC_LIB_TYPE_INT32, 0xffffffff}};
    return nc_lib_notification_send(client, leaves, 2, 0);
}

TEST_P(Store, NotificationIsPublishedInTheLocalDatabaseByteForByte) {
    open(kLocalDb);
    RawListener listener(*world);
    ASSERT_EQ(send_two_leaves(client), 0);
    EXPECT_EQ(without_time(listener.take_one()),
              "\x02"s                               // published
              "\x2a\x02\x08\x01"                    // index: sequence 1
              "\x32\x03m:n"                         // name
              "\x3a\x1b"                            // first leaf
              "\x0a\x14/m:n/e[name='a']/vid"        // path
              "\x10\x14\x18\xac\x02"                // type 20, value 300
              "\x3a\x1c"                            // second leaf
              "\x0a\x12/m:n/e[name='a']/f"          // path
              "\x10\x08\x18\xff\xff\xff\xff\x0f");  // type 8, value -1
    EXPECT_EQ(world->keys(kLocalDb),
              (Lines{"p_nc.kept_notification/slot=1", "p_nc.notification_log/"}));
}

TEST_P(Store, NotificationCarriesTheTimeOfTheEvent) {
    open(kLocalDb);
    RawListener listener(*world);
    ASSERT_EQ(send_two_leaves(client), 0);
    const std::string notice = listener.take_one();
    PNc__Notification* const record = p_nc__notification__unpack(
        nullptr, notice.size() - 1, reinterpret_cast<const uint8_t*>(notice.data()) + 1);
    ASSERT_NE(record, nullptr);
    const auto shown = qv::recent_notifications().at(0).time.time_since_epoch();
    EXPECT_EQ(record->time_ms,
              uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(shown).count()));
    p_nc__notification__free_unpacked(record, nullptr);
}

TEST_P(Store, NotificationThatFindsNoDatabaseLeavesAGapInTheSequence) {
    open(kLocalDb);
    world->lose();
    expect_heard("down");
    EXPECT_EQ(send_two_leaves(client), ENOTCONN);
    EXPECT_TRUE(qv::recent_notifications().empty());
    world->restore();
    expect_heard("back");
    RawListener listener(*world);
    ASSERT_EQ(send_two_leaves(client), 0);
    EXPECT_EQ(listener.take_one().substr(0, 5), "\x02\x2a\x02\x08\x02"s);
    EXPECT_EQ(qv::recent_notifications().size(), 1u);
}

}  // namespace
}  // namespace store_test
