#include "qv/ddm.h"

#include <cerrno>

#include "platform/client/platform.h"

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t* phyid) {
    const qv::Port* port = qv::platform().ports().find(ifx);
    // A port without its own hardware, such as an aggregate port, has id 0.
    if (!port || port->phyid == 0) {
        return ENOENT;
    }
    *phyid = port->phyid;
    return 0;
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t* ifx) {
    const uint32_t found = qv::platform().ports().ifx_of_phyid(phyid);
    if (found == 0) {
        return ENOENT;
    }
    *ifx = found;
    return 0;
}
