#include "platform/cli/session_descriptors.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace qv::cli {

// An empty file in memory: unlike most descriptors without a path it has an inode of its own.
SessionDescriptors::SessionDescriptors() : original_(::memfd_create("cli-session", MFD_CLOEXEC)) {
    struct stat status {};
    if (original_ < 0 || ::fstat(original_, &status) != 0) {
        throw std::runtime_error(std::string("no descriptor for sessions: ") +
                                 std::strerror(errno));
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    refill();
}

SessionDescriptors::~SessionDescriptors() {
    for (const int fd : spares_) {
        ::close(fd);
    }
    ::close(original_);
}

int SessionDescriptors::duplicate() const {
    return ::fcntl(original_, F_DUPFD_CLOEXEC, 0);
}

int SessionDescriptors::open() {
    const MutexLock lock(mutex_);
    const int fd = duplicate();
    if (fd >= 0) {
        refill_locked();
        return fd;
    }
    if (spares_.empty()) {
        return -1;
    }
    const int spare = spares_.back();
    spares_.pop_back();
    return spare;
}

bool SessionDescriptors::owns(int fd) const {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

void SessionDescriptors::refill() {
    const MutexLock lock(mutex_);
    refill_locked();
}

void SessionDescriptors::refill_locked() {
    while (spares_.size() < kSpares) {
        const int fd = duplicate();
        if (fd < 0) {
            return;
        }
        spares_.push_back(fd);
    }
}

}  // namespace qv::cli
