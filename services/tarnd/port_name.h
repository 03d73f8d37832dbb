// Names of interfaces, as messages and clients use them.
#pragma once

#include <net/if.h>

#include <array>
#include <cstdint>
#include <string>

namespace qv::tarnd {

// The kernel's present name; "interface N" when there is none any more. Any thread.
inline std::string port_name(uint32_t ifx) {
    std::array<char, IF_NAMESIZE> name{};
    return if_indextoname(ifx, name.data()) != nullptr ? name.data()
                                                       : "interface " + std::to_string(ifx);
}

}  // namespace qv::tarnd
