#include "services/tarnd/link_guard.h"

#include <cerrno>

namespace qv::tarnd {

int LinkGuard::close(uint32_t ifx) {
    PortFlags former;
    if (const int error = control_.read_flags(ifx, former)) {
        return error;
    }
    if (!journal_.note(ifx, pack(former))) {
        return ENOSPC;
    }
    const int error = control_.set_flags(ifx, kClosed);
    if (error != 0 && error != EIO) {
        journal_.clear(ifx);
    }
    return error;
}

// A port that has left its bridge has lost its flags with it.
int LinkGuard::open(uint32_t ifx) {
    const auto note = journal_.find(ifx);
    if (!note) {
        return 0;
    }
    PortFlags present;
    int error = control_.read_flags(ifx, present);
    if (error == 0) {
        const PortFlags flags = opened(present, unpack(note->value));
        error = flags == present ? 0 : control_.set_flags(ifx, flags);
    }
    if (error == ENODEV || error == EINVAL) {
        error = 0;
    }
    if (error == 0) {
        journal_.clear(ifx);
    }
    return error;
}

}  // namespace qv::tarnd
