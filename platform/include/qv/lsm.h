// Link/port state manager client: which ports exist, what they are, and what happens to them.
//
// Main thread only. Events are selected by class, interface type and event mask, and reach the
// handler of their class through the thread master. Messages are arrays of 32-bit words, valid
// during the call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qv/thread.h"

extern "C" {

// Event classes.
inline constexpr int LSM_CLASS_LAYER = 2;       // layer change, virtual switch link
inline constexpr int LSM_CLASS_BRIDGE = 5;      // bridge membership
inline constexpr int LSM_CLASS_PORT = 26;       // port added, deleted, set to its defaults
inline constexpr int LSM_CLASS_AGGREGATE = 27;  // aggregate-port membership

// Events of class LSM_CLASS_PORT; word 0 of the message is the interface index.
inline constexpr uint32_t LSM_EVENT_ADD = 0;
inline constexpr uint32_t LSM_EVENT_DELETE = 1;
inline constexpr uint32_t LSM_EVENT_DEFAULT = 2;
// Event of class LSM_CLASS_BRIDGE: the port left its bridge; word 0 is the interface index.
inline constexpr uint32_t LSM_EVENT_BRIDGE_LEAVE = 1;
// Event of class LSM_CLASS_AGGREGATE: word 0 is 0 for joined and 1 for left, word 1 the aggregate
// port, word 34 the member port.
inline constexpr uint32_t LSM_EVENT_AGGREGATE_MEMBER = 11;
inline constexpr size_t LSM_AGGREGATE_MESSAGE_WORDS = 35;
// Events of class LSM_CLASS_LAYER: word 0 is the interface index, word 56 the port flags.
inline constexpr uint32_t LSM_EVENT_VSL_CREATE = 0;
inline constexpr uint32_t LSM_EVENT_VSL_REMOVE = 1;
inline constexpr size_t LSM_LAYER_MESSAGE_WORDS = 57;
inline constexpr uint32_t LSM_LAYER_FLAG_VSL = 0x400;
// Sent once to every handler, without a message (null), when all initial ports have been announced.
inline constexpr uint32_t LSM_EVENT_PORT_READY = 48;

// Interface types. 2 to 10 are the switched ports.
inline constexpr uint32_t LSM_TYPE_OTHER = 1;
inline constexpr uint32_t LSM_TYPE_ETHERNET = 2;
inline constexpr uint32_t LSM_TYPE_AGGREGATE = 10;
inline constexpr uint32_t LSM_TYPE_VLAN = 11;

// Flags of lsm_if_get_flags.
inline constexpr uint32_t LSM_IF_FLAG_HIDDEN = 0x1;  // not part of the configuration
// Flags of the control block.
inline constexpr uint32_t LSM_INTFCB_FLAG_SWITCHPORT = 0x2;

inline constexpr size_t LSM_TYPE_BITMAP_BYTES = 16;

// Interface control block. Owned by the LSM, valid until the port is deleted.
struct lsm_intfcb {
    uint32_t ifx;
    uint32_t flags;  // LSM_INTFCB_FLAG_*
};

// Runs through the thread master, never inside a call of this header. The message belongs to the
// client library; the handler must not free it.
using lsm_event_handler = void (*)(uint32_t event, void* message);

// Starts the agent. The connect callback runs through `master` each time the agent connects and may
// call everything here. 0 or -1.
int lsm_agent_init(const char* name, qv_thread_master* master);
void lsm_agent_set_connect_callback(void (*callback)(void));

// Registration, between the connect callback and lsm_client_reg_event_over. Mode 2 asks for the
// ports that exist to be announced as added, followed by LSM_EVENT_PORT_READY.
int lsm_client_set_mode(int mode);
// Selects the events of a class: bit n of the 16-byte bitmap selects interface type n, bit n of
// `event_mask` event n. A later selection of the same class adds to the earlier one.
int lsm_client_reg_event_ex(int event_class, const uint8_t* type_bitmap, uint32_t event_mask);
int lsm_reg_msg_handler_ex(int event_class, lsm_event_handler handler);
int lsm_client_reg_event_over(void);

// Short name of a port into `name` (at most `size` bytes with the terminator). 0, or -1 (empty
// name) for an unknown port.
int lsm_if_get_sname(uint32_t ifx, char* name, size_t size);
// Control block, or null for an unknown port.
const lsm_intfcb* lsm_get_intfcb(uint32_t ifx);
// Interface type, 0 for an unknown port.
uint32_t lsm_if_get_type(uint32_t ifx);
// Interface flags, LSM_IF_FLAG_HIDDEN for an unknown port.
uint32_t lsm_if_get_flags(uint32_t ifx);
// Calls `handler` for every port in ascending interface index, inside this call. The handler may
// cause ports to be added and removed. A non-zero result ends the walk and is returned, else 0.
int lsm_walk_through_ex(int (*handler)(uint32_t ifx, void* arg), void* arg);

}  // extern "C"
