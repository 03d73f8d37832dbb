// A message goes to the system log first, then into the ring of recent messages. The lock here
// guards the ring and the pointer of the monitor sink; it is never held while the system log or the
// sink runs.
#include "platform/base/message_log.h"

#include <atomic>
#include <cstdio>
#include <deque>
#include <memory>
#include <utility>

#include "platform/base/guarded.h"
#include "platform/base/mutex.h"
#include "platform/base/visible.h"

namespace qv {
namespace {

using Sink = std::function<void(std::string_view)>;

// Longest text, with room for everything that a 1024-byte debug line is wrapped in.
constexpr size_t kTextBytes = 2048;

struct LogState {
    std::atomic<SystemLog*> system_log = nullptr;
    std::atomic<uint64_t> messages = 0;  // so far
    Mutex mutex;
    std::deque<LoggedMessage> ring GUARDED_BY(mutex);    // oldest first
    std::shared_ptr<const Sink> sink GUARDED_BY(mutex);  // null for none
};

// Never destroyed: threads may still log while the process exits.
LogState& state() {
    static LogState& instance = *new LogState;
    return instance;
}

thread_local const LogSubject* t_subject = nullptr;

void remember(const std::string& line) {
    LogState& log = state();
    const MutexLock lock(log.mutex);
    log.ring.push_back({std::chrono::system_clock::now(), line});
    if (log.ring.size() > kRecentLogMessages) {
        log.ring.pop_front();
    }
}

}  // namespace

LogAbout::LogAbout(LogSubject subject) : subject_(std::move(subject)), before_(t_subject) {
    t_subject = &subject_;
}

LogAbout::~LogAbout() {
    t_subject = before_;
}

void use_system_log(SystemLog& log) {
    state().system_log.store(&log);
}

std::string vlog_message(int severity, const char* facility, const char* mnemonic,
                         const char* format, std::va_list arguments) {
    char text[kTextBytes];
    // A text with a broken conversion is logged as its format: better than losing the event.
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        std::snprintf(text, sizeof text, "%s", format);
    }
    std::string_view whole = text;
    while (!whole.empty() && (whole.back() == '\n' || whole.back() == '\r')) {
        whole.remove_suffix(1);
    }
    const std::string shown = visible(whole, kLinesAndTabs);
    const SystemLogMessage message{.severity = severity,
                                   .facility = facility,
                                   .mnemonic = mnemonic,
                                   .text = shown,
                                   .number = ++state().messages,
                                   .subject = t_subject};
    if (SystemLog* const log = state().system_log.load()) {
        log->write(message);
    }
    std::string line = render(message);
    remember(line);
    return line;
}

void log_message(int severity, const char* facility, const char* mnemonic, const char* format,
                 ...) {
    std::va_list arguments;
    va_start(arguments, format);
    guarded([&] { vlog_message(severity, facility, mnemonic, format, arguments); });
    va_end(arguments);
}

void show_on_monitors(const std::string& line) {
    std::shared_ptr<const Sink> sink;
    {
        LogState& log = state();
        const MutexLock lock(log.mutex);
        sink = log.sink;
    }
    if (sink) {
        (*sink)(line);
    }
}

std::vector<LoggedMessage> recent_log() {
    LogState& log = state();
    const MutexLock lock(log.mutex);
    return {log.ring.begin(), log.ring.end()};
}

void clear_recent_log() {
    LogState& log = state();
    const MutexLock lock(log.mutex);
    log.ring.clear();
}

void set_monitor_sink(std::function<void(std::string_view text)> sink) {
    std::shared_ptr<const Sink> fresh;
    if (sink) {
        fresh = std::make_shared<const Sink>(std::move(sink));
    }
    // The old sink is destroyed with `fresh`, after the lock is released: its captures may log.
    LogState& log = state();
    const MutexLock lock(log.mutex);
    log.sink.swap(fresh);
}

}  // namespace qv
