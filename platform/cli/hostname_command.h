// The name of the switch, as its prompt shows it. Loop thread only.
#pragma once

#include <string>

namespace qv::cli {

// "lda" unless "hostname NAME" has set another.
const std::string& host_name();

void register_hostname_command();

}  // namespace qv::cli
