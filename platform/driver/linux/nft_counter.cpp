#include "platform/driver/linux/nft_counter.h"

#include <algorithm>

#include <arpa/inet.h>
#include <endian.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

namespace qv {
namespace {

// The attributes of one level by their number; null for a missing one.
struct Attributes {
    static constexpr int kMax = std::max<int>(NFTA_OBJ_MAX, NFTA_COUNTER_MAX);

    const nlattr* at[kMax + 1] = {};

    static int keep(const nlattr* attribute, void* attributes) {
        const uint16_t number = mnl_attr_get_type(attribute);
        if (number <= kMax) {
            static_cast<Attributes*>(attributes)->at[number] = attribute;
        }
        return MNL_CB_OK;
    }

    bool has(int number, mnl_attr_data_type type) const {
        return at[number] != nullptr && mnl_attr_validate(at[number], type) >= 0;
    }
    uint64_t u64(int number) const {
        return has(number, MNL_TYPE_U64) ? be64toh(mnl_attr_get_u64(at[number])) : 0;
    }
};

bool is_named_counter(const Attributes& object) {
    return object.has(NFTA_OBJ_NAME, MNL_TYPE_NUL_STRING) &&
           object.has(NFTA_OBJ_TYPE, MNL_TYPE_U32) &&
           ntohl(mnl_attr_get_u32(object.at[NFTA_OBJ_TYPE])) == NFT_OBJECT_COUNTER &&
           object.has(NFTA_OBJ_DATA, MNL_TYPE_NESTED);
}

}  // namespace

// Decoded by hand: the library's decoder does not check that texts end within their attribute.
std::optional<NamedCounter> parse_counter(const nlmsghdr* header) {
    if (header->nlmsg_type != (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWOBJ) ||
        mnl_nlmsg_get_payload_len(header) < sizeof(nfgenmsg)) {
        return std::nullopt;
    }
    Attributes object;
    if (mnl_attr_parse(header, sizeof(nfgenmsg), Attributes::keep, &object) < 0 ||
        !is_named_counter(object)) {
        return std::nullopt;
    }
    Attributes counter;
    if (mnl_attr_parse_nested(object.at[NFTA_OBJ_DATA], Attributes::keep, &counter) < 0) {
        return std::nullopt;
    }
    return NamedCounter{
        mnl_attr_get_str(object.at[NFTA_OBJ_NAME]),
        {.packets = counter.u64(NFTA_COUNTER_PACKETS), .bytes = counter.u64(NFTA_COUNTER_BYTES)}};
}

}  // namespace qv
