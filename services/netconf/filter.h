// The filter of <get>, <get-config> and <create-subscription>: by subtree (RFC 6241, section 6) or
// by XPath (section 8.9).
#pragma once

#include <string>

#include "services/netconf/schema.h"

namespace netconf {

class Filter {
 public:
    // From the parameter "filter" of an operation; without it everything passes. Throws RpcError.
    static Filter of(const lyd_node& rpc);

    // A copy of what passes: the selected nodes, their ancestors, and the keys of lists.
    Tree apply(const lyd_node* data) const;
    // Whether anything passes.
    bool matches(const lyd_node* data) const { return apply(data) != nullptr; }

 private:
    enum class Kind { kAll, kSubtree, kXpath };

    Kind kind_ = Kind::kAll;
    Tree subtree_;  // null: selects nothing
    std::string xpath_;
};

}  // namespace netconf
