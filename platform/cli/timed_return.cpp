// The previous configuration is kept in memory and, beside the saved one, in FILE.return: saving
// goes on during the trial, and a process that dies during the trial must not make it final. The
// next start replays what was saved and continues the return.
//
// The file is written before anything changes and removed when the trial is over: on "configure
// confirm" before the answer, after a return once the previous configuration is saved. A crash in
// between returns twice, which does no harm; a confirmed configuration is never returned.
//
// A return leaves alone what programs have done to ports. A port that loop detection has shut
// during the trial closes a loop when it is brought up, and one that it has brought back since must
// not be shut as if the loop were still there. So the lines of programs are not kept; a return
// takes them from the running configuration.
#include "platform/cli/timed_return.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/cli/config_file.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/config_replace.h"
#include "platform/cli/config_target.h"
#include "platform/cli/local_time.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace qv::cli {
namespace {

using WallTime = std::chrono::system_clock::time_point;

constexpr std::string_view kMark =
    "! return ";  // "! return DUE MINUTES", DUE in seconds since 1970
constexpr std::string_view kShutdown = "shutdown";
constexpr int64_t kLatestDue = 4102444800;  // in 2100; the clock's range ends in 2262
// An overdue return waits this long after a start, for programs and operators.
constexpr std::chrono::seconds kSettle{10};
constexpr std::chrono::seconds kRetryAfter{30};

struct Pending {
    ConfigSections before;  // without the lines of programs
    WallTime due;
    EventLoop::Handle timer;  // empty: no return is pending
};

Pending& pending() {
    static Pending& instance = *new Pending;
    return instance;
}

// Repeats a save that failed after a return.
EventLoop::Handle& retry() {
    static EventLoop::Handle& instance = *new EventLoop::Handle;
    return instance;
}

// Empty when nothing is ever saved.
std::string file_path() {
    const std::string& saved = config_keeper()->path();
    return saved.empty() ? "" : saved + ".return";
}

// ---- Lines of programs ----

bool shut_by_operator(const ConfigSection& section) {
    const Port* const port = platform().ports().find(section.port);
    return !has_line(section, kHeldLine) &&
           (!port || config_keeper()->shut_by(port->ifx) == ShutBy::kOperator);
}

struct Parts {
    ConfigSection operators;
    ConfigSection programs;  // and what no operator typed
};

Parts parts_of(const ConfigSection& section) {
    Parts parts{{section.port, section.number, {}}, {section.port, section.number, {}}};
    const bool typed = shut_by_operator(section);
    for (const ConfigLine& line : section.lines) {
        const bool programs = line.text == kHeldLine || line.text == "no shutdown" ||
                              (line.text == kShutdown && !typed);
        (programs ? parts.programs : parts.operators).lines.push_back(line);
    }
    return parts;
}

ConfigSections operators_config() {
    ConfigSections sections = current_config();
    for (ConfigSection& section : sections) {
        section = parts_of(section).operators;
    }
    return sections;
}

// The operators' lines of `before` and the programs' current ones. An operator's shutdown has its
// effect already when a program holds the port by now.
ConfigSections target_of(ConfigSections before) {
    std::map<std::string, size_t> places;
    for (size_t i = 0; i < before.size(); ++i) {
        places.emplace(before[i].port, i);
    }
    for (const ConfigSection& now : current_config()) {
        const auto [place, added] = places.emplace(now.port, before.size());
        if (added) {
            before.push_back({now.port, now.number, {}});
        }
        ConfigSection& section = before[place->second];
        const bool shut = has_line(section, kShutdown);
        for (const ConfigLine& line : parts_of(now).programs.lines) {
            if (!shut || line.text == kHeldLine) {
                section.lines.push_back(line);
            }
        }
    }
    return before;
}

// ---- The file ----

std::string file_text(const ConfigSections& before, WallTime due, int64_t minutes) {
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(due.time_since_epoch()).count();
    std::string text(kMark);
    text += std::to_string(seconds) + " " + std::to_string(minutes) + "\n";
    for (const ConfigSection& section : before) {
        text += section_text(section);
    }
    return seal_config(text.append(kConfigEnd), 0);
}

struct Kept {
    ConfigSections before;
    WallTime due;
    int64_t minutes = 0;
};

bool take_number(std::string_view& text, char end, int64_t& number) {
    const char* const last = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc{} || stop == last || *stop != end) {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(stop - text.data()) + 1);
    return true;
}

std::optional<Kept> kept_in(std::string_view sealed) {
    const UnsealedConfig file = unseal_config(sealed);
    std::string_view rest = file.text;
    if (!file.intact || !rest.starts_with(kMark)) {
        return {};
    }
    rest.remove_prefix(kMark.size());
    Kept kept;
    int64_t due = 0;
    if (!take_number(rest, ' ', due) || !take_number(rest, '\n', kept.minutes) || due < 0 ||
        due > kLatestDue) {
        return {};
    }
    kept.minutes = std::clamp<int64_t>(kept.minutes, 1, kMaxReturnMinutes);
    kept.due = WallTime(std::chrono::seconds(due));
    kept.before = parse_config(rest);
    return kept;
}

void report_trouble(const std::string& reason) {
    if (!reason.empty()) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "REVERT", "%s: %s.", file_path().c_str(),
                      reason.c_str());
    }
}

void sync_in_background(std::function<void(const std::string& reason)> done) {
    const auto reason = std::make_shared<std::string>();
    platform().background().run([reason, path = file_path()] { *reason = sync_file(path); },
                                [reason, done = std::move(done)] { done(*reason); });
}

// ---- The return ----

// Removes the file once the restored configuration is saved.
void end_return() {
    ConfigKeeper& keeper = *config_keeper();
    if (file_path().empty()) {
        return;
    }
    if (!keeper.obstacle().empty()) {
        report_trouble(remove_file(file_path()));
        return;
    }
    keeper.saver().save([](const std::string& reason) {
        if (return_pending()) {
            return;  // the file belongs to another return
        }
        if (reason.empty()) {
            report_trouble(remove_file(file_path()));
        } else {
            retry() = platform().loop().after(kRetryAfter, end_return);
        }
    });
}

void revert() {
    const ConfigSections before = std::exchange(pending().before, {});
    pending().timer.reset();
    const bool done = apply_configuration(target_of(before));
    printk_syslog_ext(SYSLOG_SEVERITY_WARNING, "CLI", "REVERT",
                      "The configuration was not confirmed in time: the one before is back%s.",
                      done ? "" : ", but some of its lines were refused");
    end_return();
}

void arm(ConfigSections before, WallTime due, std::chrono::seconds wait) {
    retry().reset();
    // The minutes are real time, whatever the speed of a simulated switch's clock.
    const std::chrono::duration<double> on_clock(static_cast<double>(wait.count()) *
                                                 platform().config().speed);
    pending().before = std::move(before);
    pending().due = due;
    pending().timer =
        platform().loop().after(std::chrono::duration_cast<Duration>(on_clock), revert);
}

}  // namespace

bool return_pending() {
    return static_cast<bool>(pending().timer);
}

std::string return_due() {
    return local_time(pending().due);
}

// Written at once, since the first change may follow immediately; only the sync is left to the
// background.
std::string begin_timed_return(int64_t minutes) {
    if (return_pending()) {
        return "The configuration goes back at " + return_due() +
               " unless 'configure confirm' is typed: only one return can be pending.";
    }
    ConfigSections before = operators_config();
    const WallTime due = std::chrono::system_clock::now() + std::chrono::minutes(minutes);
    if (const std::string path = file_path(); !path.empty()) {
        const std::string trouble =
            replace_file(path, file_text(before, due, minutes), Sync::kLater);
        if (!trouble.empty()) {
            return "The present configuration cannot be kept in " + path + ": " + trouble + ".";
        }
        sync_in_background(report_trouble);
    }
    arm(std::move(before), due, std::chrono::minutes(minutes));
    return {};
}

void cancel_timed_return(std::function<void(const std::string& reason)> done) {
    pending() = {};
    const std::string path = file_path();
    const std::string reason = path.empty() ? "" : remove_file(path);
    if (path.empty() || !reason.empty()) {
        done(reason);
    } else {
        sync_in_background(std::move(done));
    }
}

std::string cancel_timed_return_here() {
    pending() = {};
    const std::string path = file_path();
    const std::string reason = path.empty() ? "" : remove_file(path);
    return path.empty() || !reason.empty() ? reason : sync_file(path);
}

void resume_timed_return() {
    const std::string path = file_path();
    if (path.empty() || return_pending()) {
        return;
    }
    const std::optional<std::string> text = read_config_file(path);
    const int reason = errno;
    if (!text && reason == ENOENT) {
        return;
    }
    std::optional<Kept> kept = kept_in(text.value_or(""));
    if (!kept) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "REVERT",
                      "The previous configuration is lost, and the running one stays: %s: "
                      "%s.",
                      path.c_str(), text ? "the file is damaged" : std::strerror(reason));
        if (text) {
            static_cast<void>(std::rename(path.c_str(), (path + ".damaged").c_str()));
        }
        return;
    }
    // The machine's clock may have been set meanwhile; the wait is never longer than requested.
    using std::chrono::seconds;
    const WallTime now = std::chrono::system_clock::now();
    const seconds wait = std::clamp<seconds>(std::chrono::ceil<seconds>(kept->due - now), kSettle,
                                             std::chrono::minutes(kept->minutes));
    arm(std::move(kept->before), now + wait, wait);
    printk_syslog_ext(SYSLOG_SEVERITY_WARNING, "CLI", "REVERT",
                      "The configuration was not confirmed before the restart: it goes back at %s "
                      "unless 'configure confirm' is typed.",
                      return_due().c_str());
}

}  // namespace qv::cli
