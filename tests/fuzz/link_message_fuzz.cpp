// The kernel's link messages, the ports derived from them, and the links' counters.
#include <set>

#include "platform/base/visible.h"
#include "platform/driver/linux/bridge_ports.h"
#include "platform/driver/linux/rtnl_counters.h"
#include "platform/driver/linux/rtnl_link.h"
#include "tests/fuzz/agent.h"
#include "tests/fuzz/netlink.h"

using namespace qv;

namespace {

// Checks that the reports are consistent.
class Checker final : public PortSink {
 public:
    void port_added(const Port& port) override {
        fuzz::require(port.ifx != 0 && ports_.insert(port.ifx).second, "a port is added once");
    }
    void port_removed(uint32_t ifx) override {
        fuzz::require(ports_.erase(ifx) == 1, "only a port that is there is removed");
    }
    void port_changed(const Port& port) override {
        fuzz::require(ports_.contains(port.ifx), "only a port that is there changes");
    }
    void port_left_bridge(uint32_t ifx) override {
        fuzz::require(ports_.contains(ifx), "only a port that is there leaves");
    }
    void ports_complete() override {}

 private:
    std::set<uint32_t> ports_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Checker checker;
    BridgePorts ports("br0", checker);
    ports.begin_dump();
    unsigned messages = 0;
    fuzz::for_each_message(data, size, [&](nlmsghdr* header) {
        if (const auto link = parse_link(header)) {
            fuzz::require(link->ifx != 0, "a link has an index");
            // Each of the kernel's 15 bytes may have become a code such as \x1b.
            fuzz::require(link->name.size() <= size_t{15} * 4, "a link's name fits");
            fuzz::require(is_visible(link->name), "a link's name can be shown");
            ports.take(*link);
        }
        if (const auto link = parse_counters(header)) {
            fuzz::require(link->ifx != 0, "counters belong to a link");
        }
        if (++messages == 4) {  // the rest are changes
            ports.end_dump();
        }
    });
    return 0;
}
