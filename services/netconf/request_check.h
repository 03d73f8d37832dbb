// Finds requests that libnetconf2 would answer with a bare "operation-failed", or could not answer
// at all, and has them answered with the error-tag of RFC 6241, appendix A.
//
// Such a request is replaced by one that libnetconf2 can parse: a <get> whose filter carries the
// error. It keeps the attributes of the original <rpc>, its place among the requests, and so the
// order of the answers. Its operation answers with the error and does nothing else. A client that
// sends such a filter itself gets its own words back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "services/netconf/rpc_error.h"

namespace netconf {

// Replaces `text`, a request without its frame, when it does not fit the modules of `context` or
// has no message-id. Text that is not XML stays unchanged: libnetconf2 has the right answer to
// that. Any thread. Throws std::runtime_error without memory.
void replace_bad_request(const ly_ctx* context, std::string& text);

// The replacement of a request that is too long to be read; `beginning` is the part that has
// arrived, and may lack the message-id. Any thread. Throws std::runtime_error without memory.
std::string too_big_request(std::string_view beginning);

// The error that a replaced request carries; nothing for any other request.
std::optional<RpcError> error_carried_by(const lyd_node& rpc);

}  // namespace netconf
