// What NETCONF sessions read about each other: the line in the lock's file, which any member of
// their group may have written, and the texts of /proc, in which a process chooses its name.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/base/running_lock.h"
#include "platform/base/visible.h"
#include "services/netconf/lock_holder.h"

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

bool is_printable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void read_lock_line(const std::string& line) {
    const qv::RunningLockHolder holder = qv::holder_in(line);
    require(qv::is_visible(holder.name));
    require(holder.since.empty() ||
            (holder.since.size() == 20 && holder.since[10] == 'T' && is_printable(holder.since)));
}

// A name of the program's choice never changes what the kernel says behind or before it.
void read_stat(std::string_view text) {
    netconf::start_ticks_in(text);
    const std::string fields = ") S 1 1 1 0 -1 4194560 9 0 0 0 1 2 0 0 20 0 1 0 8123 4096 1\n";
    const auto start = netconf::start_ticks_in("4711 (" + std::string(text) + fields);
    require(start == uint64_t{8123});
}

// The kernel escapes line breaks in the name.
void read_status(std::string_view text) {
    netconf::user_in(text);
    std::string name(text);
    std::replace(name.begin(), name.end(), '\n', ' ');
    require(netconf::user_in("Name:\t" + name + "\nUid:\t1001\t0\t0\t0\n") == uid_t{1001});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    read_lock_line(text);
    read_stat(text);
    read_status(text);
    if (netconf::has_lock_on(text, 7)) {
        require(text.find("lock:") != std::string::npos);
    }
    return 0;
}
