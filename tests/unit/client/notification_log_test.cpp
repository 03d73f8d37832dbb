// Numbers of notifications, and what is kept of them, as another program finds it in the store.
#include "platform/client/notification_log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "p_nc.pb-c.h"
#include "platform/client/mom_key.h"
#include "qv/netconf.h"
#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

using namespace std::string_literals;

constexpr uint32_t kLocalDb = 3;
constexpr const char* kLogKey = "p_nc.notification_log/";

std::string slot_key(uint32_t slot) {
    return "p_nc.kept_notification/slot=" + std::to_string(slot);
}

std::string bytes_of(const ProtobufCMessage& record) {
    const std::vector<uint8_t> packed = qv::pack_record(record);
    return {packed.begin(), packed.end()};
}

// A kept record without leaves.
std::string kept(uint32_t slot, uint64_t sequence, uint64_t time_ms) {
    PNc__NotificationIndex number = P_NC__NOTIFICATION_INDEX__INIT;
    number.sequence = sequence;
    PNc__Notification notification = P_NC__NOTIFICATION__INIT;
    notification.index = &number;
    notification.time_ms = time_ms;
    PNc__KeptIndex index = P_NC__KEPT_INDEX__INIT;
    index.slot = slot;
    PNc__KeptNotification record = P_NC__KEPT_NOTIFICATION__INIT;
    record.index = &index;
    record.notification = &notification;
    return bytes_of(record.base);
}

struct LogRecord {
    uint64_t created_ms;
    uint64_t aged_ms;
    bool operator==(const LogRecord&) const = default;
};

class KeptNotifications : public Store {
 public:
    int send() {
        const nc_lib_leaf leaf{"/m:n/vid", NC_LIB_TYPE_UINT32, 1};
        return nc_lib_notification_send(client, &leaf, 1, 0);
    }

 protected:
    // Sends a notification and returns its number, as it is kept in `slot`; 0: not kept there.
    uint64_t sequence_sent_to(uint32_t slot) {
        const Lines before = world->get(kLocalDb, slot_key(slot));
        EXPECT_EQ(send(), 0);
        EXPECT_TRUE(
            world->run_until([&] { return world->get(kLocalDb, slot_key(slot)) != before; }));
        const Lines packed = world->get(kLocalDb, slot_key(slot));
        if (packed.size() != 1) {
            return 0;
        }
        PNc__KeptNotification* const record = p_nc__kept_notification__unpack(
            nullptr, packed[0].size(), reinterpret_cast<const uint8_t*>(packed[0].data()));
        const uint64_t sequence = record->notification->index->sequence;
        p_nc__kept_notification__free_unpacked(record, nullptr);
        return sequence;
    }

    std::optional<LogRecord> log() {
        const Lines packed = world->get(kLocalDb, kLogKey);
        if (packed.size() != 1) {
            return std::nullopt;
        }
        PNc__NotificationLog* const record = p_nc__notification_log__unpack(
            nullptr, packed[0].size(), reinterpret_cast<const uint8_t*>(packed[0].data()));
        const LogRecord log{record->created_ms, record->aged_ms};
        p_nc__notification_log__free_unpacked(record, nullptr);
        return log;
    }

    void put_log(uint64_t created_ms, uint64_t aged_ms) {
        PNc__NotificationLog record = P_NC__NOTIFICATION_LOG__INIT;
        record.created_ms = created_ms;
        record.aged_ms = aged_ms;
        world->put(kLocalDb, kLogKey, bytes_of(record.base));
    }
};

uint64_t now_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

TEST_P(KeptNotifications, LogBeginsWithTheFirstSession) {
    const uint64_t before = now_ms();
    open(kLocalDb);
    ASSERT_TRUE(world->run_until([this] { return log().has_value(); }));
    EXPECT_GE(log()->created_ms, before);
    EXPECT_LE(log()->created_ms, now_ms());
    EXPECT_EQ(log()->aged_ms, 0U);
}

TEST_P(KeptNotifications, LogOfAnEarlierProcessGoesOn) {
    put_log(1000, 0);
    world->put(kLocalDb, slot_key(40), kept(40, 40, 5000));
    world->put(kLocalDb, slot_key(41), kept(41, 41, 5001));
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(42), 42U);
    EXPECT_EQ(sequence_sent_to(43), 43U);
    EXPECT_EQ(log(), (LogRecord{1000, 0}));
}

TEST_P(KeptNotifications, OldestMakesRoomAndItsTimeIsNoted) {
    put_log(1000, 0);
    world->put(kLocalDb, slot_key(0), kept(0, 1000, 7000));
    world->put(kLocalDb, slot_key(1), kept(1, 1, 6000));
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(1), 1001U);
    ASSERT_TRUE(world->run_until([this] { return log() != LogRecord{1000, 0}; }));
    EXPECT_EQ(log(), (LogRecord{1000, 6000}));
}

TEST_P(KeptNotifications, NoMoreThanAThousandAreKept) {
    open(kLocalDb);
    ASSERT_TRUE(world->run_until([this] { return log().has_value(); }));
    for (int n = 0; n < 2100; ++n) {
        ASSERT_EQ(send(), 0);
    }
    settle();
    EXPECT_EQ(world->keys(kLocalDb).size(), 1001U);  // and the record about the log
    EXPECT_EQ(sequence_sent_to(101), 2101U);
}

TEST_P(KeptNotifications, RecordThatCannotBeOneIsIgnored) {
    world->put(kLocalDb, slot_key(1), "garbage");
    world->put(kLocalDb, slot_key(2), "");
    world->put(kLocalDb, slot_key(3), kept(3, 4, 5000));  // the slot of another number
    world->put(kLocalDb, slot_key(808), kept(808, uint64_t{1} << 63, 5000));
    world->put(kLocalDb, slot_key(9), kept(1009, 1009, 5000));  // no such slot
    world->put(kLocalDb, slot_key(5), kept(5, 5, 5000));
    world->put(kLocalDb, kLogKey, "garbage");
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(6), 6U);
    EXPECT_EQ(log()->aged_ms, 0U);
    pass(std::chrono::seconds(1));
    const Lines lines = platform.log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].starts_with("NETCONF-4-BAD_RECORD: Kept notification ")) << lines[0];
    EXPECT_EQ(lines[1],
              "MOM-4-BAD_REPEATED: 4 more invalid records or notices were dropped in the last "
              "second.");
}

TEST_P(KeptNotifications, RecordWithoutANumberIsLogged) {
    world->put(kLocalDb, slot_key(1), "garbage");
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(1), 1U);
    EXPECT_EQ(platform.log.lines(), Lines{"NETCONF-4-BAD_RECORD: Kept notification 0 ignored: no "
                                          "number that fits its slot."});
}

TEST_P(KeptNotifications, RecordBeyondTheNumbersIsLogged) {
    world->put(kLocalDb, slot_key(808), kept(808, uint64_t{1} << 63, 5000));
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(1), 1U);
    EXPECT_EQ(platform.log.lines(),
              Lines{"NETCONF-4-BAD_RECORD: Kept notification 9223372036854775808 ignored: no "
                    "number that fits its slot."});
}

TEST_P(KeptNotifications, AThousandWaitUntilTheLogHasBeenRead) {
    world->put(kLocalDb, slot_key(41), kept(41, 41, 5000));
    const auto on_session = [](void* arg) {
        auto& test = *static_cast<KeptNotifications*>(arg);
        for (int n = 0; n < 1000; ++n) {
            EXPECT_EQ(test.send(), 0);
        }
        EXPECT_EQ(test.send(), ENOTCONN);
        g_heard.emplace_back("up");
        return 0;
    };
    qv_mom_client_connect(client, kLocalDb, on_session, this);
    expect_heard("up");
    settle();
    EXPECT_EQ(world->keys(kLocalDb).size(), 1001U);
    EXPECT_EQ(sequence_sent_to(42), 1042U);
}

TEST_P(KeptNotifications, LostSessionLosesOneAndTheNumbersGoOn) {
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(1), 1U);
    world->lose();
    expect_heard("down");
    EXPECT_EQ(send(), ENOTCONN);
    world->restore();
    expect_heard("back");
    EXPECT_EQ(sequence_sent_to(3), 3U);
}

// The memory store keeps its records.
class KeptByAServer : public KeptNotifications {};

TEST_P(KeptByAServer, ServerThatHasLostTheLogGetsANewOne) {
    put_log(1000, 900);
    world->put(kLocalDb, slot_key(7), kept(7, 1007, 5000));
    world->put(kLocalDb, slot_key(10), kept(10, 10, 4000));
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(8), 1008U);
    world->lose();
    expect_heard("down");
    world->server()->forget();
    world->restore();
    expect_heard("back");
    EXPECT_EQ(sequence_sent_to(9), 1009U);
    EXPECT_EQ(sequence_sent_to(10), 1010U);
    settle();
    EXPECT_GT(log()->created_ms, 1000U);
    EXPECT_EQ(log()->aged_ms, 0U) << "what was lost has not been replaced";
    EXPECT_EQ(world->keys(kLocalDb), (Lines{slot_key(10), slot_key(9), kLogKey}));
}

TEST_P(KeptByAServer, ServerThatIsEmptiedGetsANewLogToo) {
    put_log(1000, 900);
    open(kLocalDb);
    EXPECT_EQ(sequence_sent_to(1), 1U);
    world->server()->run(kLocalDb, {"FLUSHDB"});
    clock.skip(std::chrono::seconds(5));  // then the driver looks for its records
    ASSERT_TRUE(world->run_until([this] { return log().has_value(); }));
    EXPECT_GT(log()->created_ms, 1000U);
    EXPECT_EQ(log()->aged_ms, 0U);
    EXPECT_EQ(sequence_sent_to(2), 2U);
}

INSTANTIATE_TEST_SUITE_P(Both, KeptNotifications, testing::Values("memory", "redis"),
                         [](const auto& kind) { return std::string(kind.param); });
INSTANTIATE_TEST_SUITE_P(Real, KeptByAServer, testing::Values("redis"),
                         [](const auto& kind) { return std::string(kind.param); });

}  // namespace
}  // namespace store_test
