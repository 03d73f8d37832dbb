// Applies a whole configuration. Loop thread only.
#pragma once

#include "platform/cli/config_target.h"

namespace qv::cli {

// Executes the lines that are missing and undoes those that are superfluous. Returns false when a
// line was refused, and prints the reasons. Sections of absent ports are kept for them.
bool apply_configuration(const ConfigSections& target);

}  // namespace qv::cli
