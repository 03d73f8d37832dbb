// qv/rdnd.h: takes the master role, and reports to systemd.
//
// Two masters on the same bridge would undo each other's work, and two on the same command-line
// socket would share the operators at random. So the master holds a lock on each of the two until
// its process ends; it never gives the role back. The lock file of the socket is beside the socket.
// The bridge's file is in a folder that all agents of the machine share, and its name contains the
// number of the network namespace.
//
// In mode "solo" the process takes the role at once, and exits with the reason when a lock is held.
// No callback is made for the other role.
//
// In mode "lease" the process stands by. With records in memory the locks alone decide: it tries
// every second, and so takes over within a second of the master's end. With records in Redis a
// lease there decides (client/lease.h). A process that has acquired it still takes the locks, and
// ends the process that had the lease before if that one, stopped for example, still holds them. A
// master that loses the lease ends at once; its supervisor starts it again, to stand by.
#include "qv/rdnd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

// This header of glibc 2.36 does not say that it declares C functions.
extern "C" {
#include <sys/pidfd.h>
}

#include "platform/base/folders.h"
#include "platform/base/guarded.h"
#include "platform/base/supervisor.h"
#include "platform/base/visible.h"
#include "platform/client/lease.h"
#include "platform/client/name_lock.h"
#include "platform/client/platform.h"
#include "platform/client/role.h"
#include "platform/client/thread_master.h"
#include "qv/syslog.h"

namespace {

constexpr std::chrono::seconds kLeaseRetry{1};

// How long a killed process may take to release its locks, and how often to look.
constexpr std::chrono::milliseconds kLockPatience{500};
constexpr std::chrono::milliseconds kLockRetry{20};

// A name that only the master may hold.
struct Exclusive {
    std::string name;   // of the lock
    std::string file;   // of the lock
    std::string thing;  // the locked thing, as messages name it
    qv::NameLock lock;
};

struct Redundancy {
    bool registered = false;
    std::string module;
    qv::EventLoop* loop = nullptr;
    rdnd_role_cb master_cb = nullptr;
    std::list<Exclusive> exclusives;  // the master holds all of them, other processes none
    bool standing_by = false;         // as reported
    int logged_error = 0;             // why the locks could not be tried, as logged
    qv::EventLoop::Handle retry;

    // With a lease in the store only.
    qv::LeaseText own;                         // this process, in the lease
    std::optional<qv::LeaseText> predecessor;  // the lease that was replaced
    qv::Time locks_due{};                      // when the locks must be held
    std::unique_ptr<qv::Lease> lease;
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
    qv::make_folder_of(file);  // opening the file says why there is no folder
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
        std::fprintf(stderr, "%s: %s\n", module, qv::visible(reason_of(obstacle)).c_str());
        std::exit(EXIT_FAILURE);
    }
    redundancy().loop->post([] { redundancy().master_cb(); });
}

void become_master() {
    qv::report_standby(false);
    qv::platform().become_master();
    redundancy().master_cb();
}

void await_role() {
    Redundancy& role = redundancy();
    const Obstacle obstacle = take_exclusives();
    if (obstacle.taken == nullptr) {
        become_master();
        return;
    }
    if (!std::exchange(role.standing_by, true)) {
        qv::report_standby(true);
    }
    // Another master is the normal case, and not logged.
    if (obstacle.error != EADDRINUSE && role.logged_error != obstacle.error) {
        role.logged_error = obstacle.error;
        printk_syslog(SYSLOG_SEVERITY_ERROR, "RDND", "LEASE",
                      "Cannot become the master, trying again: %s", reason_of(obstacle).c_str());
    }
    role.retry = role.loop->after(kLeaseRetry, await_role);
}

// Ends the holder of a lock if it is the process that had the lease before: its time is over, but
// it is stopped, or blocked in a system call, and has not noticed yet.
void end_predecessor(const Exclusive& lock) {
    const Redundancy& role = redundancy();
    const pid_t holder = qv::NameLock::holder(lock.name, lock.file);
    if (!role.predecessor || role.predecessor->host != role.own.host || holder <= 0 ||
        role.predecessor->pid != static_cast<uint64_t>(holder)) {
        return;
    }
    const int fd = pidfd_open(holder, 0);
    // The number may have passed to another process before that call, but not if it still holds the
    // lock.
    if (fd >= 0 && qv::NameLock::holder(lock.name, lock.file) == holder &&
        pidfd_send_signal(fd, SIGKILL, nullptr, 0) == 0) {
        printk_syslog(SYSLOG_SEVERITY_WARNING, "RDND", "LEASE",
                      "Process %d had the lease before and still runs on %s: it is killed.", holder,
                      lock.thing.c_str());
    }
    if (fd >= 0) {
        close(fd);
    }
}

// With the lease in hand. Another process may hold the locks for a moment, but not for long.
void take_locks() {
    Redundancy& role = redundancy();
    const Obstacle obstacle = take_exclusives();
    if (obstacle.taken == nullptr) {
        become_master();
        return;
    }
    if (obstacle.error != EADDRINUSE || role.loop->clock().now() >= role.locks_due) {
        std::fprintf(stderr, "%s: %s\n", role.module.c_str(),
                     qv::visible(reason_of(obstacle)).c_str());
        std::exit(EXIT_FAILURE);
    }
    end_predecessor(*obstacle.taken);
    role.retry = role.loop->after(kLockRetry, take_locks);
}

void lease_granted(const std::optional<qv::LeaseText>& before) {
    Redundancy& role = redundancy();
    role.predecessor = before;
    role.locks_due = role.loop->clock().now() + kLockPatience;
    // A process that continues after a pause finds out before it does anything else.
    role.loop->check_before_work([] { redundancy().lease->check(); });
    take_locks();
}

// At once: the end of a usual exit would wait for the worker thread, which may be about to save.
void lease_lost(const std::string& reason) {
    std::fprintf(stderr, "%s: the master role is lost: %s; the next start stands by\n",
                 redundancy().module.c_str(), reason.c_str());
    std::_Exit(qv::kRoleLostStatus);
}

void log_lease_trouble(const std::string& reason) {
    printk_syslog(SYSLOG_SEVERITY_ERROR, "RDND", "LEASE",
                  "The lease of the master role cannot be read or renewed, trying again: %s",
                  reason.c_str());
}

std::string random_token() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    std::string token;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        token += digits;
    }
    return token;
}

// The name may be anything; in the lease it is one word.
std::string own_host() {
    char name[65] = "";
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "unknown";
    }
    std::string host = name;
    for (char& letter : host) {
        letter = letter > 0x20 && letter < 0x7f ? letter : '?';
    }
    return host;
}

void await_lease(qv::LeaseDriver& driver) {
    Redundancy& role = redundancy();
    const qv::PlatformConfig& config = qv::platform().config();
    role.own = {.fence = 0,
                .count = 0,
                .time_ms = config.lease_ms,
                .token = random_token(),
                .host = own_host(),
                .pid = static_cast<uint64_t>(getpid())};
    // In real time, whatever the speed of a simulated switch's clock.
    const std::chrono::duration<double, std::milli> time(config.lease_ms * config.speed);
    role.lease = std::make_unique<qv::Lease>(
        *role.loop, driver,
        qv::Lease::Settings{.time = std::chrono::duration_cast<qv::Duration>(time),
                            .mine = role.own},
        qv::Lease::Events{
            .granted = lease_granted, .lost = lease_lost, .trouble = log_lease_trouble});
    qv::report_standby(true);
    role.lease->start();
}

void await_either() {
    if (qv::LeaseDriver* const driver = qv::platform().lease()) {
        await_lease(*driver);
    } else {
        await_role();
    }
}

// `registered` is set last, so that the caller can repeat a call that ran out of memory.
int register_role(const rdnd_reg& reg) {
    Redundancy& role = redundancy();
    if (role.registered) {
        return EALREADY;
    }
    role.loop = &qv::loop_of(reg.master);
    role.master_cb = reg.master_cb;
    role.module = reg.module;
    role.exclusives.clear();
    name_exclusives(reg.module);
    switch (qv::platform().config().role) {
        case qv::PlatformConfig::Role::kSolo:
            take_role_or_end(reg.module);
            break;
        case qv::PlatformConfig::Role::kLease:
            role.loop->post(await_either);
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

qv::RoleReport qv::role_report() {
    const Redundancy& role = redundancy();
    const PlatformConfig& config = platform().config();
    RoleReport report{.leased = config.role == PlatformConfig::Role::kLease,
                      .host = own_host(),
                      .pid = getpid(),
                      .lease = std::nullopt};
    if (role.lease) {
        const Lease::State state = role.lease->state();
        const std::chrono::duration<double, std::nano> left(
            static_cast<double>(state.left.count()) / config.speed);
        report.lease = {.fence = state.fence,
                        .left = std::chrono::duration_cast<std::chrono::milliseconds>(left)};
    }
    return report;
}

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
