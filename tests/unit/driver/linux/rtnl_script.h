// Scripted rtnetlink: sockets that cannot be opened, requests that the kernel does not answer, and
// messages that the test sends in its place.
#pragma once

#include <cstdint>
#include <string>

namespace qv::test {

struct RtnlScript {
    bool no_socket = false;  // the next sockets cannot be opened
    bool silent = false;     // the kernel does not answer requests for lists
    bool trusted = false;    // messages of this process look like the kernel's
    int refused_requests = 0;

    unsigned sockets = 0;   // sockets opened so far
    unsigned requests = 0;  // requests for lists so far
    uint32_t port = 0;      // address of the socket that was opened last
};
extern RtnlScript g_rtnl;

// Sends a message to the socket that was opened last. `payload` is what follows the header.
void send_rtnl(uint16_t type, const std::string& payload, uint16_t flags = 0);

// Ends a list; an error number makes it incomplete.
void send_rtnl_done(int error = 0);

}  // namespace qv::test
