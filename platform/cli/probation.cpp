#include "platform/cli/probation.h"

#include <algorithm>
#include <chrono>
#include <map>

#include "platform/base/event_loop.h"
#include "platform/cli/held_ports.h"
#include "platform/cli/recovery_rules.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using std::chrono::seconds;

// By interface index: the end of a trial, armed while the port is up with a link.
std::map<uint32_t, EventLoop::Handle>& trials() {
    static auto& instance = *new std::map<uint32_t, EventLoop::Handle>;
    return instance;
}

int64_t probation_of(uint32_t ifx) {
    return trials().contains(ifx) ? recovery_rule(ifx).probation_s : 0;
}

void arm(uint32_t ifx, EventLoop::Handle& timer) {
    const seconds time(2 * recovery_rule(ifx).probation_s);
    timer = platform().loop().after(time, [ifx] {
        // Without its guard a looped port would be opened.
        if (probation_of(ifx) != 0 && held_ports().probe_sees_loop(ifx)) {
            arm(ifx, trials()[ifx]);
        } else {
            end_trial(ifx);
        }
    });
}

}  // namespace

int64_t link_up_guard_ms(uint32_t ifx) {
    return std::max(tarn_port(ifx).guard_ms, probation_of(ifx) * 1000);
}

bool on_probation(uint32_t ifx) {
    return probation_of(ifx) != 0 && tarn_enabled() && tarn_port_enabled(ifx);
}

void begin_trial(uint32_t ifx) {
    trials()[ifx].reset();
    announce_tarn_port(ifx);
}

void follow_trial(const Port& port) {
    const auto trial = trials().find(port.ifx);
    if (trial == trials().end()) {
        return;
    }
    if (!port.admin_up || !port.oper_up) {
        trial->second.reset();
    } else if (probation_of(port.ifx) == 0) {
        trials().erase(trial);
    } else if (!trial->second) {
        arm(port.ifx, trial->second);
    }
}

void end_trial(uint32_t ifx) {
    if (trials().erase(ifx) != 0) {
        announce_tarn_port(ifx);
    }
}

}  // namespace qv::cli
