#include "services/netconf/operations.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "services/netconf/rpc_error.h"

namespace netconf {
namespace {

struct Entry {
    const char* path;
    nc_server_reply* (*perform)(const lyd_node& rpc, Session& session);
};

// <close-session> is libnetconf2's own. Its own <get-schema> frees memory twice and must not be
// the one that is called.
constexpr std::array<Entry, 10> kOperations{{
    {"/ietf-netconf:get", get},
    {"/ietf-netconf:get-config", get_config},
    {"/ietf-netconf-monitoring:get-schema", get_schema},
    {"/ietf-netconf:edit-config", edit_config},
    {"/ietf-netconf:copy-config", copy_config},
    {"/ietf-netconf:validate", validate},
    {"/ietf-netconf:lock", lock},
    {"/ietf-netconf:unlock", unlock},
    {"/ietf-netconf:kill-session", kill_session},
    {"/notifications:create-subscription", create_subscription},
}};

nc_server_reply* perform(const Entry& entry, const lyd_node& rpc, Session& session) {
    try {
        return entry.perform(rpc, session);
    } catch (const RpcError& error) {
        return reply_of(session.context, error);
    } catch (const std::exception& error) {
        return reply_of(session.context, RpcError(NC_ERR_OP_FAILED, NC_ERR_TYPE_APP, error.what()));
    }
}

// Called by libnetconf2, hence no exception leaves.
template <size_t Index>
nc_server_reply* on_rpc(lyd_node* rpc, nc_session* link) {
    return perform(kOperations[Index], *rpc, *static_cast<Session*>(nc_session_get_data(link)));
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
