// qv/rdnd.h: takes the master role, and reports to systemd.
//
// Two masters on the same bridge would undo each other's work, and two on the same command-line
// socket would share the operators at random. So the master holds a lock on each of the two until
// its process ends; it never gives the role back. The lock file of the socket is beside the socket.
// The bridge's file is in a folder that all agents of the machine share, and its name contains the
// number of the network namespace.
//
// In mode "solo" the process takes the role at once, and exits with the reason when a lock is held.
// In mode "lease" it tries every second, and so takes over within a second of the master's end. No
// callback is made for the other role.
#include "qv/rdnd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <string>
#include <system_error>
#include <utility>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include "platform/base/guarded.h"
#include "platform/base/supervisor.h"
#include "platform/client/name_lock.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"
#include "qv/syslog.h"

namespace {

constexpr std::chrono::seconds kLeaseRetry{1};

// A name that only the master may hold.
struct Exclusive {
    std::string name;   // of the lock
    std::string file;   // of the lock
    std::string thing;  // the locked thing, as messages name it
    qv::NameLock lock;
};

struct Redundancy {
    bool registered = false;
    qv::EventLoop* loop = nullptr;
    rdnd_role_cb master_cb = nullptr;
    std::list<Exclusive> exclusives;  // the master holds all of them, other processes none
    bool standing_by = false;         // as reported
    int logged_error = 0;             // why the locks could not be tried, as logged
    qv::EventLoop::Handle retry;
};

// Never destroyed: a handler may still run while the process exits.
Redundancy& redundancy() {
    static Redundancy& instance = *new Redundancy;
    return instance;
}

std::string absolute_path(const std::string& path) {
    std::error_code unknown;
    const std::filesystem::path whole = std::filesystem::absolute(path, unknown);
    return unknown ? path : whole.lexically_normal().string();
}

void add_exclusive(const std::string& module, const std::string& thing, const std::string& file) {
    std::error_code ignored;  // opening the file says why there is no folder
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    Exclusive& added = redundancy().exclusives.emplace_back();
    added.name = module + ": " + thing;
    added.file = file;
    added.thing = thing;
}

// Bridges of different network namespaces may have the same name.
std::string bridge_lock_file(const std::string& module, const qv::PlatformConfig& config) {
    struct stat own_namespace {};
    stat("/proc/self/ns/net", &own_namespace);
    return qv::g_lock_folder + "/" + module + "-" + std::to_string(own_namespace.st_ino) + "-" +
           config.bridge + ".lock";
}

void name_exclusives(const std::string& module) {
    const qv::PlatformConfig& config = qv::platform().config();
    if (config.switch_kind == qv::PlatformConfig::Switch::kLinux) {
        add_exclusive(module, "bridge " + config.bridge, bridge_lock_file(module, config));
    }
    const std::string socket = absolute_path(config.cli_socket);
    add_exclusive(module, "command-line socket " + socket, socket + ".lock");
}

struct Obstacle {
    const Exclusive* taken;  // null: we hold all locks
    int error;
};

// All locks or none.
Obstacle take_exclusives() {
    Redundancy& role = redundancy();
    for (Exclusive& exclusive : role.exclusives) {
        if (const int error = exclusive.lock.take(*role.loop, exclusive.name, exclusive.file);
            error != 0) {
            for (Exclusive& other : role.exclusives) {
                other.lock.release();
            }
            return {&exclusive, error};
        }
    }
    for (const Exclusive& exclusive : role.exclusives) {
        if (exclusive.lock.address_is_taken()) {
            printk_syslog(
                SYSLOG_SEVERITY_WARNING, "RDND", "LOCK",
                "The address of the lock on %s is held by another user, or by a process that "
                "does not answer: only the file %s keeps a second agent out.",
                exclusive.thing.c_str(), exclusive.file.c_str());
        }
    }
    return {nullptr, 0};
}

std::string reason_of(const Obstacle& obstacle) {
    if (obstacle.error != EADDRINUSE) {
        return "cannot lock " + obstacle.taken->thing + " with the file " + obstacle.taken->file +
               ": " + std::strerror(obstacle.error);
    }
    const pid_t holder = qv::NameLock::holder(obstacle.taken->name, obstacle.taken->file);
    return (holder != 0 ? "process " + std::to_string(holder) : "another process") +
           " already runs on " + obstacle.taken->thing + ": stop it first";
}

void take_role_or_end(const char* module) {
    if (const Obstacle obstacle = take_exclusives(); obstacle.taken != nullptr) {
        std::fprintf(stderr, "%s: %s\n", module, reason_of(obstacle).c_str());
        std::exit(EXIT_FAILURE);
    }
    redundancy().loop->post([] { redundancy().master_cb(); });
}

void await_role() {
    Redundancy& role = redundancy();
    const Obstacle obstacle = take_exclusives();
    if (obstacle.taken == nullptr) {
        role.master_cb();
        return;
    }
    if (!std::exchange(role.standing_by, true)) {
        qv::report_ready("standing by for the master");
    }
    // Another master is the normal case, and not logged.
    if (obstacle.error != EADDRINUSE && role.logged_error != obstacle.error) {
        role.logged_error = obstacle.error;
        printk_syslog(SYSLOG_SEVERITY_ERROR, "RDND", "LEASE",
                      "Cannot become the master, trying again: %s", reason_of(obstacle).c_str());
    }
    role.retry = role.loop->after(kLeaseRetry, await_role);
}

// `registered` is set last, so that the caller can repeat a call that ran out of memory.
int register_role(const rdnd_reg& reg) {
    Redundancy& role = redundancy();
    if (role.registered) {
        return EALREADY;
    }
    role.loop = &qv::loop_of(reg.master);
    role.master_cb = reg.master_cb;
    role.exclusives.clear();
    name_exclusives(reg.module);
    switch (qv::platform().config().role) {
        case qv::PlatformConfig::Role::kSolo:
            take_role_or_end(reg.module);
            break;
        case qv::PlatformConfig::Role::kLease:
            role.loop->post(await_role);
            break;
    }
    role.registered = true;
    return 0;
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

void feed_watchdog() {
    Supervision& watched = supervision();
    qv::report_alive();
    watched.next = watched.loop->after(watched.interval, feed_watchdog);
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
    return qv::guarded(ENOMEM, [reg] { return register_role(*reg); });
}

int app_public_instance_init(const app_public_instance* instance) {
    if (instance == nullptr || instance->name[0] == '\0' ||
        std::memchr(instance->name, '\0', sizeof instance->name) == nullptr) {
        return EINVAL;
    }
    return prctl(PR_SET_NAME, instance->name) == 0 ? 0 : errno;
}

void app_public_init_dead_detection(qv_thread_master* master) {
    uint64_t watchdog_us = 0;
    // Without a watchdog nothing wakes the process up.
    if (master == nullptr || sd_watchdog_enabled(0, &watchdog_us) <= 0) {
        return;
    }
    // If memory runs out no reports follow, and the supervisor restarts the process.
    qv::guarded([&] {
        Supervision& watched = supervision();
        watched.loop = &qv::loop_of(master);
        // On the loop's clock, which may be faster than real time: then reports come more often.
        watched.interval = std::chrono::microseconds(watchdog_us / 2);
        feed_watchdog();
    });
}
