// Checks the configuration in a file as a whole, before any of it takes effect, and compares it
// with the running one. Loop thread only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/config_file.h"

namespace qv::cli {

// The sections of a configuration, first the global lines, then one section for each port.
using ConfigSections = std::vector<ConfigSection>;

// Cuts `text` into sections and checks every line. Comment lines may stand anywhere; the line "end"
// must close the text. The result has keywords in full. `fault` is set, and nothing is returned,
// at the first line that is no configuration command: "line 7: Unknown command: 'x'.".
ConfigSections check_config(std::string_view text, std::string& fault);

// A reason why a text is not taken as a configuration.
struct ConfigFault {
    int line = 0;  // 0: the text as a whole
    std::string reason;
};
// The first `limit` faults that check_config() would find in turn if each one were mended, those of
// the whole text before those of its lines. With a fault of the whole text that makes a check of
// each line useless, that one is the last.
std::vector<ConfigFault> find_faults(std::string_view text, size_t limit);

// The running configuration, sections of absent ports included.
ConfigSections current_config();

// The lines of the section for `port` (empty: the global ones) in `these` that `others` lacks.
std::vector<ConfigLine> lines_only_in(const ConfigSections& these, const ConfigSections& others,
                                      const std::string& port);

// The lines to remove ("- LINE") and to add ("+ LINE"), under the sections' own headings.
std::string difference(const ConfigSections& current, const ConfigSections& target);

}  // namespace qv::cli
