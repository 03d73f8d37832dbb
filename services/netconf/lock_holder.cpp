#include "services/netconf/lock_holder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <memory>
#include <string>

namespace netconf {
namespace {

// Of a file in /proc; /proc/stat has a line for each processor.
constexpr size_t kMostBytes = 65536;

std::string text_of(const std::string& path) {
    const qv::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(kMostBytes, '\0');
    size_t length = 0;
    for (ssize_t got = 1; file.open() && got > 0 && length < text.size(); length += got) {
        got = std::max<ssize_t>(read(file.fd(), text.data() + length, text.size() - length), 0);
    }
    text.resize(length);
    return text;
}

// Takes the next word of a line; empty at its end.
std::string_view take_word(std::string_view& line) {
    constexpr std::string_view kBlank = " \t\n";
    line.remove_prefix(std::min(line.find_first_not_of(kBlank), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(kBlank));
    line.remove_prefix(word.size());
    return word;
}

template <typename Number>
std::optional<Number> number_in(std::string_view word) {
    Number value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    return error == std::errc() && end == word.data() + word.size() ? std::optional(value)
                                                                    : std::nullopt;
}

// The first word after `label`, which begins a line.
std::string_view word_after(std::string_view text, std::string_view label) {
    const size_t at = text.find(label);
    std::string_view rest = at == std::string_view::npos ? "" : text.substr(at + label.size());
    return take_word(rest);
}

// The moment when the system started.
std::optional<EventTime> boot_time() {
    const auto seconds = number_in<int64_t>(word_after(text_of("/proc/stat"), "\nbtime "));
    return seconds ? std::optional(EventTime(std::chrono::seconds(*seconds))) : std::nullopt;
}

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

struct flock lock_on(off_t at) {
    struct flock byte {};
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = at;
    byte.l_len = 1;
    return byte;
}

}  // namespace

bool lock_byte(const qv::File& file, off_t at) {
    struct flock byte = lock_on(at);
    return fcntl(file.fd(), F_SETLK, &byte) == 0;
}

std::optional<pid_t> locker_of(const qv::File& file, off_t at) {
    struct flock byte = lock_on(at);
    if (fcntl(file.fd(), F_GETLK, &byte) != 0 || byte.l_type == F_UNLCK) {
        return std::nullopt;
    }
    return std::max(byte.l_pid, 0);
}

bool process_locks(pid_t process, const qv::File& file, off_t at) {
    const std::string folder = "/proc/" + std::to_string(process);
    const std::string locks = folder + "/fdinfo/";
    const std::unique_ptr<DIR, CloseFolder> opened(opendir((folder + "/fd").c_str()));
    struct stat wanted {};
    if (!opened || fstat(file.fd(), &wanted) != 0) {
        return false;
    }
    while (const dirent* const entry = readdir(opened.get())) {
        const std::string name = entry->d_name;
        struct stat found {};
        if (fstatat(dirfd(opened.get()), name.c_str(), &found, 0) == 0 &&
            same_file(found, wanted) && has_lock_on(text_of(locks + name), at)) {
            return true;
        }
    }
    errno = 0;
    return false;
}

std::optional<ProcessInfo> process_info(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    const auto user = user_in(text_of(folder + "/status"));
    const auto ticks = start_ticks_in(text_of(folder + "/stat"));
    const auto boot = boot_time();
    if (!user || !ticks || !boot) {
        return std::nullopt;
    }
    const uint64_t ticks_per_s = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return ProcessInfo{.user = *user,
                       .start = *boot + std::chrono::milliseconds(*ticks * 1000 / ticks_per_s)};
}

// "PID (NAME) STATE ...", where the name may have blanks and parentheses of its own.
std::optional<uint64_t> start_ticks_in(std::string_view stat) {
    constexpr int kFieldsBefore = 19;  // after the name, the first of which is the state
    const size_t name_end = stat.rfind(')');
    if (name_end == std::string_view::npos) {
        return std::nullopt;
    }
    stat.remove_prefix(name_end + 1);
    for (int field = 0; field < kFieldsBefore; field++) {
        take_word(stat);
    }
    return number_in<uint64_t>(take_word(stat));
}

// A line break in the name is escaped, so that no name can begin this line.
std::optional<uid_t> user_in(std::string_view status) {
    return number_in<uid_t>(word_after(status, "\nUid:"));
}

// "lock: 1: POSIX ADVISORY WRITE PID DEVICE:INODE FIRST LAST", LAST may be "EOF".
bool has_lock_on(std::string_view fdinfo, off_t at) {
    constexpr std::string_view kLock = "lock:";
    constexpr int kFieldsBefore = 6;
    while (!fdinfo.empty()) {
        std::string_view line = fdinfo.substr(0, fdinfo.find('\n'));
        fdinfo.remove_prefix(std::min(line.size() + 1, fdinfo.size()));
        if (take_word(line) != kLock) {
            continue;
        }
        for (int field = 0; field < kFieldsBefore; field++) {
            take_word(line);
        }
        const auto first = number_in<off_t>(take_word(line));
        const std::string_view last = take_word(line);
        if (first && *first <= at && (last == "EOF" || number_in<off_t>(last).value_or(-1) >= at)) {
            return true;
        }
    }
    return false;
}

}  // namespace netconf
