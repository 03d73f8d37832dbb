// Bridge agent and VLAN client: VLAN modes of ports and their changes. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qv/thread.h"

extern "C" {

// Port VLAN modes. (0 is a port that is in no bridge.)
inline constexpr uint32_t SWPORT_MODE_NONE = 0;
inline constexpr uint32_t SWPORT_MODE_ACCESS = 1;
inline constexpr uint32_t SWPORT_MODE_TRUNK = 2;
inline constexpr uint32_t SWPORT_MODE_HYBRID = 7;

// Event number of a VLAN-mode change.
inline constexpr uint32_t BRIDGE_EVENT_MODE_CHANGE = 415;

// Event selection: event n is bit n % 64 of word n / 64.
inline constexpr size_t BRIDGE_EVENT_WORDS = 64;
struct bridge_event_set {
    uint64_t word[BRIDGE_EVENT_WORDS];
};

// Payload of BRIDGE_EVENT_MODE_CHANGE. For a member of an aggregate port only the change of the
// aggregate is announced.
struct bridge_mode_change {
    uint32_t ifx;
    uint32_t mode;
};

// Runs through the thread master, never inside a call of this header. The payload belongs to the
// client and is valid during the call.
using bridge_event_handler = void (*)(uint32_t event, const void* payload);

// Starts the client; the connect callback runs through `master` on each connection and may call
// everything here. 0 or -1.
int bridge_agent_init(const char* name, qv_thread_master* master);
void bridge_agent_set_connect_callback(void (*callback)(void));
// Selects the events that reach `handler`, replacing an earlier selection. 0 or an error number.
int bridge_client_reg_event(const bridge_event_set* events, bridge_event_handler handler);

// VLAN mode of a port: two names of one call. 0, or -1 with `*mode` 0 for an unknown port.
int vl_clnt_get_portmode_by_index(uint32_t ifx, uint32_t* mode);
int swport_get_port_mode(uint32_t ifx, uint32_t* mode);
// Name of a mode ("access", "trunk", "hybrid"), "none" for any other value. Static text.
const char* swport_vlan_mode_name(uint32_t mode);

}  // extern "C"
