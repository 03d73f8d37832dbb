#include "platform/cli/config_saver.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <memory>
#include <utility>

#include "platform/base/metrics.h"
#include "platform/cli/config_file.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"
#include "qv/lsm.h"
#include "qv/syslog.h"

namespace qv::cli {

ConfigSaver::ConfigSaver(EventLoop& loop, Background& background, std::string path,
                         Journal& journal, const PortSections& sections)
    : loop_(loop),
      background_(background),
      path_(std::move(path)),
      journal_(journal),
      sections_(sections) {}

void ConfigSaver::request() {
    if (path_.empty()) {
        return;
    }
    wanted_ = true;
    schedule();
}

void ConfigSaver::schedule() {
    if (!autosave_ || timer_ || snapshot_ || writing_) {
        return;
    }
    const Duration rest = rest_until_ - loop_.clock().now();
    timer_ = loop_.after(std::max<Duration>(kGather, rest), [this] { slice(); });
}

void ConfigSaver::save(Done done) {
    waiting_.push_back(std::move(done));
    if (writing_) {
        return;  // another snapshot follows the one being written
    }
    begin();
    take_ports(std::numeric_limits<int>::max());
    finish();
}

std::string ConfigSaver::save_here() {
    if (writing_) {
        return "another save is under way";
    }
    begin();
    take_ports(std::numeric_limits<int>::max());
    const ConfigImage image = end_snapshot();
    std::string reason = replace_file(path_, seal_config(image.text, image.journal));
    count(reason);
    written(image, reason);
    return reason;
}

void ConfigSaver::save_last() {
    if (!autosave_) {
        return;
    }
    // The background must not be used any more, so this save answers all callers.
    writing_ = false;
    served_.insert(served_.end(), std::make_move_iterator(waiting_.begin()),
                   std::make_move_iterator(waiting_.end()));
    waiting_.clear();
    static_cast<void>(save_here());  // records its own failure
}

void ConfigSaver::begin() {
    timer_.reset();
    turn_.reset();
    wanted_ = false;
    snapshot_.emplace();
    snapshot_->image.journal = journal_.last();
    snapshot_->image.text = section_text(generate_global());
}

void ConfigSaver::slice() {
    const Time start = loop_.clock().now();
    if (!snapshot_) {
        begin();
    }
    const bool all = take_ports(kPortsPerTurn);
    snapshot_->spent += loop_.clock().now() - start;
    if (all) {
        rest_until_ =
            loop_.clock().now() + std::min<Duration>(kRest * snapshot_->spent, kLongestRest);
        finish();
    } else {
        turn_ = loop_.defer([this] { slice(); });
    }
}

// Returns true when no port is left.
bool ConfigSaver::take_ports(int limit) {
    const std::map<uint32_t, Port>& ports = platform().ports().ports();
    auto next = ports.upper_bound(snapshot_->last_ifx);
    for (; next != ports.end() && limit > 0; ++next, --limit) {
        take_port(next->second);
        snapshot_->last_ifx = next->first;
    }
    return next == ports.end();
}

void ConfigSaver::take_port(const Port& port) {
    if (!(port.flags & LSM_IF_FLAG_HIDDEN)) {
        ConfigSection section = sections_.saved(port);
        snapshot_->image.text += section_text(section);
        if (has_line(section, kHeldLine)) {
            snapshot_->image.held.push_back(std::move(section));
        }
    }
    snapshot_->taken.insert(port.ifx);
}

// Adds what appeared meanwhile, and ends the snapshot.
ConfigImage ConfigSaver::end_snapshot() {
    // Ports that appeared between two slices with an index already passed.
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (!snapshot_->taken.contains(ifx)) {
            take_port(port);
        }
    }
    ConfigImage image = std::move(snapshot_->image);
    image.text += sections_.kept_text();
    image.text += kConfigEnd;
    snapshot_.reset();
    return image;
}

void ConfigSaver::finish() {
    ConfigImage image = end_snapshot();
    served_ = std::exchange(waiting_, {});
    if (image.text == saved_text_ && served_.empty()) {
        written(image, "");
        return;
    }
    writing_ = true;
    auto reason = std::make_shared<std::string>();
    std::string sealed = seal_config(image.text, image.journal);
    background_.run([path = path_, sealed = std::move(sealed),
                     reason] { *reason = replace_file(path, sealed); },
                    [this, image = std::move(image), reason] {
                        writing_ = false;
                        count(*reason);
                        written(image, *reason);
                    });
}

void ConfigSaver::written(const ConfigImage& image, const std::string& reason) {
    note(reason);
    if (reason.empty()) {
        saved_text_ = image.text;
        autosave_ = true;
        journal_.forget(image.journal, image.held);
        retry_.reset();
        watch_file();
    } else {
        saved_text_.clear();
        retry_ = loop_.after(kRetryAfter, [this] { request(); });
    }
    for (const Done& done : std::exchange(served_, {})) {
        done(reason);
    }
    if (!waiting_.empty()) {
        Done next = std::move(waiting_.back());
        waiting_.pop_back();
        save(std::move(next));
    } else if (wanted_) {
        schedule();
    }
}

void ConfigSaver::watch_file() {
    file_check_ = loop_.after(kFileCheck, [this] {
        watch_file();
        check_file();
    });
}

// Without another change nothing would write the file again, and a crash would lose everything.
void ConfigSaver::check_file() {
    struct stat status {};
    const bool removed =
        ::stat(path_.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
    if (!removed || saved_text_.empty()) {
        return;
    }
    saved_text_.clear();
    printk_syslog(SYSLOG_SEVERITY_WARNING, "CLI", "SAVE",
                  "%s was removed; the configuration is saved again.", path_.c_str());
    request();
}

// The sections of ports follow the global lines. While a text is being written either may be found.
bool ConfigSaver::saved_global(std::string_view lines) const {
    if (writing_) {
        return false;
    }
    const std::string_view rest =
        std::string_view(saved_text_).substr(std::min(lines.size(), saved_text_.size()));
    return saved_text_.starts_with(lines) && (rest.starts_with("interface ") || rest == kConfigEnd);
}

// Counts an attempt to write the file.
void ConfigSaver::count(const std::string& reason) {
    if (Metrics* const figures = metrics()) {
        (reason.empty() ? figures->config_saves : figures->config_save_failures)++;
    }
}

// Reports each failure once.
void ConfigSaver::note(const std::string& reason) {
    if (!reason.empty() && reason != trouble_) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "SAVE",
                      "The configuration cannot be saved to %s: %s.", path_.c_str(),
                      reason.c_str());
    }
    trouble_ = reason;
}

}  // namespace qv::cli
