#include "platform/root/tarn_records.h"

#include <vector>

#include "p_bridge.pb-c.h"
#include "platform/cli/probation.h"
#include "platform/client/thread_master.h"
#include "qv/mom.h"

namespace qv {

std::string ShutPorts::set_admin(uint32_t ifx, bool up) {
    std::string reason = driver_.set_admin(ifx, up);
    if (!reason.empty()) {
        return reason;
    }
    if (up) {
        shut_.erase(ifx);
    } else {
        shut_.insert(ifx);
    }
    changed_(ifx);
    return "";
}

TarnRecords::TarnRecords(EventLoop& loop, PortModel& ports, ShutPorts& shut)
    : ports_(ports), shut_(shut), client_(qv_mom_client_init("tarn", master_of(loop), nullptr)) {
    ports_.add_observer(*this);
    cli::add_tarn_observer([this](uint64_t ifx) {
        if (ifx == 0) {
            publish_switch();
        } else {
            port_changed(static_cast<uint32_t>(ifx));
        }
    });
    const auto connected = [](void* self) {
        static_cast<TarnRecords*>(self)->publish_all();
        return 0;
    };
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_CFG_DB, connected, this);
    qv_mom_client_connect(client_, QV_MOM_CFG_DB, connected, this);
}

void TarnRecords::on_removed(const Port& port) {
    shut_.forget(port.ifx);
    published_.erase(port.ifx);
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    index.ifx = port.ifx;
    PBridge__TarnPort record = P_BRIDGE__TARN_PORT__INIT;
    record.index = &index;
    qv_mom_del(client_, QV_MOM_CFG_DB, &record.base, 0, 0);
}

// While the database is away nothing counts as written; its return writes everything.
void TarnRecords::port_changed(uint32_t ifx) {
    const Port* const port = ports_.find(ifx);
    if (port == nullptr) {
        return;
    }
    Published now{
        .lines = cli::tarn_port(ifx), .vlan_mode = port->mode, .shut = shut_.contains(ifx)};
    now.lines.guard_ms = cli::link_up_guard_ms(ifx);
    const auto before = published_.find(ifx);
    if (before != published_.end() && before->second == now) {
        return;
    }
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    index.ifx = ifx;
    PBridge__TarnPort record = P_BRIDGE__TARN_PORT__INIT;
    record.index = &index;
    record.loop_detect = now.lines.loop_detect ? 1 : 0;
    record.vlan_mode = now.vlan_mode;
    record.shut = now.shut ? 1 : 0;
    record.guard_ms = static_cast<uint32_t>(now.lines.guard_ms);
    std::vector<uint32_t> vlans(now.lines.vlans.begin(), now.lines.vlans.end());
    record.n_vlans = vlans.size();
    record.vlans = vlans.data();
    if (qv_mom_set(client_, QV_MOM_CFG_DB, &record.base, 0, 0) == 0) {
        published_[ifx] = now;
    }
}

void TarnRecords::publish_switch() {
    const cli::TarnConfig& config = cli::tarn_config();
    PBridge__TarnConfig record = P_BRIDGE__TARN_CONFIG__INIT;
    record.enabled = config.enabled ? 1 : 0;
    record.error_recover_interval_s = static_cast<uint32_t>(config.error_recover_interval_s);
    record.probe_interval_ms = static_cast<uint32_t>(config.probe_interval_ms);
    record.cut_one = config.cut_one ? 1 : 0;
    record.priority = static_cast<uint32_t>(config.priority);
    std::string key = config.fabric_key;
    record.fabric_key = key.data();
    qv_mom_set(client_, QV_MOM_CFG_DB, &record.base, 0, 0);
}

void TarnRecords::publish_all() {
    published_.clear();
    publish_switch();
    for (const auto& [ifx, port] : ports_.ports()) {
        port_changed(ifx);
    }
}

}  // namespace qv
