// One replay of saved lines: which lines run when, and what is said of those that are refused.
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
    // Messages about single lines and sections; a sum follows when there is more to say.
    static constexpr size_t kMaxReports = 50;

    // `origin` is where the lines come from, for messages.
    ConfigReplay(std::string origin, std::vector<ConfigSection> sections, PortSections& ports)
        : origin_(std::move(origin)), sections_(std::move(sections)), ports_(ports) {}

    // Sets the VLAN modes. Whether any has changed: then the rest must wait until everybody has
    // heard of it.
    bool set_modes();
    // All other lines. Sections of ports that are not there are kept for them.
    void run();
    // To be called when a port goes while run() is at work, as a line may bring to light: the rest
    // of its section would miss it.
    void port_removed(const std::string& name);
    // The sections that this has cut off, to be run again as a whole.
    const std::vector<ConfigSection>& cut_off() const { return cut_off_; }
    // Ports that were held when they were saved and that nobody claims after all, to be brought
    // back. To be asked once the programs have heard of everything that run() did.
    std::vector<uint32_t> unclaimed() const;

    bool anything_refused() const { return refused_ != 0; }

 private:
    void run_section(const ConfigSection& section);
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
    size_t absent_ = 0;   // sections of ports that are not there
};

}  // namespace qv::cli
