// A regular file that is never on a disk.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "tests/fuzz/agent.h"

namespace qv::fuzz {

class MemoryFile {
 public:
    explicit MemoryFile(std::string_view text) : fd_(::memfd_create("fuzz", MFD_CLOEXEC)) {
        const ssize_t written = ::write(fd_, text.data(), text.size());
        require(written == static_cast<ssize_t>(text.size()), "a file in memory is written");
    }
    ~MemoryFile() { ::close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
    const int fd_;
};

}  // namespace qv::fuzz
