// Changes of the loop policy: publication, re-judgement of the looped ports, and the message that
// switches the detection features. Main thread; the caller holds the loop lock where needed.
#pragma once

#include <cstdint>

#include "lda_cli_delivery.h"
#include "lda_msg.h"

// Highest value lda_cli_policy_set accepts, one above the highest policy.
inline constexpr uint32_t LDA_POLICY_LIMIT = 5;

// Sets the policy. 0, or -2 for a value above LDA_POLICY_LIMIT.
int lda_cli_policy_set(uint32_t policy);
uint32_t lda_cli_detect_policy_get(void);

// Name of a policy for display, "N/A" for a value without one. Static text.
const char* detect_loop_policy_type(uint32_t policy);

// Re-judges every port under the change that `change` describes (old_type, new_type,
// is_config_delivery).
void lda_policy_chg_notify_ntf(const lda_cli_msg_t* change);
// Visitor of that walk; `change` is the message. Returns 0.
uint32_t lda_cfg_policy_chg_cbk(lda_intf_t* record, const uint32_t* change);
