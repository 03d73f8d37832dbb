#include "services/tarnd/link_cut.h"

#include <linux/if_bridge.h>

#include <cerrno>

namespace qv::tarnd {

// Blocking the bridge port is quick; taking the link down waits until no processor uses the port,
// and the frames of a loop behind the port would go on until then. The kernel refuses to block it
// while its own spanning tree runs.
int LinkCut::cut(uint32_t ifx, bool single) {
    if (!journal_.renew(ifx)) {
        return ENOSPC;
    }
    const int blocked = single ? control_.set_state(ifx, BR_STATE_DISABLED) : EPERM;
    const int down = control_.set_up(ifx, false);
    if (blocked == 0 || down == 0) {
        return 0;
    }
    if (blocked != EIO && down != EIO) {
        journal_.clear(ifx);
    }
    return down;
}

// Only a link that comes up enables a bridge port that was blocked, so an unfinished cut is
// completed first. A port that is still looped is cut again as soon as it is up, and that cut keeps
// its note.
int LinkCut::give_back(uint32_t ifx) {
    const auto note = journal_.find(ifx);
    const int down = control_.set_up(ifx, false);
    const int up = control_.set_up(ifx, true);
    const int error = up != 0 ? up : down;
    if (note && (error == 0 || error == ENODEV)) {
        journal_.clear(*note);
    }
    return error;
}

}  // namespace qv::tarnd
