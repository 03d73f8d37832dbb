#include "services/tarnd/status_json.h"

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <string>

#include "qv/bridge.h"
#include "services/tarnd/port_name.h"

namespace qv::tarnd {
namespace {

int64_t us_of(Duration time) {
    return time / std::chrono::microseconds(1);
}

// UTC, "2026-01-31T23:59:59Z".
std::string time_text(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

const char* role_text(uint32_t vlan_mode) {
    if (vlan_mode == SWPORT_MODE_TRUNK) {
        return "trunk";
    }
    return vlan_mode == SWPORT_MODE_HYBRID   ? "hybrid"
           : vlan_mode == SWPORT_MODE_ACCESS ? "access"
                                             : "none";
}

Json loop_json(const SeenLoop& loop) {
    return {{"port", port_name(loop.ifx)},
            {"src_port", port_name(loop.src_ifx)},
            {"vid", loop.vid},
            {"src_vid", loop.src_vid},
            {"path_us", us_of(loop.path)},
            {"found_by", trigger_text(loop.trigger)},
            {"time", time_text(loop.time)}};
}

Json reason_of(int error) {
    return error != 0 ? Json(std::strerror(error)) : Json();
}

}  // namespace

Json port_json(uint32_t ifx, const PortStatus& status) {
    return {{"port", port_name(ifx)},
            {"index", ifx},
            {"state", state_text(status.state)},
            {"role", role_text(status.vlan_mode)},
            {"guard_ms", status.guard_ms != 0 ? Json(status.guard_ms) : Json()},
            {"loop", status.loop ? loop_json(*status.loop) : Json()}};
}

Json event_json(const BoardEvent& event) {
    const std::string port = port_name(event.ifx);
    const std::string now = time_text(std::chrono::system_clock::now());
    switch (event.kind) {
        case BoardEvent::Kind::kLoop: {
            Json json = {{"event", "loop"}};
            json.update(loop_json(event.loop));
            return json;
        }
        case BoardEvent::Kind::kEnd:
            return {{"event", "end"},
                    {"port", port},
                    {"src_port", port_name(event.loop.src_ifx)},
                    {"vid", event.loop.vid},
                    {"src_vid", event.loop.src_vid},
                    {"time", now}};
        case BoardEvent::Kind::kCut:
            return {{"event", "cut"}, {"port", port}, {"time", now}};
        case BoardEvent::Kind::kCutFailed:
            return {{"event", "cut-failed"},
                    {"port", port},
                    {"reason", reason_of(event.error)},
                    {"time", now}};
        case BoardEvent::Kind::kGivenBack:
            return {{"event", "given-back"},
                    {"port", port},
                    {"reason", reason_of(event.error)},
                    {"time", now}};
        case BoardEvent::Kind::kState:
        case BoardEvent::Kind::kAsked:
        case BoardEvent::Kind::kReturned:
            break;
    }
    return {};
}

Json counters_json(const PBridge__TarnCounters& counters) {
    Json json = Json::object();
    const ProtobufCMessageDescriptor& type = p_bridge__tarn_counters__descriptor;
    for (unsigned n = 0; n < type.n_fields; ++n) {
        uint64_t value = 0;
        std::memcpy(&value, reinterpret_cast<const char*>(&counters) + type.fields[n].offset,
                    sizeof value);
        json[type.fields[n].name] = value;
    }
    return json;
}

}  // namespace qv::tarnd
