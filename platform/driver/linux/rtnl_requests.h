// Requests to rtnetlink about single links. Each waits for the kernel's answer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/driver/linux/rtnl_monitor.h"

struct ifinfomsg;
struct nl_msg;

namespace qv {

struct NlMessageFree {
    void operator()(nl_msg* message) const;
};
using NlMessage = std::unique_ptr<nl_msg, NlMessageFree>;

// A request (RTM_SETLINK) to change a link, to which attributes may be added. Null when out of
// memory. Any thread.
NlMessage link_change(const ifinfomsg& link);

// One thread at a time. Every call returns 0 or the kernel's errno; EIO when there is no answer.
class RtnlRequests {
 public:
    // Opens the socket; throws std::runtime_error.
    RtnlRequests();

    // Sends what link_change() has made, or returns ENOMEM for null.
    int change(const NlMessage& request) const;
    // Sets or clears IFF_UP of a link and no other flag.
    int set_up(uint32_t ifx, bool up) const;
    // Asks for one link. `take` gets the answer, valid during the call; an exception that it throws
    // is dropped.
    int read_link(uint32_t ifx, const std::function<void(nlmsghdr* answer)>& take) const;

 private:
    int send(nl_msg* request) const;

    NlSocket socket_;
};

}  // namespace qv
