// Command delivery queue and thread.
//
// g_lda_cli_msg_set is created by lda_init before anything posts and never freed. Posters run on
// the main thread, possibly with the loop lock held, and hold the queue lock only to append and to
// log. The delivery thread holds it only to take one message and to log; the work runs without it.
// The wait is on the monotonic clock and ends after a second at the latest, so a lost signal costs
// no more than that.
#include "lda_cli_delivery.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "app_debug.h"
#include "app_string.h"
#include "lda_cli_exec.h"

lda_cli_msg_set_t* g_lda_cli_msg_set;

// Links of a message that was taken off the queue: a use of them faults.
static lda_list_t* poison(uintptr_t value) {
    return reinterpret_cast<lda_list_t*>(value);
}
static constexpr uintptr_t POISON_NEXT = 0x100100;
static constexpr uintptr_t POISON_PREV = 0x200200;

// ---- Posting ----

// Appends under the queue lock, which the caller holds.
static void append_message(lda_cli_msg_t* node) {
    lda_list_add_tail(&g_lda_cli_msg_set->list, &node->link);
    g_lda_cli_msg_set->count++;
}

int lda_cli_cmd_send(const lda_cli_msg_t* message) {
    if (!message)
        return APP_ERROR("para wrong.");
    auto* node = static_cast<lda_cli_msg_t*>(calloc(1, sizeof(lda_cli_msg_t)));
    if (!node)
        return APP_ERROR("LDA malloc lda_cli_msg_t node error.");
    pthread_mutex_lock(&g_lda_cli_msg_set->lock);
    node->enable = message->enable;
    node->mid = message->mid;
    node->ifx = message->ifx;
    node->type = message->type;
    node->new_type = message->new_type;
    node->old_type = message->old_type;
    node->shutdown = message->shutdown;
    append_message(node);
    APP_INFO("+++The number of cli_msg is %d, send cond signal[%d,%d,%d,%d].",
             g_lda_cli_msg_set->count, static_cast<int>(message->mid),
             static_cast<int>(message->ifx), static_cast<int>(message->new_type),
             message->shutdown);
    pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
    return pthread_cond_signal(&g_lda_cli_msg_set->cond);
}

int lda_loop_cmd_send(uint8_t enable, uint32_t mid, uint32_t ifx) {
    auto* node = static_cast<lda_cli_msg_t*>(calloc(1, sizeof(lda_cli_msg_t)));
    if (!node)
        return APP_ERROR("LDA malloc lda_cli_msg_t node error.");
    pthread_mutex_lock(&g_lda_cli_msg_set->lock);
    // Kept on purpose: the type stays 0, so the thread only logs the message.
    node->enable = enable;
    node->mid = mid;
    node->ifx = ifx;
    append_message(node);
    APP_INFO("+++The number of cli_msg is %d, send cond signal[%d,%d,%d].",
             g_lda_cli_msg_set->count, enable, static_cast<int>(mid), static_cast<int>(ifx));
    const int rv = pthread_cond_signal(&g_lda_cli_msg_set->cond);
    pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
    return rv;
}

// ---- The thread ----

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

// Waits until the count is not 0. The caller holds the queue lock.
static void wait_for_message() {
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
        pthread_mutex_lock(&g_lda_cli_msg_set->lock);
        wait_for_message();
        lda_list_t* first = g_lda_cli_msg_set->list.next;
        if (first == &g_lda_cli_msg_set->list) {
            pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
            continue;
        }
        lda_list_unlink(first);
        *first = {poison(POISON_NEXT), poison(POISON_PREV)};
        g_lda_cli_msg_set->count--;
        auto* message = reinterpret_cast<lda_cli_msg_t*>(first);
        APP_INFO("---The number of cli msg is %d, receive a signal[%d,%d,%d,%d,%d,%d]",
                 g_lda_cli_msg_set->count, static_cast<int>(message->mid),
                 static_cast<int>(message->ifx), static_cast<int>(message->old_type),
                 static_cast<int>(message->new_type), message->shutdown,
                 static_cast<int>(message->type));
        pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
        dispatch_message(message);
        free(message);
    }
}

// ---- Executing lines ----

void lda_cli_mode_set(uint32_t ifx, uint32_t mode, cli_mode* descriptor) {
    *descriptor = {};
    if (mode == LDA_CLI_MODE_CONFIG) {
        app_text_copy(descriptor->name, sizeof descriptor->name, "config");
    } else if (mode == LDA_CLI_MODE_INTERFACE) {
        app_text_copy(descriptor->name, sizeof descriptor->name, "interface");
        descriptor->ifx = static_cast<int32_t>(ifx);
    }
}

void cmd_exec_out_cback(const char* text, size_t length, void* user) {
    memcpy(user, text, std::min(length, LDA_CLI_OUTPUT_BYTES - 1));
}

int32_t lda_loop_cmd_execute(int session, const char* line, const cli_mode* mode) {
    char output[LDA_CLI_OUTPUT_BYTES] = {};
    int32_t rv = cli_execute_cmd_buf_fd(session, line, mode, cmd_exec_out_cback, output);
    if (rv < 0)
        APP_ERROR("cli_execute_cmd_buf fail:cmd=%s, ret=%d", line, rv);
    if (output[0] != '\0')
        rv = LDA_CLI_REFUSED;
    APP_INFO("ifx %lu cmd %s out ret=%d %s", static_cast<unsigned long>(mode->ifx), line, rv,
             output);
    return rv;
}
