#include "services/netconf/shared_state.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "platform/base/running_lock.h"

namespace netconf {
namespace {

using qv::create_lock_file;
using qv::File;
using qv::is_locked;
using qv::open_lock_file;
using qv::read_line;
using qv::try_lock;

using namespace std::chrono_literals;

// An edit takes milliseconds, but 2 s when the agent does not answer. A waiting session must answer
// its client within 3 s, including its own edit.
constexpr auto kTurnLimit = 900ms;
constexpr auto kTurnStep = 5ms;
constexpr int kKillLimit_ms = 1000;

std::string session_path(const std::string& folder, uint32_t id) {
    return folder + "/session-" + std::to_string(id);
}

// Returns nothing when the session does not run.
std::optional<SessionInfo> info_of(const File& file, uint32_t id) {
    if (!file.open() || !is_locked(file)) {
        return std::nullopt;
    }
    SessionInfo info{.id = id, .pid = 0, .login_time = {}, .user = {}};
    std::istringstream words(read_line(file));
    words >> info.pid >> info.login_time >> info.user;
    return words ? std::optional(info) : std::nullopt;
}

}  // namespace

SessionNumber::SessionNumber(const std::string& folder, const std::string& user) {
    if (mkdir(folder.c_str(), 0770) != 0 && errno != EEXIST) {
        throw std::runtime_error(folder + ": " + strerror(errno));
    }
    // Process numbers grow, so the next session starts its search after this one.
    const uint32_t first = static_cast<uint32_t>(getpid()) % kSessions;
    for (uint32_t step = 0; step < kSessions; step++) {
        if (take(folder, 1 + (first + step) % kSessions)) {
            qv::write_line(file_, std::to_string(getpid()) + " " + qv::now_rfc3339() + " " + user);
            return;
        }
    }
    throw std::runtime_error("all " + std::to_string(kSessions) + " sessions are in use");
}

bool SessionNumber::take(const std::string& folder, uint32_t id) {
    File file = create_lock_file(session_path(folder, id));
    if (!file.open()) {
        throw std::runtime_error(session_path(folder, id) + ": " + strerror(errno));
    }
    if (!try_lock(file)) {
        return false;
    }
    file_ = std::move(file);
    id_ = id;
    return true;
}

std::vector<SessionInfo> live_sessions(const std::string& folder) {
    std::vector<SessionInfo> found;
    for (uint32_t id = 1; id <= SessionNumber::kSessions; id++) {
        if (auto info = info_of(open_lock_file(session_path(folder, id)), id)) {
            found.push_back(std::move(*info));
        }
    }
    return found;
}

Kill kill_session(const std::string& folder, uint32_t id) {
    const File file = open_lock_file(session_path(folder, id));
    const auto info = info_of(file, id);
    if (!info) {
        return Kill::kNoSuchSession;
    }
    const File process(static_cast<int>(syscall(SYS_pidfd_open, info->pid, 0)));
    // Checked again: the process might have ended before the call above, and another one might have
    // its number. From here on `process` is the session or nothing.
    if (!process.open() || !is_locked(file)) {
        return Kill::kNoSuchSession;
    }
    if (syscall(SYS_pidfd_send_signal, process.fd(), SIGTERM, nullptr, 0) != 0) {
        return errno == EPERM ? Kill::kNotAllowed : Kill::kNoSuchSession;
    }
    pollfd end{.fd = process.fd(), .events = POLLIN, .revents = 0};
    return poll(&end, 1, kKillLimit_ms) == 1 ? Kill::kDone : Kill::kStillThere;
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
