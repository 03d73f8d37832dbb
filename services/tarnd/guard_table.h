// The packet filter's rule that drops the own probes when they come back. Without it a bridge would
// flood each of them again, and two probes in a loop become hundreds of thousands. The packet
// socket sees them before the rule does.
#pragma once

#include <memory>
#include <string>

#include "services/tarnd/frame.h"

struct nft_ctx;

namespace qv::tarnd {

// One table of the family bridge, named after the source address, with one rule for all ports of
// all bridges of the network namespace. Main thread only.
class GuardTable {
 public:
    explicit GuardTable(const Mac& source);  // throws std::runtime_error when memory runs out
    ~GuardTable();
    GuardTable(const GuardTable&) = delete;
    GuardTable& operator=(const GuardTable&) = delete;

    // Makes the table, in place of an older one. Empty, or the reason why not.
    std::string install();
    // Whether the rule is there.
    bool installed();
    // Removes the table.
    void remove();

 private:
    bool run(const std::string& commands);

    const std::string name_;
    const std::string source_;
    nft_ctx* const nft_;
};

}  // namespace qv::tarnd
