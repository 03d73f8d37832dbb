// <get>, <get-config> and <get-schema>.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "services/netconf/data.h"
#include "services/netconf/filter.h"
#include "services/netconf/operations.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

// Whether defaults are wanted. Only the two announced modes exist.
bool wants_defaults(const lyd_node& rpc) {
    const lyd_node* const mode = child_named(rpc, "with-defaults");
    const std::string name = mode == nullptr ? "trim" : lyd_get_value(mode);
    if (name != "trim" && name != "report-all") {
        throw RpcError(NC_ERR_OP_NOT_SUPPORTED, NC_ERR_TYPE_PROT,
                       "with-defaults can be trim or report-all");
    }
    return name == "report-all";
}

// The output of `rpc` with a copy of `data` in its one anyxml node.
nc_server_reply* reply_with(const lyd_node& rpc, const void* data, LYD_ANYDATA_VALUETYPE type) {
    lyd_node* output = nullptr;
    lyd_dup_single(&rpc, nullptr, LYD_DUP_NO_META, &output);
    if (output == nullptr ||
        lyd_new_any(output, nullptr, "data", data, 0, type, 1, nullptr) != LY_SUCCESS) {
        lyd_free_tree(output);
        throw std::runtime_error("no memory for the answer");
    }
    return nc_server_reply_data(output, NC_WD_EXPLICIT, NC_PARAMTYPE_FREE);
}

nc_server_reply* reply_with(const lyd_node& rpc, Filter& filter, const Tree& tree) {
    return reply_with(rpc, filter.apply(tree.get()).get(), LYD_ANYDATA_DATATREE);
}

const char* text_of(const lyd_node& rpc, const char* name) {
    const lyd_node* const node = child_named(rpc, name);
    return node == nullptr ? nullptr : lyd_get_value(node);
}

// The module, by name and by revision when one is given.
const lys_module& module_named(const ly_ctx* context, const std::string& name,
                               const char* revision) {
    uint32_t index = 0;
    while (const lys_module* const module = ly_ctx_get_module_iter(context, &index)) {
        const char* const own = module->revision == nullptr ? "" : module->revision;
        if (name == module->name && (revision == nullptr || strcmp(revision, own) == 0)) {
            return *module;
        }
    }
    throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP,
                   "there is no schema \"" + name + "\"" +
                       (revision == nullptr ? "" : std::string(" of version ") + revision));
}

}  // namespace

nc_server_reply* get(const lyd_node& rpc, Session& session) {
    Filter filter = Filter::of(rpc);
    Tree tree;
    add_configuration(session, tree, wants_defaults(rpc));
    add_state(session, tree);
    return reply_with(rpc, filter, tree);
}

// Its source can only be the running configuration; the model has no other.
nc_server_reply* get_config(const lyd_node& rpc, Session& session) {
    Filter filter = Filter::of(rpc);
    Tree tree;
    add_configuration(session, tree, wants_defaults(rpc));
    return reply_with(rpc, filter, tree);
}

nc_server_reply* get_schema(const lyd_node& rpc, Session& session) {
    const char* const format = text_of(rpc, "format");
    if (format != nullptr && strcmp(format, "ietf-netconf-monitoring:yang") != 0) {
        throw RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP, "schemas exist only as yang");
    }
    const lys_module& module =
        module_named(session.context, text_of(rpc, "identifier"), text_of(rpc, "version"));
    char* text = nullptr;
    if (lys_print_mem(&text, &module, LYS_OUT_YANG, 0) != LY_SUCCESS) {
        throw std::runtime_error("the schema cannot be printed");
    }
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    return reply_with(rpc, text, LYD_ANYDATA_STRING);
}

}  // namespace netconf
