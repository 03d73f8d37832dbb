// Port-state client: keeps the interface records in step with the switch's ports, follows
// aggregate-port membership and the conversion of ports into virtual-switch links. Main thread.
#pragma once

#include <cstdint>

#include "lda_msg.h"

// Starts the client. 0 or -1.
int lda_lsm_init(void);
// Registers the events, each time the agent connects.
void lda_lsm_connect_handle(void);

// Event handlers; messages are 32-bit words, null with the port-ready event.
void lda_lsm_event_handle(uint32_t event, void* message);         // ports, aggregate membership
void lda_lsm_bridge_event_handle(uint32_t event, void* message);  // bridge membership
void lda_lsm_layer_inline_handle(uint32_t event, void* message);  // virtual-switch links

// The record of a port, made if there is none; null only when memory runs out. Takes the loop lock.
lda_intf_t* lda_add_intf(uint32_t ifx);
// Removes the record of a port, if there is one. Undoes nothing else of the port's state. Takes
// the loop lock.
void lda_del_intf(uint32_t ifx);

inline constexpr uint32_t LDA_NO_INTF = 0xFFFFFFFF;

// The port's shut-down flag, or LDA_NO_INTF.
uint32_t lda_get_intf_policy_with_intf(uint32_t ifx);
// 1 when the port's mode is access or hybrid, 0 for another, or LDA_NO_INTF.
uint32_t lda_get_src_with_intf(uint32_t ifx);
