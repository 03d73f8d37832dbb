// Loop reports of the peer protocol: p_bridge.tarn_loop_info in the application database. Main
// thread.
#pragma once

#include <qv/mom.h>

// Subscribes to the reports. Returns 0 whatever the database answers.
int lda_tarn_mom_reg_subscribe(void);
// Handles one message of that subscription. Returns 0, or -1 for a bad call or an empty message.
int lda_tarn_mom_subscribe_callback(qv_mom_client* client, const qv_mom_msg* message);
