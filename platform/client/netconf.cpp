// qv/netconf.h: notifications are kept in a bounded ring.
#include "qv/netconf.h"

#include <cerrno>
#include <deque>

#include "platform/client/notification_ring.h"

namespace {

std::deque<qv::SentNotification>& ring() {
    static std::deque<qv::SentNotification> instance;  // oldest first
    return instance;
}

bool acceptable(const nc_lib_leaf& leaf) {
    const bool known_type = leaf.type == NC_LIB_TYPE_INT32 || leaf.type == NC_LIB_TYPE_UINT32;
    return known_type && leaf.path != nullptr && leaf.path[0] == '/';
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
    qv::SentNotification notification{.time = std::chrono::system_clock::now(), .leaves = {}};
    for (int i = 0; i < count; ++i) {
        if (!acceptable(leaves[i])) {
            return EINVAL;
        }
        notification.leaves.push_back({leaves[i].path, leaves[i].type, leaves[i].value});
    }
    ring().push_back(std::move(notification));
    if (ring().size() > qv::kRecentNotifications) {
        ring().pop_front();
    }
    return 0;
}
