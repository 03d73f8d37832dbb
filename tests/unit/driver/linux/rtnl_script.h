// rtnetlink as a test writes it: sockets that cannot be had, requests that get no answer of the
// kernel, and messages that the test sends in its place.
#pragma once

#include <cstdint>
#include <string>

namespace qv::test {

struct RtnlScript {
    bool no_socket = false;  // the next sockets cannot be opened
    bool silent = false;     // the kernel does not answer requests for lists
    bool trusted = false;    // messages of this process look like the kernel's
    int refused_requests = 0;

    unsigned sockets = 0;   // opened so far
    unsigned requests = 0;  // for lists, so far
    uint32_t port = 0;      // address of the socket that was opened last
};
extern RtnlScript g_rtnl;

// Sends a message to the socket that was opened last. `payload` is what follows the header.
void send_rtnl(uint16_t type, const std::string& payload, uint16_t flags = 0);

// The end of a list; an error number makes it one that broke off.
void send_rtnl_done(int error = 0);

}  // namespace qv::test
