// Forwarding-plane service: every operation becomes a line, and its arguments are kept.
#include "tests/support/fake_qv/fake_fp_udp.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {
namespace {

struct State {
    fp_udp_acl_handler handlers{};
    int registrations = 0;
    fp_acl_key created{};
    fp_acl_key deleted{};
    fp_acl_key entry_added{};
    fp_acl_key entry_deleted{};
    fp_acl_key applied{};
    fp_acl_key unapplied{};
    fp_apply_point point{};
    std::vector<fp_item> entry_items;
    std::vector<fp_item> apply_items;
    int objects = 0;
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

constexpr char kApp[FP_APP_NAME_BYTES] = "loop_detection_app";

std::string hex(const fp_item& item) {
    std::string text;
    for (uint32_t n = 0; n < item.length; ++n) {
        char two[3];
        snprintf(two, sizeof two, "%02x", item.value[n]);
        text += two;
    }
    return text;
}

std::string meter(const fp_item& item) {
    uint64_t rate = 0;
    uint32_t burst = 0;
    memcpy(&rate, item.value, sizeof rate);
    memcpy(&burst, item.value + 24, sizeof burst);
    return std::to_string(rate) + "/" + std::to_string(burst);
}

std::string items(const std::vector<fp_item>& items, uint32_t item_class) {
    std::string text;
    for (const fp_item& item : items) {
        const std::string name = item.name;
        text += " " + name + "=" + (name == "meter" ? meter(item) : hex(item));
        text += item.item_class == item_class ? "" : " wrong class";
    }
    return text;
}

std::string key_text(const fp_acl_key& key) {
    const bool same = memcmp(key.app, kApp, sizeof kApp) == 0;
    return " " + std::to_string(key.acl_id) + (same ? "" : " wrong application") +
           unusual("flags", key.flags);
}

std::string point_text(const fp_apply_point& point) {
    const bool same = memcmp(point.app, kApp, sizeof kApp) == 0;
    return " at type=" + std::to_string(point.type) + " port=" + std::to_string(point.port) +
           (same ? "" : " wrong application") + unusual("zero", point.zero);
}

std::string context_text(const qv_mom_client* context) {
    return context == mom_client() ? "" : " wrong client";
}

int call(const char* name, const qv_mom_client* context, const std::string& rest) {
    return static_cast<int>(enter(name, name + rest + context_text(context)));
}

int expire_call(const char* name, const void* arg, const char* app) {
    return static_cast<int>(enter(name, std::string(name) + " " + quoted_or_null(app) +
                                            (arg == nullptr ? "" : " with argument")));
}

int build_item(fp_item* item, const char* name, uint32_t item_class, const void* value,
               uint32_t length) {
    *item = {};
    snprintf(item->name, sizeof item->name, "%s", name);
    item->item_class = item_class;
    item->length = length;
    memcpy(item->value, value, length);
    return 0;
}

int build_entry_item(fp_item* item, const char* name, uint32_t item_class, const void* value,
                     uint32_t length) {
    if (const long result = enter("fp_entry_build_item", ""))
        return static_cast<int>(result);
    return build_item(item, name, item_class, value, length);
}

int build_apply_item(fp_item* item, const char* name, uint32_t item_class, const void* value,
                     uint32_t length) {
    if (const long result = enter("fp_apply_build_item", ""))
        return static_cast<int>(result);
    return build_item(item, name, item_class, value, length);
}

// Items count only on an entry whose control field was set first.
int add_entry_item(fp_entry* entry, const fp_item* item) {
    if (entry->control != 1)
        record("fp item without control field");
    if (const long result = enter("fp_entry_add_item", ""))
        return static_cast<int>(result);
    entry->item[entry->item_num++] = *item;
    return 0;
}

int add_apply_item(fp_apply* apply, const fp_item* item) {
    if (const long result = enter("fp_apply_add_item", ""))
        return static_cast<int>(result);
    apply->item[apply->item_num++] = *item;
    return 0;
}

int acl_create(qv_mom_client* context, const fp_acl_key* key) {
    state().created = *key;
    return call("fp_acl_create", context, key_text(*key));
}

int acl_delete(qv_mom_client* context, const fp_acl_key* key) {
    state().deleted = *key;
    return call("fp_acl_delete", context, key_text(*key));
}

int acl_expire_add(void* arg, const char* app) {
    return expire_call("fp_acl_expire_add", arg, app);
}

int entry_add(qv_mom_client* context, const fp_acl_key* key, const fp_entry* entry) {
    state().entry_added = *key;
    state().entry_items.assign(entry->item, entry->item + entry->item_num);
    return call("fp_entry_add", context,
                key_text(*key) + " control=" + std::to_string(entry->control) +
                    items(state().entry_items, FP_ITEM_MATCH));
}

int entry_delete(qv_mom_client* context, const fp_acl_key* key, uint32_t index) {
    state().entry_deleted = *key;
    return call("fp_entry_delete", context, key_text(*key) + " entry " + std::to_string(index));
}

int entry_expire_add(void* arg, const char* app) {
    return expire_call("fp_entry_expire_add", arg, app);
}

fp_entry* entry_alloc() {
    if (enter_refused("fp_entry_alloc", "fp_entry_alloc"))
        return nullptr;
    state().objects++;
    auto* entry = new fp_entry{};
    entry->build_item = build_entry_item;
    entry->add_item = add_entry_item;
    return entry;
}

void entry_free(fp_entry* entry) {
    enter("fp_entry_free", "fp_entry_free");
    state().objects--;
    delete entry;
}

int apply_add(qv_mom_client* context, const fp_apply_point* point, uint32_t priority,
              const fp_apply* apply) {
    state().point = *point;
    state().apply_items.assign(apply->item, apply->item + apply->item_num);
    return call("fp_apply_add", context,
                key_text(apply->key) + point_text(*point) + " with " + std::to_string(priority) +
                    items(state().apply_items, FP_ITEM_ACTION));
}

int apply_delete(qv_mom_client* context, const fp_acl_key* key, const fp_apply_point* point) {
    state().unapplied = *key;
    state().point = *point;
    return call("fp_apply_delete", context, key_text(*key) + point_text(*point));
}

int apply_expire_add(void* arg, const char* app) {
    return expire_call("fp_apply_expire_add", arg, app);
}

fp_apply* apply_alloc(const fp_acl_key* key) {
    state().applied = *key;
    if (enter_refused("fp_apply_alloc", "fp_apply_alloc" + key_text(*key)))
        return nullptr;
    state().objects++;
    auto* apply = new fp_apply{};
    apply->key = *key;
    apply->build_item = build_apply_item;
    apply->add_item = add_apply_item;
    return apply;
}

void apply_free(fp_apply* apply) {
    enter("fp_apply_free", "fp_apply_free");
    state().objects--;
    delete apply;
}

constexpr fp_udp_mgr kOperations = {
    .acl_create = acl_create,
    .acl_delete = acl_delete,
    .acl_expire_add = acl_expire_add,
    .reserved_3 = nullptr,
    .reserved_4 = nullptr,
    .reserved_5 = nullptr,
    .entry_add = entry_add,
    .entry_delete = entry_delete,
    .entry_expire_add = entry_expire_add,
    .reserved_9 = nullptr,
    .entry_alloc = entry_alloc,
    .entry_free = entry_free,
    .reserved_12 = nullptr,
    .reserved_13 = nullptr,
    .apply_add = apply_add,
    .apply_delete = apply_delete,
    .apply_expire_add = apply_expire_add,
    .reserved_17 = nullptr,
    .apply_alloc = apply_alloc,
    .apply_free = apply_free,
};

std::string slots(const fp_udp_acl_handler& handlers) {
    void (*slot[FP_UDP_HANDLER_SLOTS])(void);
    memcpy(slot, &handlers, sizeof slot);
    std::string text;
    for (size_t n = 0; n < FP_UDP_HANDLER_SLOTS; ++n)
        if (slot[n] != nullptr)
            text += (text.empty() ? " slots " : ",") + std::to_string(n);
    return text;
}

}  // namespace

const fp_udp_acl_handler& fp_handlers() {
    return state().handlers;
}
int fp_registrations() {
    return state().registrations;
}
const fp_acl_key& fp_created_key() {
    return state().created;
}
const fp_acl_key& fp_deleted_key() {
    return state().deleted;
}
const fp_acl_key& fp_entry_key() {
    return state().entry_added;
}
const fp_acl_key& fp_entry_delete_key() {
    return state().entry_deleted;
}
const fp_acl_key& fp_apply_key() {
    return state().applied;
}
const fp_acl_key& fp_unapplied_key() {
    return state().unapplied;
}
const fp_apply_point& fp_point() {
    return state().point;
}
const std::vector<fp_item>& fp_entry_items() {
    return state().entry_items;
}
const std::vector<fp_item>& fp_apply_items() {
    return state().apply_items;
}
int fp_objects() {
    return state().objects;
}

fp_acl_key fp_key(uint32_t acl_id, const char* app) {
    fp_acl_key key{};
    snprintf(key.app, sizeof key.app, "%s", app);
    key.acl_id = acl_id;
    return key;
}

}  // namespace fake

using fake::state;

extern "C" {

int fp_udp_register_app_type(const char* app) {
    return static_cast<int>(fake::enter("fp_udp_register_app_type",
                                        "fp_udp_register_app_type " + fake::quoted_or_null(app)));
}

int fp_udp_cgst_register(qv_mom_client* client, uint32_t db, const char* name) {
    return fake::call("fp_udp_cgst_register", client,
                      " db=" + std::to_string(db) + " " + fake::quoted_or_null(name));
}

int fp_udp_register_acl_handler(qv_mom_client* client, uint32_t db,
                                const fp_udp_acl_handler* handlers) {
    state().handlers = *handlers;
    state().registrations++;
    return fake::call("fp_udp_register_acl_handler", client,
                      " db=" + std::to_string(db) + fake::slots(*handlers));
}

const fp_udp_mgr* fp_udp_get_mgr(void) {
    return fake::enter_refused("fp_udp_get_mgr", "fp_udp_get_mgr") ? nullptr : &fake::kOperations;
}

}  // extern "C"
