#include "platform/driver/linux/fdb_entry.h"

#include <cstring>

#include <linux/if_ether.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

namespace qv {
namespace {

struct EntryPolicy {
    nla_policy field[NDA_MAX + 1]{};

    EntryPolicy() {
        field[NDA_LLADDR] = {.type = NLA_UNSPEC, .minlen = ETH_ALEN, .maxlen = ETH_ALEN};
        field[NDA_VLAN].type = NLA_U16;
        field[NDA_MASTER].type = NLA_U32;
    }
};

}  // namespace

std::optional<FdbEntry> parse_fdb_entry(nlmsghdr* header) {
    static EntryPolicy policy;  // the library only reads it
    nlattr* field[NDA_MAX + 1];
    const bool about_entry =
        header->nlmsg_type == RTM_NEWNEIGH || header->nlmsg_type == RTM_DELNEIGH;
    if (!about_entry || nlmsg_parse(header, sizeof(ndmsg), field, NDA_MAX, policy.field) < 0) {
        return std::nullopt;
    }
    ndmsg entry;
    std::memcpy(&entry, nlmsg_data(header), sizeof entry);
    if (entry.ndm_family != AF_BRIDGE || field[NDA_LLADDR] == nullptr ||
        field[NDA_MASTER] == nullptr) {
        return std::nullopt;
    }
    MacAddress address = 0;
    const auto* const bytes = static_cast<const unsigned char*>(nla_data(field[NDA_LLADDR]));
    for (int n = 0; n < ETH_ALEN; ++n) {
        address = address << 8 | bytes[n];
    }
    const uint16_t vlan = field[NDA_VLAN] != nullptr ? nla_get_u16(field[NDA_VLAN]) : 0;
    const bool learned = (entry.ndm_state & (NUD_PERMANENT | NUD_NOARP)) == 0;
    return FdbEntry{nla_get_u32(field[NDA_MASTER]), address, vlan, learned};
}

}  // namespace qv
