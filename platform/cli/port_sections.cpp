#include "platform/cli/port_sections.h"

#include <algorithm>
#include <utility>

#include "platform/base/metrics.h"
#include "platform/cli/running_config.h"
#include "qv/bridge.h"

namespace qv::cli {
namespace {

constexpr std::string_view kShutdown = "shutdown";
constexpr std::string_view kNoShutdown = "no shutdown";

void remove_line(ConfigSection& section, std::string_view line) {
    std::erase_if(section.lines, [line](const ConfigLine& other) { return other.text == line; });
}

// Adds it after the VLAN mode, before the lines of programs.
void add_admin_line(ConfigSection& section, std::string_view line) {
    const auto at = std::find_if(section.lines.begin(), section.lines.end(), [](const auto& other) {
        return !other.text.starts_with("switchport ");
    });
    section.lines.insert(at, {0, std::string(line)});
}

// `owner` is that of a port that is down, else nobody.
ConfigSection with_admin_line(ConfigSection section, ShutBy owner) {
    remove_line(section, kShutdown);
    const bool unclaimed = owner == ShutBy::kProgram && !has_line(section, kHeldLine);
    if (owner != ShutBy::kNobody) {
        add_admin_line(section, unclaimed ? kNoShutdown : kShutdown);
    }
    return section;
}

}  // namespace

bool has_line(const ConfigSection& section, std::string_view line) {
    return std::any_of(section.lines.begin(), section.lines.end(),
                       [line](const ConfigLine& other) { return other.text == line; });
}

ShutBy PortSections::shut_by(uint32_t ifx) const {
    const auto found = shut_by_.find(ifx);
    return found == shut_by_.end() ? ShutBy::kNobody : found->second;
}

void PortSections::set_shut_by(uint32_t ifx, ShutBy owner) {
    if (owner == ShutBy::kNobody) {
        shut_by_.erase(ifx);
    } else {
        shut_by_[ifx] = owner;
    }
    if (Metrics* const figures = metrics()) {
        figures->held_ports = static_cast<uint64_t>(
            std::count_if(shut_by_.begin(), shut_by_.end(),
                          [](const auto& port) { return port.second == ShutBy::kProgram; }));
    }
}

ConfigSection PortSections::saved(const Port& port) const {
    const auto pending = pending_.find(port.name);
    if (pending != pending_.end()) {
        return pending->second.section;
    }
    return with_admin_line(generate_section(port),
                           port.admin_up ? ShutBy::kNobody : shut_by(port.ifx));
}

uint64_t PortSections::set_pending(const ConfigSection& section) {
    pending_[section.port] = {section, ++pending_numbers_};
    return pending_numbers_;
}

bool PortSections::is_pending(const std::string& name, uint64_t number) const {
    const auto found = pending_.find(name);
    return found != pending_.end() && found->second.number == number;
}

void PortSections::clear_pending(const std::string& name, uint64_t number) {
    if (is_pending(name, number)) {
        pending_.erase(name);
    }
}

ConfigSection PortSections::change_admin(const Port& port, bool up, bool by_program) {
    if (up) {
        set_shut_by(port.ifx, ShutBy::kNobody);
    } else if (!by_program) {
        set_shut_by(port.ifx, ShutBy::kOperator);
    } else if (shut_by(port.ifx) == ShutBy::kNobody) {
        set_shut_by(port.ifx, ShutBy::kProgram);
    }
    const auto pending = pending_.find(port.name);
    ConfigSection section = with_admin_line(
        pending == pending_.end() ? generate_section(port) : pending->second.section,
        shut_by(port.ifx));
    // The port may still be down when this is read.
    if (up && !has_line(section, kHeldLine)) {
        add_admin_line(section, kNoShutdown);
    }
    return section;
}

void PortSections::leave(const Port& port, uint32_t mode_before) {
    ConfigSection section = saved(port);
    const bool pending = pending_.erase(port.name) != 0;
    if (!pending && port.mode == SWPORT_MODE_NONE && mode_before != SWPORT_MODE_NONE &&
        mode_before != SWPORT_MODE_ACCESS) {
        const std::string mode = swport_vlan_mode_name(mode_before);
        section.lines.insert(section.lines.begin(), {0, "switchport mode " + mode});
    }
    set_shut_by(port.ifx, ShutBy::kNobody);
    if (!section.lines.empty()) {
        keep(std::move(section), port.ifx);
    }
}

void PortSections::keep(ConfigSection section, uint32_t ifx) {
    if (ifx != 0) {
        // When a port has left under two names, accept_no_shutdown() finds the last one.
        for (auto& [name, other] : kept_) {
            other.ifx = other.ifx == ifx ? 0 : other.ifx;
        }
    }
    Kept& kept = kept_[section.port];
    kept = {std::move(section), ifx != 0 ? ifx : kept.ifx, ++ages_};
    if (kept_.size() > kMaxKept) {
        kept_.erase(std::min_element(kept_.begin(), kept_.end(),
                                     [](auto& a, auto& b) { return a.second.age < b.second.age; }));
    }
}

bool PortSections::accept_no_shutdown(uint32_t ifx, std::string_view line, ConfigSection& section) {
    if (line != kNoShutdown || ifx == 0) {
        return false;
    }
    const auto found = std::find_if(kept_.begin(), kept_.end(),
                                    [ifx](const auto& item) { return item.second.ifx == ifx; });
    if (found == kept_.end()) {
        return false;
    }
    ConfigSection& kept = found->second.section;
    remove_line(kept, kHeldLine);
    remove_line(kept, kShutdown);
    remove_line(kept, kNoShutdown);
    add_admin_line(kept, kNoShutdown);
    section = kept;
    return true;
}

bool PortSections::take(const std::string& name, ConfigSection& section) {
    const auto found = kept_.find(name);
    if (found == kept_.end()) {
        return false;
    }
    section = std::move(found->second.section);
    kept_.erase(found);
    return true;
}

std::string PortSections::kept_text() const {
    std::string text;
    for (const auto& [name, kept] : kept_) {
        text += section_text(kept.section);
    }
    return text;
}

}  // namespace qv::cli
