#include "platform/base/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace qv {
namespace {

constexpr mode_t kFileMode = 0660;  // the processes run as different users of one group

// A FIFO in place of the file must not block, so O_NONBLOCK.
File open_regular(const std::string& path, int flags) {
    File file(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
    struct stat status {};
    if (file.open() && (fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file = File();
        errno = EINVAL;
    }
    return file;
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

File create_lock_file(const std::string& path) {
    // In a sticky folder the kernel may refuse O_CREAT for a file of another user that is there
    // already (fs.protected_regular), so it is only for a new one.
    File file = open_regular(path, O_RDWR);
    if (file.open() || errno != ENOENT) {
        return file;
    }
    file = open_regular(path, O_RDWR | O_CREAT | O_EXCL);
    if (file.open()) {
        static_cast<void>(fchmod(file.fd(), kFileMode));  // the umask has reduced the mode
    }
    return file.open() || errno != EEXIST ? std::move(file) : open_regular(path, O_RDWR);
}

File open_lock_file(const std::string& path) {
    return open_regular(path, O_RDONLY);
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
    const std::string text = line + "\n";
    if (ftruncate(file.fd(), 0) != 0 ||
        pwrite(file.fd(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error(std::string("cannot write a session file: ") + strerror(errno));
    }
}

std::string read_line(const File& file) {
    std::array<char, 255> text;
    const ssize_t length = pread(file.fd(), text.data(), text.size(), 0);
    const std::string all(text.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return all.substr(0, all.find('\n'));
}

}  // namespace qv
