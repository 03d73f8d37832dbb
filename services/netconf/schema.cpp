#include "services/netconf/schema.h"

#include <array>
#include <cstring>
#include <stdexcept>

namespace netconf {
namespace {

// The supported features of the base protocol. <hello> announces the same list. rollback-on-error
// is none of them: an agent that does not answer in time may still apply an edit that has failed.
std::array<const char*, 4> g_base_features{"writable-running", "validate", "xpath", nullptr};

constexpr std::array kModules{
    "ietf-netconf-monitoring", "ietf-netconf-with-defaults", "notifications",
    "nc-notifications",        "qv-loop-detect-server",      "qv-loop-detect-server-notification",
    "qv-errdisable",           "qv-netconf-deviations",
};

void load(ly_ctx* context, const char* name, const char** features) {
    if (ly_ctx_load_module(context, name, nullptr, features) == nullptr) {
        throw std::runtime_error(std::string("YANG module ") + name + ": " + ly_errmsg(context));
    }
}

}  // namespace

const char* const kPublishedModules = LDA_PUBLISHED_YANG_DIR;

Context load_modules(const std::string& folder, const std::string& published) {
    // Errors are kept for the answer to the client, not printed.
    ly_log_options(LY_LOSTORE_LAST);
    ly_ctx* raw = nullptr;
    if (ly_ctx_new(folder.c_str(), LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD, &raw) !=
        LY_SUCCESS) {
        throw std::runtime_error("the folder of the YANG modules cannot be used: " + folder);
    }
    Context context(raw);
    if (ly_ctx_set_searchdir(raw, published.c_str()) != LY_SUCCESS) {
        throw std::runtime_error("the YANG modules of the package libyuma-base are not in " +
                                 published);
    }
    load(raw, "ietf-netconf", g_base_features.data());
    for (const char* const name : kModules) {
        load(raw, name, nullptr);
    }
    return context;
}

void add_node(const ly_ctx* context, Tree& tree, const std::string& path,
              const std::string& value) {
    lyd_node* first = nullptr;
    if (lyd_new_path(tree.get(), context, path.c_str(), value.c_str(), 0, &first) != LY_SUCCESS) {
        throw std::runtime_error(path + " = \"" + value + "\": " + ly_errmsg(context));
    }
    // A new top node may have become the first sibling, and the tree must begin with that.
    lyd_node* const any = tree ? tree.release() : first;
    tree.reset(lyd_first_sibling(any));
}

const char* name_of(const lyd_node& node) {
    return node.schema != nullptr ? node.schema->name
                                  : reinterpret_cast<const lyd_node_opaq&>(node).name.name;
}

const char* namespace_of(const lyd_node& node) {
    return node.schema != nullptr ? node.schema->module->ns
                                  : reinterpret_cast<const lyd_node_opaq&>(node).name.module_ns;
}

const lyd_node* child_named(const lyd_node& node, const char* name) {
    for (const lyd_node* child = lyd_child(&node); child != nullptr; child = child->next) {
        if (strcmp(name_of(*child), name) == 0) {
            return child;
        }
    }
    return nullptr;
}

const lyd_node* content_of(const lyd_node& any) {
    if (any.schema == nullptr || (any.schema->nodetype & LYD_NODE_ANY) == 0) {
        return nullptr;
    }
    const auto& node = reinterpret_cast<const lyd_node_any&>(any);
    return node.value_type == LYD_ANYDATA_DATATREE ? node.value.tree : nullptr;
}

bool holds_text(const lyd_node& node) {
    const char* text = nullptr;
    if (node.schema == nullptr) {
        text = lyd_get_value(&node);
    } else if (const auto& any = reinterpret_cast<const lyd_node_any&>(node);
               (node.schema->nodetype & LYD_NODE_ANY) != 0 &&
               any.value_type != LYD_ANYDATA_DATATREE) {
        text = any.value.str;
    }
    return text != nullptr && text[strspn(text, " \t\r\n")] != '\0';
}

}  // namespace netconf
