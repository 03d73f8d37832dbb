#include "platform/root/tarn_states.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <string>
#include <utility>

#include "platform/client/thread_master.h"
#include "qv/mom.h"

namespace qv {
namespace {

// The object database's callbacks take no argument of ours.
TarnStates* g_states = nullptr;

int on_message(qv_mom_client* client, const qv_mom_msg* message) {
    if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
        const PBridge__TarnPortState key = P_BRIDGE__TARN_PORT_STATE__INIT;
        return qv_mom_scan(client, message->db, &key.base, 0, on_message, nullptr);
    }
    if (message->value != nullptr && message->oper != QV_MOM_OPER_PUBLISH) {
        g_states->take(*reinterpret_cast<const PBridge__TarnPortState*>(message->value),
                       message->oper == QV_MOM_OPER_DELETE);
    }
    return 0;
}

// As the schema spells it, in lower case.
std::string name_of(const ProtobufCEnumDescriptor& type, int value) {
    const ProtobufCEnumValue* const found = protobuf_c_enum_descriptor_get_value(&type, value);
    std::string name = found != nullptr ? found->name : std::to_string(value);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return name;
}

cli::TarnLoop loop_of(const PBridge__TarnLoop& record) {
    return {.ifx = record.ifx,
            .src_ifx = record.src_ifx,
            .vid = record.vid,
            .path_us = record.path_us,
            .found_by = name_of(p_bridge__tarn_trigger__descriptor, record.trigger),
            .time = std::chrono::system_clock::time_point(
                std::chrono::milliseconds(static_cast<int64_t>(record.time_ms)))};
}

}  // namespace

TarnStates::TarnStates(EventLoop& loop, std::function<bool()> running)
    : client_(qv_mom_client_init("tarn-states", master_of(loop), nullptr)) {
    g_states = this;
    cli::set_tarn_states(
        [this, running = std::move(running)] { return running() ? &states_ : nullptr; });
    const auto up = [](void* self) {
        static_cast<TarnStates*>(self)->connected();
        return 0;
    };
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_APP_DB, up, this);
    qv_mom_client_connect(client_, QV_MOM_APP_DB, up, this);
}

// Records may have been deleted while the database was away.
void TarnStates::connected() {
    states_.clear();
    const PBridge__TarnPortState key = P_BRIDGE__TARN_PORT_STATE__INIT;
    qv_mom_subscribe(client_, QV_MOM_APP_DB, &key.base, 0, on_message, nullptr);
}

void TarnStates::take(const PBridge__TarnPortState& record, bool deleted) {
    if (record.index == nullptr) {
        return;
    }
    if (deleted) {
        states_.erase(record.index->ifx);
        return;
    }
    cli::TarnPortState& state = states_[record.index->ifx];
    state = {.state = name_of(p_bridge__tarn_state__descriptor, record.state),
             .vlan_mode = record.vlan_mode,
             .guard_ms = record.guard_ms,
             .loop = std::nullopt};
    if (record.loop != nullptr) {
        state.loop = loop_of(*record.loop);
    }
}

}  // namespace qv
