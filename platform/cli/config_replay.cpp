#include "platform/cli/config_replay.h"

#include "platform/base/visible.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace qv::cli {
namespace {

constexpr size_t kQuotedBytes = 200;

std::string first_line(const std::string& text) {
    return text.substr(0, text.find_first_of("\r\n"));
}

bool sets_mode(const ConfigLine& line) {
    return line.text.starts_with("switchport mode ");
}

const Port* port_of(const ConfigSection& section) {
    return section.port.empty() ? nullptr : platform().ports().find(section.port);
}

SessionState session_for(const Port* port) {
    SessionState session;
    session.mode = port ? kModeInterface : kModeConfig;
    session.ifx = port ? port->ifx : 0;
    session.from_file = true;
    return session;
}

}  // namespace

bool ConfigReplay::set_modes() {
    bool changed = false;
    for (const ConfigSection& section : sections_) {
        const Port* const port = port_of(section);
        if (!port) {
            continue;
        }
        const uint32_t ifx = port->ifx;
        const uint32_t before = port->mode;
        SessionState session = session_for(port);
        for (const ConfigLine& line : section.lines) {
            if (sets_mode(line)) {
                run_line(session, line);
            }
        }
        const Port* const after = platform().ports().find(ifx);
        changed = changed || (after && after->mode != before);
    }
    return changed;
}

void ConfigReplay::run() {
    for (const ConfigSection& section : sections_) {
        run_section(section);
    }
    report_sum();
}

void ConfigReplay::run_section(const ConfigSection& section) {
    const Port* const port = port_of(section);
    if (!section.port.empty() && !port) {
        ++absent_;
        report((section.number ? "line " + std::to_string(section.number) + ": " : "") +
               "interface " + section.port + " does not exist; its lines wait for it.");
        ports_.keep(readable_part(section));
        return;
    }
    SessionState session = session_for(port);
    if (port && has_line(section, kHeldLine)) {
        ports_.set_shut_by(port->ifx, ShutBy::kProgram);
        held_.push_back(port->ifx);
        session.program = true;
    }
    running_ = &section;
    for (const ConfigLine& line : section.lines) {
        if (!running_) {
            return;
        }
        // A global line may follow a section that nothing has ended.
        if (session.mode == kModeInterface && !parses(session, line.text)) {
            SessionState global = session_for(nullptr);
            session = parses(global, line.text) ? global : session;
        }
        if (session.mode != kModeInterface || !sets_mode(line)) {
            run_line(session, line);
        }
    }
    running_ = nullptr;
}

// The lines of a port that does not exist are saved again as they are.
ConfigSection ConfigReplay::readable_part(ConfigSection section) {
    std::erase_if(section.lines, [this](const ConfigLine& line) {
        const bool refused = !is_visible(line.text, "\t");
        if (refused) {
            ++refused_;
            report("line " + std::to_string(line.number) + ": \"" +
                   line.text.substr(0, kQuotedBytes) + "\": % Line contains control characters.");
        }
        return refused;
    });
    return section;
}

void ConfigReplay::port_removed(const std::string& name) {
    if (running_ && running_->port == name) {
        cut_off_.push_back(*running_);
        running_ = nullptr;
    }
}

void ConfigReplay::run_line(SessionState& session, const ConfigLine& line) {
    const Result result = execute(session, line.text);
    if (result.code != 0 || !result.output.empty()) {
        ++refused_;
        report((line.number ? "line " + std::to_string(line.number) + ": " : "") + "\"" +
               line.text.substr(0, kQuotedBytes) + "\": " + first_line(result.output));
    }
}

// Call it after each increment.
void ConfigReplay::report(const std::string& text) const {
    if (refused_ + absent_ <= kMaxReports) {
        printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "REPLAY", "%s: %s", origin_.c_str(),
                      text.c_str());
    }
}

void ConfigReplay::report_sum() const {
    if (refused_ + absent_ <= kMaxReports) {
        return;
    }
    const std::string absent =
        absent_ == 0 ? "" : " and " + std::to_string(absent_) + " interfaces do not exist";
    printk_syslog(SYSLOG_SEVERITY_ERROR, "CLI", "REPLAY", "%s: %zu lines were refused%s in all.",
                  origin_.c_str(), refused_, absent.c_str());
}

std::vector<uint32_t> ConfigReplay::unclaimed() const {
    std::vector<uint32_t> found;
    for (const uint32_t ifx : held_) {
        const Port* const port = platform().ports().find(ifx);
        if (port && !port->admin_up && ports_.shut_by(ifx) == ShutBy::kProgram &&
            !has_line(generate_section(*port), kHeldLine)) {
            found.push_back(ifx);
        }
    }
    return found;
}

}  // namespace qv::cli
