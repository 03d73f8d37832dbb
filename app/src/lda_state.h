// State of the ports: loop reports, policy, shut-down flag, loop table and timers. Only
// lda_state.cpp changes this state.
//
// Main thread, except for lda_intf_recovery_refused. No other function takes the loop lock; a
// caller holds it where records must stay linked.
#pragma once

#include <cstdint>

#include <qv/thread.h>
#include "lda_cli_delivery.h"
#include "lda_msg.h"

struct storm_loop_msg;

// ---- A report ----

// Records the result that a source reports for a port (0 no loop, else loop). Reports for unknown
// ports are dropped.
void lda_loop_result_set(uint32_t source, uint8_t result, uint32_t ifx);
// The same for the storm detector. Returns 0.
int lda_loop_result_set_for_storm(const storm_loop_msg* report);

// ---- The policy ----

// Applies the policy to a looped port; `again` when the source already held a loop.
void lda_loop_exec_policy(lda_intf_t* record, bool again);

// Marks a port as shut down by the agent (1) or not (0) and requests the consequences. Returns 0,
// or -1 for a port without a record, which is added to or removed from the pending-interface list.
int lda_cli_intf_shutdown_by_lda_cmd(uint32_t ifx, uint8_t shutdown);

// Applies a proposed change of loop state, shut-down flag and mode: stores it, requests the
// shutdown or recovery, and notifies. `proposed` is a full copy of `current` with the new values.
// Clears the proposed shut-down flag while detection is disabled. Returns 1.
int lda_intf_ret_proc(lda_intf_t* current, lda_intf_t* proposed);

// ---- The loop table ----

// Enters a port in the loop table, or reports that the table is full.
void lda_loop_result_add(lda_intf_t* record);

// Arms the clear timer of a port that is quiet, not held shut down and has none pending.
void lda_clear_loop_timer(lda_intf_t* record);

// Clear timer of a port (the timer's argument is its record): removes it from the loop table and
// reports the end of the loop. A record that was deleted meanwhile is freed; its end is not
// reported when a port of its name loops. Returns 0, or -1 without an argument.
int lda_intf_loop_clear(qv_thread* timer);

// ---- Recovery ----

// Arms the next recovery tick; once at start-up, then from the tick itself. A failure is logged.
void lda_loop_policy_timer(void);
// Recovery tick: every 10 seconds counts for the ports that are held shut down, and recovers them.
// Returns 0, or -1, without another tick, when called without a timer.
int lda_intf_shutdown_timer_call(qv_thread* timer);

// Marks a port as shut down again because the switch has refused to bring it up; does nothing for
// a port without a record. Delivery thread; takes the loop lock.
void lda_intf_recovery_refused(uint32_t ifx);

// ---- Changes without a report ----

// Clears the results of both sources for a port, without any consequence.
void lda_intf_forget_results(lda_intf_t* record);

// Takes ownership of an unlinked record: frees it, or keeps it until its pending clear timer has
// fired.
void lda_intf_release(lda_intf_t* record);

// Resets the loop state of every port, loop_num and the policy, without any message.
void lda_all_loop_result_clear(void);

// Sets the shut-down flag of the port of `message` and notifies the change if it is looped.
// Nothing calls it.
void lda_intf_policy_chg_proc(const lda_cli_msg_t* message);
// Visitor of that walk: 1 for the message's port, else 0.
uint32_t lda_intf_policy_chg_cbk(lda_intf_t* record, const uint32_t* message);

// Announces the end of a port's loop. Part of the loop-removal tool set; nothing calls it.
void lda_intf_loop_del(lda_intf_t* record);
// Non-zero when detection is enabled or `flag` is 0. Nothing calls it.
int lda_intf_shutdownable(uint32_t flag);
