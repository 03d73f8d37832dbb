#include "tests/unit/netconf/notification_records.h"

#include "p_nc.pb-c.h"

namespace netconf::test {
namespace {

std::string bytes_of(const ProtobufCMessage& record) {
    std::string bytes(protobuf_c_message_get_packed_size(&record), '\0');
    protobuf_c_message_pack(&record, reinterpret_cast<uint8_t*>(bytes.data()));
    return bytes;
}

}  // namespace

std::string path_of(const std::string& port, const std::string& leaf) {
    return "/" + kNotificationName + "/loop-notify/notify-entry[name='" + port + "']/" + leaf;
}

std::string packed(std::string name, std::vector<Leaf> leaves, const Stamp& stamp) {
    std::vector<PNc__NotificationLeaf> parts(leaves.size());
    std::vector<PNc__NotificationLeaf*> pointers;
    for (size_t n = 0; n < leaves.size(); n++) {
        parts[n] = P_NC__NOTIFICATION_LEAF__INIT;
        parts[n].path = leaves[n].path.data();
        parts[n].type = leaves[n].type;
        parts[n].value = leaves[n].value;
        pointers.push_back(&parts[n]);
    }
    PNc__NotificationIndex index = P_NC__NOTIFICATION_INDEX__INIT;
    index.sequence = stamp.sequence;
    PNc__Notification record = P_NC__NOTIFICATION__INIT;
    record.index = stamp.sequence != 0 ? &index : nullptr;
    record.name = name.data();
    record.n_leaves = pointers.size();
    record.leaves = pointers.data();
    record.time_ms = stamp.time_ms;
    return bytes_of(record.base);
}

std::string loop_on(const std::string& port, uint32_t kind, const Stamp& stamp) {
    return packed(kNotificationName, {{path_of(port, "notify-type"), 20, kind}}, stamp);
}

void keep(DatabasePeer& database, const std::string& port, const Stamp& stamp) {
    const std::string notification = loop_on(port, 1, stamp);
    PNc__KeptIndex index = P_NC__KEPT_INDEX__INIT;
    index.slot = static_cast<uint32_t>(stamp.sequence % 1000);
    PNc__KeptNotification kept = P_NC__KEPT_NOTIFICATION__INIT;
    kept.index = &index;
    kept.notification = p_nc__notification__unpack(
        nullptr, notification.size(), reinterpret_cast<const uint8_t*>(notification.data()));
    database.store(3, "p_nc.kept_notification/slot=" + std::to_string(index.slot),
                   bytes_of(kept.base));
    p_nc__notification__free_unpacked(kept.notification, nullptr);
}

void keep_log(DatabasePeer& database, uint64_t created_ms, uint64_t aged_ms) {
    PNc__NotificationLog log = P_NC__NOTIFICATION_LOG__INIT;
    log.created_ms = created_ms;
    log.aged_ms = aged_ms;
    database.store(3, "p_nc.notification_log/", bytes_of(log.base));
}

}  // namespace netconf::test
