// Turns an <edit-config> into a request to the agent.
#pragma once

#include <cstdint>
#include <optional>

#include "services/netconf/agent.h"
#include "services/netconf/schema.h"

namespace netconf {

enum class Operation { kNone, kMerge, kReplace, kCreate, kDelete, kRemove };

constexpr uint32_t kDefaultPolicy = 0;                                   // as in the module
constexpr const char* kLeafPath = "/qvld:loop-detect/qvld:loop-policy";  // of an error

struct PolicyChange {
    PolicyRequest request;
    uint32_t policy;
};

// Reads `config`, the content of <config> (null: empty), against the current policy. `fallback` is
// the operation where none is given. Returns nothing when no request is needed. Throws RpcError for
// data that fits no model and for an operation that the current data forbids. A policy with its
// default value counts as not set.
std::optional<PolicyChange> plan_edit(const ly_ctx* context, const lyd_node* config,
                                      Operation fallback, uint32_t in_force);

}  // namespace netconf
