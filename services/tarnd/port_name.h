// Names of interfaces, as messages and clients use them.
#pragma once

#include <net/if.h>

#include <array>
#include <cstdint>
#include <string>

#include "platform/base/visible.h"

namespace qv::tarnd {

// The kernel's present name, without control characters; "interface N" when there is none any
// more. Any thread.
inline std::string port_name(uint32_t ifx) {
    std::array<char, IF_NAMESIZE> name{};
    return if_indextoname(ifx, name.data()) != nullptr ? visible(name.data())
                                                       : "interface " + std::to_string(ifx);
}

}  // namespace qv::tarnd
