#include "services/netconf/operations.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "services/netconf/request_check.h"
#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

struct Entry {
    const char* path;
    nc_server_reply* (*perform)(const lyd_node& rpc, Session& session);
    std::array<const char*, 2> needed{};  // parameters that the operation needs
    bool changes = false;                 // the configuration, or who may edit it
};

// libnetconf2 has its own <close-session>. Its own <get-schema> frees memory twice and must not be
// used.
constexpr std::array<Entry, 10> kOperations{{
    {"/ietf-netconf:get", get},
    {"/ietf-netconf:get-config", get_config, {"source"}},
    {"/ietf-netconf-monitoring:get-schema", get_schema, {"identifier"}},
    {"/ietf-netconf:edit-config", edit_config, {"target", "config"}, true},
    {"/ietf-netconf:copy-config", copy_config, {"target", "source"}, true},
    {"/ietf-netconf:validate", validate, {"source"}},
    {"/ietf-netconf:lock", lock, {"target"}, true},
    {"/ietf-netconf:unlock", unlock, {"target"}},
    {"/ietf-netconf:kill-session", kill_session, {"session-id"}},
    {"/notifications:create-subscription", create_subscription},
}};

// Each parameter may occur once, and a container, <source> or <target>, names one datastore.
void check_parameter(const lyd_node& parameter) {
    const char* const name = name_of(parameter);
    const lyd_node* later = nullptr;
    LY_LIST_FOR(parameter.next, later) {
        if (strcmp(name_of(*later), name) == 0) {
            throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_PROT,
                           "\"" + std::string(name) + "\" is given twice")
                .about(name);
        }
    }
    const lyd_node* const store = lyd_child(&parameter);
    if (parameter.schema->nodetype == LYS_CONTAINER &&
        (store == nullptr || store->next != nullptr)) {
        throw RpcError(NC_ERR_BAD_ELEM, NC_ERR_TYPE_PROT,
                       "\"" + std::string(name) + "\" must name one datastore")
            .about(name);
    }
}

// libnetconf2 parses a request against the model, but does not validate it.
void check_input(const Entry& entry, const lyd_node& rpc) {
    const lyd_node* parameter = nullptr;
    LY_LIST_FOR(lyd_child(&rpc), parameter) {
        check_parameter(*parameter);
    }
    for (const char* const name : entry.needed) {
        if (name != nullptr && child_named(rpc, name) == nullptr) {
            throw RpcError(NC_ERR_MISSING_ELEM, NC_ERR_TYPE_PROT,
                           "\"" + std::string(name) + "\" is missing")
                .about(name);
        }
    }
}

nc_server_reply* perform(const Entry& entry, const lyd_node& rpc, Session& session) {
    try {
        if (const auto error = error_carried_by(rpc)) {
            throw RpcError(*error);
        }
        if (entry.changes && !session.may_change) {
            throw RpcError(
                NC_ERR_ACCESS_DENIED, NC_ERR_TYPE_PROT,
                "only members of the group \"" + session.options.write_group + "\" may do this");
        }
        check_input(entry, rpc);
        return entry.perform(rpc, session);
    } catch (const RpcError& error) {
        return reply_of(session.context, error);
    } catch (const std::exception& error) {
        return reply_of(session.context, RpcError(NC_ERR_OP_FAILED, NC_ERR_TYPE_APP, error.what()));
    }
}

// Called by libnetconf2, so no exception may leave it, not even one thrown while answering another.
template <size_t Index>
nc_server_reply* on_rpc(lyd_node* rpc, nc_session* link) {
    try {
        return perform(kOperations[Index], *rpc, *static_cast<Session*>(nc_session_get_data(link)));
    } catch (const std::exception&) {
        return nullptr;  // answered as operation-failed by libnetconf2
    }
}

template <size_t... Index>
void register_all(const ly_ctx* context, std::index_sequence<Index...> /*unused*/) {
    const auto attach = [context](const char* path, nc_rpc_clb callback) {
        const lysc_node* const node = lys_find_path(context, nullptr, path, 0);
        if (node == nullptr) {
            throw std::runtime_error(std::string("no operation ") + path);
        }
        const_cast<lysc_node*>(node)->priv = reinterpret_cast<void*>(callback);
    };
    (attach(kOperations[Index].path, on_rpc<Index>), ...);
}

}  // namespace

void start_server(ly_ctx* context) {
    register_all(context, std::make_index_sequence<kOperations.size()>());
    if (nc_server_init(context) != 0) {
        throw std::runtime_error("libnetconf2 does not start");
    }
    nc_server_set_capab_withdefaults(NC_WD_TRIM, NC_WD_ALL);
    nc_server_set_capability("urn:ietf:params:netconf:capability:notification:1.0");
    nc_server_set_capability("urn:ietf:params:netconf:capability:interleave:1.0");
}

}  // namespace netconf
