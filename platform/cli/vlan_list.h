// Lists of VLANs as operators write them: "10,20-30".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::cli {

// The VLANs of a list in ascending order, each once. Nothing unless the list is made of numbers
// and ranges from 1 to 4094 (IEEE 802.1Q, table 9-2), separated by commas.
std::optional<std::vector<uint16_t>> parse_vlan_list(std::string_view text);

// The shortest list of these VLANs, which are in ascending order.
std::string print_vlan_list(const std::vector<uint16_t>& vlans);

}  // namespace qv::cli
