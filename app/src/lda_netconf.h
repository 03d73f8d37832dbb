// NETCONF side of the agent: policy requests taken from the local database and answered there, and
// loop-state notifications. Main thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include <qv/mom.h>
#include "p_mng.pb-c.h"

// The content of a loop notification.
struct lda_notify_t {
    uint32_t notify_type;  // LDA_NOTIFY_*
    uint32_t vid;          // always 0
    char name[64];         // short interface name
    uint32_t ifx;          // not sent
    uint32_t policy;       // 1 when the current policy shuts the port down, else 0
    uint32_t src_port;     // 1 when the port's mode is access or hybrid, else 0
};
static_assert(sizeof(lda_notify_t) == 84 && offsetof(lda_notify_t, policy) == 76);

// Sends one notification. A failure is logged. Returns 0.
int lda_send_info_ntf(const lda_notify_t* record);

// Subscribes to the policy requests in the local database. Returns 0 whatever the database answers.
int lda_nc_mom_reg_subscribe(void);
// Takes one message of that subscription, whatever its operation: a request is executed and
// answered. Returns 0, or -1 for a bad call or a message without a record.
int lda_nc_msg_policy(qv_mom_client* client, const qv_mom_msg* message);

// Answers the request `request` with `result` (0 done, 1 refused): publishes a record with its
// index, zeroes where it has none, and its source. A failure is logged.
void send_mom_publish_result(const PMng__UiOperate* request, int32_t result);
