// qv/netconf.h: a notification is a record published in the local database, where the records of
// the management plane live: the NETCONF server then listens in one database only, and a service
// that takes policy requests has its session there already. The last ones sent are kept twice: in
// the database for NETCONF sessions (notification_log.h), and in a bounded ring for the command
// line.
#include "qv/netconf.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/guarded.h"
#include "platform/client/notification_log.h"
#include "platform/client/notification_ring.h"

namespace {

std::deque<qv::SentNotification>& ring() {
    static std::deque<qv::SentNotification> instance;  // oldest first
    return instance;
}

// "m:event" of "/m:event/entry/leaf"; empty when the path has no such start.
std::string_view notification_name(const char* path) {
    if (path == nullptr || path[0] != '/') {
        return {};
    }
    const std::string_view rest(path + 1);
    return rest.substr(0, rest.find('/'));
}

bool acceptable(const nc_lib_leaf& leaf, std::string_view name) {
    const bool known_type = leaf.type == NC_LIB_TYPE_INT32 || leaf.type == NC_LIB_TYPE_UINT32;
    return known_type && !name.empty() && notification_name(leaf.path) == name;
}

// Whether all leaves belong to one notification and have types that readers understand.
bool acceptable(std::span<const nc_lib_leaf> leaves) {
    const std::string_view name = notification_name(leaves.front().path);
    return std::all_of(leaves.begin(), leaves.end(),
                       [name](const nc_lib_leaf& leaf) { return acceptable(leaf, name); });
}

qv::SentNotification copy_of(std::span<const nc_lib_leaf> leaves) {
    qv::SentNotification notification{.time = std::chrono::system_clock::now(), .leaves = {}};
    notification.leaves.reserve(leaves.size());
    for (const nc_lib_leaf& leaf : leaves) {
        notification.leaves.push_back({leaf.path, leaf.type, leaf.value});
    }
    return notification;
}

// Into the ring first: nothing may fail after publication.
int send(qv_mom_client* client, std::span<const nc_lib_leaf> leaves) {
    ring().push_back(copy_of(leaves));
    const int refused =
        qv::guarded(ENOMEM, [client] { return qv::notification_log(*client).send(ring().back()); });
    if (refused != 0) {
        ring().pop_back();
    } else if (ring().size() > qv::kRecentNotifications) {
        ring().pop_front();
    }
    return refused;
}

}  // namespace

std::vector<qv::SentNotification> qv::recent_notifications() {
    return {ring().begin(), ring().end()};
}

int nc_lib_notification_send(qv_mom_client* client, const nc_lib_leaf* leaves, int count,
                             int flags) {
    if (client == nullptr || leaves == nullptr || flags != 0) {
        return EINVAL;
    }
    if (count < 1 || count > qv::kMaxNotificationLeaves) {
        return EINVAL;
    }
    const std::span given(leaves, static_cast<size_t>(count));
    if (!acceptable(given)) {
        return EINVAL;
    }
    return qv::guarded(ENOMEM, [&] { return send(client, given); });
}
