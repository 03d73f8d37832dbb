// The role of this process, as "show role" shows it. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace qv {

// The exit status of a master that has lost its lease; its supervisor starts it again.
inline constexpr int kRoleLostStatus = 75;

struct RoleReport {
    struct Lease {
        uint64_t fence;                  // fencing number
        std::chrono::milliseconds left;  // of the lease, unless it is renewed before
    };

    bool leased;  // mode "lease"
    std::string host;
    pid_t pid;
    std::optional<Lease> lease;  // with a lease in the store only
};

// For a process that is the master: only that has a command line.
RoleReport role_report();

}  // namespace qv
