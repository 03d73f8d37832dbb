// Folders of files and sockets.
#pragma once

#include <string>

#include "platform/base/config.h"

namespace qv {

// Creates the folder of a file, and those above, where they are missing: mode 0750 whatever the
// umask. An error is left to the caller's own use of the folder. Any thread.
void make_folder_of(const std::string& file);

// Checks the folders of the saved configuration, the log, the command-line socket, the probe
// service and the NETCONF sessions. Throws std::runtime_error with the folder and the remedy when
// every user of the machine may exchange files in one of them: it is writable for others and has no
// sticky bit. A folder that does not exist is none. Any thread.
void check_folders(const PlatformConfig& config);

}  // namespace qv
