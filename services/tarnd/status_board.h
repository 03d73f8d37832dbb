// The states of the ports and the counters, as clients of the control socket and the records show
// them. Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "p_bridge.pb-c.h"
#include "services/tarnd/prober.h"

namespace qv::tarnd {

struct SeenLoop {
    uint32_t ifx = 0;      // on which the probe came back
    uint32_t src_ifx = 0;  // which had sent it
    uint32_t vid = 0;      // VLAN in which it came back; untagged frames are in VLAN 1
    uint32_t src_vid = 0;  // and in which it was sent
    Duration path{};
    Trigger trigger{};
    std::chrono::system_clock::time_point time{};
};

struct PortStatus {
    PBridge__TarnState state = P_BRIDGE__TARN_STATE__OFF;
    uint32_t vlan_mode = 0;
    uint32_t guard_ms = 0;
    std::optional<SeenLoop> loop;  // the latest one that the port was part of
};

struct BoardEvent {
    // kAsked and kReturned as in a report.
    enum class Kind { kState, kLoop, kEnd, kCut, kCutFailed, kGivenBack, kAsked, kReturned };
    Kind kind;
    uint32_t ifx;
    SeenLoop loop{};  // kLoop; of kEnd and kReturned the fields that are known
    int error = 0;    // kCutFailed, kAsked; kGivenBack: 0, or why the port is still down
};

class StatusBoard {
 public:
    // The switch's configuration of a port.
    struct Configured {
        bool watched = false;
        bool shut = false;
        uint32_t vlan_mode = 0;
        uint32_t guard_ms = 0;
    };

    // Takes what has happened, from the service.
    void enable(bool enabled);
    void configure(uint32_t ifx, const Configured& configured);
    void forget_configuration(uint32_t ifx);
    void take(const Report& report);
    void begin_cut(uint32_t ifx);  // the port is down until the switch takes it over
    void end_cut(uint32_t ifx);    // it has
    // It is up again or gone (ENODEV); with another error it is still down.
    void give_back(uint32_t ifx, int error);

    // The ports of the bridge, by interface index.
    std::vector<uint32_t> ports() const;
    // The first port behind this one; 0: there is none.
    uint32_t next_port(uint32_t ifx) const;
    // Nothing when the port is not in the bridge.
    std::optional<PortStatus> status(uint32_t ifx) const;
    // `thread` tells what the probing thread has counted.
    template <typename Thread>
    PBridge__TarnCounters counters(const Thread& thread) const;

    // Called with every event, for the life of the board; kState when status() of a port may have
    // changed, also when the port has come or gone.
    void observe(std::function<void(const BoardEvent&)> observer);

 private:
    struct Port {
        Configured configured;
        bool present = false;
        bool forwarding = false;
        bool cut = false;
        bool closed = false;  // by the guard at link-up
        std::optional<SeenLoop> loop;
    };

    void drop_unused(uint32_t ifx);
    void forget_loop(uint32_t ifx, uint16_t src_vid);
    PBridge__TarnState state_of(uint32_t ifx, const Port& port) const;
    void take_port(const Report& report);
    void take_guard(const Report& report);
    void take_loop(const Report& report);
    void take_end(const Report& report);
    void take_cut(const Report& report);
    void announce(const BoardEvent& event) const;
    void announce_state(uint32_t ifx) const;

    bool enabled_ = false;
    std::map<uint32_t, Port> ports_;
    // From the reporting port and the VLAN of the probe to the port that sent it.
    std::map<std::pair<uint32_t, uint16_t>, uint32_t> loops_;
    std::map<uint32_t, size_t> looped_;  // of each port in a loop: in how many it is
    PBridge__TarnCounters counters_ = P_BRIDGE__TARN_COUNTERS__INIT;  // but for the thread's
    std::vector<std::function<void(const BoardEvent&)>> observers_;
};

template <typename Thread>
PBridge__TarnCounters StatusBoard::counters(const Thread& thread) const {
    PBridge__TarnCounters all = counters_;
    all.sent = thread.counted(Counted::kSent);
    all.not_sent = thread.counted(Counted::kNotSent);
    all.returned = thread.counted(Counted::kReturned);
    all.leaked = thread.counted(Counted::kLeaked);
    all.malformed = thread.ignored(Ignored::kMalformed);
    all.forged = thread.ignored(Ignored::kForged);
    all.foreign = thread.ignored(Ignored::kForeign);
    all.blocked = thread.ignored(Ignored::kBlocked);
    all.stale = thread.ignored(Ignored::kStale);
    all.duplicate = thread.ignored(Ignored::kDuplicate);
    all.late = thread.ignored(Ignored::kLate);
    return all;
}

// VLAN of a frame, as records and clients see it: `vid` is 0 if the frame was untagged.
uint32_t shown_vid(uint16_t vid);

// Names of a value, as the record's schema spells them, in lower case.
std::string state_text(PBridge__TarnState state);
std::string trigger_text(Trigger trigger);
PBridge__TarnTrigger record_of(Trigger trigger);

}  // namespace qv::tarnd
