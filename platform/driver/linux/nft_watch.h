// Watches other programs' changes of one netdev table of the kernel's packet filter.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace qv {

// Whether a message of the packet filter's group tells of a change to a netdev table of this name,
// or to anything in it. False for a message that is malformed or about something else. The whole of
// `header->nlmsg_len` bytes and their padding is readable. Any thread.
bool tells_of_table(const nlmsghdr* header, const std::string& table);

// Loop thread only.
class NftWatch {
 public:
    explicit NftWatch(std::string table) : table_(std::move(table)) {}

    // From now on changes are heard of; opens its socket in the calling thread's network namespace,
    // unless it is open. 0 or an errno value.
    int open();

    // The changes by anybody, this process too, since the last call.
    enum class News {
        kNone,
        kChanged,
        kLost,  // the kernel had no room for all messages; those it kept tell of no change
    };
    News read();

 private:
    struct Close {
        void operator()(mnl_socket* socket) const;
    };

    const std::string table_;
    std::unique_ptr<mnl_socket, Close> socket_;
    std::vector<char> buffer_;
};

}  // namespace qv
