// Attributes that several kinds of packet-filter messages share.
#pragma once

#include <cstdint>

#include <linux/netfilter/nf_tables.h>

namespace qv {

// The table's name: the same number in messages about tables, chains, rules, sets, elements and
// counters.
inline constexpr uint16_t kNftTableName = NFTA_TABLE_NAME;
static_assert(kNftTableName == NFTA_CHAIN_TABLE && kNftTableName == NFTA_RULE_TABLE &&
              kNftTableName == NFTA_SET_TABLE && kNftTableName == NFTA_SET_ELEM_LIST_TABLE &&
              kNftTableName == NFTA_OBJ_TABLE);

}  // namespace qv
