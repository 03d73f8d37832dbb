// A packet filter that refuses, keeps its answers to itself or is changed by others, as the test
// says.
#pragma once

#include <cerrno>
#include <functional>
#include <string>

namespace qv::test {

struct NftScript {
    // Transactions with this text in them are refused, so many times, with this error.
    std::string refused;
    int refusals = 0;
    int error = ENOMEM;
    std::function<void()> meanwhile;  // called once, right before the next transaction
    int lost_answers = 0;             // answers that cannot be had
    int unheard = -1;                 // what is sent with this type never arrives
    bool no_socket = false;           // the next sockets cannot be opened
    bool interrupted = false;         // lists are marked as interrupted by changes
};
extern NftScript g_nft;

}  // namespace qv::test
