// Posters of the command queue.
//
// Posting reads the loop state and never changes it. The queue lock is held only to append a
// message and to log; the caller may hold the loop lock. The calls that change what the running
// configuration shows request its generation before they post, so that the configuration is ahead
// of the command.
#include "lda_cli_post.h"

#include <cstdlib>

#include <qv/cli.h>
#include "app_debug.h"
#include "lda_cli_policy.h"
#include "lda_main.h"
#include "lda_state.h"

// ---- The queue ----

static void append_message(lda_cli_msg_t* node) APP_REQUIRES(lda_cli_msg_capability) {
    lda_list_add_tail(&g_lda_cli_msg_set->list, &node->link);
    g_lda_cli_msg_set->count++;
}

int lda_cli_cmd_send(const lda_cli_msg_t* message) {
    if (message == nullptr) {
        return APP_ERROR("para wrong.");
    }
    auto* node = static_cast<lda_cli_msg_t*>(calloc(1, sizeof(lda_cli_msg_t)));
    if (node == nullptr) {
        return APP_ERROR("LDA malloc lda_cli_msg_t node error.");
    }
    lda_cli_msg_lock();
    node->enable = message->enable;
    node->mid = message->mid;
    node->ifx = message->ifx;
    node->type = message->type;
    node->new_type = message->new_type;
    node->old_type = message->old_type;
    node->shutdown = message->shutdown;
    append_message(node);
    APP_INFO("+++The number of cli_msg is %d, send cond signal[%d,%d,%d,%d].",
             g_lda_cli_msg_set->count, message->mid, message->ifx, message->new_type,
             message->shutdown);
    lda_cli_msg_unlock();
    return pthread_cond_signal(&g_lda_cli_msg_set->cond);
}

int lda_loop_cmd_send(uint8_t enable, uint32_t mid, uint32_t ifx) {
    auto* node = static_cast<lda_cli_msg_t*>(calloc(1, sizeof(lda_cli_msg_t)));
    if (node == nullptr) {
        return APP_ERROR("LDA malloc lda_cli_msg_t node error.");
    }
    lda_cli_msg_lock();
    // Kept on purpose: the type stays 0, so the thread only logs the message.
    node->enable = enable;
    node->mid = mid;
    node->ifx = ifx;
    append_message(node);
    APP_INFO("+++The number of cli_msg is %d, send cond signal[%d,%d,%d].",
             g_lda_cli_msg_set->count, enable, mid, ifx);
    const int rv = pthread_cond_signal(&g_lda_cli_msg_set->cond);
    lda_cli_msg_unlock();
    return rv;
}

// ---- Shutdown and recovery ----

void lda_send_shutcmd(uint32_t ifx, uint8_t shutdown, lda_intf_t* record) {
    APP_INFO("enter ifx=%d, shutdown=%d", ifx, shutdown);
    lda_cli_msg_t message = {};
    message.mid = LDA_MID_BOTH;
    message.ifx = ifx;
    message.type = LDA_CLI_MSG_SHUTDOWN;
    message.shutdown = shutdown;
    // The port's line in the running configuration changes before the command itself runs.
    cli_client_c2p_reform();
    cli_syn_config_notify();
    lda_cli_cmd_send(&message);
    if (record != nullptr && shutdown == 0) {
        lda_clear_loop_timer(record);
    }
}

// ---- Detection features ----

void lda_loop_config_delivery(uint32_t mid) {
    APP_INFO("enter");
    const uint32_t policy = lda_loop_detect_ptype_get();
    if (policy == LDA_POLICY_DISABLED) {
        return;
    }
    lda_cli_msg_t message = {};
    message.mid = mid;
    message.type = LDA_CLI_MSG_ENABLE;
    message.new_type = policy;
    message.old_type = LDA_POLICY_DISABLED;
    message.is_config_delivery = 1;
    lda_policy_chg_notify_ntf(&message);
    lda_cli_cmd_send(&message);
}

void lda_send_intfcfg(uint32_t ifx) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO("enter ifx=%u, cli_ready=%d, type=%d", ifx, cli_ready, policy);
    if (cli_ready != 1) {
        return;
    }
    lda_cli_msg_t message = {};
    message.mid = LDA_MID_BOTH;
    if (policy != LDA_POLICY_DISABLED) {
        message.type = LDA_CLI_MSG_INTF_ENABLE;
        message.ifx = ifx;
    } else {
        message.type = LDA_CLI_MSG_DISABLE;  // for all ports
    }
    message.new_type = policy;
    message.old_type = policy;
    lda_cli_cmd_send(&message);
}

void lda_intf_default_config_delivery(uint32_t mid, uint32_t ifx) {
    APP_INFO("enter");
    lda_cli_msg_t message = {};
    message.mid = mid;
    message.ifx = ifx;
    message.type = LDA_CLI_MSG_INTF_DEFAULT;
    lda_cli_cmd_send(&message);
}

void lda_loop_detect_enable(void) {
    if (cli_ready) {
        lda_loop_cmd_send(1, LDA_MID_BOTH, 0);
    }
}

void lda_loop_detect_disable(void) {
    if (cli_ready) {
        lda_loop_cmd_send(0, LDA_MID_BOTH, 0);
    }
}

void lda_async_enable_loop(uint32_t flag) {
    if (flag == 0) {
        lda_loop_detect_disable();
    } else {
        lda_loop_detect_enable();
    }
    cli_client_c2p_reform();
    cli_syn_config_notify();
}
