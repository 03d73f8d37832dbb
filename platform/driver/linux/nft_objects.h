// The parts of a packet-filter table that are read and changed often: counters and the
// elements of a set of Ethernet addresses, by their netlink messages.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/driver/linux/nft_counter.h"

struct mnl_socket;

namespace qv {

// The increment between two readings of a counter. A counter that is lower than before has wrapped
// if that makes the smaller difference; otherwise it was reset to zero in between.
uint64_t counted_since(uint64_t before, uint64_t now);

// Loop thread only. Functions return 0 or an errno value.
class NftObjects {
 public:
    // Opens the socket in the calling thread's network namespace, unless it is open.
    int open();

    // 0 when the kernel has a packet filter and this process may use it.
    int check_available();

    // 0 when there is a netdev table of this name, ENOENT when there is none.
    int find_table(const std::string& table);

    // Reads all named counters of a netdev table; none when there is no such table. EINTR when the
    // table changes faster than it can be read: then some may be missing.
    int read_counters(const std::string& table, std::vector<NamedCounter>& counters);

    // Reads a fingerprint of the chains, hooks and rules of a netdev table: it differs whenever one
    // of them was added, removed, replaced or changed. Empty when there is no such table. EINTR as
    // above.
    int read_layout(const std::string& table, std::string& layout);

    // Reads all elements of a set of Ethernet addresses, unordered. EINTR as above.
    int read_set(const std::string& table, const std::string& set,
                 std::vector<uint64_t>& addresses);

    // Adds and removes elements of a set in one transaction: all or nothing. Adding an existing
    // element is not an error; removing a missing one gives ENOENT. Addresses as in fdb_entry.h.
    int change_set(const std::string& table, const std::string& set,
                   std::span<const uint64_t> added, std::span<const uint64_t> gone);

 private:
    struct Close {
        void operator()(mnl_socket* socket) const;
    };

    using Begin = std::function<void()>;
    using Take = std::function<void(const nlmsghdr*)>;

    int list(uint16_t type, const std::string& table, const std::string& set, const Begin& begin,
             const Take& take);
    int read_list(const Take& take);
    int read_answers(unsigned expected);

    std::unique_ptr<mnl_socket, Close> socket_;
    std::vector<char> buffer_;  // for what is received
    uint32_t sequence_ = 0;
};

}  // namespace qv
