// Forwarding-plane ACL service: access control lists of an application, their entries, and the
// points of the switch where they are applied.
//
// An ACL is named by its key. Entries say what a frame must look like, applies say where the ACL
// works and what happens to the frames that match. Every operation is asynchronous: it returns
// whether it was accepted; the result follows through the handler table of the application, as do
// the counter reports of applied ACLs. All calls and all callbacks belong to the main thread;
// callbacks arrive through the thread master, never from within an operation. Multi-byte values in
// items are in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qv/mom.h"

extern "C" {

inline constexpr size_t FP_APP_NAME_BYTES = 32;

// Flags of a key when its ACL is created.
inline constexpr uint32_t FP_ACL_CREATE_FLAGS = 260;

// Names an ACL. Goes to the service byte for byte.
struct fp_acl_key {
    char app[FP_APP_NAME_BYTES];  // application name, NUL-padded
    uint32_t acl_id;              // chosen by the application
    uint32_t flags;               // FP_ACL_CREATE_FLAGS for the creation, else 0
};
static_assert(sizeof(fp_acl_key) == 40);
static_assert(offsetof(fp_acl_key, acl_id) == 32 && offsetof(fp_acl_key, flags) == 36);

// Kinds of apply points.
inline constexpr uint32_t FP_APPLY_GLOBAL = 1;  // the whole switch; the port is 0
inline constexpr uint32_t FP_APPLY_PORT = 2;    // one port

// Names the place where an ACL is applied.
struct fp_apply_point {
    char app[FP_APP_NAME_BYTES];  // application name, NUL-padded
    uint32_t port;                // forwarding-plane port id, or 0
    uint32_t type;                // FP_APPLY_*
    uint32_t zero;
};
static_assert(sizeof(fp_apply_point) == 44);
static_assert(offsetof(fp_apply_point, port) == 32 && offsetof(fp_apply_point, type) == 36);

// Classes of items.
inline constexpr uint32_t FP_ITEM_MATCH = 1;
inline constexpr uint32_t FP_ITEM_ACTION = 2;

inline constexpr size_t FP_ITEM_NAME_BYTES = 32;
inline constexpr size_t FP_ITEM_VALUE_BYTES = 228;
inline constexpr size_t FP_ITEMS_MAX = 8;

// One match or action:
//   match  "l2_da_hit"  1 byte    0: the destination address is not known
//   match  "l3_uc"      8 bytes   32-bit width 1, then the value 0: not a routed frame
//   match  "etype"      4 bytes   16-bit ethertype, 16-bit mask
//   action "meter"      48 bytes  64-bit packets per second at 0, 32-bit burst at 24
//   action "counter"    4 bytes   0
//   action "fwd"        3 bytes   forwarding decision of the plane
struct fp_item {
    char name[FP_ITEM_NAME_BYTES];  // NUL-padded
    uint32_t item_class;            // FP_ITEM_*
    uint32_t length;                // bytes used in `value`
    uint8_t value[FP_ITEM_VALUE_BYTES];
};
static_assert(sizeof(fp_item) == 268);

// Fills `*item`, the rest of its bytes zero. 0, or EINVAL when name or value do not fit.
using fp_item_builder = int (*)(fp_item* item, const char* name, uint32_t item_class,
                                const void* value, uint32_t length);

// One entry of an ACL: the matches that a frame must meet. Made by entry_alloc and freed with
// entry_free by its allocator; entry_add copies it.
struct fp_entry {
    uint64_t control;  // 1 makes the entry active; set before items are added
    fp_item_builder build_item;
    int (*add_item)(fp_entry* entry, const fp_item* item);  // copies; 0, or ENOSPC when full
    uint32_t item_num;
    fp_item item[FP_ITEMS_MAX];
};

// The application of an ACL to a point: the actions. Made by apply_alloc and freed with apply_free
// by its allocator; apply_add copies it.
struct fp_apply {
    fp_acl_key key;  // the ACL, as given to apply_alloc
    fp_item_builder build_item;
    int (*add_item)(fp_apply* apply, const fp_item* item);  // copies; 0, or ENOSPC when full
    uint32_t item_num;
    fp_item item[FP_ITEMS_MAX];
};

// Increments since the last report of the same ACL.
struct fp_counts {
    uint64_t packets;
    uint64_t bytes;
};

// Priority of an apply among those of one point, as it is given with every apply.
inline constexpr uint32_t FP_APPLY_PRIORITY = 4;

// The operations, in the slots that programs built against this service expect. `context` is the
// object-database client that registered the handler table. Operations return 0 when they are
// accepted (the result follows), else an error number (nothing follows): EINVAL for an application
// that is not registered, ENOENT for an ACL, entry or apply that does not exist. The result of an
// object that was removed or replaced meanwhile is dropped.
struct fp_udp_mgr {
    // 0: makes an empty ACL. One that exists stays as it is; that is a success.
    int (*acl_create)(qv_mom_client* context, const fp_acl_key* key);
    // 1: removes an ACL with its entries and applies. No result follows.
    int (*acl_delete)(qv_mom_client* context, const fp_acl_key* key);
    // 2, 8, 16: the ACLs (entries, applies) that an earlier process left in the plane under the
    // name `app` expire at once; those of this process stay. `arg` is the session callback's
    // argument, for diagnostics of the service.
    int (*acl_expire_add)(void* arg, const char* app);
    void (*reserved_3)(void);
    void (*reserved_4)(void);
    void (*reserved_5)(void);
    // 6: adds a copy of the entry at the end of the ACL. The first entry decides what an apply
    // matches.
    int (*entry_add)(qv_mom_client* context, const fp_acl_key* key, const fp_entry* entry);
    // 7: removes the entry with this index, counted from 0. No result follows.
    int (*entry_delete)(qv_mom_client* context, const fp_acl_key* key, uint32_t index);
    // 8
    int (*entry_expire_add)(void* arg, const char* app);
    void (*reserved_9)(void);
    // 10: an entry without items, control 0; null when memory runs out.
    fp_entry* (*entry_alloc)(void);
    // 11: null is allowed.
    void (*entry_free)(fp_entry* entry);
    void (*reserved_12)(void);
    void (*reserved_13)(void);
    // 14: applies the ACL of `apply` at `point`, replacing what it had there.
    int (*apply_add)(qv_mom_client* context, const fp_apply_point* point, uint32_t priority,
                     const fp_apply* apply);
    // 15: removes the ACL from `point`; its counter reports end. No result follows.
    int (*apply_delete)(qv_mom_client* context, const fp_acl_key* key, const fp_apply_point* point);
    // 16
    int (*apply_expire_add)(void* arg, const char* app);
    void (*reserved_17)(void);
    // 18: an apply without actions for the ACL `key`; null when memory runs out.
    fp_apply* (*apply_alloc)(const fp_acl_key* key);
    // 19: null is allowed.
    void (*apply_free)(fp_apply* apply);
};

inline constexpr size_t FP_UDP_MGR_SLOTS = 20;
static_assert(sizeof(fp_udp_mgr) == FP_UDP_MGR_SLOTS * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, acl_delete) == 1 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, acl_expire_add) == 2 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, entry_add) == 6 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, entry_delete) == 7 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, entry_expire_add) == 8 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, entry_alloc) == 10 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, entry_free) == 11 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, apply_add) == 14 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, apply_delete) == 15 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, apply_expire_add) == 16 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, apply_alloc) == 18 * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_mgr, apply_free) == 19 * sizeof(void (*)(void)));

// Results and reports, on the main thread through the thread master. `context` is the client that
// registered the table; key and counts belong to the service and are valid during the call; the key
// is the one with which the ACL was created. A handler may call every operation. `context2` is
// null.
using fp_success_handler = void (*)(qv_mom_client* context, const fp_acl_key* key);
using fp_failed_handler = void (*)(qv_mom_client* context, const fp_acl_key* key, int error);
using fp_counter_handler = void (*)(qv_mom_client* context, const fp_acl_key* key, void* context2,
                                    const fp_counts* counts);

// The handlers of a process, by slot. Calls for an empty slot are dropped.
struct fp_udp_acl_handler {
    fp_success_handler acl_success;    // 0: acl_create
    fp_failed_handler acl_failed;      // 1
    fp_success_handler entry_success;  // 2: entry_add
    fp_failed_handler entry_failed;    // 3
    fp_success_handler apply_success;  // 4: apply_add
    fp_failed_handler apply_failed;    // 5; also later, when the plane loses an apply
    void (*reserved_6[4])(void);       // 6 to 9
    fp_counter_handler counter;        // 10: about once a second for each applied ACL that counts
    void (*reserved_11[5])(void);      // 11 to 15
};

inline constexpr size_t FP_UDP_HANDLER_SLOTS = 16;
static_assert(sizeof(fp_udp_acl_handler) == FP_UDP_HANDLER_SLOTS * sizeof(void (*)(void)));
static_assert(offsetof(fp_udp_acl_handler, counter) == 10 * sizeof(void (*)(void)));

// Registers an application; registering it again is not an error. 0, or EINVAL for a name that
// is empty or does not fit.
int fp_udp_register_app_type(const char* app);

// Attaches a client's session with database `db` to the service's result and counter stream, under
// a name for diagnostics. Without it no handler is called. 0, or EINVAL.
int fp_udp_cgst_register(qv_mom_client* client, uint32_t db, const char* name);

// Sets the handlers of the process, replacing earlier ones. The table is copied. 0, or EINVAL.
int fp_udp_register_acl_handler(qv_mom_client* client, uint32_t db,
                                const fp_udp_acl_handler* handlers);

// The operation table: static, valid for the life of the process, never null.
const fp_udp_mgr* fp_udp_get_mgr(void);

}  // extern "C"
