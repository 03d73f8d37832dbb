#include "platform/root/simulated_tarn.h"

#include <algorithm>
#include <utility>

#include "platform/cli/probation.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/thread_master.h"
#include "qv/bridge.h"
#include "qv/mom.h"

namespace qv {
namespace {

constexpr uint32_t kUntaggedVid = 1;

uint64_t now_ms() {
    return static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch() /
                                 std::chrono::milliseconds(1));
}

bool is_trunk(const Port* port) {
    return port != nullptr && port->mode == SWPORT_MODE_TRUNK;
}

}  // namespace

SimulatedTarn::SimulatedTarn(EventLoop& loop, PortModel& ports)
    : loop_(loop), ports_(ports), client_(qv_mom_client_init("tarn", master_of(loop), nullptr)) {
    ports_.add_observer(*this);
    cli::add_tarn_observer([this](uint64_t ifx) {
        if (ifx == 0) {
            all_changed();
        } else {
            changed(static_cast<uint32_t>(ifx));
        }
    });
    const auto up = [](void* self) {
        static_cast<SimulatedTarn*>(self)->all_changed();
        return 0;
    };
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_APP_DB, up, this);
    qv_mom_client_connect(client_, QV_MOM_APP_DB, up, this);
}

LoopProbe::Rules SimulatedTarn::rules() {
    LoopProbe::Rules rules;
    rules.enabled = [](uint32_t ifx) {
        return cli::tarn_enabled() && cli::tarn_port_enabled(ifx);
    };
    rules.choose = [this](uint32_t ifx, uint32_t peer) {
        return choose(ifx, peer);
    };
    rules.guard = [](uint32_t ifx) {
        return Duration(std::chrono::milliseconds(cli::link_up_guard_ms(ifx)));
    };
    rules.guard_changed = [this](uint32_t ifx) {
        changed(ifx);
    };
    return rules;
}

// Prefers a port that is not a trunk, then the one with the higher number.
uint32_t SimulatedTarn::choose(uint32_t ifx, uint32_t peer) const {
    if (!cli::tarn_config().cut_one) {
        return 0;
    }
    const bool trunk = is_trunk(ports_.find(ifx));
    const bool peer_trunk = is_trunk(ports_.find(peer));
    return trunk != peer_trunk ? (trunk ? peer : ifx) : std::max(ifx, peer);
}

bool SimulatedTarn::publish(const LoopReport& report) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    index.ifx = report.ifx;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    record.index = &index;
    record.vid = kUntaggedVid;
    record.is_loop = report.is_loop ? 1 : 0;
    record.src_ifx = report.src_ifx;
    if (qv_mom_set(client_, QV_MOM_APP_DB, &record.base, 0, 0) != 0) {
        return false;
    }
    note_loop(report);
    return true;
}

// A loop is reported repeatedly while it lasts; only the first report is new.
void SimulatedTarn::note_loop(const LoopReport& report) {
    if (!report.is_loop) {
        loops_.erase(report.ifx);
    } else {
        ++counters_.sent;
        ++counters_.returned;
        if (!loops_.insert_or_assign(report.ifx, report.src_ifx).second) {
            return;
        }
        ++(report.periodic ? counters_.loops_period : counters_.loops_carrier);
        PBridge__TarnLoop loop = P_BRIDGE__TARN_LOOP__INIT;
        loop.ifx = report.ifx;
        loop.src_ifx = report.src_ifx;
        loop.vid = kUntaggedVid;
        loop.src_vid = kUntaggedVid;
        loop.trigger =
            report.periodic ? P_BRIDGE__TARN_TRIGGER__PERIOD : P_BRIDGE__TARN_TRIGGER__CARRIER;
        loop.time_ms = now_ms();
        seen_[report.ifx] = loop;
        seen_[report.src_ifx] = loop;
    }
    changed(report.ifx);
    changed(report.src_ifx);
}

void SimulatedTarn::on_removed(const Port& port) {
    seen_.erase(port.ifx);
    changed(port.ifx);
}

bool SimulatedTarn::is_looped(uint32_t ifx) const {
    return std::any_of(loops_.begin(), loops_.end(),
                       [ifx](const auto& loop) { return loop.first == ifx || loop.second == ifx; });
}

PBridge__TarnState SimulatedTarn::state_of(const Port& port) const {
    if (!port.admin_up) {
        return P_BRIDGE__TARN_STATE__SHUT;
    }
    if (is_looped(port.ifx)) {
        return P_BRIDGE__TARN_STATE__LOOPED;
    }
    if (guarded_(port.ifx)) {
        return P_BRIDGE__TARN_STATE__GUARDED;
    }
    if (!cli::tarn_enabled() || !cli::tarn_port_enabled(port.ifx)) {
        return P_BRIDGE__TARN_STATE__OFF;
    }
    return port.oper_up ? P_BRIDGE__TARN_STATE__PROBING : P_BRIDGE__TARN_STATE__INACTIVE;
}

void SimulatedTarn::changed(uint32_t ifx) {
    changed_.insert(ifx);
    if (!timer_) {
        const Time now = loop_.clock().now();
        const Time due = written_ == Time{} ? now : std::max(now, written_ + kPause);
        timer_ = loop_.after(due - now, [this] { write(); });
    }
}

void SimulatedTarn::all_changed() {
    for (const auto& [ifx, port] : ports_.ports()) {
        changed(ifx);
    }
}

// While the database is away nothing is written; its return writes everything.
void SimulatedTarn::write() {
    timer_.reset();
    written_ = loop_.clock().now();
    for (const uint32_t ifx : std::exchange(changed_, {})) {
        if (!write_port(ifx)) {
            return;
        }
    }
    qv_mom_set(client_, QV_MOM_APP_DB, &counters_.base, 0, 0);
}

bool SimulatedTarn::write_port(uint32_t ifx) const {
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    index.ifx = ifx;
    PBridge__TarnPortState record = P_BRIDGE__TARN_PORT_STATE__INIT;
    record.index = &index;
    const Port* const port = ports_.find(ifx);
    if (port == nullptr) {
        return qv_mom_del(client_, QV_MOM_APP_DB, &record.base, 0, 0) == 0;
    }
    record.state = state_of(*port);
    record.vlan_mode = port->mode;
    record.guard_ms = static_cast<uint32_t>(cli::link_up_guard_ms(ifx));
    PBridge__TarnLoop loop = P_BRIDGE__TARN_LOOP__INIT;
    if (const auto seen = seen_.find(ifx); seen != seen_.end()) {
        loop = seen->second;
        record.loop = &loop;
    }
    return qv_mom_set(client_, QV_MOM_APP_DB, &record.base, 0, 0) == 0;
}

}  // namespace qv
