// The log is read at the start of each session, because an earlier process may have left one, and
// because a server may come back without it. Nobody else writes it.
//
// A notification is kept before it is published. A NETCONF session subscribes first and reads the
// log afterwards, so it finds each notification in the log, among those published, or in both, and
// never in neither.
//
// When a server has lost the notifications they are not set again: they tell of the past, and
// nobody acts on them. The record about the log is an own record of the client (own_records.h), so
// that its loss is noticed, but it is not set again either: a new log begins.
#include "platform/client/notification_log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/client/bad_records.h"
#include "platform/client/mom_key.h"
#include "platform/client/own_records.h"
#include "qv/mom.h"
#include "qv/syslog.h"

namespace qv {
namespace {

// Far beyond what a switch sends in its life. A damaged record must not use up the numbers.
constexpr uint64_t kHighestSequence = uint64_t{1} << 62;

struct FreeRecord {
    template <typename Record>
    void operator()(Record* record) const {
        protobuf_c_message_free_unpacked(&record->base, nullptr);
    }
};

template <typename Record>
using Unpacked = std::unique_ptr<Record, FreeRecord>;

uint64_t milliseconds_of(std::chrono::system_clock::time_point time) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
}

// "m:event" of "/m:event/entry/leaf".
std::string name_of(const SentNotification& notification) {
    const std::string_view path = std::string_view(notification.leaves.front().path).substr(1);
    return std::string(path.substr(0, path.find('/')));
}

// Of the record about the log, which is a singleton.
std::string log_key() {
    return std::string(p_nc__notification_log__descriptor.name) + "/";
}

bool set(StoreClient& store, const ProtobufCMessage& record) {
    const std::optional<std::string> key = record_key(record);
    return key && store.set(QV_MOM_LOCAL_DB, record.descriptor->name, *key, pack_record(record));
}

}  // namespace

void NotificationLog::read(uint64_t log_scan, uint64_t kept_scan) {
    own_records().erase(QV_MOM_LOCAL_DB, log_key());
    state_ = State::kReading;
    log_scan_ = log_scan;
    kept_scan_ = kept_scan;
    created_ms_ = 0;
    aged_ms_ = 0;
    times_ms_.fill(0);
    // A session that is lost before a scan ends is followed by another, which reads again.
    store_.scan(QV_MOM_LOCAL_DB, p_nc__notification_log__descriptor.name, log_scan);
    store_.scan(QV_MOM_LOCAL_DB, p_nc__kept_notification__descriptor.name, kept_scan);
}

void NotificationLog::scanned(uint64_t scan, Bytes record) {
    if (scan == log_scan_) {
        note_log(record);
    } else if (scan == kept_scan_) {
        note_kept(record);
    }
}

void NotificationLog::note_log(Bytes record) {
    const Unpacked<PNc__NotificationLog> log(
        p_nc__notification_log__unpack(nullptr, record.size(), record.data()));
    if (log) {
        created_ms_ = log->created_ms;
        aged_ms_ = log->aged_ms;
    }
}

void NotificationLog::note_kept(Bytes record) {
    const Unpacked<PNc__KeptNotification> kept(
        p_nc__kept_notification__unpack(nullptr, record.size(), record.data()));
    const PNc__Notification* const notification = kept ? kept->notification : nullptr;
    const bool complete = notification != nullptr && kept->index && notification->index;
    const uint64_t sequence = complete ? notification->index->sequence : 0;
    if (sequence == 0 || sequence > kHighestSequence ||
        sequence % kKeptNotifications != kept->index->slot) {
        if (may_log_bad_record()) {
            printk_syslog(SYSLOG_SEVERITY_WARNING, "NETCONF", "BAD_RECORD",
                          "Kept notification %" PRIu64 " ignored: no number that fits its slot.",
                          sequence);
        }
        return;
    }
    times_ms_[kept->index->slot] = notification->time_ms;
    sequence_ = std::max(sequence_, sequence);
}

void NotificationLog::scan_done(uint64_t scan) {
    if (scan != kept_scan_ || state_ != State::kReading) {
        return;
    }
    state_ = State::kReady;
    if (created_ms_ == 0) {
        created_ms_ = milliseconds_of(std::chrono::system_clock::now());
    }
    write_log();
    for (const SentNotification& notification : std::exchange(waiting_, {})) {
        publish(notification);
    }
}

int NotificationLog::send(const SentNotification& notification) {
    if (state_ == State::kReady) {
        return publish(notification);
    }
    if (state_ == State::kAway || waiting_.size() == kKeptNotifications) {
        ++sequence_;
        return ENOTCONN;
    }
    waiting_.push_back(notification);
    return 0;
}

int NotificationLog::publish(const SentNotification& notification) {
    PNc__NotificationIndex index = P_NC__NOTIFICATION_INDEX__INIT;
    index.sequence = ++sequence_;

    std::vector<PNc__NotificationLeaf> leaves(notification.leaves.size(),
                                              P_NC__NOTIFICATION_LEAF__INIT);
    std::vector<PNc__NotificationLeaf*> pointers;
    pointers.reserve(leaves.size());
    for (size_t i = 0; i < leaves.size(); ++i) {
        leaves[i].path = const_cast<char*>(notification.leaves[i].path.c_str());
        leaves[i].type = notification.leaves[i].type;
        leaves[i].value = notification.leaves[i].value;
        pointers.push_back(&leaves[i]);
    }
    std::string name = name_of(notification);

    PNc__Notification record = P_NC__NOTIFICATION__INIT;
    record.index = &index;
    record.name = name.data();
    record.n_leaves = pointers.size();
    record.leaves = pointers.data();
    record.time_ms = milliseconds_of(notification.time);
    const std::vector<uint8_t> packed = pack_record(record.base);
    const bool sent =
        keep(record) && store_.publish(QV_MOM_LOCAL_DB, record.base.descriptor->name, packed);
    return sent ? 0 : ENOTCONN;
}

bool NotificationLog::keep(PNc__Notification& record) {
    PNc__KeptIndex index = P_NC__KEPT_INDEX__INIT;
    index.slot = static_cast<uint32_t>(record.index->sequence % kKeptNotifications);
    PNc__KeptNotification kept = P_NC__KEPT_NOTIFICATION__INIT;
    kept.index = &index;
    kept.notification = &record;
    if (!set(store_, kept.base)) {
        return false;
    }
    const uint64_t replaced_ms = std::exchange(times_ms_[index.slot], record.time_ms);
    if (replaced_ms != 0) {
        aged_ms_ = replaced_ms;
        write_log();
    }
    return true;
}

void NotificationLog::write_log() {
    PNc__NotificationLog log = P_NC__NOTIFICATION_LOG__INIT;
    log.created_ms = created_ms_;
    log.aged_ms = aged_ms_;
    if (set(store_, log.base)) {
        own_records().set(client_, QV_MOM_LOCAL_DB, log_key(), pack_record(log.base));
    }
}

}  // namespace qv
