#include "platform/cli/loop_history.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "platform/cli/config_file.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/loop_history_text.h"
#include "qv/syslog.h"

namespace qv::cli {

LoopHistory::LoopHistory(EventLoop& loop, Background& background, std::string path)
    : loop_(loop), background_(background), path_(std::move(path)) {
    if (!path_.empty()) {
        read();
        held_ports().on_event([this] { request(); });
    }
}

// A file that cannot be read is replaced, too, so it is kept like a damaged one.
void LoopHistory::read() {
    const std::optional<std::string> text = read_config_file(path_);
    if (!text && errno == ENOENT) {
        return;
    }
    const std::string fault = text ? "cut off or changed" : std::strerror(errno);
    ReadHistory history = read_history(text.value_or(""));
    if (!history.intact) {
        const std::string copy = path_ + ".damaged";
        const bool kept = std::rename(path_.c_str(), copy.c_str()) == 0;
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "HISTORY",
                      "The history of loops %s is damaged (%s): its first %zu events are used%s%s.",
                      path_.c_str(), fault.c_str(), history.events.size(),
                      kept ? ", and it is kept as " : ", and it cannot be kept",
                      kept ? copy.c_str() : "");
        request();
    }
    held_ports().restore(std::move(history.events));
}

void LoopHistory::request() {
    wanted_ = true;
    if (!timer_ && !writing_) {
        timer_ = loop_.after(kGather, [this] { write(); });
    }
}

void LoopHistory::write() {
    timer_.reset();
    wanted_ = false;
    writing_ = true;
    auto reason = std::make_shared<std::string>();
    background_.run([path = path_, events = held_ports().events(),
                     reason] { *reason = replace_file(path, history_text(events)); },
                    [this, reason] {
                        writing_ = false;
                        written(*reason);
                    });
}

// Reports each failure once. The events stay in memory.
void LoopHistory::written(const std::string& reason) {
    if (!reason.empty() && reason != trouble_) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "HISTORY",
                      "The history of loops cannot be saved to %s: %s.", path_.c_str(),
                      reason.c_str());
    }
    trouble_ = reason;
    if (!reason.empty()) {
        wanted_ = true;
        timer_ = loop_.after(kRetryAfter, [this] { write(); });
    } else if (wanted_) {
        request();
    }
}

void LoopHistory::save_last() {
    if (wanted_ || writing_) {
        wanted_ = false;
        written(replace_file(path_, history_text(held_ports().events())));
    }
}

}  // namespace qv::cli
