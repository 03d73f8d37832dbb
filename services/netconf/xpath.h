// XPath expressions of clients. libyang evaluates an expression for as long as that takes, and 20
// characters may take minutes. So a child process evaluates it, with a limit of processor time.
#pragma once

#include <libyang/libyang.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace netconf {

// The nodes that the expression selects in the tree and its siblings, in their order there. `left`
// is the processor time that it may take; what it takes is subtracted. Throws RpcError:
// invalid-value when it selects no nodes whatever the data are, resource-denied when it nests
// predicates more than 4 deep, takes more time than is left, or crashes. Main thread only.
std::vector<const lyd_node*> find_by_xpath(const lyd_node& tree, const std::string& xpath,
                                           std::chrono::microseconds& left);

// Other threads hold this while they use libyang: a child that is forked meanwhile would find the
// library's locks taken for ever.
std::mutex& libyang_in_use();

}  // namespace netconf
