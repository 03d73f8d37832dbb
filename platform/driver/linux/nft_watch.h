// Watches other programs' changes of one netdev table of the kernel's packet filter.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace qv {

// True when a message of the packet filter's group is about a netdev table of this name or anything
// in it; false for one that is malformed or about something else. The caller keeps the message; all
// `header->nlmsg_len` bytes and their padding must be readable. Any thread.
bool concerns_table(const nlmsghdr* header, const std::string& table);

// Loop thread only.
class NftWatch {
 public:
    explicit NftWatch(std::string table) : table_(std::move(table)) {}

    // Opens the socket in the calling thread's network namespace, unless it is open. Changes are
    // received from then on. 0 or an errno value.
    int open();

    // Whether the table was changed since the last call, by this process or another.
    enum class Change {
        kNone,
        kChanged,
        kUnknown,  // the kernel dropped messages, and those it kept are about other tables
    };
    Change read();

 private:
    struct Close {
        void operator()(mnl_socket* socket) const;
    };

    const std::string table_;
    std::unique_ptr<mnl_socket, Close> socket_;
    std::vector<char> buffer_;
};

}  // namespace qv
