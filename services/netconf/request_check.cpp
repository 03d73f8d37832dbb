#include "services/netconf/request_check.h"

#include <libnetconf2/netconf.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "services/netconf/edit_plan.h"
#include "services/netconf/schema.h"

namespace netconf {
namespace {

constexpr const char* kCarrierNamespace = "urn:qv:netconf:refused-request";
constexpr const char* kCarrier = "refused-request";

RpcError error_of(NC_ERR tag, NC_ERR_TYPE type, const std::string& message,
                  const std::string& path = "") {
    return {tag, type, message, path};
}

bool is_base(const lyd_node& node, const char* name) {
    return strcmp(name_of(node), name) == 0 && namespace_of(node) != nullptr &&
           strcmp(namespace_of(node), NC_NS_BASE) == 0;
}

// The value of an attribute without a namespace, or null.
const char* attribute_of(const lyd_node& element, const char* name) {
    const lyd_attr* attribute = nullptr;
    LY_LIST_FOR(reinterpret_cast<const lyd_node_opaq&>(element).attr, attribute) {
        if (attribute->name.module_ns == nullptr && strcmp(attribute->name.name, name) == 0) {
            return attribute->value;
        }
    }
    return nullptr;
}

const lys_module* module_of(const ly_ctx* context, const lyd_node& element) {
    const char* const name_space = namespace_of(element);
    return name_space == nullptr ? nullptr : ly_ctx_get_module_implemented_ns(context, name_space);
}

RpcError unexpected(const lyd_node& element) {
    return error_of(NC_ERR_UNKNOWN_ELEM, NC_ERR_TYPE_PROT,
                    std::string("\"") + name_of(element) + "\" is not expected here")
        .about(name_of(element));
}

RpcError of_unknown_namespace(const lyd_node& element) {
    const char* const name_space = namespace_of(element);
    return error_of(NC_ERR_UNKNOWN_NS, NC_ERR_TYPE_PROT,
                    std::string("the namespace of \"") + name_of(element) + "\" is unknown")
        .about(name_of(element))
        .in_namespace(name_space == nullptr ? "" : name_space);
}

std::optional<RpcError> wrong_envelope(const lyd_node& root) {
    if (strcmp(name_of(root), "rpc") != 0) {
        return unexpected(root);
    }
    if (!is_base(root, "rpc")) {
        return of_unknown_namespace(root);
    }
    if (attribute_of(root, "message-id") == nullptr) {
        return error_of(NC_ERR_MISSING_ATTR, NC_ERR_TYPE_RPC,
                        "the attribute \"message-id\" is missing")
            .about("rpc", "message-id");
    }
    const lyd_node* const operation = lyd_child(&root);
    if (operation == nullptr) {
        // The schema of RFC 6241, appendix B, has this name for it.
        return error_of(NC_ERR_MISSING_ELEM, NC_ERR_TYPE_PROT, "the request names no operation")
            .about("rpcOperation");
    }
    if (operation->next != nullptr) {
        return unexpected(*operation->next);
    }
    return std::nullopt;
}

bool is_any(const lysc_node& schema) {
    return (schema.nodetype & LYD_NODE_ANY) != 0;
}

RpcError about_attribute(NC_ERR tag, const lyd_node& element, const char* attribute,
                         const std::string& message) {
    return error_of(tag, NC_ERR_TYPE_PROT, message).about(name_of(element), attribute);
}

// An attribute of an operation or parameter, whose model is `schema`. Only a filter has some.
std::optional<RpcError> wrong_attribute(const lyd_node& element, const lysc_node& schema) {
    const bool is_filter = is_any(schema) && strcmp(schema.name, "filter") == 0;
    const lyd_attr* attribute = nullptr;
    LY_LIST_FOR(reinterpret_cast<const lyd_node_opaq&>(element).attr, attribute) {
        const std::string_view name = attribute->name.name;
        const std::string_view value = attribute->value;
        const char* const name_space = attribute->name.module_ns;
        // Some clients write those of a filter in the namespace of the base protocol.
        const bool is_plain = name_space == nullptr || strcmp(name_space, NC_NS_BASE) == 0;
        if (is_plain && is_filter && name == "select") {
            continue;
        }
        if (!is_plain || !is_filter || name != "type") {
            return about_attribute(NC_ERR_UNKNOWN_ATTR, element, attribute->name.name,
                                   "this attribute is unknown");
        }
        if (value != "subtree" && value != "xpath") {
            return about_attribute(NC_ERR_BAD_ATTR, element, "type",
                                   "\"" + std::string(value) + "\" is not a type of filter");
        }
    }
    return std::nullopt;
}

bool is_edit_operation(std::string_view name) {
    return name == "merge" || name == "replace" || name == "create" || name == "delete" ||
           name == "remove";
}

// The attribute "operation" of an element of the configuration.
std::optional<RpcError> wrong_edit_operation(const lyd_node& element) {
    const lyd_attr* attribute = nullptr;
    LY_LIST_FOR(reinterpret_cast<const lyd_node_opaq&>(element).attr, attribute) {
        const ly_opaq_name& name = attribute->name;
        if (name.module_ns != nullptr && strcmp(name.module_ns, NC_NS_BASE) == 0 &&
            strcmp(name.name, "operation") == 0 && !is_edit_operation(attribute->value)) {
            return about_attribute(NC_ERR_BAD_ATTR, element, "operation",
                                   std::string("\"") + attribute->value + "\" is not an operation");
        }
    }
    return std::nullopt;
}

// libyang reads "0x3" as a number. A model may have a default in this form, a value may not be in
// it (RFC 7950, section 9.2.1).
std::optional<RpcError> hexadecimal_policy(const lyd_node& element) {
    const char* const name_space = namespace_of(element);
    const std::string value = lyd_get_value(&element) == nullptr ? "" : lyd_get_value(&element);
    if (strcmp(name_of(element), "loop-policy") != 0 || name_space == nullptr ||
        strcmp(name_space, "urn:qv:yang:qv-loop-detect-server") != 0 ||
        value.find_first_of("xX") == std::string::npos) {
        return std::nullopt;
    }
    return RpcError(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_APP,
                    "loop-policy is a number from 0 to 4, not \"" + value.substr(0, 40) + "\"",
                    kLeafPath);
}

std::optional<RpcError> wrong_in_config(const lyd_node& element) {
    auto error = wrong_edit_operation(element);
    return error ? error : hexadecimal_policy(element);
}

// libyang takes month 13 for the first of the next year.
std::optional<RpcError> impossible_time(const lyd_node& element) {
    const std::string_view name = name_of(element);
    if (name != "startTime" && name != "stopTime") {
        return std::nullopt;
    }
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    const char* const text = lyd_get_value(&element);
    constexpr int kParts = 6;
    constexpr unsigned kLeapSecond = 60;
    if (text == nullptr || sscanf(text, "%4d-%2u-%2uT%2u:%2u:%2u", &year, &month, &day, &hour,
                                  &minute, &second) != kParts) {
        return std::nullopt;  // not in the form of a time, which libyang sees
    }
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                           std::chrono::day(day)};
    if (date.ok() && hour < 24 && minute < 60 && second <= kLeapSecond) {
        return std::nullopt;
    }
    return error_of(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                    "\"" + std::string(text).substr(0, 40) + "\" is no time");
}

// An element of a request with its model; null within <config>, which the operations check, apart
// from what libyang does not let through.
struct Known {
    const lyd_node* element;
    const lysc_node* schema;
};

// The model of a child that has one. Throws RpcError when it should have one, but has not.
const lysc_node* model_of_child(const ly_ctx* context, const Known& parent, const lyd_node& child) {
    if (parent.schema == nullptr || is_any(*parent.schema)) {
        return nullptr;
    }
    const lys_module* const module = module_of(context, child);
    if (module == nullptr) {
        throw of_unknown_namespace(child);
    }
    const lysc_node* const schema = lys_find_child(parent.schema, module, name_of(child), 0, 0, 0);
    if (schema == nullptr) {
        throw unexpected(child);
    }
    return schema;
}

// A filter may ask for attributes of the data (RFC 6241, section 6.2.2). libyang drops those of the
// elements that it knows, and the filter would select more than was asked for.
std::optional<RpcError> attribute_in_filter(const lyd_node& filter) {
    std::vector<const lyd_node*> left{&filter};
    while (!left.empty()) {
        const lyd_node* const parent = left.back();
        left.pop_back();
        const lyd_node* child = nullptr;
        LY_LIST_FOR(lyd_child(parent), child) {
            if (const auto* const found = reinterpret_cast<const lyd_node_opaq&>(*child).attr) {
                return about_attribute(NC_ERR_UNKNOWN_ATTR, *child, found->name.name,
                                       "filters by attributes are not supported");
            }
            left.push_back(child);
        }
    }
    return std::nullopt;
}

// Checks names and attributes, without recursion: a client chooses the depth. The elements in a
// filter are not checked, they may be anything.
std::optional<RpcError> wrong_element(const ly_ctx* context, const Known& operation) {
    std::vector<Known> left{operation};
    while (!left.empty()) {
        const Known known = left.back();
        left.pop_back();
        auto error = known.schema == nullptr ? wrong_in_config(*known.element)
                                             : wrong_attribute(*known.element, *known.schema);
        if (!error && known.schema != nullptr) {
            error = impossible_time(*known.element);
        }
        if (error) {
            return error;
        }
        if (known.schema != nullptr && is_any(*known.schema) &&
            strcmp(known.schema->name, "config") != 0) {
            if (auto attribute = attribute_in_filter(*known.element)) {
                return attribute;
            }
            continue;
        }
        const lyd_node* child = nullptr;
        LY_LIST_FOR(lyd_child(known.element), child) {
            left.push_back({child, model_of_child(context, known, *child)});
        }
    }
    return std::nullopt;
}

std::optional<RpcError> wrong_operation(const ly_ctx* context, const lyd_node& operation) {
    const lys_module* const module = module_of(context, operation);
    if (module == nullptr) {
        return of_unknown_namespace(operation);
    }
    const lysc_node* const schema =
        lys_find_child(nullptr, module, name_of(operation), 0, LYS_RPC, 0);
    if (schema == nullptr) {
        return error_of(NC_ERR_OP_NOT_SUPPORTED, NC_ERR_TYPE_PROT,
                        std::string("there is no operation \"") + name_of(operation) + "\"");
    }
    if (is_base(operation, "delete-config")) {
        // Neither can <running> (RFC 6241, section 7.4).
        return error_of(NC_ERR_OP_NOT_SUPPORTED, NC_ERR_TYPE_PROT, "no datastore can be deleted");
    }
    return wrong_element(context, {&operation, schema});
}

// Nothing when libyang parses the request just as libnetconf2 will have it parsed.
std::optional<RpcError> wrong_value(const ly_ctx* context, const std::string& text) {
    ly_in* input = nullptr;
    if (ly_in_new_memory(text.c_str(), &input) != LY_SUCCESS) {
        return std::nullopt;
    }
    const std::unique_ptr<ly_in, void (*)(ly_in*)> owner(input,
                                                         [](ly_in* in) { ly_in_free(in, 0); });
    lyd_node* envelope = nullptr;
    lyd_node* operation = nullptr;
    const LY_ERR outcome =
        lyd_parse_op(context, nullptr, input, LYD_XML, LYD_TYPE_RPC_NETCONF, &envelope, &operation);
    const Tree envelope_owner(envelope);
    const Tree operation_owner(operation);
    if (outcome == LY_SUCCESS) {
        return std::nullopt;
    }
    const char* const reason = ly_errmsg(context);
    return error_of(NC_ERR_INVALID_VALUE, NC_ERR_TYPE_PROT,
                    reason == nullptr ? "a value does not fit the model" : reason);
}

std::optional<RpcError> error_in(const ly_ctx* context, const lyd_node& root,
                                 const std::string& text) {
    if (auto error = wrong_envelope(root)) {
        return error;
    }
    try {
        if (auto error = wrong_operation(context, *lyd_child(&root))) {
            return error;
        }
    } catch (const RpcError& error) {
        return error;
    }
    return wrong_value(context, text);
}

// Without any module every element is accepted unchecked.
Context bare_context() {
    ly_ctx* context = nullptr;
    ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &context);
    return Context(context);
}

void add_attribute(lyd_node* element, const char* name, const std::string& value) {
    lyd_new_attr2(element, nullptr, name, value.c_str(), nullptr);
}

std::string printed(const lyd_node& root) {
    char* text = nullptr;
    if (lyd_print_mem(&text, &root, LYD_XML, LYD_PRINT_SHRINK) != LY_SUCCESS) {
        throw std::runtime_error("no memory for a request");
    }
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    return text;
}

// Replaces the content of `rpc`, elements and text, by an operation that answers with the error.
std::string carrier_of(const RpcError& error, lyd_node* rpc) {
    const ly_ctx* const context = LYD_CTX(rpc);
    while (lyd_node* const child = lyd_child(rpc)) {
        lyd_free_tree(child);
    }
    auto& element = reinterpret_cast<lyd_node_opaq&>(*rpc);
    lydict_remove(context, element.value);
    lydict_insert(context, "", 0, &element.value);
    lyd_node* get = nullptr;
    lyd_node* filter = nullptr;
    lyd_node* carrier = nullptr;
    lyd_new_opaq2(rpc, context, "get", nullptr, nullptr, NC_NS_BASE, &get);
    lyd_new_opaq2(get, context, "filter", nullptr, nullptr, NC_NS_BASE, &filter);
    lyd_new_opaq2(filter, context, kCarrier, nullptr, nullptr, kCarrierNamespace, &carrier);
    add_attribute(carrier, "tag", std::to_string(error.tag));
    add_attribute(carrier, "type", std::to_string(error.type));
    add_attribute(carrier, "message", error.what());
    add_attribute(carrier, "element", error.element);
    add_attribute(carrier, "attribute", error.attribute);
    add_attribute(carrier, "namespace", error.name_space);
    add_attribute(carrier, "path", error.path);
    return printed(*rpc);
}

Tree empty_request(const Context& context) {
    lyd_node* rpc = nullptr;
    lyd_new_opaq2(nullptr, context.get(), "rpc", nullptr, nullptr, NC_NS_BASE, &rpc);
    return Tree(rpc);
}

// The value of the first attribute message-id in a text that is not XML yet; empty when it is not
// there as a whole.
std::string_view message_id_in(std::string_view text) {
    constexpr std::string_view kName = "message-id=";
    const size_t at = text.find(kName);
    if (at == std::string_view::npos || at + kName.size() == text.size()) {
        return {};
    }
    const std::string_view rest = text.substr(at + kName.size());
    const size_t end = rest.find(rest.front(), 1);
    const bool quoted = rest.front() == '"' || rest.front() == '\'';
    return quoted && end != std::string_view::npos ? rest.substr(1, end - 1) : std::string_view();
}

template <typename Enum>
Enum number_in(const lyd_node& carrier, const char* name, Enum lowest, Enum highest) {
    const char* const text = attribute_of(carrier, name);
    int number = -1;
    if (text != nullptr) {
        std::from_chars(text, text + strlen(text), number);
    }
    return number < lowest || number > highest ? lowest : static_cast<Enum>(number);
}

std::string text_in(const lyd_node& carrier, const char* name) {
    const char* const text = attribute_of(carrier, name);
    return text == nullptr ? "" : text;
}

}  // namespace

void replace_bad_request(const ly_ctx* context, std::string& text) {
    const Context bare = bare_context();
    lyd_node* parsed = nullptr;
    lyd_parse_data_mem(bare.get(), text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0,
                       &parsed);
    const Tree root(parsed);
    if (root == nullptr) {
        text = "<rpc";  // libnetconf2 might find an <rpc> at the beginning of what is no XML
        return;
    }
    if (const auto error = error_in(context, *root, text)) {
        const bool is_request = is_base(*root, "rpc");
        text = carrier_of(*error, is_request ? root.get() : empty_request(bare).get());
    }
}

std::string too_big_request(std::string_view beginning) {
    const Context bare = bare_context();
    const Tree rpc = empty_request(bare);
    const std::string id(message_id_in(beginning));
    if (!id.empty()) {
        add_attribute(rpc.get(), "message-id", id);
    }
    return carrier_of(error_of(NC_ERR_TOO_BIG, NC_ERR_TYPE_RPC, "a message is longer than 64 KiB"),
                      rpc.get());
}

std::optional<RpcError> error_carried_by(const lyd_node& rpc) {
    const lyd_node* const filter = child_named(rpc, "filter");
    const lyd_node* const carrier = filter == nullptr ? nullptr : content_of(*filter);
    if (carrier == nullptr || carrier->schema != nullptr ||
        strcmp(name_of(*carrier), kCarrier) != 0 || namespace_of(*carrier) == nullptr ||
        strcmp(namespace_of(*carrier), kCarrierNamespace) != 0) {
        return std::nullopt;
    }
    return error_of(number_in(*carrier, "tag", NC_ERR_IN_USE, NC_ERR_MALFORMED_MSG),
                    number_in(*carrier, "type", NC_ERR_TYPE_TRAN, NC_ERR_TYPE_APP),
                    text_in(*carrier, "message"), text_in(*carrier, "path"))
        .about(text_in(*carrier, "element"), text_in(*carrier, "attribute"))
        .in_namespace(text_in(*carrier, "namespace"));
}

}  // namespace netconf
