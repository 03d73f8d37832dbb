// The kernel's messages about the entries of a bridge's forwarding database.
#include "platform/driver/linux/fdb_entry.h"
#include "tests/fuzz/agent.h"
#include "tests/fuzz/netlink.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::for_each_message(data, size, [](nlmsghdr* header) {
        if (const auto entry = parse_fdb_entry(header)) {
            fuzz::require(entry->address >> 48 == 0, "an address has six bytes");
        }
    });
    return 0;
}
