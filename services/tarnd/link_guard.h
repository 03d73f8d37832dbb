// Closes bridge ports before their link comes up, and opens them again (kernel's side of the guard
// at link-up). A closed port forwards and learns nothing; probes leave and arrive all the same.
//
// The flags that a port had are noted in a journal before it is closed, so that the next process
// opens what this one leaves closed.
#pragma once

#include <cstdint>

#include "services/tarnd/cut_journal.h"
#include "services/tarnd/port_control.h"

namespace qv::tarnd {

// One thread at a time for each port; the journal must outlive it.
class LinkGuard {
 public:
    LinkGuard(const PortControl& control, CutJournal& journal)
        : control_(control), journal_(journal) {}

    // 0 or errno; ENOSPC when the journal is full; EIO when the kernel does not answer: the port
    // may be closed and stays noted.
    int close(uint32_t ifx);
    // Gives the port the flags back that it had, but for those that somebody else has set
    // meanwhile. Does nothing for a port that is not noted. 0 or errno: the port stays noted.
    int open(uint32_t ifx);

 private:
    const PortControl& control_;
    CutJournal& journal_;
};

}  // namespace qv::tarnd
