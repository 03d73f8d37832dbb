#include "platform/cli/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qv::cli {
namespace {

constexpr off_t kMaxFileBytes = off_t{16} * 1024 * 1024;
constexpr mode_t kFileMode = 0640;

std::string_view trimmed(std::string_view line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

// NAME of "interface NAME", empty for any other line.
std::string_view section_name(std::string_view line) {
    constexpr std::string_view kInterface = "interface ";
    if (!line.starts_with(kInterface)) {
        return {};
    }
    const std::string_view name = trimmed(line.substr(kInterface.size()));
    return name.find_first_of(" \t") == std::string_view::npos ? name : std::string_view{};
}

class Descriptor {
 public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // The result of close(2).
    int reset() {
        const int result = fd_ < 0 ? 0 : ::close(fd_);
        fd_ = -1;
        return result;
    }

 private:
    int fd_;
};

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t size = ::write(fd, text.data(), text.size());
        if (size < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
    }
    return true;
}

void sync_folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() >= 0) {
        ::fsync(fd.get());
    }
}

std::string staged_name(const std::string& path) {
    return path + ".new";
}

// The reason in errno; the staged file is gone.
std::string given_up(const std::string& staged) {
    std::string reason = std::strerror(errno);
    ::unlink(staged.c_str());
    return reason;
}

}  // namespace

std::vector<ConfigSection> parse_config(std::string_view text) {
    std::vector<ConfigSection> sections(1);
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty()) {
            continue;
        }
        const std::string_view port = section_name(line);
        if (!port.empty()) {
            sections.push_back({std::string(port), number, {}});
        } else if (line.front() != '!' && line != "exit" && line != "end") {
            sections.back().lines.push_back({number, std::string(line)});
        } else if (!sections.back().port.empty()) {
            sections.emplace_back();
        }
    }
    return sections;
}

std::optional<std::string> read_config_file(const std::string& path) {
    // Not to hang on something that is no file.
    const Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (fd.get() < 0 || ::fstat(fd.get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kMaxFileBytes) {
        errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
        return {};
    }
    std::string text(static_cast<size_t>(status.st_size), '\0');
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t size = ::read(fd.get(), text.data() + filled, text.size() - filled);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            return {};
        }
        if (size == 0) {
            break;
        }
        filled += static_cast<size_t>(size);
    }
    text.resize(filled);
    return text;
}

std::string stage_config_file(const std::string& path, std::string_view text) {
    const std::string staged = staged_name(path);
    Descriptor fd(
        ::open(staged.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (fd.get() < 0) {
        return std::strerror(errno);
    }
    if (!write_all(fd.get(), text) || fd.reset() != 0) {
        return given_up(staged);
    }
    return {};
}

std::string commit_config_file(const std::string& path) {
    const std::string staged = staged_name(path);
    Descriptor fd(::open(staged.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd.get() < 0 || ::fsync(fd.get()) != 0 || fd.reset() != 0 ||
        ::rename(staged.c_str(), path.c_str()) != 0) {
        return given_up(staged);
    }
    sync_folder_of(path);
    return {};
}

void recover_config_file(const std::string& path) {
    const std::string staged = staged_name(path);
    const std::optional<std::string> text = read_config_file(staged);
    if (text && text->ends_with(kConfigEnd)) {
        commit_config_file(path);
    } else if (text) {
        ::unlink(staged.c_str());
    }
}

}  // namespace qv::cli
