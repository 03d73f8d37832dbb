// Controls of the fake forwarding-plane service. Its calls join the list of fake_qv.h:
//     fp_acl_create 101 flags=260
//     fp_entry_add 101 control=1 l2_da_hit=00 l3_uc=0100000000000000
//     fp_apply_add 101 at type=2 port=101 with 4 meter=5000/1024 counter=00000000 fwd=0006ff
//     fp_apply_delete 101 at type=2 port=101
// A number after an operation is the ACL id. The lines show items of the wrong class, wrong
// application names and wrong contexts. Every operation can be made to fail by its name; an
// allocation and fp_udp_get_mgr then return null. Building and adding items is not recorded; it is
// counted and fails under fp_entry_build_item, fp_entry_add_item, fp_apply_build_item and
// fp_apply_add_item. Nothing is answered by itself: a test calls the handlers.
#pragma once

#include <cstdint>
#include <vector>

#include "qv/fp_udp.h"

namespace fake {

// The table that was registered last, empty before.
const fp_udp_acl_handler& fp_handlers();
// How often a table was registered.
int fp_registrations();

// The arguments of the last call of each kind, byte for byte.
const fp_acl_key& fp_created_key();
const fp_acl_key& fp_deleted_key();
const fp_acl_key& fp_entry_key();
const fp_acl_key& fp_entry_delete_key();
const fp_acl_key& fp_apply_key();
const fp_acl_key& fp_unapplied_key();
const fp_apply_point& fp_point();
const std::vector<fp_item>& fp_entry_items();
const std::vector<fp_item>& fp_apply_items();

// Entries and applies that were allocated and not freed.
int fp_objects();

// A key as the service passes it to handlers.
fp_acl_key fp_key(uint32_t acl_id, const char* app = "loop_detection_app");

}  // namespace fake
