// Storm detection: counter-and-meter rules in the forwarding plane, their polling and judgement.
//
// Every watched port has a rule that counts and meters the frames whose destination is unknown.
// Counter reports add up in the port's record (storm_port_info, storm_cli.h); every 4 seconds the
// timer "loop_check" judges each record: three polls in a row over the rate are a loop, ten counted
// polls without such a run end it. storm_detect.cpp holds start-up and judgement, storm_rule.cpp
// the rules, storm_dump.cpp the diagnostics. Main thread only. No function here takes a lock,
// but a failed apply ends in storm_del_list (storm_cli.h), which does.
#pragma once

#include <cstddef>
#include <cstdint>

#include <qv/cli.h>
#include <qv/fp_udp.h>
#include <qv/mom.h>
#include <qv/thread.h>
#include "storm_cli.h"

// A verdict, handed to the loop state engine. Valid during the call.
struct storm_loop_msg {
    uint8_t is_loop;  // 1 loop, 0 loop removed
    uint32_t ifx;
    uint32_t reserved;  // 0
};
static_assert(sizeof(storm_loop_msg) == 12 && offsetof(storm_loop_msg, ifx) == 4);

using storm_notify_msg_proc = int (*)(const storm_loop_msg* msg);
using storm_notify_ready_msg = void (*)(void);

// Statistics over all ports, never reset.
struct storm_opt_statics {
    int64_t get_cnt_times;        // one per record and poll
    int64_t get_fail_times;       // always 0, shown by the diagnostics
    int64_t notify_loop_times;    // loop notifications, repetitions not counted
    int64_t notify_unloop_times;  // loop removed notifications of the poll
    uint32_t flow_over_times;     // latest run of over-rate polls of any record
    uint32_t fix_notify_times;    // repetitions
};
static_assert(sizeof(storm_opt_statics) == 40);

inline constexpr char STORM_APP_NAME[] = "loop_detection_app";
inline constexpr long STORM_POLL_PERIOD_S = 4;

extern qv_thread_master* g_storm_master;
extern qv_mom_client* g_storm_global;
extern qv_thread* g_storm_thread;  // slot of the poll timer
extern storm_notify_msg_proc notify_msg_proc;
extern storm_notify_ready_msg notify_ready_msg;
extern uint32_t g_pps_value;  // default rate, packets per second
extern fp_udp_acl_handler g_storm_udp_handler;
extern const fp_udp_mgr* storm_udp_mgr;  // null until the session with database 8 is up
extern storm_opt_statics std_opt_statics;

// ---- Start-up (storm_detect.cpp) ----

// Starts the detector: default rate, handler table, session with database 8, commands, poll timer.
// `verdict` receives every verdict, `ready` is called once the session is up. Failures are logged
// and do not stop it. Returns 0.
int storm_init(qv_thread_master* master, qv_mom_client* client, storm_notify_msg_proc verdict,
               storm_notify_ready_msg ready);

// Loads g_pps_value from the capability store; on failure it does not change.
void std_load_cap_value(void);

// Callbacks of the session with database 8. Return 0.
int storm_mom_udp_db_connect(void* arg);
int storm_mom_udp_db_reconnect(void* arg);
int storm_mom_udp_db_disconnect(void* arg);

// Lets the ACLs, entries and applies of an earlier process expire.
void storm_fp_expire_add(void* arg);

// ---- Judgement (storm_detect.cpp) ----

// Counter report: adds the increments to the record of the ACL. Reports of other applications and
// unknown ACLs are ignored.
void std_counter_msg(qv_mom_client* context, const fp_acl_key* acl_key, void* context2,
                     const fp_counts* counts);

// Poll timer: judges every record and arms the timer again; polling ends for good when that fails.
// A verdict's callback may drop any record. Returns 0.
int storm_deal_counter_timeout(qv_thread* thread);
void storm_deal_counter(storm_port_info* info);

// Builds the verdict of a record in `msg` and passes it to the callback. Returns the callback's
// result, or -1 when the port has no interface.
int storm_notify_lda(storm_loop_msg* msg, storm_port_info* info);
int storm_constuct_info(storm_loop_msg* msg, uint32_t phyid, uint8_t is_loop);

// Removes a record from the list, even during a poll, and frees it.
void storm_port_drop(storm_port_info* info);

// ---- Rules (storm_rule.cpp) ----

// Installs, changes (`is_add`) or removes the detection of one interface. Burst 0 means 1024.
void storm_set_rate_burst(uint32_t ifx, uint32_t rate, uint32_t burst, bool is_add);

// Creates and applies the port rule. 0, or -1; what was created before a failure stays.
int storm_enable_by_fp(uint32_t rate, uint32_t burst, uint32_t phyid);
// The same, and a record for it: 0, the error of the installation, or -2 without memory.
int storm_add_by_fp(uint32_t rate, uint32_t burst, uint32_t phyid);

// Removes the port rule and the record, if there is one, after notifying the end of its loop. 0, or
// the error with the record kept.
int storm_del_storm_detect(uint32_t phyid);
// Remove the port rule, the shared rule. Return 0.
int storm_del_storm_fp(uint32_t phyid);
int storm_del_mpls_fp(void);

// One service operation each. Only std_acl_unapply reports a missing service: -1, else 0.
void std_acl_create(uint32_t acl_id);
void std_acl_delete(uint32_t acl_id);
void std_ace_entry_delete(uint32_t acl_id);
int std_acl_unapply(uint32_t phyid, uint32_t acl_id, uint32_t type);

// Results of the service. Only a failed apply has an effect: the port is removed from detection and
// its configuration is dropped.
void storm_install_on_acl_success(qv_mom_client* context, const fp_acl_key* acl_key);
void storm_install_on_acl_failed(qv_mom_client* context, const fp_acl_key* acl_key, int error);
void storm_install_on_ace_success(qv_mom_client* context, const fp_acl_key* acl_key);
void storm_install_on_ace_failed(qv_mom_client* context, const fp_acl_key* acl_key, int error);
void storm_install_on_apply_success(qv_mom_client* context, const fp_acl_key* acl_key);
void storm_install_on_apply_failed(qv_mom_client* context, const fp_acl_key* acl_key, int error);

// ---- Diagnostics (storm_dump.cpp) ----

// The last branch of the debug tree.
extern const cli_node Tapp_dbg_storm_detect_kw;

// Handler of the debug command "storm-detect": a table of all records on the command line. Returns
// 0.
int app_cli_storm_detect(cli_pcdb* pcdb);

// For a debugger or a test: print all records, the statistics, to standard output.
void storm_dump_all_port_info(void);
void storm_dump_all_cnt(void);

inline constexpr size_t STORM_NAME_BYTES = 64;

// Interface index and short name (STORM_NAME_BYTES of room) of a forwarding-plane port. 0, or 1
// when it has no interface.
int storm_get_ifx_by_phyid(uint32_t phyid, uint32_t* ifx, char* name);
