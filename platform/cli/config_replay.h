// One replay of saved lines: which lines run when, and how refusals are reported.
// Loop thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/cli/config_file.h"
#include "platform/cli/engine.h"
#include "platform/cli/port_sections.h"

namespace qv::cli {

class ConfigReplay {
 public:
    // Messages about single lines and sections; a summary follows when there are more.
    static constexpr size_t kMaxReports = 50;

    // `origin` is where the lines come from, for messages.
    ConfigReplay(std::string origin, std::vector<ConfigSection> sections, PortSections& ports)
        : origin_(std::move(origin)), sections_(std::move(sections)), ports_(ports) {}

    // Sets the VLAN modes and returns whether any has changed. If so, run() must wait until all
    // observers have been notified.
    bool set_modes();
    // Executes all other lines. Sections of ports that do not exist are kept for them.
    void run();
    // Call when a port is removed during run(), which a line itself may cause: the port's section
    // must run again.
    void port_removed(const std::string& name);
    // The sections that a removal has interrupted; each must run again as a whole.
    const std::vector<ConfigSection>& cut_off() const { return cut_off_; }
    // Ports that a program held shut when they were saved and that no program claims now: they must
    // be brought up. Call it once the programs have been notified of everything that run() did.
    std::vector<uint32_t> unclaimed() const;

    bool anything_refused() const { return refused_ != 0; }

 private:
    void run_section(const ConfigSection& section);
    ConfigSection readable_part(ConfigSection section);
    void run_line(SessionState& session, const ConfigLine& line);
    void report(const std::string& text) const;
    void report_sum() const;

    const std::string origin_;
    const std::vector<ConfigSection> sections_;
    PortSections& ports_;
    const ConfigSection* running_ = nullptr;
    std::vector<ConfigSection> cut_off_;
    std::vector<uint32_t> held_;
    size_t refused_ = 0;  // lines
    size_t absent_ = 0;   // sections of absent ports
};

}  // namespace qv::cli
