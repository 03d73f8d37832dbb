#include "platform/base/loopback_address.h"

#include <arpa/inet.h>

#include <charconv>
#include <string>

namespace qv {
namespace {

std::optional<uint16_t> parse_port(std::string_view text) {
    uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || rest != end || text.starts_with('0')) {
        return std::nullopt;
    }
    return port;
}

}  // namespace

std::optional<sockaddr_in> parse_loopback_address(std::string_view text) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string host(text.substr(0, colon));
    const std::optional<uint16_t> port = parse_port(text.substr(colon + 1));
    sockaddr_in address{};
    if (!port || inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
        ntohl(address.sin_addr.s_addr) >> IN_CLASSA_NSHIFT != IN_LOOPBACKNET) {
        return std::nullopt;
    }
    address.sin_family = AF_INET;
    address.sin_port = htons(*port);
    return address;
}

}  // namespace qv
