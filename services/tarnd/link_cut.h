// Takes looped ports out of service and brings them back (kernel's side of first aid).
//
// A cut is noted in a journal before it is made, so that the next process brings the port back if
// this one ends before the switch has taken the port over.
#pragma once

#include <cstdint>

#include "services/tarnd/cut_journal.h"
#include "services/tarnd/port_control.h"

namespace qv::tarnd {

// One thread at a time; the journal must outlive it.
class LinkCut {
 public:
    LinkCut(const PortControl& control, CutJournal& journal)
        : control_(control), journal_(journal) {}

    // Takes the port out of service; `single` when the loop lies behind this one port. 0 or errno;
    // ENOSPC when the journal is full. A cut that the kernel refuses is not noted. One that it has
    // not answered may have been made and stays noted.
    int cut(uint32_t ifx, bool single);
    // Brings the port into service. 0 or errno: the port stays noted unless it is gone (ENODEV).
    int give_back(uint32_t ifx);

 private:
    const PortControl& control_;
    CutJournal& journal_;
};

}  // namespace qv::tarnd
