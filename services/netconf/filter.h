// The filter of <get>, <get-config> and <create-subscription>: by subtree (RFC 6241, section 6) or
// by XPath (section 8.9).
#pragma once

#include <chrono>
#include <string>

#include "services/netconf/schema.h"

namespace netconf {

class Filter {
 public:
    // From the parameter "filter" of an operation; without it everything passes. Throws RpcError.
    static Filter of(const lyd_node& rpc);

    // A copy of what passes: the selected nodes, their ancestors, and the keys of lists. Throws
    // RpcError, resource-denied when the filter takes about 2 s of processor time. Main thread.
    Tree apply(const lyd_node* data);
    // Whether anything of a notification passes. An XPath filter may take 1 ms for each one, and 2
    // s more in all; throws RpcError otherwise.
    bool matches(const lyd_node* data);

 private:
    enum class Kind { kAll, kSubtree, kXpath };
    static constexpr std::chrono::microseconds kForARequest{2'000'000};
    static constexpr std::chrono::microseconds kForEachNotification{1000};

    Kind kind_ = Kind::kAll;
    Tree subtree_;  // null: selects nothing
    std::string xpath_;
    std::chrono::microseconds left_ = kForARequest;  // processor time for xpath_
};

}  // namespace netconf
