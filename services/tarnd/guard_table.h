// The packet filter's rule that drops the own probes when they come back. Without it a bridge would
// flood each of them again, and two probes in a loop become hundreds of thousands. The packet
// socket sees them before the rule does.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "services/tarnd/frame.h"

struct nft_ctx;

namespace qv::tarnd {

// One table of the family bridge, named after the source address. Its rules apply to all ports but
// those of other bridges: another bridge passes our probes, so that a loop through it is found. A
// port counts as ours until it is known to be elsewhere, so that no probe slips through before.
//
// Probes of other switches pass, so that loops through several switches are found, but no more than
// 1,000 a second from each source address: in somebody else's loop they multiply.
// Main thread only.
class GuardTable {
 public:
    explicit GuardTable(const Mac& source);  // throws std::runtime_error when memory runs out
    ~GuardTable();
    GuardTable(const GuardTable&) = delete;
    GuardTable& operator=(const GuardTable&) = delete;

    // Makes the table, in place of an older one. Empty, or the reason why not.
    std::string install();
    // Whether the rule is there and knows the ports of other bridges.
    bool installed();
    // Whether the port belongs to another bridge, which the rule leaves alone; with apply(). When
    // the kernel refuses that, installed() is false until install() has succeeded.
    void set_elsewhere(uint32_t ifx, bool elsewhere);
    void apply();
    // Removes the table.
    void remove();

 private:
    bool run(const std::string& commands);
    std::string element(const char* command, uint32_t ifx) const;

    const std::string name_;
    const std::string source_;
    nft_ctx* const nft_;
    std::set<uint32_t> elsewhere_;
    std::string pending_;
    bool outdated_ = false;  // the table lacks a change of elsewhere_
};

}  // namespace qv::tarnd
