#include "platform/cli/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <utility>

namespace qv::cli {
namespace {

// Allocated ahead for new records: enough for hundreds of them.
constexpr off_t kRoom_bytes = 64 * 1024;
constexpr mode_t kFileMode = 0600;
// A crash of the process can break off a write only between two pages of the file.
constexpr size_t kWrittenWhole_bytes = 4096;
constexpr std::string_view kTitle = "record ";
constexpr std::string_view kSavedTitle = "saved ";

// "record NUMBER BYTES CHECKSUM\n", then the section in BYTES bytes. The checksum covers number and
// section.
std::string bytes_of(const JournalRecord& record) {
    const ConfigSection& section = record.section;
    std::string body;
    if (!section.port.empty()) {
        body.append("interface ").append(section.port).append("\n");
    }
    for (const ConfigLine& line : section.lines) {
        body.append(" ").append(line.text).append("\n");
    }
    const std::string count = std::to_string(record.number);
    std::string bytes;
    bytes.append(record.saved ? kSavedTitle : kTitle).append(count).append(" ");
    bytes.append(std::to_string(body.size())).append(" ");
    bytes.append(checksum(count + body)).append("\n").append(body);
    return bytes;
}

std::string_view take_word(std::string_view& line) {
    const size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

template <typename Number>
bool read_number(std::string_view word, Number& number) {
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    return !word.empty() && stop == end && error == std::errc{};
}

// Removes the first record; false when there is no complete one.
bool take_record(std::string_view& bytes, JournalRecord& record) {
    const size_t end = bytes.find('\n');
    record.saved = bytes.starts_with(kSavedTitle);
    if ((!record.saved && !bytes.starts_with(kTitle)) || end == std::string_view::npos) {
        return false;
    }
    std::string_view title = bytes.substr(0, end);
    take_word(title);
    const std::string_view rest = bytes.substr(end + 1);
    const std::string_view count = take_word(title);
    size_t size = 0;
    if (!read_number(count, record.number) || !read_number(take_word(title), size) ||
        size > rest.size()) {
        return false;
    }
    const std::string_view body = rest.substr(0, size);
    if (title != checksum(std::string(count).append(body))) {
        return false;
    }
    const std::vector<ConfigSection> sections = parse_config(body);
    record.section = sections.back();
    record.section.number = 0;
    for (ConfigLine& line : record.section.lines) {
        line.number = 0;
    }
    bytes = rest.substr(size);
    return true;
}

bool follows(const JournalRecord& record, const JournalRecord& before) {
    return record.number > before.number ||
           (record.number == before.number && record.saved && before.saved);
}

}  // namespace

std::vector<JournalRecord> read_journal(const std::string& path) {
    std::vector<JournalRecord> records;
    const std::string text = read_config_file(path).value_or("");
    std::string_view rest = text;
    JournalRecord before{.number = 0, .section = {}, .saved = true};
    JournalRecord record;
    while (take_record(rest, record) && follows(record, before)) {
        records.push_back(record);
        before = record;
    }
    return records;
}

Journal::~Journal() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

std::string Journal::open(uint64_t last) {
    last_ = last;
    kept_.clear();
    for (const JournalRecord& record : read_journal(path_)) {
        keep(record, bytes_of(record));
        last_ = std::max(last_, record.number);
    }
    return renew();
}

// A section's newest record replaces those before it.
void Journal::keep(const JournalRecord& record, std::string bytes) {
    std::erase_if(kept_, [&](const Kept& kept) { return kept.port == record.section.port; });
    kept_.push_back({record.number, record.section.port, std::move(bytes), record.saved});
}

std::string Journal::append(const ConfigSection& section) {
    std::string trouble = size_ > room_ || fd_ < 0 ? renew() : "";
    if (!trouble.empty()) {
        return trouble;
    }
    const JournalRecord record{.number = last_ + 1, .section = section, .saved = false};
    std::string bytes = bytes_of(record);
    trouble = write(bytes);
    if (trouble.empty()) {
        ++last_;
        keep(record, std::move(bytes));
    }
    return trouble;
}

bool Journal::in_place() const {
    struct stat open {};
    struct stat named {};
    return fd_ >= 0 && ::fstat(fd_, &open) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

std::string Journal::reopen_if_replaced() {
    return in_place() ? "" : renew();
}

std::string Journal::write(std::string_view bytes) {
    const ssize_t written = ::pwrite(fd_, bytes.data(), bytes.size(), size_);
    if (written != static_cast<ssize_t>(bytes.size())) {
        return std::strerror(written < 0 ? errno : ENOSPC);
    }
    size_ += written;
    return {};
}

bool Journal::holds(const std::string& port) const {
    return std::any_of(kept_.begin(), kept_.end(),
                       [&](const Kept& record) { return !record.saved && record.port == port; });
}

void Journal::forget(uint64_t number, const std::vector<ConfigSection>& held) {
    std::vector<Kept> kept;
    kept.reserve(held.size() + kept_.size());
    for (const ConfigSection& section : held) {
        kept.push_back({number, section.port, bytes_of({number, section, true}), true});
    }
    std::copy_if(kept_.begin(), kept_.end(), std::back_inserter(kept),
                 [number](const Kept& record) { return !record.saved && record.number > number; });
    if (kept == kept_ && in_place()) {
        return;
    }
    kept_ = std::move(kept);
    const bool in_one_piece = kept_bytes().size() < kWrittenWhole_bytes;
    if (!in_place() || !in_one_piece || !overwrite().empty()) {
        static_cast<void>(renew());  // the next record reports what is wrong
    }
}

std::string Journal::kept_bytes() const {
    std::string bytes;
    for (const Kept& record : kept_) {
        bytes += record.bytes;
    }
    return bytes;
}

// Writes all kept records again. A full disk has no room for a new file, but the old one still has
// its own.
std::string Journal::renew() {
    std::string trouble = rewrite();
    if (!trouble.empty() && (in_place() || open_old()) && overwrite().empty()) {
        trouble.clear();
    }
    return trouble;
}

// Opens an existing file if it is one of ours.
bool Journal::open_old() {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != ::geteuid()) {
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
    room_ = status.st_size;
    return true;
}

std::string Journal::overwrite() {
    const std::string bytes = kept_bytes();
    // An empty line is no record, so remnants of older records after it are not read. The next
    // record overwrites it.
    size_ = 0;
    std::string trouble = write(bytes + "\n");
    size_ = static_cast<off_t>(bytes.size());
    return trouble;
}

// Moves the kept records to a new file; the old one stays until the new one is complete. The new
// file's room grows with its content, so that thousands of records are not rewritten for each
// further one.
std::string Journal::rewrite() {
    const std::string fresh = path_ + ".new";
    ::unlink(fresh.c_str());
    const int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    if (fd < 0) {
        return std::strerror(errno);
    }
    const off_t room = kRoom_bytes + 2 * static_cast<off_t>(kept_bytes().size());
    ::posix_fallocate(fd, 0, room);
    const int old = std::exchange(fd_, fd);
    const off_t old_size = std::exchange(size_, 0);
    std::string trouble = overwrite();
    if (trouble.empty() && ::rename(fresh.c_str(), path_.c_str()) != 0) {
        trouble = std::strerror(errno);
    }
    if (trouble.empty()) {
        if (old >= 0) {
            ::close(old);
        }
        room_ = room;
        return {};
    }
    ::close(std::exchange(fd_, old));
    size_ = old_size;
    ::unlink(fresh.c_str());
    return trouble;
}

}  // namespace qv::cli
