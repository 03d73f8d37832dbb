#include "platform/cli/vlan_list.h"

#include <charconv>
#include <set>

#include "platform/base/tarn_limits.h"

namespace qv::cli {
namespace {

std::optional<uint16_t> parse_vlan(std::string_view text) {
    uint16_t vlan = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), vlan);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && vlan >= 1 && vlan <= kLastVlan ? std::optional(vlan) : std::nullopt;
}

bool add_range(std::string_view text, std::set<uint16_t>& vlans) {
    const size_t dash = text.find('-');
    const auto first = parse_vlan(text.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parse_vlan(text.substr(dash + 1));
    if (!first || !last || *last < *first) {
        return false;
    }
    for (uint16_t vlan = *first; vlan <= *last; ++vlan) {
        vlans.insert(vlan);
    }
    return true;
}

}  // namespace

std::optional<std::vector<uint16_t>> parse_vlan_list(std::string_view text) {
    std::set<uint16_t> vlans;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        if (!add_range(text.substr(begin, end - begin), vlans)) {
            return std::nullopt;
        }
        begin = end + 1;
    }
    return std::vector<uint16_t>(vlans.begin(), vlans.end());
}

std::string print_vlan_list(const std::vector<uint16_t>& vlans) {
    std::string text;
    for (size_t first = 0; first < vlans.size();) {
        size_t last = first;
        while (last + 1 < vlans.size() && vlans[last + 1] == vlans[last] + 1) {
            ++last;
        }
        text += (text.empty() ? "" : ",") + std::to_string(vlans[first]);
        if (last > first) {
            text += '-' + std::to_string(vlans[last]);
        }
        first = last + 1;
    }
    return text;
}

}  // namespace qv::cli
