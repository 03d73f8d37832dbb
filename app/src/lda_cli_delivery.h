// Command delivery: a queue of small messages and the one thread that works them off.
//
// Everything the agent changes in the switch's configuration is done by executing command lines,
// which may block and may re-enter the agent's own handlers. So it is never done where loops are
// handled: the main thread posts a message, and the thread "lda_cli_delivery" executes, one message
// at a time in posting order, without any lock of this queue. What crosses is a value, never a
// pointer to a record.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <qv/cli.h>
#include "lda_list.h"

// Module selector of a message: which detection feature its command lines are about.
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
    uint32_t ifx;                // the port, 0 for messages about all of them
    uint32_t type;               // LDA_CLI_MSG_*
    uint32_t new_type;           // the new policy, or the current one
    uint32_t old_type;           // the previous policy
    uint8_t shutdown;            // 1 shut the port down, 0 bring it back
    uint8_t is_config_delivery;  // 1 after a reload; stays with the poster's own copy
};
static_assert(sizeof(lda_cli_msg_t) == 48);
static_assert(offsetof(lda_cli_msg_t, mid) == 20 && offsetof(lda_cli_msg_t, shutdown) == 40);

// The queue: created once by lda_init and never freed. It has no bound.
struct lda_cli_msg_set_t {
    lda_list_t list;       // of lda_cli_msg_t, oldest first; guarded by `lock`
    pthread_cond_t cond;   // signalled once per message; monotonic clock
    pthread_mutex_t lock;  // taken after the loop lock and before the log lock
    uint16_t count;        // messages in the list; guarded by `lock`
};

extern lda_cli_msg_set_t* g_lda_cli_msg_set;

// Output of one command line that is kept, with its terminator.
inline constexpr size_t LDA_CLI_OUTPUT_BYTES = 513;
// Result of a command line that printed something: the switch refused it.
inline constexpr int32_t LDA_CLI_REFUSED = 2;

// Post a copy of `message` (its links are ignored). Returns the result of signalling the thread;
// on failure the message is lost and the result is that of releasing the log lock. Any thread.
int lda_cli_cmd_send(const lda_cli_msg_t* message);
// Posts a message of type 0 with these three fields, with the same result.
int lda_loop_cmd_send(uint8_t enable, uint32_t mid, uint32_t ifx);

// Body of the delivery thread; ends only when the thread cannot be set up. Then nothing drains the
// queue any more.
void* lda_cli_msg_thread_init(void* arg);
// Takes and works off messages for ever.
void lda_cli_msg_thread_proc(void);

// ---- On the delivery thread ----

// Mode in which a line is executed: 0 global configuration, 1 the port's interface mode.
inline constexpr uint32_t LDA_CLI_MODE_CONFIG = 0;
inline constexpr uint32_t LDA_CLI_MODE_INTERFACE = 1;
void lda_cli_mode_set(uint32_t ifx, uint32_t mode, cli_mode* descriptor);

// Executes one command line on an open session. Negative: not executed. LDA_CLI_REFUSED: it printed
// something. Else the framework's own result.
int32_t lda_loop_cmd_execute(int session, const char* line, const cli_mode* mode);

// Takes the output of a line into the LDA_CLI_OUTPUT_BYTES at `user`, cut to fit; the buffer was
// zero-filled before.
void cmd_exec_out_cback(const char* text, size_t length, void* user);
