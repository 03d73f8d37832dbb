// The records of the loop-probe service about the ports, for "show tarn".
#pragma once

#include <functional>

#include "p_bridge.pb-c.h"
#include "platform/base/event_loop.h"
#include "platform/cli/tarn_show.h"

struct qv_mom_client;

namespace qv {

// Follows the records p_bridge.tarn_port_state from its creation on. Lives as long as the process,
// one for each process. Loop thread only.
class TarnStates {
 public:
    // `running` tells whether there is a service: a killed service leaves its records behind.
    TarnStates(EventLoop& loop, std::function<bool()> running);

    void take(const PBridge__TarnPortState& record, bool deleted);

 private:
    void connected();

    qv_mom_client* const client_;
    cli::TarnPortStates states_;
};

}  // namespace qv
