#include "platform/cli/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include <zlib.h>

#include "platform/base/visible.h"
#include "platform/cli/blanks.h"

namespace qv::cli {
namespace {

constexpr off_t kMaxFileBytes = off_t{16} * 1024 * 1024;
constexpr mode_t kFileMode = 0640;
constexpr int kMaxLinks = 40;  // the kernel's limit

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
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // The result of close(2): a file system may report a failed write only here.
    int close() { return ::close(std::exchange(fd_, -1)); }

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

// Gives the new file the owner and mode of the old one. Without the privilege the owner cannot be
// changed, and then the mode must not give our own group access.
void inherit(int fd, const std::string& from) {
    struct stat old {};
    mode_t mode = kFileMode;
    if (::stat(from.c_str(), &old) == 0) {
        const bool owned = ::fchown(fd, old.st_uid, old.st_gid) == 0;
        mode = old.st_mode & (owned ? 07777 : 0700);
    }
    ::fchmod(fd, mode);
}

// The target of a symbolic link, whether or not it exists; the path itself for anything
// else.
std::string followed(const std::string& path) {
    std::filesystem::path target = path;
    std::error_code ignored;
    for (int links = 0; links < kMaxLinks && std::filesystem::is_symlink(target, ignored);
         ++links) {
        target = target.parent_path() / std::filesystem::read_symlink(target, ignored);
    }
    return target.string();
}

constexpr std::string_view kJournalMark = "! journal ";
constexpr std::string_view kChecksumMark = "! checksum ";

// Removes the last line of `text`, with its line end.
std::string_view take_last_line(std::string_view& text) {
    const size_t end = text.empty() ? 0 : text.size() - 1;
    const size_t before = text.substr(0, end).rfind('\n');
    const size_t start = before == std::string_view::npos ? 0 : before + 1;
    const std::string_view line = text.substr(start);
    text = text.substr(0, start);
    return line;
}

bool sync_folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot sync a folder, and need not.
    return fd.get() >= 0 && (::fsync(fd.get()) == 0 || errno == EINVAL);
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
            // As the port model names such a port.
            sections.push_back({visible(port), number, {}});
        } else if (line.front() != '!' && line != "exit" && line != "end") {
            sections.back().lines.push_back({number, std::string(line)});
        } else if (!sections.back().port.empty()) {
            sections.emplace_back();
        }
    }
    return sections;
}

std::optional<std::string> read_config_file(const std::string& path) {
    // Does not block on a pipe or device.
    return read_config_from(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

std::optional<std::string> read_config_from(int open_fd) {
    const Descriptor fd(open_fd);
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

std::string checksum(std::string_view text) {
    const auto* const bytes = reinterpret_cast<const Bytef*>(text.data());
    const uLong sum = ::crc32_z(::crc32_z(0, Z_NULL, 0), bytes, text.size());
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08lx", static_cast<unsigned long>(sum));
    return digits;
}

std::string seal_config(std::string text, uint64_t journal) {
    text.append(kJournalMark).append(std::to_string(journal)).append("\n");
    const std::string sum = checksum(text);
    return text.append(kChecksumMark).append(sum).append("\n");
}

UnsealedConfig unseal_config(std::string_view sealed) {
    std::string_view text = sealed;
    const std::string_view sum = take_last_line(text);
    if (sum == std::string(kChecksumMark) + checksum(text) + "\n") {
        std::string_view number = take_last_line(text);
        UnsealedConfig config{.text = std::string(text), .journal = 0, .intact = false};
        if (number.starts_with(kJournalMark) && text.ends_with(kConfigEnd)) {
            number.remove_prefix(kJournalMark.size());
            const char* const end = number.data() + number.size() - 1;
            const auto [stop, error] = std::from_chars(number.data(), end, config.journal);
            config.intact = stop == end && error == std::errc{};
        }
        if (config.intact) {
            return config;
        }
    }
    // The last line may be part of a longer one.
    std::string_view whole_lines = sealed;
    take_last_line(whole_lines);
    return {.text = std::string(whole_lines), .journal = 0, .intact = false};
}

std::string replace_file(const std::string& path, std::string_view text, Sync sync) {
    const std::string target = followed(path);
    const std::string fresh = target + ".new";
    ::unlink(fresh.c_str());  // left by a process that died while saving
    Descriptor fd(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        return std::strerror(errno);
    }
    inherit(fd.get(), target);
    const bool wait = sync == Sync::kNow;
    if (!write_all(fd.get(), text) || (wait && ::fsync(fd.get()) != 0) || fd.close() != 0 ||
        ::rename(fresh.c_str(), target.c_str()) != 0) {
        std::string reason = std::strerror(errno);
        ::unlink(fresh.c_str());
        return reason;
    }
    return !wait || sync_folder_of(target) ? "" : std::strerror(errno);
}

std::string sync_file(const std::string& path) {
    const std::string target = followed(path);
    const Descriptor fd(::open(target.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const bool synced = fd.get() >= 0 ? ::fsync(fd.get()) == 0 : errno == ENOENT;
    return synced && sync_folder_of(target) ? "" : std::strerror(errno);
}

std::string remove_file(const std::string& path) {
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? "" : std::strerror(errno);
}

}  // namespace qv::cli
