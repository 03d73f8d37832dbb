#include "platform/client/fp_items.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace qv {
namespace {

constexpr size_t kMeterBytes = 48;
constexpr size_t kMeterBurstOffset = 24;
constexpr uint16_t kWholeEtype = 0xFFFF;

template <class Number>
Number number_at(const fp_item& item, size_t offset) {
    Number number;
    std::memcpy(&number, item.value + offset, sizeof number);
    return number;
}

// Every driver can match frames whose address is unknown (0), none the others.
int read_l2_da_hit(const fp_item& item, ForwardingRule& rule) {
    if (item.value[0] != 0) {
        return EOPNOTSUPP;
    }
    rule.unknown_destination = true;
    return 0;
}

// A one-bit field with the value 0 matches frames that are not routed: all frames of a bridge port.
int read_l3_uc(const fp_item& item) {
    return number_at<uint32_t>(item, 0) == 1 && item.value[4] == 0 ? 0 : EOPNOTSUPP;
}

int read_etype(const fp_item& item, ForwardingRule& rule) {
    if (number_at<uint16_t>(item, 2) != kWholeEtype) {
        return EOPNOTSUPP;
    }
    rule.ethertype = number_at<uint16_t>(item, 0);
    return 0;
}

int read_match(const fp_item& item, ForwardingRule& rule) {
    const std::string_view name = item.name;
    if (name == "l2_da_hit") {
        return item.length == 1 ? read_l2_da_hit(item, rule) : EINVAL;
    }
    if (name == "l3_uc") {
        return item.length == 8 ? read_l3_uc(item) : EINVAL;
    }
    if (name == "etype") {
        return item.length == 4 ? read_etype(item, rule) : EINVAL;
    }
    return EOPNOTSUPP;
}

int read_action(const fp_item& item, ForwardingRule& rule) {
    const std::string_view name = item.name;
    if (name == "meter") {
        if (item.length != kMeterBytes) {
            return EINVAL;
        }
        rule.meter = {.rate_pps = number_at<uint64_t>(item, 0),
                      .burst = number_at<uint32_t>(item, kMeterBurstOffset)};
        return 0;
    }
    if (name == "counter") {
        rule.counted = true;
        return item.length == 4 ? 0 : EINVAL;
    }
    // The plane keeps its own forwarding decision, so there is nothing to add.
    if (name == "fwd") {
        return item.length == 3 ? 0 : EINVAL;
    }
    return EOPNOTSUPP;
}

bool is_readable(const fp_item& item, uint32_t item_class) {
    return item.item_class == item_class && item.length <= FP_ITEM_VALUE_BYTES &&
           std::memchr(item.name, 0, sizeof item.name) != nullptr;
}

template <class Target>
int read_items(const Target& target, uint32_t item_class, ForwardingRule& rule,
               int (*read)(const fp_item&, ForwardingRule&)) {
    if (target.item_num > FP_ITEMS_MAX) {
        return EINVAL;
    }
    for (uint32_t n = 0; n < target.item_num; ++n) {
        const fp_item& item = target.item[n];
        const int error = is_readable(item, item_class) ? read(item, rule) : EINVAL;
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

}  // namespace

int read_matches(const fp_entry& entry, ForwardingRule& rule) {
    return read_items(entry, FP_ITEM_MATCH, rule, read_match);
}

int read_actions(const fp_apply& apply, ForwardingRule& rule) {
    return read_items(apply, FP_ITEM_ACTION, rule, read_action);
}

int build_item(fp_item* item, const char* name, uint32_t item_class, const void* value,
               uint32_t length) {
    const size_t name_length = std::strlen(name);
    if (name_length >= FP_ITEM_NAME_BYTES || length > FP_ITEM_VALUE_BYTES) {
        return EINVAL;
    }
    *item = {};
    std::memcpy(item->name, name, name_length);
    item->item_class = item_class;
    item->length = length;
    std::copy_n(static_cast<const uint8_t*>(value), length, item->value);
    return 0;
}

}  // namespace qv
