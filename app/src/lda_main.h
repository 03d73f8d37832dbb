// The core of the agent: start-up, readiness, object-database sessions, loop-entry publication, and
// the list of ports that the saved configuration names before they exist.
//
// Everything but the command-delivery thread runs as callbacks of the thread master that `main`
// drives. Unless a call says otherwise it belongs to the main thread.
#pragma once

#include <pthread.h>

#include <cstdint>

#include <qv/mom.h>
#include <qv/thread.h>
#include "lda_list.h"
#include "lda_msg.h"

// ---- Constant after start-up ----
extern const char* module_name;         // "lda"
extern qv_thread_master* g_lda_master;  // the event loop; null before main has made it
extern qv_mom_client* g_lda_global;     // the object-database client
extern uint32_t g_flag;                 // start-up options; bit LDA_FLAG_NO_ROLE
extern uint32_t db_array[3];            // the object databases in use: 4, 22, 3
extern uint32_t db_num;                 // entries in db_array

// Bit of g_flag: do not register with the redundancy service.
inline constexpr uint32_t LDA_FLAG_NO_ROLE = 0x10;

// ---- Main thread only ----
extern qv_thread g_thread;  // the task that the main loop runs
// Readiness, 0 at start; no flag is ever cleared.
extern uint8_t cli_ready;        // the saved configuration has been replayed
extern uint8_t mom_cfg_ready;    // configuration database connected
extern uint8_t mom_local_ready;  // local database connected, its subscription placed
extern uint8_t mom_app_ready;    // application database connected, stale loop entries purged
extern uint8_t lsm_port_ready;   // all initial ports are known
extern uint8_t mom_storm_ready;  // the storm detector is up

// ---- Guarded by the loop lock ----
// Ports to be marked as shut down when they appear. The nodes have the shape of interface records
// with only `ifx` and `is_shutdown` set.
extern lda_list_t backup_node_list;

// ---- Start-up ----

// Gives the recovery time its default and creates the loop set, the pending-interface list and the
// command queue. 0, or -1 when memory runs out; then only a stale pointer is left.
int lda_init(void);

// Role callback: builds the whole agent. Called at most once. Returns 0; a failure ends the
// process with status -1.
int hot_standby_callback(void);

// Tells the CLI framework that the agent is ready, when all five conditions are met; again at each
// later call.
void lda_try_notify_cli_ready(void);
// Readiness callback of the storm detector.
void lda_storm_ready(void);

// Hooks around the replay of the saved configuration.
uint32_t lda_cli_reload_start_handle(uint32_t word);  // returns `word`
void lda_cli_reload_end_handle(void);

// ---- Loop table ----

// Lock and unlock the loop set (recursive; any thread). Return the mutex call's result.
int lda_loop_lock(void) APP_ACQUIRE(lda_loop_capability);
int lda_loop_unlock(void) APP_RELEASE(lda_loop_capability);

// The loop lock for the length of a block.
class APP_SCOPED_LOCK lda_loop_guard {
 public:
    lda_loop_guard() APP_ACQUIRE(lda_loop_capability) { lda_loop_lock(); }
    ~lda_loop_guard() APP_RELEASE() { lda_loop_unlock(); }
    lda_loop_guard(const lda_loop_guard&) = delete;
    lda_loop_guard& operator=(const lda_loop_guard&) = delete;
};

using lda_loop_visitor = uint32_t (*)(lda_intf_t* record, const uint32_t* argument);

// Calls the visitor for every record in list order and returns the first for which it returned
// non-zero, else null. The visitor may unlink and free its record. Takes no lock.
lda_intf_t* lda_loop_result_walk(lda_loop_visitor visitor, const uint32_t* argument);

// ---- Utilities ----

// Makes a condition variable on the monotonic clock. 0 or -1. Any thread.
int lda_pthread_cond_init(pthread_cond_t* cond);

// The temporary directory directly followed by `name`, cut to 63 characters, in a static buffer
// that the next call overwrites.
char* lda_make_path(const char* name);

// ---- Object-database sessions: 22 configuration, 3 local, 4 application ----

// Open a session and set its callbacks. 0 or -1.
int lda_mom_cfg_db_reg_callback(void);
int lda_mom_local_db_reg_callback(void);
int lda_mom_app_db_reg_callback(void);

// Session callbacks; the argument is not used. Return 0.
int lda_mom_cfg_db_connect(void* arg);
int lda_mom_cfg_db_reconnect(void* arg);
int lda_mom_cfg_db_disconnect(void* arg);
int lda_mom_local_db_connect(void* arg);
int lda_mom_local_db_reconnect(void* arg);
int lda_mom_local_db_disconnect(void* arg);
int lda_mom_app_db_connect(void* arg);
int lda_mom_app_db_reconnect(void* arg);
int lda_mom_app_db_disconnect(void* arg);

// ---- Pending-interface list ----

// Adds a port unless it is listed already. Silent when memory runs out.
void lda_back_node_add(uint32_t ifx);
// 1 when the port is on the list, else 0.
int lda_back_node_lookup(uint32_t ifx);
// Removes the port, if it is listed.
void lda_back_node_del(uint32_t ifx);
