// Who may change the configuration.
#pragma once

#include <string>

namespace netconf {

// Whether this process, and so the user of its session, belongs to the group, as its primary or as
// a supplementary one; true for everyone when `write_group` is empty. Throws std::runtime_error
// when there is no such group.
bool may_change(const std::string& write_group);

}  // namespace netconf
