// Bridge-agent client: re-judges the ports whose VLAN mode changes. Main thread.
#pragma once

#include <cstdint>

#include <qv/bridge.h>
#include "lda_msg.h"

// Starts the client. 0 or -1.
int lda_bridge_init(void);
// Selects the events, on each connection to the bridge agent.
void lda_bridge_con_handle(void);
// Handles one event; holds the loop lock meanwhile.
void lda_bridge_handle(uint32_t event, const void* payload);

// Applies a mode change to its port, or to the members of its aggregate port. Returns
// the record of the port itself, or null. The caller holds the loop lock where needed.
lda_intf_t* lda_intf_mod_change(const bridge_mode_change* payload);
// Visitor of that walk; `payload` is the interface index followed by the new mode.
uint32_t lda_brid_intf_mod_chg_cbk(lda_intf_t* record, const uint32_t* payload);
