// The operations of the protocol, called by libnetconf2 with the parsed request. Every failure is
// answered with an <rpc-error>.
#pragma once

#include <libnetconf2/session_server.h>

#include "services/netconf/schema.h"
#include "services/netconf/session.h"

namespace netconf {

// Starts libnetconf2 on the modules, with our operations and capabilities. Throws
// std::runtime_error.
void start_server(ly_ctx* context);

// One operation each. `rpc` is the request: its content fits the model, and each required parameter
// is present once. libnetconf2 owns the reply. They throw RpcError; any other exception is answered
// as operation-failed.
nc_server_reply* get(const lyd_node& rpc, Session& session);
nc_server_reply* get_config(const lyd_node& rpc, Session& session);
nc_server_reply* get_schema(const lyd_node& rpc, Session& session);
nc_server_reply* edit_config(const lyd_node& rpc, Session& session);
nc_server_reply* copy_config(const lyd_node& rpc, Session& session);
nc_server_reply* validate(const lyd_node& rpc, Session& session);
nc_server_reply* lock(const lyd_node& rpc, Session& session);
nc_server_reply* unlock(const lyd_node& rpc, Session& session);
nc_server_reply* kill_session(const lyd_node& rpc, Session& session);
nc_server_reply* create_subscription(const lyd_node& rpc, Session& session);

}  // namespace netconf
