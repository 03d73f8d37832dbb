// IPv4 addresses of this machine's loopback interface.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string_view>

namespace qv {

// Parses "127.0.0.1:9464", or another address in 127.0.0.0/8. The port is from 1 to 65535, without
// leading zeros. Nothing for any other text, names included. Any thread.
std::optional<sockaddr_in> parse_loopback_address(std::string_view text);

}  // namespace qv
