// Database numbers and names shared by all programs; docs/object-database.md describes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qv {

inline constexpr uint32_t kLocalDatabase = 3;
inline constexpr uint32_t kApplicationDatabase = 4;
inline constexpr uint32_t kConfigurationDatabase = 22;

// The channel on which changes of the records of a type are announced, "mom/<database>/<type>".
inline std::string change_channel(uint32_t database, std::string_view type) {
    std::string channel = "mom/" + std::to_string(database) + "/";
    return channel.append(type);
}

}  // namespace qv
