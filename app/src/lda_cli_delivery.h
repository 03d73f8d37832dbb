// Command delivery: a queue of small messages and the one thread that executes them.
//
// The agent changes the switch's configuration by executing command lines, which may block and may
// re-enter the agent's own handlers. So lines are never executed where loops are handled: the main
// thread posts a message (lda_cli_post.h), and the thread "lda_cli_delivery" executes the messages
// one at a time in posting order (lda_cli_exec.h), without holding the queue lock. A message is a
// value, never a pointer to a record.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "app_lock.h"
#include "lda_list.h"

// Module selector of a message: the detection feature that its command lines configure.
inline constexpr uint32_t LDA_MID_TARN = 0;
inline constexpr uint32_t LDA_MID_STORM = 1;
inline constexpr uint32_t LDA_MID_BOTH = 2;

// Message types; any other value is logged and dropped.
inline constexpr uint32_t LDA_CLI_MSG_NONE = 0;          // no work
inline constexpr uint32_t LDA_CLI_MSG_INTF_ENABLE = 1;   // lda_intf_loop_cmd_enable
inline constexpr uint32_t LDA_CLI_MSG_SHUTDOWN = 2;      // cli_exec_shutdown
inline constexpr uint32_t LDA_CLI_MSG_APPLY = 3;         // cli_exec_loop_apply_shutdown
inline constexpr uint32_t LDA_CLI_MSG_DISABLE = 4;       // lda_loop_cmd_disable
inline constexpr uint32_t LDA_CLI_MSG_ENABLE = 5;        // lda_loop_cmd_enable
inline constexpr uint32_t LDA_CLI_MSG_INTF_DEFAULT = 6;  // lda_intf_default_cmd

// One message: a heap node, made by the poster and freed by the thread.
struct lda_cli_msg_t {
    lda_list_t link;
    uint8_t enable;              // 1 enable, 0 disable; filled by lda_loop_cmd_send only
    uint32_t mid;                // LDA_MID_*
    uint32_t ifx;                // the port, 0 for all ports
    uint32_t type;               // LDA_CLI_MSG_*
    uint32_t new_type;           // the new policy, or the current one
    uint32_t old_type;           // the previous policy
    uint8_t shutdown;            // 1 shut the port down, 0 bring it up
    uint8_t is_config_delivery;  // 1 after a reload; stays with the poster's own copy
};
static_assert(sizeof(lda_cli_msg_t) == 48);
static_assert(offsetof(lda_cli_msg_t, mid) == 20 && offsetof(lda_cli_msg_t, shutdown) == 40);

// The queue lock, for the analysis.
inline app_lock_t lda_cli_msg_capability;

// The queue: created once by lda_init and never freed. It has no bound.
struct lda_cli_msg_set_t {
    lda_list_t list APP_GUARDED_BY(lda_cli_msg_capability);  // of lda_cli_msg_t, oldest first
    pthread_cond_t cond;   // signalled once per message; monotonic clock
    pthread_mutex_t lock;  // taken after the loop lock and before the log lock
    uint16_t count APP_GUARDED_BY(lda_cli_msg_capability);  // messages in the list
};

extern lda_cli_msg_set_t* g_lda_cli_msg_set;

// Lock and unlock the queue. Any thread.
void lda_cli_msg_lock(void) APP_ACQUIRE(lda_cli_msg_capability);
void lda_cli_msg_unlock(void) APP_RELEASE(lda_cli_msg_capability);

// Body of the delivery thread; ends only when the thread cannot be set up. Then nothing drains the
// queue any more.
void* lda_cli_msg_thread_init(void* arg);
// Takes and executes messages; never returns.
void lda_cli_msg_thread_proc(void);
