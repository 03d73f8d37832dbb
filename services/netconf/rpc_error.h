// The exception that an operation throws to be answered with an <rpc-error>.
#pragma once

#include <libyang/libyang.h>

#include <libnetconf2/messages_server.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace netconf {

struct RpcError : std::runtime_error {
    RpcError(NC_ERR error_tag, NC_ERR_TYPE error_type, const std::string& message,
             std::string error_path = "")
        : std::runtime_error(message),
          tag(error_tag),
          type(error_type),
          path(std::move(error_path)) {}

    // The same error with the additional elements of some tags.
    RpcError about(std::string bad_element, std::string bad_attribute = "") const {
        RpcError error = *this;
        error.element = std::move(bad_element);
        error.attribute = std::move(bad_attribute);
        return error;
    }
    RpcError in_namespace(std::string bad_namespace) const {
        RpcError error = *this;
        error.name_space = std::move(bad_namespace);
        return error;
    }
    RpcError held_by(uint32_t session) const {
        RpcError error = *this;
        error.session_id = session;
        return error;
    }

    NC_ERR tag;
    NC_ERR_TYPE type;
    std::string path;         // XPath of the data at fault; its prefix is qvld; empty: none
    std::string element;      // <bad-element> of the tags that carry one
    std::string attribute;    // <bad-attribute> likewise
    std::string name_space;   // <bad-namespace> of unknown-namespace
    uint32_t session_id = 0;  // of lock-denied
};

// The reply, to be handed to libnetconf2.
nc_server_reply* reply_of(const ly_ctx* context, const RpcError& error);

}  // namespace netconf
