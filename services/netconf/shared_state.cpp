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

namespace netconf {
namespace {

using namespace std::chrono_literals;

// An edit takes milliseconds, but 2 s when the agent does not answer. A waiting session must answer
// its client within 3 s, including its own edit.
constexpr auto kTurnLimit = 900ms;
constexpr auto kTurnStep = 5ms;
constexpr int kKillLimit_ms = 1000;
constexpr mode_t kFileMode = 0660;  // sessions run as different users of one group

std::string session_path(const std::string& folder, uint32_t id) {
    return folder + "/session-" + std::to_string(id);
}

std::string lock_path(const std::string& folder) {
    return folder + "/running.lock";
}

// Returns a closed file, with errno set, on failure.
File open_file(const std::string& path, bool create) {
    File file(
        open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0), kFileMode));
    if (create && file.open()) {
        // The umask has reduced the mode. This fails for files of other users, which have the full
        // mode already.
        static_cast<void>(fchmod(file.fd(), kFileMode));
    }
    return file;
}

bool try_lock(const File& file) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return fcntl(file.fd(), F_OFD_SETLK, &whole) == 0;
}

bool is_locked(const File& file) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return fcntl(file.fd(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

void write_line(const File& file, const std::string& line) {
    if (ftruncate(file.fd(), 0) != 0 ||
        pwrite(file.fd(), line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error(std::string("cannot write a session file: ") + strerror(errno));
    }
}

std::string read_line(const File& file) {
    std::array<char, 256> text;
    const ssize_t length = pread(file.fd(), text.data(), text.size(), 0);
    return length > 0 ? std::string(text.data(), static_cast<size_t>(length)) : std::string();
}

std::string now_rfc3339() {
    const time_t now = time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 32> text;
    return {text.data(), strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
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

File::File(File&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

File& File::operator=(File&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

File::~File() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

SessionNumber::SessionNumber(const std::string& folder, const std::string& user) {
    if (mkdir(folder.c_str(), 0770) != 0 && errno != EEXIST) {
        throw std::runtime_error(folder + ": " + strerror(errno));
    }
    // Process numbers grow, so the next session starts its search after this one.
    const uint32_t first = static_cast<uint32_t>(getpid()) % kSessions;
    for (uint32_t step = 0; step < kSessions; step++) {
        if (take(folder, 1 + (first + step) % kSessions)) {
            write_line(file_, std::to_string(getpid()) + " " + now_rfc3339() + " " + user + "\n");
            return;
        }
    }
    throw std::runtime_error("all " + std::to_string(kSessions) + " sessions are in use");
}

bool SessionNumber::take(const std::string& folder, uint32_t id) {
    File file = open_file(session_path(folder, id), true);
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
        if (auto info = info_of(open_file(session_path(folder, id), false), id)) {
            found.push_back(std::move(*info));
        }
    }
    return found;
}

Kill kill_session(const std::string& folder, uint32_t id) {
    const File file = open_file(session_path(folder, id), false);
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

std::string RunningLock::line() const {
    const File file = open_file(lock_path(folder_), false);
    return file.open() && is_locked(file) ? read_line(file) : std::string();
}

uint32_t RunningLock::holder() const {
    if (mine()) {
        return id_;
    }
    const std::string text = line();
    uint32_t id = 0;
    std::from_chars(text.data(), text.data() + text.size(), id);
    return id;
}

std::string RunningLock::since() const {
    std::istringstream words(mine() ? read_line(file_) : line());
    std::string id;
    std::string time;
    words >> id >> time;
    return time;
}

void RunningLock::take() {
    File file = open_file(lock_path(folder_), true);
    if (!file.open() || !try_lock(file)) {
        throw std::runtime_error(lock_path(folder_) + ": " + strerror(errno));
    }
    write_line(file, std::to_string(id_) + " " + now_rfc3339() + "\n");
    file_ = std::move(file);
}

void RunningLock::release() {
    file_ = File();
}

EditTurn::EditTurn(const std::string& folder) {
    File file = open_file(folder + "/edit.lock", true);
    if (!file.open()) {
        throw std::runtime_error(folder + "/edit.lock: " + strerror(errno));
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
