// The recent NETCONF notifications of this process, for "show notifications".
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qv {

inline constexpr size_t kRecentNotifications = 64;
inline constexpr int kMaxNotificationLeaves = 64;

struct SentLeaf {
    std::string path;
    int type;  // NC_LIB_TYPE_*
    uint32_t value;
};

struct SentNotification {
    std::chrono::system_clock::time_point time;
    std::vector<SentLeaf> leaves;
};

// A copy of the last kRecentNotifications notifications, oldest first. Loop thread only.
std::vector<SentNotification> recent_notifications();

}  // namespace qv
