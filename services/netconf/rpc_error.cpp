#include "services/netconf/rpc_error.h"

#include "services/netconf/schema.h"

namespace netconf {
namespace {

// nc_err() takes other arguments for each tag.
lyd_node* error_node(const ly_ctx* context, const RpcError& error) {
    const char* const element = error.element.c_str();
    switch (error.tag) {
        case NC_ERR_MISSING_ATTR:
        case NC_ERR_BAD_ATTR:
        case NC_ERR_UNKNOWN_ATTR:
            return nc_err(context, error.tag, error.type, error.attribute.c_str(), element);
        case NC_ERR_MISSING_ELEM:
        case NC_ERR_BAD_ELEM:
        case NC_ERR_UNKNOWN_ELEM:
            return nc_err(context, error.tag, error.type, element);
        case NC_ERR_UNKNOWN_NS:
            return nc_err(context, error.tag, error.type, element, error.name_space.c_str());
        case NC_ERR_LOCK_DENIED:
            return nc_err(context, error.tag, error.session_id);
        case NC_ERR_DATA_EXISTS:
        case NC_ERR_DATA_MISSING:
        case NC_ERR_MALFORMED_MSG:
            return nc_err(context, error.tag);
        case NC_ERR_UNKNOWN:
        case NC_ERR_IN_USE:
        case NC_ERR_INVALID_VALUE:
        case NC_ERR_TOO_BIG:
        case NC_ERR_ACCESS_DENIED:
        case NC_ERR_RES_DENIED:
        case NC_ERR_ROLLBACK_FAILED:
        case NC_ERR_OP_NOT_SUPPORTED:
        case NC_ERR_OP_FAILED:
            break;
    }
    return nc_err(context, error.tag, error.type);
}

// nc_err_set_path() cannot declare the prefix that the path uses.
void add_path(const ly_ctx* context, lyd_node* error, const std::string& path) {
    const std::string text = "<error-path xmlns=\"" NC_NS_BASE
                             "\" xmlns:qvld=\"urn:qv:yang:qv-loop-detect-server\">" +
                             path + "</error-path>";
    lyd_node* node = nullptr;
    if (lyd_parse_data_mem(context, text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0,
                           &node) == LY_SUCCESS) {
        lyd_insert_child(error, node);
    }
}

// The schema of RFC 6241, appendix B, has error-info last.
void move_info_to_the_end(lyd_node* error) {
    lyd_node* const info = const_cast<lyd_node*>(child_named(*error, "error-info"));
    if (info != nullptr) {
        lyd_unlink_tree(info);
        lyd_insert_child(error, info);
    }
}

}  // namespace

nc_server_reply* reply_of(const ly_ctx* context, const RpcError& error) {
    lyd_node* const node = error_node(context, error);
    if (node == nullptr) {
        return nullptr;  // answered as operation-failed by libnetconf2
    }
    if (!error.path.empty()) {
        add_path(context, node, error.path);
    }
    nc_err_set_msg(node, error.what(), "en");
    move_info_to_the_end(node);
    return nc_server_reply_err(node);
}

}  // namespace netconf
