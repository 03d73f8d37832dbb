// Splits a buffer of netlink messages as a receiver does.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace qv::fuzz {

// Calls `take` with each complete message. Each is in a block of exactly its size and padding, so
// that reading past its end is found.
template <typename Take>
void for_each_message(const uint8_t* data, size_t size, Take take) {
    while (size >= sizeof(nlmsghdr)) {
        uint32_t length = 0;
        std::memcpy(&length, data, sizeof length);
        if (length < sizeof(nlmsghdr) || length > size) {
            return;
        }
        std::vector<uint8_t> message(data, data + length);
        message.resize(NLMSG_ALIGN(length));
        take(reinterpret_cast<nlmsghdr*>(message.data()));
        const size_t step = NLMSG_ALIGN(length);
        data += step < size ? step : size;
        size -= step < size ? step : size;
    }
}

}  // namespace qv::fuzz
