#include "services/netconf/edit_plan.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

constexpr const char* kModule = "qv-loop-detect-server";
constexpr const char* kContainerPath = "/qvld:loop-detect";

RpcError unknown_element(const std::string& path, const char* name) {
    return RpcError(NC_ERR_UNKNOWN_ELEM, NC_ERR_TYPE_APP,
                    std::string("there is nothing named \"") + name + "\" here", path)
        .about(name);
}

// The value of the attribute "operation", or null.
const char* operation_text(const lyd_node& node) {
    if (node.schema != nullptr) {
        const lyd_meta* const found = lyd_find_meta(node.meta, nullptr, "ietf-netconf:operation");
        return found == nullptr ? nullptr : lyd_get_meta_value(found);
    }
    const lyd_attr* attribute = nullptr;
    LY_LIST_FOR(reinterpret_cast<const lyd_node_opaq&>(node).attr, attribute) {
        if (strcmp(attribute->name.name, "operation") == 0 &&
            attribute->name.module_ns != nullptr &&
            strcmp(attribute->name.module_ns, NC_NS_BASE) == 0) {
            return attribute->value;
        }
    }
    return nullptr;
}

Operation operation_of(const lyd_node& node, Operation inherited) {
    static constexpr std::array<std::pair<std::string_view, Operation>, 5> kNames{{
        {"merge", Operation::kMerge},
        {"replace", Operation::kReplace},
        {"create", Operation::kCreate},
        {"delete", Operation::kDelete},
        {"remove", Operation::kRemove},
    }};
    const char* const text = operation_text(node);
    if (text == nullptr) {
        return inherited;
    }
    for (const auto& [name, operation] : kNames) {
        if (name == text) {
            return operation;
        }
    }
    throw RpcError(NC_ERR_BAD_ATTR, NC_ERR_TYPE_PROT,
                   std::string("\"") + text + "\" is not an operation")
        .about(name_of(node), "operation");
}

bool removes_value(Operation operation) {
    return operation == Operation::kDelete || operation == Operation::kRemove;
}

// The value of the leaf according to the model.
uint32_t policy_in(const lyd_node& leaf) {
    const std::string_view text = lyd_get_value(&leaf) == nullptr ? "" : lyd_get_value(&leaf);
    uint32_t policy = 0;
    if (leaf.schema == nullptr ||
        std::from_chars(text.data(), text.data() + text.size(), policy).ec != std::errc()) {
        throw RpcError(
            NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP,
            "loop-policy is a number from 0 to 4, not \"" + std::string(text.substr(0, 40)) + "\"",
            kLeafPath);
    }
    return policy;
}

// The leaf in the container, null when there is none. Refuses everything else.
const lyd_node* leaf_in(const lyd_node& container) {
    const lyd_node* leaf = nullptr;
    const lyd_node* child = nullptr;
    LY_LIST_FOR(lyd_child(&container), child) {
        const bool ours = namespace_of(*child) != nullptr &&
                          strcmp(namespace_of(*child), namespace_of(container)) == 0;
        if (ours && strcmp(name_of(*child), "looped-port") == 0) {
            throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP,
                           "looped-port is state, it cannot be set",
                           std::string(kContainerPath) + "/qvld:looped-port");
        }
        if (!ours || strcmp(name_of(*child), "loop-policy") != 0) {
            throw unknown_element(kContainerPath, name_of(*child));
        }
        if (leaf != nullptr) {
            throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_APP, "loop-policy is given twice",
                           kLeafPath)
                .about("loop-policy");
        }
        leaf = child;
    }
    return leaf;
}

// The container in the configuration, null when there is none. Refuses everything else.
const lyd_node* container_in(const ly_ctx* context, const lyd_node* config) {
    const lys_module* const module = ly_ctx_get_module_implemented(context, kModule);
    const lyd_node* container = nullptr;
    const lyd_node* node = nullptr;
    LY_LIST_FOR(config, node) {
        const char* const name_space = namespace_of(*node);
        if (name_space == nullptr || strcmp(name_space, module->ns) != 0) {
            throw RpcError(NC_ERR_UNKNOWN_NS, NC_ERR_TYPE_APP,
                           "nothing in this namespace can be configured here")
                .about(name_of(*node))
                .in_namespace(name_space == nullptr ? "" : name_space);
        }
        if (strcmp(name_of(*node), "loop-detect") != 0) {
            throw unknown_element("/", name_of(*node));
        }
        if (container != nullptr) {
            throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_APP, "loop-detect is given twice",
                           kContainerPath)
                .about("loop-detect");
        }
        if (holds_text(*node)) {
            throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_APP, "loop-detect holds text",
                           kContainerPath)
                .about("loop-detect");
        }
        container = node;
    }
    return container;
}

RpcError conflict(NC_ERR tag, const char* message) {
    return {tag, NC_ERR_TYPE_APP, message, kLeafPath};
}

// The change of policy by an operation that removes the leaf.
std::optional<PolicyChange> removal(Operation operation, bool is_set) {
    if (operation == Operation::kDelete && !is_set) {
        throw conflict(NC_ERR_DATA_MISSING, "loop-policy is not set");
    }
    if (!is_set) {
        return std::nullopt;
    }
    // The agent applies the policy in a request, even in a delete.
    const bool tolerant = operation == Operation::kRemove;
    return PolicyChange{tolerant ? PolicyRequest::kRemove : PolicyRequest::kDelete, kDefaultPolicy};
}

std::optional<PolicyChange> change_of_leaf(const lyd_node& leaf, Operation operation, bool is_set) {
    switch (operation) {
        case Operation::kNone:
            policy_in(leaf);  // only to refuse values unknown to the model
            if (!is_set) {
                throw conflict(NC_ERR_DATA_MISSING, "loop-policy is not set");
            }
            return std::nullopt;
        case Operation::kDelete:
        case Operation::kRemove:
            return removal(operation, is_set);
        case Operation::kCreate:
            if (is_set) {
                throw conflict(NC_ERR_DATA_EXISTS, "loop-policy is set already");
            }
            break;
        case Operation::kMerge:
        case Operation::kReplace:
            break;
    }
    return PolicyChange{PolicyRequest::kSet, policy_in(leaf)};
}

// The change for a container without its leaf.
std::optional<PolicyChange> change_of_empty(Operation operation, bool is_set) {
    switch (operation) {
        case Operation::kCreate:
            if (is_set) {
                throw RpcError(NC_ERR_DATA_EXISTS, NC_ERR_TYPE_APP, "loop-detect exists already",
                               kContainerPath);
            }
            return std::nullopt;
        case Operation::kDelete:
        case Operation::kRemove:
            return removal(operation, is_set);
        case Operation::kReplace:
            return is_set ? removal(Operation::kDelete, is_set) : std::nullopt;
        case Operation::kMerge:
        case Operation::kNone:
            break;
    }
    return std::nullopt;
}

}  // namespace

std::optional<PolicyChange> plan_edit(const ly_ctx* context, const lyd_node* config,
                                      Operation fallback, uint32_t in_force) {
    const bool is_set = in_force != kDefaultPolicy;
    const lyd_node* const container = container_in(context, config);
    if (container == nullptr) {
        return change_of_empty(fallback == Operation::kReplace ? fallback : Operation::kNone,
                               is_set);
    }
    const Operation above = operation_of(*container, fallback);
    const lyd_node* const leaf = leaf_in(*container);
    if (leaf == nullptr) {
        return change_of_empty(above, is_set);
    }
    return change_of_leaf(*leaf, removes_value(above) ? above : operation_of(*leaf, above), is_set);
}

}  // namespace netconf
