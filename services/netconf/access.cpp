#include "services/netconf/access.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace netconf {
namespace {

// Throws std::runtime_error.
gid_t number_of(const std::string& group) {
    errno = 0;
    const struct group* const entry = getgrnam(group.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("[netconf] write_group: there is no group \"" + group + "\"" +
                                 (errno == 0 ? "" : std::string(": ") + strerror(errno)));
    }
    return entry->gr_gid;
}

}  // namespace

bool may_change(const std::string& write_group) {
    if (write_group.empty()) {
        return true;
    }
    const gid_t wanted = number_of(write_group);
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<size_t>(std::max(count, 0)));
    return getegid() == wanted || std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

}  // namespace netconf
