// Policy requests of NETCONF clients: taken from the local database and answered there. Main
// thread.
#pragma once

#include <cstdint>

#include <qv/mom.h>
#include "p_mng.pb-c.h"

// Subscribes to the policy requests in the local database. Returns 0 whatever the database answers.
int lda_nc_mom_reg_subscribe(void);
// Handles one message of that subscription, whatever its operation: a request is executed and
// answered. Returns 0, or -1 for a bad call or a message without a record.
int lda_nc_msg_policy(qv_mom_client* client, const qv_mom_msg* message);

// Answers the request `request` with `result` (0 done, 1 refused): publishes a record with its
// index, or zeroes without one, and its source. A failure is logged.
void send_mom_publish_result(const PMng__UiOperate* request, int32_t result);
