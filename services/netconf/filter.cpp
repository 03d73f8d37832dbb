#include "services/netconf/filter.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "services/netconf/rpc_error.h"
#include "services/netconf/xpath.h"

namespace netconf {
namespace {

// How much of a node passes; nodes without an entry do not.
enum class Part { kAncestor, kWhole };
struct Selection {
    std::unordered_map<const lyd_node*, Part> parts;
    uint32_t comparisons = 0;  // made to find them
};

// About a second. A filter of 100 elements takes a tenth of them for 4,000 ports.
constexpr uint32_t kMostComparisons = 10'000'000;

std::string_view trimmed(const char* text) {
    constexpr std::string_view kBlank = " \t\r\n";
    std::string_view rest = text == nullptr ? "" : text;
    rest.remove_prefix(std::min(rest.find_first_not_of(kBlank), rest.size()));
    return rest.substr(0, rest.find_last_not_of(kBlank) + 1);
}

std::string_view text_of(const lyd_node& node) {
    return trimmed(lyd_get_value(&node));
}

// Without a namespace a filter matches in all of them. Throws RpcError when the filter has made too
// many comparisons.
bool same_element(const lyd_node& data, const lyd_node& filter, Selection& selection) {
    if (++selection.comparisons > kMostComparisons) {
        throw RpcError(NC_ERR_RES_DENIED, NC_ERR_TYPE_PROT,
                       "the filter takes too much time or memory");
    }
    const char* const wanted = namespace_of(filter);
    return strcmp(name_of(data), name_of(filter)) == 0 &&
           (wanted == nullptr || strcmp(namespace_of(data), wanted) == 0);
}

bool is_content_match(const lyd_node& filter) {
    return lyd_child(&filter) == nullptr && !text_of(filter).empty();
}

// The leaf that a content match asks for, or null.
const lyd_node* matching_leaf(const lyd_node* siblings, const lyd_node& filter,
                              Selection& selection) {
    for (const lyd_node* leaf = siblings; leaf != nullptr; leaf = leaf->next) {
        if (same_element(*leaf, filter, selection) && text_of(*leaf) == text_of(filter)) {
            return leaf;
        }
    }
    return nullptr;
}

bool select(const lyd_node& data, const lyd_node& filter, Selection& selection);

// Selects children of `data` by those of `filter`. Returns false when nothing passes.
bool select_children(const lyd_node& data, const lyd_node& filter, Selection& selection) {
    bool only_matches = true;
    const lyd_node* wanted = nullptr;
    LY_LIST_FOR(lyd_child(&filter), wanted) {
        if (!is_content_match(*wanted)) {
            only_matches = false;
        } else if (matching_leaf(lyd_child(&data), *wanted, selection) == nullptr) {
            return false;
        }
    }
    if (only_matches) {
        selection.parts[&data] = Part::kWhole;
        return true;
    }
    bool any = false;
    LY_LIST_FOR(lyd_child(&filter), wanted) {
        const lyd_node* child = nullptr;
        LY_LIST_FOR(lyd_child(&data), child) {
            any =
                (same_element(*child, *wanted, selection) && select(*child, *wanted, selection)) ||
                any;
        }
    }
    if (any) {
        selection.parts.try_emplace(&data, Part::kAncestor);
    }
    return any;
}

// Selects in `data`, which `filter` names.
bool select(const lyd_node& data, const lyd_node& filter, Selection& selection) {
    if (lyd_child(&filter) != nullptr) {
        return select_children(data, filter, selection);
    }
    if (is_content_match(filter) && text_of(data) != text_of(filter)) {
        return false;
    }
    selection.parts[&data] = Part::kWhole;
    return true;
}

Selection select_by_subtree(const lyd_node* data, const lyd_node* filters) {
    Selection selection;
    const lyd_node* filter = nullptr;
    LY_LIST_FOR(filters, filter) {
        const lyd_node* node = nullptr;
        LY_LIST_FOR(data, node) {
            if (same_element(*node, *filter, selection)) {
                select(*node, *filter, selection);
            }
        }
    }
    return selection;
}

Selection select_by_xpath(const lyd_node* data, const std::string& xpath,
                          std::chrono::microseconds& left) {
    Selection selection;
    if (data == nullptr) {
        return selection;
    }
    for (const lyd_node* node : find_by_xpath(*data, xpath, left)) {
        selection.parts[node] = Part::kWhole;
        while ((node = lyd_parent(node)) != nullptr) {
            selection.parts.try_emplace(node, Part::kAncestor);
        }
    }
    return selection;
}

lyd_node* copy_of(const lyd_node& node, const Selection& selection) {
    const auto selected = selection.parts.find(&node);
    const bool is_key = node.schema != nullptr && lysc_is_key(node.schema);
    if (selected == selection.parts.end() && !is_key) {
        return nullptr;
    }
    const bool whole = is_key || selected->second == Part::kWhole;
    lyd_node* copy = nullptr;
    lyd_dup_single(&node, nullptr, whole ? LYD_DUP_RECURSIVE : LYD_DUP_NO_META, &copy);
    const lyd_node* child = nullptr;
    LY_LIST_FOR(whole || copy == nullptr ? nullptr : lyd_child(&node), child) {
        if (lyd_node* const inner = copy_of(*child, selection)) {
            // The copy of a list includes its keys.
            if (lysc_is_key(child->schema) && child_named(*copy, name_of(*child)) != nullptr) {
                lyd_free_tree(inner);
            } else {
                lyd_insert_child(copy, inner);
            }
        }
    }
    return copy;
}

const char* attribute(const lyd_node& filter, const char* name) {
    const lyd_meta* const found =
        lyd_find_meta(filter.meta, nullptr, (std::string("ietf-netconf:") + name).c_str());
    return found == nullptr ? nullptr : lyd_get_meta_value(found);
}

}  // namespace

Filter Filter::of(const lyd_node& rpc) {
    Filter filter;
    const lyd_node* const given = child_named(rpc, "filter");
    if (given == nullptr) {
        return filter;
    }
    const char* const type = attribute(*given, "type");
    if (type == nullptr || strcmp(type, "subtree") == 0) {
        filter.kind_ = Kind::kSubtree;
        if (const lyd_node* const tree = content_of(*given)) {
            lyd_node* copy = nullptr;
            lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &copy);
            filter.subtree_.reset(copy);
        }
        return filter;
    }
    const char* const select = attribute(*given, "select");
    if (select == nullptr) {
        throw RpcError(NC_ERR_MISSING_ATTR, NC_ERR_TYPE_PROT,
                       "a filter of type xpath needs the attribute \"select\"")
            .about("filter", "select");
    }
    // An expression that yields no nodes is refused here, whatever the data will be. It is not
    // tested on the request: libyang crashes when it compares an empty <filter> with a string.
    Tree sample;
    add_node(LYD_CTX(&rpc), sample, "/qv-loop-detect-server:loop-detect");
    find_by_xpath(*sample, select, filter.left_);
    filter.kind_ = Kind::kXpath;
    filter.xpath_ = select;
    return filter;
}

bool Filter::matches(const lyd_node* data) {
    left_ = std::min(left_ + kForEachNotification, kForARequest);
    return apply(data) != nullptr;
}

Tree Filter::apply(const lyd_node* data) {
    if (kind_ == Kind::kAll) {
        lyd_node* copy = nullptr;
        if (data != nullptr) {
            lyd_dup_siblings(data, nullptr, LYD_DUP_RECURSIVE, &copy);
        }
        return Tree(copy);
    }
    const Selection selection = kind_ == Kind::kSubtree ? select_by_subtree(data, subtree_.get())
                                                        : select_by_xpath(data, xpath_, left_);
    Tree result;
    const lyd_node* node = nullptr;
    LY_LIST_FOR(data, node) {
        lyd_node* const copy = copy_of(*node, selection);
        if (copy != nullptr && result) {
            lyd_insert_sibling(result.get(), copy, nullptr);
        } else if (copy != nullptr) {
            result.reset(copy);
        }
    }
    return result;
}

}  // namespace netconf
