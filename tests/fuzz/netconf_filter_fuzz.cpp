// Filters of a NETCONF client. The first byte chooses the kind; the rest is the content of
// <filter>, or the expression of XPath. What passes must be a part of the data, with the keys of
// its lists, and an expression ends in time.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "services/netconf/filter.h"
#include "services/netconf/rpc_error.h"

using netconf::Context;
using netconf::Filter;
using netconf::Tree;

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

const ly_ctx* context() {
    static const Context& instance = *new Context(netconf::load_modules(YANG_DIR));
    return instance.get();
}

Tree make_data() {
    Tree data;
    for (const char* const name : {"swp1", "swp2", "swp3"}) {
        add_node(context(), data,
                 "/qv-loop-detect-server:loop-detect/looped-port[name='" + std::string(name) +
                     "']/policy",
                 "1");
    }
    add_node(context(), data, "/qv-loop-detect-server:loop-detect/loop-policy", "2");
    add_node(context(), data,
             "/nc-notifications:netconf/streams/stream[name='NETCONF']/replaySupport", "false");
    return data;
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const bool plain = c > ' ' && c <= '~' && c != '<' && c != '&' && c != '"';
        result += plain ? std::string(1, c) : "&#" + std::to_string(c & 0x7f) + ";";
    }
    return result;
}

Tree parse(const std::string& filter) {
    const std::string text =
        "<get xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
        "xmlns:m=\"urn:qv:yang:qv-loop-detect-server\">" +
        filter + "</get>";
    ly_in* in = nullptr;
    require(ly_in_new_memory(text.c_str(), &in) == LY_SUCCESS);
    lyd_node* root = nullptr;
    const LY_ERR result =
        lyd_parse_op(context(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &root, nullptr);
    ly_in_free(in, 0);
    Tree rpc(root);
    return result == LY_SUCCESS ? std::move(rpc) : nullptr;
}

bool same(const lyd_node& one, const lyd_node& other) {
    const char* const value = lyd_get_value(&one);
    return one.schema == other.schema &&
           (value == nullptr || std::string(value) == lyd_get_value(&other));
}

void require_part(const lyd_node* part, const lyd_node* whole);

bool is_in(const lyd_node& node, const lyd_node* whole) {
    const lyd_node* const key = netconf::child_named(node, "name");
    const lyd_node* other = nullptr;
    LY_LIST_FOR(whole, other) {
        const lyd_node* const other_key = netconf::child_named(*other, "name");
        if (same(node, *other) && (key == nullptr || (other_key && same(*key, *other_key)))) {
            require_part(lyd_child(&node), lyd_child(other));
            return true;
        }
    }
    return false;
}

void require_part(const lyd_node* part, const lyd_node* whole) {
    const lyd_node* node = nullptr;
    LY_LIST_FOR(part, node) {
        require(is_in(*node, whole));
        require(node->schema->nodetype != LYS_LIST ||
                netconf::child_named(*node, "name") != nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Tree& whole = *new Tree(make_data());
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Tree rpc =
        parse(data[0] % 2 == 0 ? "<filter>" + text + "</filter>"
                               : "<filter type=\"xpath\" select=\"" + escaped(text) + "\"/>");
    if (rpc == nullptr) {
        return 0;
    }
    try {
        Filter filter = Filter::of(*rpc);
        require_part(filter.apply(whole.get()).get(), whole.get());
    } catch (const netconf::RpcError& error) {
        require(error.tag == NC_ERR_INVALID_VALUE || error.tag == NC_ERR_RES_DENIED ||
                error.tag == NC_ERR_MISSING_ATTR);
    }
    return 0;
}
