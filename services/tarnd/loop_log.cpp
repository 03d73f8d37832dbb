#include "services/tarnd/loop_log.h"

#include <utility>

#include "platform/base/message_log.h"

namespace qv::tarnd {
namespace {

void log_line(const LogSubject& subject, const LoopLog::Line& line) {
    const LogAbout about(subject);
    log_message(line.severity, "TARN", line.mnemonic, "%s", line.text.c_str());
}

std::string times(size_t count) {
    return std::to_string(count) + (count == 1 ? " more time" : " more times");
}

}  // namespace

void LoopLog::loop_begins(const std::string& port) {
    const auto [found, is_first] = ports_.try_emplace(port);
    if (is_first) {
        begin_period(port);
    } else {
        found->second.repeats = true;
        ++found->second.more_loops;
    }
}

void LoopLog::say(const LogSubject& about, Line line) {
    const auto found = ports_.find(about.port);
    if (found == ports_.end() || !found->second.repeats) {
        log_line(about, line);
        return;
    }
    found->second.about = about;
    found->second.last = std::move(line);
}

void LoopLog::finish() {
    while (!ports_.empty()) {
        const std::string port = ports_.begin()->first;
        end_period(port);
        ports_.erase(port);
    }
}

void LoopLog::begin_period(const std::string& port) {
    Port& state = ports_[port];
    state.since = loop_.clock().now();
    state.period = loop_.after(kPeriod, [this, port] { end_period(port); });
}

void LoopLog::end_period(const std::string& port) {
    Port& state = ports_[port];
    if (!state.last) {
        ports_.erase(port);
        return;
    }
    const Duration time = loop_.clock().now() - state.since;
    if (const size_t loops = std::exchange(state.more_loops, 0); loops != 0) {
        log_line(state.about, {kLogWarning, "REPEATED",
                               port + " looped " + times(loops) + " in " +
                                   std::to_string(time / std::chrono::seconds(1)) +
                                   " s. The last line about it follows."});
    }
    log_line(state.about, *std::exchange(state.last, {}));
    begin_period(port);
}

}  // namespace qv::tarnd
