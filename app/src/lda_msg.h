// Records and settings of the loop state: the loop set with one record for each port, the global
// policy, the recovery time and the clear interval.
//
// The port-state service announces a port, and the port gets its record (lda_lsm.h). A port "is in
// the loop table" while its total_result is set. The state in a record changes only in
// lda_state.cpp; the other fields name their writers. All state belongs to the main thread. The
// loop lock is taken to link and unlink records, and by the delivery thread, which looks records up
// and may set is_shutdown; the main thread reads the list without it.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <qv/thread.h>
#include "app_lock.h"
#include "app_shared.h"
#include "lda_index.h"
#include "lda_list.h"

inline constexpr size_t LDA_NAME_BYTES = 64;
inline constexpr uint16_t LDA_LOOP_MAX = 10;  // ports in the loop table at a time

// Detection sources.
inline constexpr uint32_t LDA_SOURCE_TARN = 0;
inline constexpr uint32_t LDA_SOURCE_STORM = 1;

// Loop policies.
inline constexpr uint32_t LDA_POLICY_DISABLED = 0;
inline constexpr uint32_t LDA_POLICY_WARNING = 1;
inline constexpr uint32_t LDA_POLICY_SHUT_ACCESS = 2;
inline constexpr uint32_t LDA_POLICY_SHUT_HYBRID = 3;
inline constexpr uint32_t LDA_POLICY_SHUT_ACCESS_HYBRID = 4;

// One port. Zero-filled heap block, owned by the loop set. lda_state.cpp writes the fields of the
// state; a comment names the other writers.
struct lda_intf_t {
    lda_list_t link;            // writers: lda_add_intf, lda_del_intf, lda_state.cpp
    qv_thread* clear_timer;     // state: the pending clear timer, or null
    uint32_t recover_ticks;     // state: 10-second ticks spent shut down by the agent
    uint32_t ifx;               // interface index, the key; writer: lda_add_intf, once
    char name[LDA_NAME_BYTES];  // short interface name; writer: lda_add_intf, once
    uint8_t total_result;       // state: 1 while the port is in the loop table
    uint8_t tarn_result;        // state: result of source 0, the byte as reported
    uint8_t storm_result;       // state: result of source 1
    uint32_t spare_word;        // state: cleared with the results
    qv_thread* shutdown_timer;  // state: cleared with the results; nothing arms it
    // State: 1 while the agent holds the port shut down. Two threads write it, both in
    // lda_state.cpp: the main thread, and the delivery thread when the switch has refused a
    // recovery. Access only through lda_intf_is_shutdown, lda_intf_set_shutdown and lda_intf_copy.
    uint8_t is_shutdown;
    // VLAN mode: 1 access, 7 hybrid, others are never shut down. Writers: lda_state.cpp when the
    // mode changes the state; lda_lsm.cpp for a new port and for one that leaves an aggregate port
    // or the bridge.
    uint32_t mode;
    int32_t mode_arg;     // ifx of the aggregate port it is a member of, or 0; writer: lda_lsm.cpp
    uint32_t vsl_member;  // 1 once it is a virtual-switch-link port; writer: lda_lsm.cpp
};
static_assert(sizeof(lda_intf_t) == 128);
static_assert(offsetof(lda_intf_t, link) == 0 && offsetof(lda_intf_t, clear_timer) == 16);
static_assert(offsetof(lda_intf_t, ifx) == 28 && offsetof(lda_intf_t, name) == 32);
static_assert(offsetof(lda_intf_t, tarn_result) == offsetof(lda_intf_t, total_result) + 1);
static_assert(offsetof(lda_intf_t, storm_result) == offsetof(lda_intf_t, total_result) + 2);
static_assert(offsetof(lda_intf_t, is_shutdown) == 112 && offsetof(lda_intf_t, vsl_member) == 124);

// The loop lock, for the analysis.
inline app_lock_t lda_loop_capability;

// The loop set: created once by lda_init and never freed.
struct lda_loop_set_t {
    lda_list_t list;       // of lda_intf_t; changed by lda_intf_link and lda_intf_unlink only
    pthread_mutex_t lock;  // recursive; also guards backup_node_list
    uint16_t intf_num;     // records in the list; changed with it
    uint16_t loop_num;     // records whose total_result is set; main thread
    uint32_t policy;       // LDA_POLICY_*; main thread
    // The records of the list by ifx; changed with it.
    lda_index<lda_intf_t> index;
};

// Recovery time of ports that were shut down.
struct lda_recover_time_t {
    uint32_t time;     // seconds
    uint8_t enabled;   // 0: recover at the next tick
    uint8_t spare[3];  // 0
};
static_assert(sizeof(lda_recover_time_t) == 8);

// One looped port in the result of lda_all_loop_result_get.
struct lda_loop_result_t {
    char name[LDA_NAME_BYTES];
    uint8_t tarn_result;
    uint8_t storm_result;
    uint8_t is_shutdown;
    uint32_t policy;  // 1 when the current policy shuts ports of this mode down, else 0
};
static_assert(sizeof(lda_loop_result_t) == 72 && offsetof(lda_loop_result_t, policy) == 68);

// ---- Created by lda_init, constant afterwards ----
extern lda_loop_set_t* g_lda_loop_set;
// ---- Main thread only ----
extern lda_recover_time_t g_lda_recover_time;
extern int32_t g_lda_clear_interval;  // seconds, 60 unless a debug command changes it

// ---- Fields shared with the delivery thread ----

// The main thread reads and writes is_shutdown without the loop lock, the delivery thread sets it
// under the lock.
inline uint8_t lda_intf_is_shutdown(const lda_intf_t* record) {
    return app_shared_get(record->is_shutdown);
}

inline void lda_intf_set_shutdown(lda_intf_t* record, uint8_t is_shutdown) {
    app_shared_set(record->is_shutdown, is_shutdown);
}

// A full copy of a record, the starting point of a proposed change.
lda_intf_t lda_intf_copy(const lda_intf_t* record);

// ---- Records and settings ----

// The global policy, without the loop lock.
void lda_loop_detect_ptype_set(uint32_t policy);
uint32_t lda_loop_detect_ptype_get(void);

// True when `policy` shuts ports of VLAN mode `mode` down.
bool lda_policy_shuts_mode(uint32_t policy, uint32_t mode);
// True for the modes on which a shutdown policy can act, access and hybrid.
bool lda_mode_is_shuttable(uint32_t mode);
// 1 when the current policy would shut this port down, else 0.
uint32_t lda_intf_policy_get(const lda_intf_t* record);

void lda_cli_recover_time_set(uint32_t time, uint8_t enabled);
// Seconds, 0 while recovery is disabled.
uint32_t lda_cli_recover_time_get(void);

// Link a new record at the end of the list, and unlink a record, which the caller then owns.
void lda_intf_link(lda_intf_t* record) APP_REQUIRES(lda_loop_capability);
void lda_intf_unlink(lda_intf_t* record) APP_REQUIRES(lda_loop_capability);

// Returns the first record of the list with this interface index, or null. Valid until the port is
// deleted. The delivery thread calls it under the loop lock.
lda_intf_t* lda_loop_result_get(uint32_t ifx);

// Fills `array`, which has room for LDA_LOOP_MAX entries, with the looped ports in list order;
// returns how many. 0 while detection is disabled.
int lda_all_loop_result_get(lda_loop_result_t* array);
