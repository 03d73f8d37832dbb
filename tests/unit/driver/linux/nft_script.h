// A scripted packet filter, which refuses requests, withholds answers or is changed by others.
#pragma once

#include <cerrno>
#include <functional>
#include <string>

namespace qv::test {

struct NftScript {
    // Transactions with this text are refused, this many times, with this error.
    std::string refused;
    int refusals = 0;
    int error = ENOMEM;
    std::function<void()> meanwhile;  // called once, right before the next transaction
    int lost_answers = 0;             // answers to withhold
    int unheard = -1;                 // messages of this type never arrive
    bool no_socket = false;           // the next sockets cannot be opened
    bool interrupted = false;         // lists are marked as interrupted by changes
};
extern NftScript g_nft;

}  // namespace qv::test
