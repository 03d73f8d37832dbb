#include "services/netconf/notification_log.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

#include "p_nc.pb-c.h"
#include "services/netconf/log.h"

namespace netconf {
namespace {

using std::chrono::milliseconds;

constexpr const char* kLogKey = "p_nc.notification_log/";
constexpr const char* kKeptType = "p_nc.kept_notification";

struct FreeLogRecord {
    template <typename Record>
    void operator()(Record* record) const {
        protobuf_c_message_free_unpacked(&record->base, nullptr);
    }
};

const uint8_t* packed_bytes(const std::string& packed) {
    return reinterpret_cast<const uint8_t*>(packed.data());
}

EventTime time_of(uint64_t since_1970_ms) {
    return EventTime(milliseconds(since_1970_ms));
}

std::optional<KeptNotification> kept_of(const std::string& packed) {
    const std::unique_ptr<PNc__KeptNotification, FreeLogRecord> kept(
        p_nc__kept_notification__unpack(nullptr, packed.size(), packed_bytes(packed)));
    if (!kept || !kept->notification || !kept->notification->index) {
        return std::nullopt;
    }
    const PNc__Notification& notification = *kept->notification;
    std::string record(p_nc__notification__get_packed_size(&notification), '\0');
    p_nc__notification__pack(&notification, reinterpret_cast<uint8_t*>(record.data()));
    return KeptNotification{.sequence = notification.index->sequence,
                            .time = time_of(notification.time_ms),
                            .record = std::move(record)};
}

}  // namespace

std::string rfc3339(EventTime time) {
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    const time_t seconds = second.time_since_epoch().count();
    tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 48> text;
    const size_t length = strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text.data() + length, text.size() - length, ".%03uZ",
             static_cast<unsigned>((time - second).count()));
    return text.data();
}

std::optional<LogState> log_state(Database& database) {
    const auto packed = database.get(kLocalDatabase, kLogKey);
    if (!packed) {
        return std::nullopt;
    }
    const std::unique_ptr<PNc__NotificationLog, FreeLogRecord> log(
        p_nc__notification_log__unpack(nullptr, packed->size(), packed_bytes(*packed)));
    if (!log) {
        log_line(LOG_WARNING, "the record of the kept notifications is invalid");
        return std::nullopt;
    }
    LogState state{.created = time_of(log->created_ms), .aged = std::nullopt};
    if (log->aged_ms != 0) {
        state.aged = time_of(log->aged_ms);
    }
    return state;
}

std::vector<KeptNotification> kept_notifications(Database& database) {
    std::vector<KeptNotification> all;
    for (const std::string& packed : database.values(kLocalDatabase, kKeptType)) {
        if (auto kept = kept_of(packed)) {
            all.push_back(std::move(*kept));
        } else {
            log_line(LOG_WARNING, "an invalid kept notification is left out");
        }
    }
    std::sort(all.begin(), all.end(),
              [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
    return all;
}

}  // namespace netconf
