// qv/mom.h over a store driver.
//
// A client keeps one number for each database and type it ever subscribed to, and one for each
// running scan; the driver reports by these numbers. All bytes that the driver reports come from
// other programs: records that do not unpack are logged and dropped here.
#include "qv/mom.h"

#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/base/database_names.h"
#include "platform/base/guarded.h"
#include "platform/base/metrics.h"
#include "platform/base/supervisor.h"
#include "platform/client/bad_records.h"
#include "platform/client/loop_metrics.h"
#include "platform/client/mom_key.h"
#include "platform/client/notification_log.h"
#include "platform/client/own_records.h"
#include "platform/client/platform.h"
#include "platform/driver/store_driver.h"
#include "qv/syslog.h"

namespace {

// Programs that know nothing of qv/mom.h share these.
static_assert(QV_MOM_LOCAL_DB == qv::kLocalDatabase);
static_assert(QV_MOM_APP_DB == qv::kApplicationDatabase);
static_assert(QV_MOM_CFG_DB == qv::kConfigurationDatabase);

constexpr size_t kKeysPerCheck = 64;

// Of an operation byte and a record. The records of the switch have far less.
constexpr size_t kMaxNotice_bytes = size_t{64} << 10;

struct RecordFree {
    void operator()(ProtobufCMessage* record) const {
        protobuf_c_message_free_unpacked(record, nullptr);
    }
};
using RecordPtr = std::unique_ptr<ProtobufCMessage, RecordFree>;

struct SessionCallback {
    qv_mom_session_cb function = nullptr;
    void* arg = nullptr;

    void operator()() const {
        if (function != nullptr) {
            function(arg);
        }
    }
};

}  // namespace

struct qv_mom_client final : qv::StoreListener {
    explicit qv_mom_client(qv::StoreDriver& driver)
        : store(driver.connect(*this)), notifications(this, *store) {}

    void connect(uint32_t db, SessionCallback callback);
    int subscribe(uint32_t db, const ProtobufCMessageDescriptor& type, qv_mom_msg_cb callback);
    int scan(uint32_t db, const ProtobufCMessageDescriptor& type, qv_mom_msg_cb callback);

    void session_up(uint32_t db) override;
    void session_down(uint32_t db) override;
    void subscribed(uint64_t number) override;
    void notice(uint64_t number, qv::Bytes notice) override;
    void scanned(uint64_t number, std::string_view key, qv::Bytes record) override;
    void scan_done(uint64_t number) override;
    qv::StoreKeys keys_to_check() override;
    void records_lost() override;

    struct Session {
        SessionCallback connected;
        SessionCallback reconnected;
        SessionCallback disconnected;
        bool connect_reported = false;
    };

    struct Topic {
        uint32_t db;
        const ProtobufCMessageDescriptor* type;
        qv_mom_msg_cb callback;
    };

    // A scan reads a record at one moment and reports it later. A notice that arrives in between is
    // newer or is followed by one that is, so the scan keeps silent about that key.
    struct Scan {
        Topic topic;
        std::unordered_set<std::string> superseded;
    };

    void set_missing_in(uint32_t db);
    void read_notifications();
    void mark_superseded(const Topic& topic, const ProtobufCMessage& record);
    void deliver(const Topic& topic, int oper, const ProtobufCMessage* record);

    std::map<uint32_t, Session> sessions;
    std::map<uint64_t, Topic> topics;  // stay after a loss: their numbers are used again
    std::map<uint64_t, Scan> scans;
    qv::OwnRecords::Id checked;  // the last key that keys_to_check() gave
    uint64_t numbers_used = 0;
    std::unique_ptr<qv::StoreClient> store;
    qv::NotificationLog notifications;
};

namespace {

RecordPtr unpack(const qv_mom_client::Topic& topic, qv::Bytes record) {
    RecordPtr unpacked(
        protobuf_c_message_unpack(topic.type, nullptr, record.size(), record.data()));
    if (!unpacked && qv::may_log_bad_record()) {
        printk_syslog(SYSLOG_SEVERITY_WARNING, "MOM", "BAD_RECORD",
                      "Record of %s in database %u dropped: %zu bytes do not unpack.",
                      topic.type->name, topic.db, record.size());
    }
    return unpacked;
}

// Checks what can be seen without unpacking.
bool is_valid_notice(const qv_mom_client::Topic& topic, qv::Bytes notice) {
    const bool too_long = notice.size() > kMaxNotice_bytes;
    if (!too_long && !notice.empty() && notice[0] <= QV_MOM_OPER_PUBLISH) {
        return true;
    }
    if (qv::may_log_bad_record()) {
        const std::string reason =
            too_long ? std::to_string(notice.size()) + " bytes are too many" : "no known operation";
        printk_syslog(SYSLOG_SEVERITY_WARNING, "MOM", "BAD_NOTICE",
                      "Notice of %s in database %u dropped: %s.", topic.type->name, topic.db,
                      reason.c_str());
    }
    return false;
}

}  // namespace

// A session that is lost before this report runs is reported when it is back.
void qv_mom_client::connect(uint32_t db, SessionCallback callback) {
    Session& session = sessions[db];
    session.connected = callback;
    if (session.connect_reported && store->up(db)) {
        qv::platform().loop().post([this, db, callback] {
            if (store->up(db)) {
                callback();
            } else {
                sessions[db].connect_reported = false;
            }
        });
    }
    qv::report_database(db, !store->up(db));
    store->open(db);
}

int qv_mom_client::subscribe(uint32_t db, const ProtobufCMessageDescriptor& type,
                             qv_mom_msg_cb callback) {
    for (auto& [number, topic] : topics) {
        if (topic.db == db && topic.type == &type) {
            topic.callback = callback;
            return store->subscribe(db, type.name, number) ? 0 : ENOTCONN;
        }
    }
    const uint64_t number = ++numbers_used;
    if (!store->subscribe(db, type.name, number)) {
        return ENOTCONN;
    }
    topics[number] = {db, &type, callback};
    return 0;
}

int qv_mom_client::scan(uint32_t db, const ProtobufCMessageDescriptor& type,
                        qv_mom_msg_cb callback) {
    const uint64_t number = ++numbers_used;
    if (!store->scan(db, type.name, number)) {
        return ENOTCONN;
    }
    scans[number] = {{db, &type, callback}, {}};
    return 0;
}

void qv_mom_client::session_up(uint32_t db) {
    const bool back = qv::report_database(db, false);
    if (db == QV_MOM_LOCAL_DB) {
        read_notifications();
    }
    // Before the callback, so that its deletes come after.
    set_missing_in(db);
    Session& session = sessions[db];
    const bool first = !std::exchange(session.connect_reported, true);
    if (qv::Metrics* const figures = qv::metrics(); figures && back && !first) {
        figures->database_reconnects++;
    }
    const SessionCallback callback = first ? session.connected : session.reconnected;
    callback();
}

void qv_mom_client::session_down(uint32_t db) {
    qv::report_database(db, true);
    if (db == QV_MOM_LOCAL_DB) {
        notifications.session_down();
    }
    std::erase_if(scans, [db](const auto& scan) { return scan.second.topic.db == db; });
    const SessionCallback callback = sessions[db].disconnected;
    callback();
}

void qv_mom_client::subscribed(uint64_t number) {
    const auto found = topics.find(number);
    if (found != topics.end()) {
        const qv_mom_msg message = {QV_MOM_CMD_SUBSCRIBED, 0, found->second.db, nullptr};
        const qv_mom_msg_cb callback = found->second.callback;
        callback(this, &message);
    }
}

void qv_mom_client::notice(uint64_t number, qv::Bytes notice) {
    const auto found = topics.find(number);
    if (found == topics.end()) {
        return;
    }
    const Topic topic = found->second;  // the callback may subscribe again
    if (!is_valid_notice(topic, notice)) {
        return;
    }
    const RecordPtr record = unpack(topic, notice.subspan(1));
    if (!record) {
        return;
    }
    if (!scans.empty() && notice[0] != QV_MOM_OPER_PUBLISH) {
        mark_superseded(topic, *record);
    }
    deliver(topic, notice[0], record.get());
}

void qv_mom_client::mark_superseded(const Topic& topic, const ProtobufCMessage& record) {
    const std::optional<std::string> key = qv::record_key(record);
    for (auto& [number, scan] : scans) {
        if (key && scan.topic.db == topic.db && scan.topic.type == topic.type) {
            scan.superseded.insert(*key);
        }
    }
}

void qv_mom_client::scanned(uint64_t number, std::string_view key, qv::Bytes record) {
    notifications.scanned(number, record);
    const auto found = scans.find(number);
    if (found == scans.end() || found->second.superseded.contains(std::string(key))) {
        return;
    }
    const Topic topic = found->second.topic;
    if (const RecordPtr unpacked = unpack(topic, record)) {
        deliver(topic, QV_MOM_OPER_SET, unpacked.get());
    }
}

void qv_mom_client::scan_done(uint64_t number) {
    notifications.scan_done(number);
    scans.erase(number);
}

// The server may have restarted without its records, or may have been emptied. A record that has
// changed there belongs to whoever changed it.
void qv_mom_client::set_missing_in(uint32_t db) {
    qv::own_records().for_each(this, [&](const qv::OwnRecords::Id& id, const auto& packed) {
        if (id.first == db) {
            store->set_missing(db, qv::type_of_key(id.second), id.second, packed);
        }
    });
}

qv::StoreKeys qv_mom_client::keys_to_check() {
    qv::StoreKeys keys = qv::own_records().keys_after(this, checked, kKeysPerCheck);
    if (!keys.keys.empty()) {
        checked = {keys.db, keys.keys.back()};
    }
    return keys;
}

void qv_mom_client::records_lost() {
    if (store->up(QV_MOM_LOCAL_DB)) {
        read_notifications();
    }
    for (const auto& [db, session] : sessions) {
        set_missing_in(db);
    }
}

void qv_mom_client::read_notifications() {
    const uint64_t log_scan = ++numbers_used;
    const uint64_t kept_scan = ++numbers_used;
    notifications.read(log_scan, kept_scan);
}

void qv_mom_client::deliver(const Topic& topic, int oper, const ProtobufCMessage* record) {
    const qv::RecordDelivery delivery(*record, oper == QV_MOM_OPER_DELETE);
    const qv_mom_msg message = {QV_MOM_CMD_RECORD, oper, topic.db, record};
    topic.callback(this, &message);
}

qv::NotificationLog& qv::notification_log(qv_mom_client& client) {
    return client.notifications;
}

extern "C" {

qv_mom_client* qv_mom_client_init(const char* name, qv_thread_master* master,
                                  qv_mom_client* current) {
    if (current != nullptr) {
        return current;
    }
    if (name == nullptr || master == nullptr) {
        return nullptr;
    }
    // Clients live as long as the process, whatever happens to their handles. The list is never
    // destroyed, so that no client is destroyed after the store it uses.
    return qv::guarded<qv_mom_client*>(nullptr, [] {
        static auto& clients = *new std::vector<std::unique_ptr<qv_mom_client>>();
        clients.push_back(std::make_unique<qv_mom_client>(qv::platform().store()));
        return clients.back().get();
    });
}

int qv_mom_client_connect(qv_mom_client* client, uint32_t db, qv_mom_session_cb connected,
                          void* arg) {
    if (client == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        client->connect(db, {connected, arg});
        return 0;
    });
}

int qv_mom_client_set_reconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                   void* arg) {
    if (client == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        client->sessions[db].reconnected = {callback, arg};
        return 0;
    });
}

int qv_mom_client_set_disconnect_cb(qv_mom_client* client, uint32_t db, qv_mom_session_cb callback,
                                    void* arg) {
    if (client == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        client->sessions[db].disconnected = {callback, arg};
        return 0;
    });
}

int qv_mom_set(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int /*flags*/,
               int /*reserved*/, const ProtobufCMessageDescriptor* descriptor) {
    if (client == nullptr || record == nullptr ||
        (descriptor != nullptr && descriptor != record->descriptor)) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        const std::optional<std::string> key = qv::record_key(*record);
        if (!key) {
            return EINVAL;
        }
        std::vector<uint8_t> packed = qv::pack_record(*record);
        if (!client->store->set(db, record->descriptor->name, *key, packed)) {
            return ENOTCONN;
        }
        qv::own_records().set(client, db, *key, std::move(packed));
        return 0;
    });
}

int qv_mom_del(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int /*flags*/,
               int /*reserved*/) {
    if (client == nullptr || record == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        const std::optional<std::string> key = qv::record_key(*record);
        if (!key) {
            return EINVAL;
        }
        const std::vector<uint8_t> packed = qv::pack_key_of_record(*record);
        qv::own_records().erase(db, *key);
        return client->store->erase(db, record->descriptor->name, *key, packed) ? 0 : ENOTCONN;
    });
}

int qv_mom_pdel(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record, int /*flags*/,
                int /*reserved*/, int /*reserved2*/) {
    if (client == nullptr || record == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        const std::optional<std::string> pattern = qv::record_key_pattern(*record);
        if (!pattern) {
            return EINVAL;
        }
        qv::own_records().erase_matching(db, *pattern);
        return client->store->erase_matching(db, record->descriptor->name, *pattern) ? 0 : ENOTCONN;
    });
}

int qv_mom_subscribe(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int /*flags*/,
                     qv_mom_msg_cb callback, void* /*arg*/) {
    if (client == nullptr || key == nullptr || callback == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] { return client->subscribe(db, *key->descriptor, callback); });
}

int qv_mom_scan(qv_mom_client* client, uint32_t db, const ProtobufCMessage* key, int /*flags*/,
                qv_mom_msg_cb callback, void* /*arg*/) {
    if (client == nullptr || key == nullptr || callback == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] { return client->scan(db, *key->descriptor, callback); });
}

int qv_mom_publish(qv_mom_client* client, uint32_t db, const ProtobufCMessage* record,
                   int /*flags*/, int /*reserved*/) {
    if (client == nullptr || record == nullptr) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] {
        const std::vector<uint8_t> packed = qv::pack_record(*record);
        return client->store->publish(db, record->descriptor->name, packed) ? 0 : ENOTCONN;
    });
}

}  // extern "C"
