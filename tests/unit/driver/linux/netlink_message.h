// Netlink messages for the decoders, assembled by hand.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <linux/netlink.h>

namespace qv {

// Length and number in the machine's order, padded to four bytes.
inline std::string attribute(uint16_t number, const std::string& payload) {
    const nlattr header{static_cast<uint16_t>(sizeof(nlattr) + payload.size()), number};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += payload;
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

// A message in a block of its own size, which the address sanitizer guards.
class NetlinkMessage {
 public:
    NetlinkMessage(uint16_t type, const std::string& payload, uint16_t flags = 0) {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
        header.nlmsg_type = type;
        header.nlmsg_flags = flags;
        bytes_.resize(header.nlmsg_len);
        std::memcpy(bytes_.data(), &header, sizeof header);
        std::memcpy(bytes_.data() + sizeof header, payload.data(), payload.size());
    }
    const nlmsghdr* get() const { return reinterpret_cast<const nlmsghdr*>(bytes_.data()); }

 private:
    std::vector<char> bytes_;
};

}  // namespace qv
