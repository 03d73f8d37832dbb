#include "platform/base/running_lock.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sstream>
#include <stdexcept>

#include "platform/base/visible.h"

namespace qv {
namespace {

bool is_time(const std::string& text) {
    tm parts{};
    const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return end != nullptr && *end == '\0' && text.size() == strlen("2026-01-02T03:04:05Z");
}

}  // namespace

RunningLockHolder holder_in(const std::string& line) {
    RunningLockHolder holder{.session = 0, .since = {}, .name = {}};
    std::istringstream words(visible(line));
    words >> holder.session >> holder.since >> std::ws;
    std::getline(words, holder.name);
    if (!is_time(holder.since)) {
        holder.since.clear();
    }
    return holder;
}

std::optional<RunningLockHolder> RunningLock::holder() const {
    if (mine()) {
        return RunningLockHolder{session_, holder_in(read_line(file_)).since, name_};
    }
    const File file = open_lock_file(path());
    if (!file.open() || !is_locked(file)) {
        return std::nullopt;
    }
    return holder_in(read_line(file));
}

void RunningLock::take() {
    File file = create_lock_file(path());
    if (!file.open() || !try_lock(file)) {
        throw std::runtime_error(path() + ": " + strerror(errno));
    }
    write_line(file, std::to_string(session_) + " " + now_rfc3339() + " " + name_);
    file_ = std::move(file);
}

std::string now_rfc3339() {
    const time_t now = time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 32> text;
    return {text.data(), strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

}  // namespace qv
