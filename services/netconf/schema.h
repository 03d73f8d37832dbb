// The YANG modules of the server, and owners of libyang's objects.
#pragma once

#include <libyang/libyang.h>

#include <memory>
#include <string>

namespace netconf {

struct FreeContext {
    void operator()(ly_ctx* context) const { ly_ctx_destroy(context); }
};
using Context = std::unique_ptr<ly_ctx, FreeContext>;

// A whole data tree, siblings included.
struct FreeTree {
    void operator()(lyd_node* tree) const { lyd_free_all(tree); }
};
using Tree = std::unique_ptr<lyd_node, FreeTree>;

// Folder of the IETF's modules, installed by the package libyuma-base.
extern const char* const kPublishedModules;

// Loads every module that the server offers: its own from `folder`, those of the IETF from
// `published`. Throws std::runtime_error.
Context load_modules(const std::string& folder, const std::string& published = kPublishedModules);

// Adds the node at `path`, and its missing ancestors, to `tree`. Throws std::runtime_error when
// the path or the value does not fit the model.
void add_node(const ly_ctx* context, Tree& tree, const std::string& path,
              const std::string& value = "");

// Work for a node of a model and for one that fits none. Null when it has no namespace.
const char* name_of(const lyd_node& node);
const char* namespace_of(const lyd_node& node);

// The child of `node` with this name, or null.
const lyd_node* child_named(const lyd_node& node, const char* name);

// The tree under an anyxml node such as <config> or <filter>; null when it is empty or holds
// text.
const lyd_node* content_of(const lyd_node& any);
// Whether there is text in an anyxml node, or in one that fits no model.
bool holds_text(const lyd_node& node);

}  // namespace netconf
