#include "platform/cli/config_keeper.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/running_config.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace qv::cli {
namespace {

using StartHook = uint32_t (*)(uint32_t);
using EndHook = void (*)();

std::vector<StartHook> g_start_hooks;
std::vector<EndHook> g_end_hooks;

void report(const char* mnemonic, const std::string& text) {
    printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", mnemonic, "%s", text.c_str());
}

std::string first_line(const std::string& text) {
    return text.substr(0, text.find_first_of("\r\n"));
}

// Executes a saved line. A global line may follow a section that nothing has ended.
Result execute_saved(SessionState& session, const std::string& line) {
    if (session.mode == kModeInterface && !parses(session, line)) {
        SessionState global;
        global.mode = kModeConfig;
        if (parses(global, line)) {
            session = global;
        }
    }
    return execute(session, line);
}

}  // namespace

ConfigKeeper::ConfigKeeper(EventLoop& loop, std::string path)
    : loop_(loop), file_(std::move(path)) {
    platform().ports().add_observer(*this);
}

void ConfigKeeper::request_reform() {
    request(false);
}

void ConfigKeeper::request_save() {
    request(true);
}

void ConfigKeeper::request_replay() {
    loop_.post([this] { announce(); });
}

void ConfigKeeper::request(bool save) {
    if (save) {
        save_wanted_ = true;
    }
    if (!pending_.exchange(true)) {
        loop_.post([this] { work(); });
    }
}

void ConfigKeeper::work() {
    const Time now = loop_.clock().now();
    if (now < next_work_) {
        timer_ = loop_.after(next_work_ - now, [this] { work(); });
        return;
    }
    next_work_ = now + kSpacing;
    // From here on a request starts another round: what it is about may be missed by this one.
    pending_ = false;
    const bool save = save_wanted_.exchange(false);
    text_ = generate_config(ConfigPurpose::kSave);
    if (save) {
        stage_announced();
    }
    rest_after(now);
}

void ConfigKeeper::rest_after(Time start) {
    const Time end = loop_.clock().now();
    next_work_ = std::max(next_work_, end + kRest * (end - start));
}

// The save that an announcement asks for: silent when nothing is to be done, retried on trouble.
void ConfigKeeper::stage_announced() {
    std::string fresh = text_to_save();
    if (path().empty() || !replayed_ || file_unreadable_ || fresh == saved_text_) {
        return;
    }
    const std::string trouble = file_.stage(fresh);
    if (!trouble.empty()) {
        told(trouble);
        retry_later();
        return;
    }
    saved_text_ = std::move(fresh);
    if (!commit_timer_) {
        commit_timer_ = loop_.after(kSettling, [this] { commit_announced(); });
    }
}

void ConfigKeeper::commit_announced() {
    const Time start = loop_.clock().now();
    if (told(file_.commit()).empty()) {
        file_.prepare(saved_text_);
    } else {
        retry_later();
    }
    rest_after(start);
}

void ConfigKeeper::retry_later() {
    saved_text_.clear();
    commit_timer_.reset();
    retry_ = loop_.after(kRetryAfter, [this] { request_save(); });
}

// As generated last, and what waits for its ports.
std::string ConfigKeeper::text_to_save() const {
    std::string text = text_;
    for (const auto& [port, section] : waiting_) {
        text += "interface " + port + "\n";
        for (const ConfigLine& line : section.lines) {
            text += " " + line.text + "\n";
        }
        text += "!\n";
    }
    text += kConfigEnd;
    return text;
}

// Reports the outcome of a step of saving, each trouble once, and hands it back.
std::string ConfigKeeper::told(std::string trouble) {
    if (trouble.empty()) {
        file_unreadable_ = false;
        retry_.reset();
    } else if (trouble != save_trouble_) {
        report("SAVE", "The configuration cannot be saved to " + path() + ": " + trouble + ".");
    }
    save_trouble_ = trouble;
    return trouble;
}

std::string ConfigKeeper::save() {
    if (path().empty()) {
        return "no file is set for the saved configuration";
    }
    if (!replayed_) {
        return "the saved configuration is not in force yet";
    }
    text_ = generate_config(ConfigPurpose::kSave);
    saved_text_ = text_to_save();
    commit_timer_.reset();
    std::string trouble = file_.stage(saved_text_);
    if (trouble.empty()) {
        trouble = file_.commit();
    }
    if (trouble.empty()) {
        file_.prepare(saved_text_);
    } else {
        saved_text_.clear();
    }
    return told(std::move(trouble));
}

void ConfigKeeper::announce() {
    for (const StartHook hook : g_start_hooks) {
        hook(0);
    }
    if (!replayed_) {
        replay();
        replayed_ = true;
    }
    for (const EndHook hook : g_end_hooks) {
        hook();
    }
}

void ConfigKeeper::replay() {
    if (path().empty()) {
        return;
    }
    file_.recover();
    const std::optional<std::string> text = read_config_file(path());
    if (!text) {
        if (errno != ENOENT) {
            file_unreadable_ = true;
            report("REPLAY", "The saved configuration " + path() +
                                 " cannot be read and is left alone: " + std::strerror(errno) +
                                 ".");
        }
        return;
    }
    saved_text_ = *text;
    file_.prepare(saved_text_);
    for (const ConfigSection& section : parse_config(*text)) {
        apply(section);
    }
}

void ConfigKeeper::apply(const ConfigSection& section) {
    SessionState session;
    session.mode = kModeConfig;
    if (!section.port.empty()) {
        const Port* port = platform().ports().find(section.port);
        if (!port) {
            report("REPLAY", path() + ": line " + std::to_string(section.number) + ": interface " +
                                 section.port + " does not exist; its lines wait for it.");
            waiting_[section.port] = section;
            return;
        }
        session.mode = kModeInterface;
        session.ifx = port->ifx;
    }
    for (const ConfigLine& line : section.lines) {
        const Result result = execute_saved(session, line.text);
        if (result.code != 0 || !result.output.empty()) {
            report("REPLAY", path() + ": line " + std::to_string(line.number) + ": \"" +
                                 line.text.substr(0, 200) + "\": " + first_line(result.output));
        }
    }
}

void ConfigKeeper::apply_waiting(const std::string& port) {
    if (!waiting_.contains(port)) {
        return;
    }
    // Later: an observer must not change the port model that is telling it something.
    loop_.post([this, port] {
        const auto found = waiting_.find(port);
        if (found != waiting_.end() && platform().ports().find(port)) {
            const ConfigSection section = std::move(found->second);
            waiting_.erase(found);
            apply(section);
        }
    });
}

void ConfigKeeper::on_added(const Port& port) {
    apply_waiting(port.name);
}

void ConfigKeeper::on_removed(const Port& port) {
    tarn_forget_port(port.ifx);
}

void ConfigKeeper::on_changed(const Port& before, const Port& after) {
    if (before.name != after.name) {
        apply_waiting(after.name);
    }
}

}  // namespace qv::cli

extern "C" {

void cli_add_param_reload_start_hook(uint32_t (*hook)(uint32_t word)) {
    qv::cli::g_start_hooks.push_back(hook);
}

void cli_add_param_reload_end_hook(void (*hook)(void)) {
    qv::cli::g_end_hooks.push_back(hook);
}

}  // extern "C"
