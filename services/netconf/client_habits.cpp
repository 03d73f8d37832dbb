#include "services/netconf/client_habits.h"

#include <libnetconf2/netconf.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "services/netconf/schema.h"

namespace netconf {
namespace {

bool is_element(const lyd_node& node, const char* name, const char* name_space) {
    return node.schema == nullptr && strcmp(name_of(node), name) == 0 &&
           namespace_of(node) != nullptr && strcmp(namespace_of(node), name_space) == 0;
}

// The filter in the wrong namespace, or null.
lyd_node_opaq* misplaced_filter(const lyd_node& rpc) {
    const lyd_node* const operation = lyd_child(&rpc);
    if (operation == nullptr || !is_element(*operation, "create-subscription", NC_NS_NOTIF)) {
        return nullptr;
    }
    lyd_node* child = nullptr;
    LY_LIST_FOR(lyd_child(operation), child) {
        if (is_element(*child, "filter", NC_NS_BASE)) {
            return reinterpret_cast<lyd_node_opaq*>(child);
        }
    }
    return nullptr;
}

}  // namespace

void adapt_message(std::string& text) {
    if (text.find("create-subscription") == std::string::npos) {
        return;
    }
    // Without any module every element is taken as it is.
    ly_ctx* context = nullptr;
    ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &context);
    const Context owner(context);
    lyd_node* root = nullptr;
    lyd_parse_data_mem(context, text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &root);
    const Tree tree(root);
    lyd_node_opaq* const filter = root == nullptr ? nullptr : misplaced_filter(*root);
    if (filter == nullptr) {
        return;
    }
    ly_opaq_name& name = filter->name;
    lydict_remove(context, name.module_ns);
    lydict_insert(context, NC_NS_NOTIF, 0, &name.module_ns);
    lydict_remove(context, name.prefix);
    name.prefix = nullptr;
    char* printed = nullptr;
    if (lyd_print_mem(&printed, root, LYD_XML, LYD_PRINT_SHRINK) == LY_SUCCESS) {
        const std::unique_ptr<char, decltype(&free)> printed_owner(printed, free);
        text = printed;
    }
}

}  // namespace netconf
