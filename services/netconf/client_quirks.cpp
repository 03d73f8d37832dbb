#include "services/netconf/client_quirks.h"

#include <libnetconf2/netconf.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "services/netconf/schema.h"

namespace netconf {
namespace {

bool is_element(const lyd_node& node, const char* name, const char* name_space) {
    return node.schema == nullptr && strcmp(name_of(node), name) == 0 &&
           namespace_of(node) != nullptr && strcmp(namespace_of(node), name_space) == 0;
}

void set_name(const ly_ctx* context, ly_opaq_name& name, const char* name_space,
              const char* prefix) {
    lydict_remove(context, name.module_ns);
    lydict_insert(context, name_space, 0, &name.module_ns);
    lydict_remove(context, name.prefix);
    name.prefix = nullptr;
    if (prefix != nullptr) {
        lydict_insert(context, prefix, 0, &name.prefix);
    }
}

// Returns true when a filter has been moved.
bool move_filter(const ly_ctx* context, const lyd_node& subscription) {
    lyd_node* child = nullptr;
    LY_LIST_FOR(lyd_child(&subscription), child) {
        if (is_element(*child, "filter", NC_NS_BASE)) {
            set_name(context, reinterpret_cast<lyd_node_opaq*>(child)->name, NC_NS_NOTIF, nullptr);
            return true;
        }
    }
    return false;
}

// Returns true when an attribute "operation" of the element has been given its namespace.
bool qualify_operation(const ly_ctx* context, const lyd_node_opaq& element) {
    lyd_attr* attribute = nullptr;
    LY_LIST_FOR(element.attr, attribute) {
        ly_opaq_name& name = attribute->name;
        if (name.module_ns == nullptr && strcmp(name.name, "operation") == 0) {
            set_name(context, name, NC_NS_BASE, "nc");
            return true;
        }
    }
    return false;
}

// Does so for the whole tree, without recursion: a client chooses the depth.
bool qualify_operations(const ly_ctx* context, const lyd_node& root) {
    bool any = false;
    std::vector<const lyd_node*> left{&root};
    while (!left.empty()) {
        const lyd_node& node = *left.back();
        left.pop_back();
        any = qualify_operation(context, reinterpret_cast<const lyd_node_opaq&>(node)) || any;
        const lyd_node* child = nullptr;
        LY_LIST_FOR(lyd_child(&node), child) {
            left.push_back(child);
        }
    }
    return any;
}

bool adapt(const ly_ctx* context, const lyd_node& rpc) {
    const lyd_node* const operation = lyd_child(&rpc);
    if (operation == nullptr) {
        return false;
    }
    if (is_element(*operation, "create-subscription", NC_NS_NOTIF)) {
        return move_filter(context, *operation);
    }
    return is_element(*operation, "edit-config", NC_NS_BASE) &&
           qualify_operations(context, *operation);
}

}  // namespace

void adapt_message(std::string& text) {
    if (text.find("create-subscription") == std::string::npos &&
        text.find("operation") == std::string::npos) {
        return;
    }
    // Without any module every element is accepted unchecked.
    ly_ctx* context = nullptr;
    ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &context);
    const Context owner(context);
    lyd_node* root = nullptr;
    lyd_parse_data_mem(context, text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &root);
    const Tree tree(root);
    if (root == nullptr || !adapt(context, *root)) {
        return;
    }
    char* printed = nullptr;
    if (lyd_print_mem(&printed, root, LYD_XML, LYD_PRINT_SHRINK) == LY_SUCCESS) {
        const std::unique_ptr<char, decltype(&free)> printed_owner(printed, free);
        text = printed;
    }
}

}  // namespace netconf
