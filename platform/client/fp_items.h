// Turns the items of an ACL entry and of an apply into a rule of the forwarding plane.
#pragma once

#include "platform/driver/forwarding_driver.h"
#include "qv/fp_udp.h"

namespace qv {

// Add the items to `rule`. 0, or an error number: EINVAL for an item of the wrong class or length,
// EOPNOTSUPP for one that no driver supports.
int read_matches(const fp_entry& entry, ForwardingRule& rule);
int read_actions(const fp_apply& apply, ForwardingRule& rule);

// The build_item of entries and applies: see fp_item_builder.
int build_item(fp_item* item, const char* name, uint32_t item_class, const void* value,
               uint32_t length);

}  // namespace qv
