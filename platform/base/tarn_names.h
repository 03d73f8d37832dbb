// How other processes find the loop-probe service of a platform.
#pragma once

#include <string>

#include "platform/base/config.h"

namespace qv {

// A Unix stream socket; docs/loop-probes.md has its protocol.
inline std::string tarn_control_socket(const PlatformConfig& config) {
    return config.tarn_state + "/control";
}

// Name and file of the lock that the service holds while it runs.
inline std::string tarn_lock_name(const PlatformConfig& config) {
    return "tarnd/" + config.bridge;
}
inline std::string tarn_lock_file(const PlatformConfig& config) {
    return config.tarn_state + "/lock";
}

}  // namespace qv
