// Puts a whole configuration in force. Loop thread only.
#pragma once

#include "platform/cli/config_target.h"

namespace qv::cli {

// Types the lines that are missing and takes back those that are too many. False when a line was
// refused; the reasons are printed. Sections of ports that do not exist are kept for them.
bool put_in_force(const ConfigSections& target);

}  // namespace qv::cli
