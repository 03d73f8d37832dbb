// Command delivery thread.
//
// g_lda_cli_msg_set is created by lda_init before anything posts and never freed. The thread holds
// the queue lock only to take one message and to log; it executes the message without the lock, so
// that posters never wait for a command line. The wait is on the monotonic clock and lasts at most
// a second, so a lost signal costs no more than that.
#include "lda_cli_delivery.h"

#include <sys/prctl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "app_debug.h"
#include "lda_cli_exec.h"

lda_cli_msg_set_t* g_lda_cli_msg_set;

// Links of a message that was removed from the queue: using them faults.
static lda_list_t* poison(uintptr_t value) {
    return reinterpret_cast<lda_list_t*>(value);
}
static constexpr uintptr_t POISON_NEXT = 0x100100;
static constexpr uintptr_t POISON_PREV = 0x200200;

void lda_cli_msg_lock(void) APP_NOT_ANALYSED {
    pthread_mutex_lock(&g_lda_cli_msg_set->lock);
}

void lda_cli_msg_unlock(void) APP_NOT_ANALYSED {
    pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
}

void* lda_cli_msg_thread_init(void*) {
    if (pthread_detach(pthread_self()) != 0) {
        APP_INFO("cli_pthread detach failed!");
        pthread_exit(nullptr);
    }
    if (prctl(PR_SET_NAME, "lda_cli_delivery") != 0) {
        APP_INFO("cli_pthread prctl error:%s", strerror(errno));
        pthread_exit(nullptr);
    }
    lda_cli_msg_thread_proc();
    pthread_exit(nullptr);
}

// Waits until the count is not 0.
static void wait_for_message() APP_REQUIRES(lda_cli_msg_capability) {
    while (g_lda_cli_msg_set->count == 0) {
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += 1;
        pthread_cond_timedwait(&g_lda_cli_msg_set->cond, &g_lda_cli_msg_set->lock, &deadline);
    }
}

static void dispatch_message(const lda_cli_msg_t* message) {
    switch (message->type) {
        case LDA_CLI_MSG_INTF_ENABLE:
            lda_intf_loop_cmd_enable(message->mid, message->ifx);
            break;
        case LDA_CLI_MSG_SHUTDOWN:
            cli_exec_shutdown(message->ifx, message->shutdown);
            break;
        case LDA_CLI_MSG_APPLY:
            cli_exec_loop_apply_shutdown(message->ifx, message->shutdown);
            break;
        case LDA_CLI_MSG_DISABLE:
            lda_loop_cmd_disable(message->mid);
            break;
        case LDA_CLI_MSG_ENABLE:
            lda_loop_cmd_enable(message->mid);
            break;
        case LDA_CLI_MSG_INTF_DEFAULT:
            lda_intf_default_cmd(message->mid, message->ifx);
            break;
        default:  // LDA_CLI_MSG_NONE and unknown types cause no work
            break;
    }
}

void lda_cli_msg_thread_proc(void) {
    for (;;) {
        lda_cli_msg_lock();
        wait_for_message();
        lda_list_t* first = g_lda_cli_msg_set->list.next;
        if (first == &g_lda_cli_msg_set->list) {
            lda_cli_msg_unlock();
            continue;
        }
        lda_list_unlink(first);
        *first = {poison(POISON_NEXT), poison(POISON_PREV)};
        g_lda_cli_msg_set->count--;
        auto* message = lda_list_record<lda_cli_msg_t>(first);
        APP_INFO("---The number of cli msg is %d, receive a signal[%d,%d,%d,%d,%d,%d]",
                 g_lda_cli_msg_set->count, message->mid, message->ifx, message->old_type,
                 message->new_type, message->shutdown, message->type);
        lda_cli_msg_unlock();
        dispatch_message(message);
        free(message);
    }
}
