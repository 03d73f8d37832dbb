// qv/rdnd.h: who takes the master role, and what systemd is told about the process.
//
// In mode "solo" the process is the master at once. In mode "lease" the holder of an exclusive
// flock on MODULE.lease beside the command-line socket is the master; the kernel drops the lock
// with the process, so a second instance that tries every second takes over within one. The lock is
// never given back: there is no way out of the master role but the end of the process. The other
// role has no callback of its own here: a standby process is not told anything.
#include "qv/rdnd.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace {

constexpr std::chrono::seconds kLeaseRetry{1};

struct Redundancy {
    bool registered = false;
    qv::EventLoop* loop = nullptr;
    rdnd_role_cb master_cb = nullptr;
    std::string lease_path;
    int lease_fd = -1;     // open while waiting for the lease and for ever after
    int logged_error = 0;  // why the lease could not be tried, said once
    qv::EventLoop::Handle retry;
};

// Never destroyed: a handler may still run while the process exits.
Redundancy& redundancy() {
    static Redundancy& instance = *new Redundancy;
    return instance;
}

void log_lease_error(int error) {
    Redundancy& role = redundancy();
    if (role.logged_error != error) {
        role.logged_error = error;
        printk_syslog(SYSLOG_SEVERITY_ERROR, "RDND", "LEASE", "Cannot take lease %s: %s",
                      role.lease_path.c_str(), std::strerror(error));
    }
}

// Whether this process now holds the lease.
bool take_lease() {
    Redundancy& role = redundancy();
    if (role.lease_fd < 0) {
        role.lease_fd = open(role.lease_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (role.lease_fd < 0) {
            log_lease_error(errno);
            return false;
        }
    }
    if (flock(role.lease_fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            log_lease_error(errno);
        }
        return false;
    }
    return true;
}

void try_master() {
    Redundancy& role = redundancy();
    if (take_lease()) {
        role.master_cb();
        return;
    }
    role.retry = role.loop->after(kLeaseRetry, try_master);
}

std::string lease_path(const std::string& cli_socket, const char* module) {
    const size_t slash = cli_socket.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : cli_socket.substr(0, slash + 1);
    return directory + module + ".lease";
}

struct Supervision {
    qv::EventLoop* loop = nullptr;
    qv::Duration interval{};
    qv::EventLoop::Handle next;
};

Supervision& supervision() {
    static Supervision& instance = *new Supervision;
    return instance;
}

void report_alive() {
    Supervision& watched = supervision();
    sd_notify(0, "WATCHDOG=1");
    watched.next = watched.loop->after(watched.interval, report_alive);
}

}  // namespace

int rdnd_lib_mom_reg(const rdnd_reg* reg) {
    if (reg == nullptr || reg->master == nullptr || reg->module == nullptr ||
        reg->master_cb == nullptr || (reg->dbs == nullptr && reg->db_num != 0)) {
        return EINVAL;
    }
    if (*reg->module == '\0' || std::strchr(reg->module, '/') != nullptr) {
        return EINVAL;
    }
    Redundancy& role = redundancy();
    if (role.registered) {
        return EALREADY;
    }
    role.registered = true;
    role.loop = &qv::loop_of(reg->master);
    role.master_cb = reg->master_cb;

    const qv::PlatformConfig& config = qv::platform().config();
    switch (config.role) {
        case qv::PlatformConfig::Role::kSolo:
            role.loop->post([] { redundancy().master_cb(); });
            break;
        case qv::PlatformConfig::Role::kLease:
            role.lease_path = lease_path(config.cli_socket, reg->module);
            role.loop->post(try_master);
            break;
    }
    return 0;
}

int app_public_instance_init(const app_public_instance* instance) {
    if (instance == nullptr || instance->name[0] == '\0' ||
        std::memchr(instance->name, '\0', sizeof instance->name) == nullptr) {
        return EINVAL;
    }
    return prctl(PR_SET_NAME, instance->name) == 0 ? 0 : errno;
}

void app_public_init_dead_detection(qv_thread_master* master) {
    sd_notify(0, "READY=1");
    uint64_t watchdog_us = 0;
    // Without a watchdog nothing wakes the process up.
    if (master == nullptr || sd_watchdog_enabled(0, &watchdog_us) <= 0) {
        return;
    }
    Supervision& watched = supervision();
    watched.loop = &qv::loop_of(master);
    // On the loop's clock: at a higher speed than real time the report only comes more often.
    watched.interval = std::chrono::microseconds(watchdog_us / 2);
    report_alive();
}
