#include "services/tarnd/status_records.h"

#include <utility>

#include "platform/client/thread_master.h"
#include "qv/mom.h"

namespace qv::tarnd {
namespace {

// The object database's callbacks carry no argument of ours.
StatusRecords* g_records = nullptr;

int on_record(qv_mom_client*, const qv_mom_msg* message) {
    if (message->value != nullptr) {
        g_records->take(*reinterpret_cast<const PBridge__TarnPortState*>(message->value));
    }
    return 0;
}

uint64_t ms_since_1970(std::chrono::system_clock::time_point time) {
    return static_cast<uint64_t>(time.time_since_epoch() / std::chrono::milliseconds(1));
}

PBridge__TarnLoop record_of(const SeenLoop& loop) {
    PBridge__TarnLoop record = P_BRIDGE__TARN_LOOP__INIT;
    record.ifx = loop.ifx;
    record.src_ifx = loop.src_ifx;
    record.vid = loop.vid;
    record.src_vid = loop.src_vid;
    record.path_us = static_cast<uint32_t>(loop.path / std::chrono::microseconds(1));
    record.trigger = record_of(loop.trigger);
    record.time_ms = ms_since_1970(loop.time);
    return record;
}

}  // namespace

StatusRecords::StatusRecords(EventLoop& loop, StatusBoard& board,
                             std::function<PBridge__TarnCounters()> counters)
    : loop_(loop),
      board_(board),
      counters_(std::move(counters)),
      client_(qv_mom_client_init("tarnd-status", master_of(loop), nullptr)) {
    g_records = this;
    board_.observe([this](const BoardEvent& event) {
        if (event.kind == BoardEvent::Kind::kState) {
            changed_.insert(event.ifx);
        }
    });
    const auto up = [](void* self) {
        static_cast<StatusRecords*>(self)->connected();
        return 0;
    };
    qv_mom_client_set_reconnect_cb(client_, QV_MOM_APP_DB, up, this);
    qv_mom_client_connect(client_, QV_MOM_APP_DB, up, this);
    timer_ = loop_.after(kPause, [this] { write(); });
}

void StatusRecords::connected() {
    for (const uint32_t ifx : board_.ports()) {
        changed_.insert(ifx);
    }
    counters_written_.clear();
    const PBridge__TarnPortState key = P_BRIDGE__TARN_PORT_STATE__INIT;
    qv_mom_scan(client_, QV_MOM_APP_DB, &key.base, 0, on_record, nullptr);
}

void StatusRecords::take(const PBridge__TarnPortState& record) {
    if (record.index != nullptr && !board_.status(record.index->ifx)) {
        changed_.insert(record.index->ifx);
    }
}

// While the database is away nothing counts as written.
void StatusRecords::write() {
    timer_ = loop_.after(kPause, [this] { write(); });
    for (auto next = changed_.begin(); next != changed_.end();) {
        if (!write_port(*next)) {
            return;
        }
        next = changed_.erase(next);
    }
    write_counters();
}

bool StatusRecords::write_port(uint32_t ifx) const {
    PBridge__TarnPortIndex index = P_BRIDGE__TARN_PORT_INDEX__INIT;
    index.ifx = ifx;
    PBridge__TarnPortState record = P_BRIDGE__TARN_PORT_STATE__INIT;
    record.index = &index;
    const auto status = board_.status(ifx);
    if (!status) {
        return qv_mom_del(client_, QV_MOM_APP_DB, &record.base, 0, 0) == 0;
    }
    record.state = status->state;
    record.vlan_mode = status->vlan_mode;
    record.guard_ms = status->guard_ms;
    PBridge__TarnLoop loop = P_BRIDGE__TARN_LOOP__INIT;
    if (status->loop) {
        loop = record_of(*status->loop);
        record.loop = &loop;
    }
    return qv_mom_set(client_, QV_MOM_APP_DB, &record.base, 0, 0) == 0;
}

void StatusRecords::write_counters() {
    const PBridge__TarnCounters counters = counters_();
    std::string packed(protobuf_c_message_get_packed_size(&counters.base) + 1, '\0');
    protobuf_c_message_pack(&counters.base, reinterpret_cast<uint8_t*>(packed.data()));
    if (packed != counters_written_ &&
        qv_mom_set(client_, QV_MOM_APP_DB, &counters.base, 0, 0) == 0) {
        counters_written_ = std::move(packed);
    }
}

}  // namespace qv::tarnd
