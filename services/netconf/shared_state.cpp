#include "services/netconf/shared_state.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "platform/base/running_lock.h"
#include "services/netconf/lock_holder.h"
#include "services/netconf/log.h"

namespace netconf {
namespace {

using qv::create_lock_file;
using qv::File;
using qv::try_lock;

using namespace std::chrono_literals;

// An edit takes milliseconds, but 2 s when the agent does not answer. A waiting session must answer
// its client within 3 s, including its own edit.
constexpr auto kTurnLimit = 900ms;
constexpr auto kTurnStep = 5ms;
constexpr int kKillLimit_ms = 1000;  // for each of two signals

constexpr const char* kSessionsFile = "/sessions";
constexpr mode_t kFolderMode = 01770;

std::runtime_error unusable(const std::string& path, const std::string& reason) {
    return std::runtime_error(path + ": " + reason);
}

std::string name_of(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

// Throws when somebody else may rename or remove what is in this folder.
void check_owner_and_mode(const std::string& path, const struct stat& status, uid_t user) {
    if (status.st_uid != 0 && status.st_uid != user) {
        throw unusable(path, "is the folder of " + name_of(status.st_uid) + ", not of root");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        throw unusable(path, "others may replace its files; set the sticky bit (chmod +t)");
    }
}

void check_folder(const std::string& folder, uid_t user) {
    const File opened(open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat own {};
    struct stat above {};
    if (!opened.open() || fstat(opened.fd(), &own) != 0 ||
        fstatat(opened.fd(), "..", &above, 0) != 0) {
        throw unusable(folder, strerror(errno));
    }
    check_owner_and_mode(folder, own, user);
    check_owner_and_mode(folder + "/..", above, user);
}

// Moves away what stands in the place of a file that all members of the group can open.
void clear_place_of(const std::string& path) {
    constexpr mode_t kForTheGroup = 0660;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 ||
        (S_ISREG(status.st_mode) && (status.st_mode & kForTheGroup) == kForTheGroup)) {
        return;
    }
    const std::string aside = path + ".foreign-" + std::to_string(getpid());
    if (rename(path.c_str(), aside.c_str()) == 0) {
        log_line(LOG_WARNING, "%s is not a file for all sessions; renamed to %s", path.c_str(),
                 aside.c_str());
    }
}

}  // namespace

void prepare_folder(const std::string& folder, uid_t user) {
    if (mkdir(folder.c_str(), 0770) == 0) {
        static_cast<void>(chmod(folder.c_str(), kFolderMode));  // the umask has reduced the mode
    } else if (errno != EEXIST) {
        throw unusable(folder, strerror(errno));
    }
    check_folder(folder, user);
    for (const char* const name : {kSessionsFile, qv::kEditLock, qv::kRunningLock}) {
        if (user == 0) {
            clear_place_of(folder + name);
        }
        create_lock_file(folder + name);  // a failure is reported when the file is needed
    }
}

SessionNumber::SessionNumber(const std::string& folder, uid_t user) {
    prepare_folder(folder, user);
    file_ = create_lock_file(folder + kSessionsFile);
    if (!file_.open()) {
        throw unusable(folder + kSessionsFile, strerror(errno));
    }
    take_any(user);
    if (user != 0 && others_of(user) >= kSessionsOfAUser) {
        throw std::runtime_error(name_of(user) + " has " + std::to_string(kSessionsOfAUser) +
                                 " sessions already");
    }
}

void SessionNumber::take_any(uid_t user) {
    constexpr uint32_t kForAll = kSessions - kForRoot;
    // Process numbers grow, so the next session starts its search after this one.
    const uint32_t first = static_cast<uint32_t>(getpid()) % kForAll;
    for (uint32_t step = 0; step < kForAll; step++) {
        if (take(1 + (first + step) % kForAll)) {
            return;
        }
    }
    for (uint32_t id = kForAll + 1; user == 0 && id <= kSessions; id++) {
        if (take(id)) {
            return;
        }
    }
    throw std::runtime_error("all " + std::to_string(user == 0 ? kSessions : kForAll) +
                             " sessions are in use");
}

bool SessionNumber::take(uint32_t id) {
    if (!lock_byte(file_, id)) {
        return false;
    }
    id_ = id;
    return true;
}

// The sessions of this user, without this one.
uint32_t SessionNumber::others_of(uid_t user) const {
    uint32_t count = 0;
    for (uint32_t id = 1; id <= kSessions; id++) {
        const auto process = locker_of(file_, id);
        const auto info = process ? process_info(*process) : std::nullopt;
        count += info && info->user == user ? 1 : 0;
    }
    return count;
}

std::vector<SessionInfo> SessionNumber::live_sessions() const {
    std::vector<SessionInfo> found;
    for (uint32_t id = 1; id <= kSessions; id++) {
        const auto process = id == id_ ? getpid() : locker_of(file_, id);
        if (const auto info = process ? process_info(*process) : std::nullopt) {
            found.push_back({.id = id,
                             .pid = *process,
                             .user = name_of(info->user),
                             .login_time = info->start});
        }
    }
    return found;
}

Kill SessionNumber::kill(uint32_t id) const {
    const auto holder = id >= 1 && id <= kSessions ? locker_of(file_, id) : std::nullopt;
    if (!holder || *holder == 0) {
        return Kill::kNoSuchSession;
    }
    const File process(static_cast<int>(syscall(SYS_pidfd_open, *holder, 0)));
    // Asked again, of this process: the kernel's answer above may name one that has ended, and
    // another one may have its number by now. From here on `process` is the session or nothing.
    if (!process.open() || !process_locks(*holder, file_, id)) {
        return process.open() && errno == EACCES ? Kill::kNotAllowed : Kill::kNoSuchSession;
    }
    // A session that is stopped does not end by SIGTERM, and a foreign process need not.
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (syscall(SYS_pidfd_send_signal, process.fd(), signal, nullptr, 0) != 0) {
            return errno == EPERM ? Kill::kNotAllowed : Kill::kNoSuchSession;
        }
        pollfd end{.fd = process.fd(), .events = POLLIN, .revents = 0};
        if (poll(&end, 1, kKillLimit_ms) == 1) {
            return Kill::kDone;
        }
    }
    return Kill::kStillThere;
}

EditTurn::EditTurn(const std::string& folder) {
    const std::string path = folder + qv::kEditLock;
    File file = create_lock_file(path);
    if (!file.open()) {
        throw std::runtime_error(path + ": " + strerror(errno));
    }
    // There is no call that waits for a record lock with a time limit, so this polls. It does so
    // only while two sessions edit at the same time.
    const auto deadline = std::chrono::steady_clock::now() + kTurnLimit;
    while (!try_lock(file)) {
        if (std::chrono::steady_clock::now() > deadline) {
            return;
        }
        std::this_thread::sleep_for(kTurnStep);
    }
    file_ = std::move(file);
}

}  // namespace netconf
