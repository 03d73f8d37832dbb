// Bridge-agent client: VLAN-mode changes of ports, and the one routine through which every change
// of a record's loop state, shut-down flag or VLAN mode is applied. Main thread.
#pragma once

#include <cstdint>

#include <qv/bridge.h>
#include "lda_msg.h"

// Starts the client. 0 or -1.
int lda_bridge_init(void);
// Places the event selection, on each connection of the bridge agent.
void lda_bridge_con_handle(void);
// Takes one event; holds the loop lock meanwhile.
void lda_bridge_handle(uint32_t event, const void* payload);

// Applies a mode change to the port or to the members of the aggregate port it is about. Returns
// the record of the port itself, or null. The caller holds the loop lock where needed.
lda_intf_t* lda_intf_mod_change(const bridge_mode_change* payload);
// Visitor of that walk; `payload` is the interface index followed by the new mode.
uint32_t lda_brid_intf_mod_chg_cbk(lda_intf_t* record, const uint32_t* payload);

// Applies what `proposed`, a full copy of `current` with new values, changes in loop state,
// shut-down flag and mode: stores it, asks for the shutdown or recovery, notifies. Clears the
// proposed shut-down flag while detection is disabled. Returns 1. The caller holds the loop lock
// where needed.
int lda_intf_ret_proc(lda_intf_t* current, lda_intf_t* proposed);

// Announces the end of a port's loop. Part of the loop-removal tool set; nothing calls it.
void lda_intf_loop_del(lda_intf_t* record);
// Non-zero when detection is enabled or `flag` is 0. Nothing calls it.
int lda_intf_shutdownable(uint32_t flag);
