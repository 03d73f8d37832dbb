// <edit-config>, <copy-config> and <validate>. The running configuration is one leaf, so an edit is
// one request to the agent and cannot be half done. An agent that does not answer in time may still
// apply it, though, so there is no rollback-on-error; other error-options make no difference.
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "services/netconf/data.h"
#include "services/netconf/edit_plan.h"
#include "services/netconf/operations.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

// All steps of an edit together, with a tenth of a second left of 3 s for the answer.
constexpr std::chrono::milliseconds kEditLimit{2900};

std::string text_of(const lyd_node& rpc, const char* name, const char* fallback) {
    const lyd_node* const node = child_named(rpc, name);
    return node == nullptr ? fallback : lyd_get_value(node);
}

Operation default_operation(const lyd_node& rpc) {
    const std::string name = text_of(rpc, "default-operation", "merge");
    if (name == "replace") {
        return Operation::kReplace;
    }
    return name == "none" ? Operation::kNone : Operation::kMerge;
}

// The current policy, read before anything is decided.
uint32_t current_policy(const Session& session, Deadline deadline) {
    Database database(session.options.redis, deadline);
    return policy_in_force(database);
}

void refuse_when_locked(const Session& session) {
    const auto holder = session.lock.holder();
    if (holder && !session.lock.mine()) {
        throw RpcError(NC_ERR_IN_USE, NC_ERR_TYPE_APP, who(*holder) + " holds the lock");
    }
}

void perform(const Session& session, const PolicyChange& change, Deadline deadline) {
    try {
        request_policy(session.options.redis, change.request, change.policy, deadline);
    } catch (const std::runtime_error& failed) {
        throw RpcError(NC_ERR_OP_FAILED, NC_ERR_TYPE_APP, failed.what(), kLeafPath);
    }
}

// Edits, or only checks whether that would be possible.
nc_server_reply* edit(const Session& session, const lyd_node* config, Operation fallback,
                      bool only_test) {
    const Deadline deadline = std::chrono::steady_clock::now() + kEditLimit;
    const EditTurn turn(session.options.runtime_dir);
    if (!turn.ours()) {
        throw RpcError(NC_ERR_IN_USE, NC_ERR_TYPE_APP, "another session is editing");
    }
    refuse_when_locked(session);
    const auto change =
        plan_edit(session.context, config, fallback, current_policy(session, deadline));
    if (change && !only_test) {
        perform(session, *change, deadline);
    }
    return nc_server_reply_ok();
}

// The content of <config> under `parent`, null when there is none.
const lyd_node* config_in(const lyd_node& parent) {
    const lyd_node* const config = child_named(parent, "config");
    if (config != nullptr && holds_text(*config)) {
        throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_PROT, "the configuration is text, not elements")
            .about("config");
    }
    return config == nullptr ? nullptr : content_of(*config);
}

}  // namespace

nc_server_reply* edit_config(const lyd_node& rpc, Session& session) {
    if (text_of(rpc, "error-option", "") == "rollback-on-error") {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                       "rollback-on-error is not supported");
    }
    const bool only_test = text_of(rpc, "test-option", "test-then-set") == "test-only";
    return edit(session, config_in(rpc), default_operation(rpc), only_test);
}

nc_server_reply* copy_config(const lyd_node& rpc, Session& session) {
    const lyd_node& source = *child_named(rpc, "source");
    if (child_named(source, "config") == nullptr) {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                       "the running configuration cannot be copied onto itself");
    }
    return edit(session, config_in(source), Operation::kReplace, false);
}

// The current policy was validated when it was set.
nc_server_reply* validate(const lyd_node& rpc, Session& session) {
    plan_edit(session.context, config_in(*child_named(rpc, "source")), Operation::kMerge,
              kDefaultPolicy);
    return nc_server_reply_ok();
}

}  // namespace netconf
