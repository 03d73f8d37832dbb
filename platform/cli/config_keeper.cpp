#include "platform/cli/config_keeper.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "platform/base/guarded.h"
#include "platform/base/message_log.h"
#include "platform/base/supervisor.h"
#include "platform/cli/config_replay.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/probation.h"
#include "platform/cli/recovery_rules.h"
#include "platform/cli/running_config.h"
#include "platform/cli/tarn_commands.h"
#include "platform/cli/timed_return.h"
#include "platform/client/platform.h"
#include "qv/bridge.h"
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

// Records replace the sections that they describe.
void merge(std::vector<ConfigSection>& sections, const std::vector<JournalRecord>& records,
           uint64_t included) {
    for (const JournalRecord& record : records) {
        if (record.saved || record.number <= included) {
            continue;
        }
        std::erase_if(sections, [&](const ConfigSection& section) {
            return section.port == record.section.port;
        });
        const bool global = record.section.port.empty();
        sections.insert(global ? sections.begin() : sections.end(), record.section);
    }
}

// A program's line has been executed on a port. `reason` is empty when it was carried out. Without
// memory the line is forgotten: its result must not depend on that.
void note_program_line(const Port& before, bool up, const std::string& reason) {
    guarded([&] {
        if (!reason.empty()) {
            held_ports().refused(before.name, up, reason);
        } else if (!up && held_ports().shut(before)) {
            decide_wait(before);
            begin_trial(before.ifx);
        } else if (up && on_probation(before.ifx)) {
            held_ports().on_probation(before.name,
                                      std::chrono::seconds(recovery_rule(before.ifx).probation_s));
        }
    });
}

bool explains_shutdown(const ConfigSection& section) {
    return has_line(section, kHeldLine) || has_line(section, "shutdown") ||
           has_line(section, "no shutdown");
}

// A saved configuration that was lost or replaced does not say why a port is down. If the
// journal's newest record says that a program shut it, the port belongs to that program again;
// otherwise nobody would ever bring it up.
void reclaim_held_ports(std::vector<ConfigSection>& sections,
                        const std::vector<JournalRecord>& records) {
    std::map<std::string, const ConfigSection*> newest;
    for (const JournalRecord& record : records) {
        newest[record.section.port] = &record.section;
    }
    for (const auto& [name, section] : newest) {
        const Port* const port = platform().ports().find(std::string_view(name));
        const bool explained = std::any_of(
            sections.begin(), sections.end(), [&port_name = name](const ConfigSection& known) {
                return known.port == port_name && explains_shutdown(known);
            });
        if (!port || port->admin_up || explained || !has_line(*section, kHeldLine)) {
            continue;
        }
        const ConfigLine held{0, std::string(kHeldLine)};
        sections.push_back({name, 0, {{0, "shutdown"}, held}});
        const LogAbout about({.port = name});
        printk_syslog(SYSLOG_SEVERITY_WARNING, "CLI", "CLAIMED",
                      "Interface %s was held shut, and the saved configuration does not say so: "
                      "'%s' is applied again.",
                      name.c_str(), held.text.c_str());
    }
}

}  // namespace

ConfigKeeper::ConfigKeeper(EventLoop& loop, Background& background, std::string path)
    : loop_(loop),
      journal_(path + ".journal"),
      saver_(loop, background, std::move(path), journal_, sections_) {
    platform().ports().add_observer(*this);
}

void ConfigKeeper::request_save() {
    if (pending_.exchange(true)) {
        return;
    }
    const auto request = [this] {
        pending_ = false;
        saver_.request();
    };
    try {
        if (loop_.on_loop_thread()) {
            requesting_ = loop_.defer(request);  // a program's line may be queued already
        } else {
            loop_.post(request);
        }
    } catch (...) {
        pending_ = false;  // the next change asks again
        throw;
    }
}

void ConfigKeeper::request_replay() {
    loop_.post([this] { announce(); });
}

std::string ConfigKeeper::obstacle() const {
    if (path().empty()) {
        return "no file is set for the saved configuration";
    }
    return replayed_ ? "" : "the saved configuration is not applied yet";
}

void ConfigKeeper::announce() {
    if (replaying_) {
        request_replay();  // after the rest of the replay
        return;
    }
    for (const StartHook hook : g_start_hooks) {
        hook(0);
    }
    if (replayed_) {
        end_replay();
        return;
    }
    replaying_ = true;
    const auto replay = std::make_shared<ConfigReplay>(path(), load(), sections_);
    run(replay, [this, replay] {
        if (replay->anything_refused()) {
            keep_damaged();
        }
        replaying_ = false;
        replayed_ = true;
        saver_.allow_autosave(may_be_replaced_);
        end_replay();
        resume_timed_return();
    });
}

// The record of held ports may come from an earlier process, and ports may have come up since.
void ConfigKeeper::end_replay() {
    for (const auto& [ifx, port] : platform().ports().ports()) {
        if (port.admin_up) {
            held_ports().came_up(port.name);
        } else if (is_marked(port)) {
            begin_trial(port.ifx);
        }
    }
    for (const EndHook hook : g_end_hooks) {
        hook();
    }
    report_ready("running");
    request_save();
}

// Programs are notified of changes through the loop: each step runs after they have seen the one
// before. Modes are checked again until none changes, since a port may leave and return in
// between.
void ConfigKeeper::run(const std::shared_ptr<ConfigReplay>& replay, EventLoop::Task done) {
    if (replay->set_modes()) {
        loop_.post([this, replay, done = std::move(done)] { run(replay, done); });
        return;
    }
    running_ = replay.get();
    replay->run();
    running_ = nullptr;
    for (const ConfigSection& section : replay->cut_off()) {
        apply(section, false);
    }
    done();
    loop_.post([this, replay] { release(*replay); });
}

void ConfigKeeper::release(const ConfigReplay& replay) {
    for (const uint32_t ifx : replay.unclaimed()) {
        // Bringing one port up may make the driver report that another was removed.
        const Port* const port = platform().ports().find(ifx);
        if (!port) {
            continue;
        }
        const std::string name = port->name;
        const std::string reason = set_admin(ifx, true, true);
        const LogAbout about({.port = name, .cause = reason});
        printk_syslog(SYSLOG_SEVERITY_WARNING, "CLI", "RELEASED",
                      "Interface %s was held shut and nobody claims it any more: %s.", name.c_str(),
                      reason.empty() ? "it is brought up" : reason.c_str());
    }
}

// The sections of the saved file and the journal. Opens the journal.
std::vector<ConfigSection> ConfigKeeper::load() {
    if (path().empty()) {
        return {};
    }
    const std::optional<std::string> text = read_config_file(path());
    const int reason = errno;
    const bool readable = text.has_value() || reason == ENOENT;
    may_be_replaced_ = readable;
    if (!readable) {
        report("REPLAY", "The saved configuration " + path() +
                             " cannot be read and is left alone: " + std::strerror(reason) + ".");
    }
    const UnsealedConfig saved = unseal_config(text.value_or(""));
    if (text && !saved.intact) {
        report("REPLAY", "The saved configuration " + path() +
                             " has no valid seal (cut off, damaged or written by hand): its last "
                             "line is not applied." +
                             (keep_damaged() ? " A copy is kept as " + path() + ".damaged." : ""));
    }
    if (saved.intact) {
        saver_.set_saved(saved.text);
    }
    std::vector<ConfigSection> sections = parse_config(saved.text);
    const std::vector<JournalRecord> records = read_journal(journal_.path());
    merge(sections, records, saved.journal);
    reclaim_held_ports(sections, records);
    note_journal(journal_.open(saved.journal));
    return sections;
}

// Copies a file of which some lines were refused, before it is replaced. Returns false when that
// fails; then the file must not be replaced.
bool ConfigKeeper::keep_damaged() {
    const std::string copy = path() + ".damaged";
    std::error_code error;
    if (!std::filesystem::exists(path(), error)) {
        return true;  // the lines were the journal's
    }
    std::filesystem::remove(copy, error);
    std::filesystem::copy_file(path(), copy, error);
    if (error) {
        may_be_replaced_ = false;
        report("REPLAY", "No copy of the saved configuration can be kept as " + copy + ": " +
                             error.message() +
                             ". The file is left alone until \"write\" is typed.");
    }
    return !error;
}

std::string ConfigKeeper::set_admin(uint32_t ifx, bool up, bool by_program) {
    PortModel& ports = platform().ports();
    const Port* const port = ports.find(ifx);
    if (!port) {
        return "no such port";
    }
    const Port before = *port;
    if (up && by_program) {
        held_ports().recovery_begins(before.name);
    }
    const ShutBy owner = sections_.shut_by(ifx);
    const ConfigSection section = sections_.change_admin(*port, up, by_program);
    const std::string trouble = running_ ? "" : write_ahead(section);
    const ShutBy wanted = sections_.shut_by(ifx);
    std::string reason = ports.set_admin(ifx, up);
    if (!running_) {
        check_journal(trouble);
    }
    if (ports.find(ifx)) {
        // An older report that the port was up may have arrived in between and no longer counts.
        sections_.set_shut_by(ifx, reason.empty() ? wanted : owner);
        if (by_program) {
            note_program_line(before, up, reason);
        }
    }
    request_save();
    return reason;
}

// The global lines come first: a program's line in a section may depend on them. Returns an empty
// text on success, else the reason.
std::string ConfigKeeper::write_ahead(const ConfigSection& section) {
    if (path().empty()) {
        return {};
    }
    const ConfigSection global = generate_global();
    std::string text = section_text(global);
    const bool known =
        journal_.holds(global.port) ? text == noted_global_ : saver_.saved_global(text);
    if (!known) {
        std::string trouble = journal_.append(global);
        noted_global_ = std::move(text);
        if (!trouble.empty()) {
            return trouble;
        }
    }
    return journal_.append(section);
}

// Call it after writing a record, with the result of write_ahead().
void ConfigKeeper::check_journal(const std::string& trouble) {
    if (!path().empty()) {
        note_journal(trouble.empty() ? journal_.reopen_if_replaced() : trouble);
    }
}

void ConfigKeeper::note_journal(const std::string& trouble) {
    if (!trouble.empty() && trouble != journal_trouble_) {
        report("JOURNAL", "The journal " + journal_.path() + " cannot be written: " + trouble +
                              ". Until it can, a crash may leave a port shut.");
    }
    journal_trouble_ = trouble;
}

std::string ConfigKeeper::accept_no_shutdown(uint64_t ifx, std::string_view line) {
    ConfigSection section;
    const bool noted = sections_.accept_no_shutdown(static_cast<uint32_t>(ifx), line, section);
    if (noted) {
        check_journal(write_ahead(section));
        request_save();
    }
    return section.port;
}

void ConfigKeeper::keep_section(ConfigSection section) {
    sections_.keep(std::move(section));
    request_save();
}

bool ConfigKeeper::forget_port(const std::string& name) {
    ConfigSection section;
    const bool known = sections_.take(name, section);
    if (known) {
        request_save();
    }
    return known;
}

// Runs from the loop, because an observer must not change the port model that calls it. With
// `known_first`, clients are notified of the port before. When the port leaves before the section
// is applied, leave() keeps the section with the port's index.
void ConfigKeeper::apply(ConfigSection section, bool known_first) {
    if (!platform().ports().find(section.port)) {
        sections_.keep(std::move(section));  // the port left during its replay
        return;
    }
    const uint64_t number = sections_.set_pending(section);
    loop_.post([this, section = std::move(section), number, known_first] {
        if (!sections_.is_pending(section.port, number)) {
            return;
        }
        if (!platform().ports().find(section.port)) {
            sections_.clear_pending(section.port, number);
            sections_.keep(section);  // the port has another name now
            return;
        }
        if (known_first) {
            apply(section, false);
            return;
        }
        const std::vector<ConfigSection> sections{section};
        const auto replay = std::make_shared<ConfigReplay>(path(), sections, sections_);
        run(replay, [this, replay, name = section.port, number] {
            if (replay->cut_off().empty()) {
                sections_.clear_pending(name, number);
                request_save();
            }
        });
    });
}

void ConfigKeeper::on_added(const Port& port) {
    ConfigSection section;
    if (sections_.take(port.name, section)) {
        apply(std::move(section), false);
    }
    request_save();
}

void ConfigKeeper::on_removing(const Port& port) {
    const auto before = modes_.find(port.ifx);
    if (running_) {
        running_->port_removed(port.name);
    }
    if (replayed_ || running_) {
        sections_.leave(port, before == modes_.end() ? port.mode : before->second);
    }
}

void ConfigKeeper::on_removed(const Port& port) {
    modes_.erase(port.ifx);
    held_ports().removed(port.name);
    tarn_forget_port(port.ifx);
    forget_recovery_rule(port.ifx);
    end_trial(port.ifx);
    request_save();
}

void ConfigKeeper::on_left_bridge(const Port& port) {
    modes_[port.ifx] = port.mode;
}

void ConfigKeeper::on_changed(const Port& before, const Port& after) {
    if (after.mode != SWPORT_MODE_NONE) {
        modes_.erase(after.ifx);
    }
    if (after.admin_up && !before.admin_up) {
        sections_.set_shut_by(after.ifx, ShutBy::kNobody);
        guarded([&] { held_ports().came_up(before.name); });
    }
    guarded([&] { follow_trial(after); });
    if (before.name != after.name) {
        guarded([&] { held_ports().renamed(before.name, after.name); });
    }
    if (before.admin_up != after.admin_up || before.mode != after.mode ||
        before.name != after.name) {
        request_save();
    }
}

// Clients take this for a new port: its lines are executed again, after those kept from an earlier
// port of that name.
void ConfigKeeper::on_renamed(const Port& port) {
    held_ports().recovery_begins(port.name);
    ConfigSection section;
    const bool left = sections_.take(port.name, section);
    const ConfigSection own = sections_.saved(port);
    section.port = port.name;
    section.lines.insert(left ? section.lines.end() : section.lines.begin(), own.lines.begin(),
                         own.lines.end());
    apply(std::move(section), true);
}

}  // namespace qv::cli

extern "C" {

// A program cannot run without its hooks, and there is no way to report a lack of memory here: the
// process ends.
void cli_add_param_reload_start_hook(uint32_t (*hook)(uint32_t word)) {
    [=]() noexcept {
        qv::cli::g_start_hooks.push_back(hook);
    }();
}

void cli_add_param_reload_end_hook(void (*hook)(void)) {
    [=]() noexcept {
        qv::cli::g_end_hooks.push_back(hook);
    }();
}

}  // extern "C"
