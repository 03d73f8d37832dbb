// tarnd without its trigger: it learns of no address, so only periodic probes are sent.
#include "services/tarnd/bridge_view.h"

using qv::tarnd::LearnedAddress;

// The linker redirects calls of parse_learned() to this function.
extern "C" std::optional<LearnedAddress> no_address(nlmsghdr* header) asm(
    "__wrap__ZN2qv5tarnd13parse_learnedEP8nlmsghdr");

std::optional<LearnedAddress> no_address(nlmsghdr* /*header*/) {
    return std::nullopt;
}
