// The kernel under tarnd, played by a test: links that are changed by rtnetlink, and the packet
// filter's table. Every request can be refused, and its answer lost. No privilege is needed.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "services/tarnd/port_control.h"

namespace qv::tarnd::test {

struct KernelLink {
    bool up = true;
    bool blocked = false;  // the bridge port is disabled
    bool is_port = true;
    PortFlags flags;
};

// Outcomes of a request other than an errno.
inline constexpr int kUnsent = -1;      // it does not reach the kernel
inline constexpr int kUnanswered = -2;  // the kernel executes it, and its answer is lost

struct KernelScript {
    std::map<uint32_t, KernelLink> links;
    std::deque<int> answers;            // to the next requests; 0 or none left: executed
    std::function<void()> meanwhile;    // called once, after the next request "up" was executed
    std::vector<std::string> requests;  // "up 7", "down 7", "block 7", "flags 7", "read 7"
};
// One for each process.
KernelScript& kernel();

struct NftScript {
    bool table = false;  // whether tarnd's table is there
    int refusals = 0;    // of the next runs
    std::string error;   // as the library gives it for these
    std::vector<std::string> runs;
};
NftScript& nft();

// Lets the next packet socket be opened, for nothing but to be closed.
void allow_packet_socket();

}  // namespace qv::tarnd::test
