#include "platform/driver/embedded/stderr_log.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv {
namespace {

// Standard error itself must stay blocking, since other processes may share it. So a pipe or a
// terminal is opened again, non-blocking. A file is not, because the new descriptor would have its
// own position; it never blocks anyway, and for a socket each send() says not to wait.
int open_standard_error() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) == 0 &&
        (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) {
        const int fd =
            open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0) {
            return fd;
        }
    }
    return STDERR_FILENO;
}

// A pipe that has room takes a whole line.
bool has_room(int fd) {
    pollfd ready{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&ready, 1, 0) > 0;
}

}  // namespace

StderrLog::StderrLog() : fd_(open_standard_error()) {}

StderrLog::~StderrLog() {
    if (fd_ != STDERR_FILENO) {
        close(fd_);
    }
}

void StderrLog::write(const SystemLogMessage& message) {
    const std::string time = wall_time_text(std::chrono::system_clock::now()) + " ";
    const MutexLock lock(mutex_);
    if (lost_ != 0 && write_line(time + loss_report(lost_) + "\n")) {
        lost_ = 0;
    }
    if (lost_ != 0 || !write_line(time + render(message) + "\n")) {
        ++lost_;
    }
}

// Returns false when nothing of the line was written.
bool StderrLog::write_line(const std::string& line) {
    if (!flush()) {
        return false;
    }
    const size_t written = write_some(line);
    if (written != 0) {
        rest_ = line.substr(written);
    }
    return written != 0;
}

// Returns true when the previous line has been written to its end.
bool StderrLog::flush() {
    if (!rest_.empty()) {
        rest_.erase(0, write_some(rest_));
    }
    return rest_.empty();
}

// Returns how many bytes were written.
size_t StderrLog::write_some(const std::string& text) const {
    ssize_t size = send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0 && errno == ENOTSOCK && (fd_ != STDERR_FILENO || has_room(fd_))) {
        size = ::write(fd_, text.data(), text.size());
    }
    return size > 0 ? static_cast<size_t>(size) : 0;
}

}  // namespace qv
