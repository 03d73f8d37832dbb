#include "platform/cli/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

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
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

 private:
    const int fd_;
};

// From the start of the file.
bool write_all(int fd, std::string_view text) {
    off_t offset = 0;
    while (!text.empty()) {
        const ssize_t size = ::pwrite(fd, text.data(), text.size(), offset);
        if (size < 0 && errno != EINTR) {
            return false;
        }
        const ssize_t written = size < 0 ? 0 : size;
        offset += written;
        text.remove_prefix(static_cast<size_t>(written));
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

ConfigFile::ConfigFile(std::string path) : path_(std::move(path)), staged_(path_ + ".new") {}

ConfigFile::~ConfigFile() {
    close_staged();
}

bool ConfigFile::open_staged() {
    if (fd_ < 0) {
        size_ = 0;
        fd_ = ::open(staged_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                     kFileMode);
    }
    return fd_ >= 0;
}

// The result of close(2).
int ConfigFile::close_staged() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 ? 0 : ::close(fd);
}

// The reason in errno; the staged file is gone.
std::string ConfigFile::given_up() {
    std::string reason = std::strerror(errno);
    close_staged();
    ::unlink(staged_.c_str());
    return reason;
}

std::string ConfigFile::stage(std::string_view text) {
    if (!open_staged()) {
        return std::strerror(errno);
    }
    if (!write_all(fd_, text) ||
        (size_ > text.size() && ::ftruncate(fd_, static_cast<off_t>(text.size())) != 0)) {
        return given_up();
    }
    size_ = text.size();
    return {};
}

std::string ConfigFile::commit() {
    if (::fsync(fd_) != 0 || close_staged() != 0 || ::rename(staged_.c_str(), path_.c_str()) != 0) {
        return given_up();
    }
    sync_folder_of(path_);
    return {};
}

void ConfigFile::prepare(std::string_view like) {
    if (fd_ >= 0 || like.empty() || !open_staged()) {
        return;
    }
    like.remove_suffix(1);
    if (write_all(fd_, like)) {
        size_ = like.size();
    } else {
        given_up();
    }
}

void ConfigFile::recover() {
    const std::optional<std::string> text = read_config_file(staged_);
    if (!text) {
        return;
    }
    fd_ = ::open(staged_.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (text->ends_with(kConfigEnd)) {
        commit();
    } else {
        given_up();
    }
}

}  // namespace qv::cli
