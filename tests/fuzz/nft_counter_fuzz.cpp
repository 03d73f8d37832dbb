// Answers of the packet filter when it lists its counters, and its announcements.
#include "platform/driver/linux/nft_counter.h"
#include "platform/driver/linux/nft_watch.h"
#include "tests/fuzz/agent.h"
#include "tests/fuzz/netlink.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::for_each_message(data, size, [](nlmsghdr* header) {
        concerns_table(header, "lda");
        if (const auto counter = parse_counter(header)) {
            fuzz::require(counter->name.size() < 65536, "a name fits its message");
        }
    });
    return 0;
}
