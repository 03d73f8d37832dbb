// The judgement of the probe service: which port sends a probe when, and which returned probe
// proves a loop. A pure core: states of ports, addresses and frames go in, with the time of each;
// frames to send, ports to cut and reports come out. It allocates little, waits for nothing and
// logs nothing.
//
// A port takes part while it is watched and forwards. A probe counts when it was sent by a port
// that has forwarded ever since and comes back on a port that forwards: a port that spanning tree
// blocks still receives what the packet socket sees. Each loop is kept under the port that reports
// it, until kSilentProbes periodic probes of the port that sent the probe have not come back, or
// one of both ports stops forwarding.
//
// A port with a list of VLANs also sends probes in each of them (prober_vlan.cpp). VLAN 0 stands
// for untagged frames. Loops of a port in several VLANs are found, reported and ended one by one; a
// cut ends all of them.
//
// Before a cut the prober looks at what other switches claim (claims.h). When some of them cut
// before this switch, the proof is put aside; a burst follows when they have had their time, and
// only a loop that this burst proves again is reported and cut.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/tarn_limits.h"
#include "services/tarnd/claims.h"
#include "services/tarnd/frame.h"
#include "services/tarnd/windows.h"
#include "services/tarnd/zeroes.h"

namespace qv::tarnd {

// The reason for a probe.
enum class Trigger : uint8_t { kPeriod, kMove, kOverrun, kCarrier };

// The counters of the probing thread, from its start on.
// kLeaked: returned in another VLAN than it was sent in.
enum class Counted : uint8_t { kSent, kNotSent, kReturned, kLeaked };
inline constexpr size_t kCountedKinds = 4;

// Why a returned frame is ignored. kLate: it was sent before the present link or the last cut of
// its port, more than kOldestProbe ago, or before the 64 latest of its port. kStale: it is of an
// earlier process, or of a port that sends no probes.
enum class Ignored : uint8_t { kMalformed, kForged, kForeign, kBlocked, kStale, kDuplicate, kLate };
inline constexpr size_t kIgnoredKinds = 7;

struct Report {
    // kPort: whether this port is in the bridge, and forwards, has changed. kAsked: the answer to
    // ask(). kReturned: the probe that was asked for came back on this port. kGuard: the port was
    // to be closed or opened.
    enum class Kind : uint8_t {
        kLoop,
        kEnd,
        kCut,
        kElsewhere,
        kNotElsewhere,
        kPort,
        kAsked,
        kReturned,
        kGuard
    };
    Kind kind = Kind::kLoop;
    uint32_t ifx = 0;      // the reporting port
    uint32_t src_ifx = 0;  // the port that sent the probe
    uint16_t vid = 0;      // kLoop, kEnd, kReturned: the VLAN in which the probe came back
    uint16_t src_vid = 0;  // kLoop, kEnd, kReturned: and in which it was sent
    Trigger trigger = Trigger::kPeriod;
    Duration path{};          // kLoop, kReturned: how long the probe was under way
    int error = 0;            // kCut, kAsked, kGuard: 0 or errno
    bool present = false;     // kPort
    bool forwarding = false;  // kPort
    bool closed = false;      // kGuard

    bool operator==(const Report&) const = default;
};

struct Settings {
    bool enabled = false;
    std::chrono::milliseconds interval{kDefaultProbeInterval_ms};
    std::chrono::seconds recover{0};          // a loop is taken for ended after this time; 0: never
    bool cut_one = false;                     // of two own ports in one loop, report only one
    uint8_t priority = kDefaultTarnPriority;  // the switch with the lowest number cuts

    bool operator==(const Settings&) const = default;
};

// In the order in which ports of a loop are chosen.
enum class Role : uint8_t { kAccess, kHybrid, kTrunk };

// VLANs from 1 to 4094, ascending, each once. Null: none.
using Vlans = std::shared_ptr<const std::vector<uint16_t>>;

// The configuration of a port beyond whether it is watched and cut.
struct PortOptions {
    Role role = Role::kAccess;
    std::chrono::milliseconds guard{0};  // the port is closed for this long at link-up; 0: never
    Vlans vlans{};                       // probed with tagged frames
};

// The prober's hands. Called from inside its functions.
class ProberOutputs {
 public:
    virtual ~ProberOutputs() = default;
    // Sends the frame in this VLAN; 0: untagged. False when it could not be sent.
    virtual bool send(uint32_t ifx, uint16_t vid, const Frame& frame) = 0;
    // Takes the port out of service; `single` when the loop lies behind this one port. 0 or errno.
    virtual int cut(uint32_t ifx, bool single) = 0;
    // Closes the port to everything but probes, or opens it again. 0 or errno; EIO when the kernel
    // has not answered and the port may be closed.
    virtual int guard(uint32_t ifx, bool close) = 0;
    // False when the report cannot be taken now: it is offered again.
    virtual bool report(const Report& report) = 0;
};

// Probing thread only, but for ignored() and counted().
class Prober {
 public:
    static constexpr size_t kBurst = 2;  // frames in one triggered burst
    static constexpr std::chrono::milliseconds kBurstPause{5};
    static constexpr uint64_t kBurstsPerSecond = 2000;  // of the whole switch
    static constexpr uint64_t kBurstsAtOnce = 256;
    static constexpr size_t kPortsPerRun = 32;
    static constexpr unsigned kSilentProbes = 3;
    // Between two periodic tagged probes of a port, at least, whatever its list of VLANs.
    static constexpr std::chrono::milliseconds kVlanPause{2};
    // The same for the whole switch.
    static constexpr std::chrono::microseconds kSwitchVlanPause{250};
    static constexpr size_t kBurstVlans = 4;   // VLANs probed in one triggered burst
    static constexpr size_t kGuardVlans = 16;  // and with each probe of the guard at link-up
    static constexpr std::chrono::seconds kOldestProbe{2};
    static constexpr size_t kRememberedAddresses = 1 << 16;
    // A proof that was put aside is forgotten when no other follows for this long after its time.
    static constexpr std::chrono::seconds kHoldLife{1};

    struct Identity {
        uint64_t bridge;
        Mac source;
        Key key;
        uint64_t first_sequence;  // of every port, so that an earlier process's probes are old
    };

    Prober(const Identity& identity, ProberOutputs& outputs);

    void configure(const Settings& settings, Time now);
    // `watched`: the port sends probes. `shuts`: it is cut when it is looped.
    void configure_port(uint32_t ifx, bool watched, bool shuts, Time now,
                        const PortOptions& options = {});
    // Another key for the frames of all switches; who this bridge is does not change.
    void set_key(const Key& key) { identity_.key = key; }
    // A port of the bridge, and whether it forwards. A port that begins to is probed at once.
    void set_port(uint32_t ifx, bool forwarding, Time now);
    void remove_port(uint32_t ifx);
    // An earlier process has left this port closed: it is opened when run() is next called.
    void take_closed(uint32_t ifx, Time now);
    // The interface has become a port of another bridge, or is none any more. It is reported.
    void set_elsewhere(uint32_t ifx, bool elsewhere);

    // The bridge has learned `address` (with its VLAN in the upper 16 bits) on this port. True when
    // it has moved there from another port.
    bool learned(uint64_t address, uint32_t ifx, Time now);
    // Announcements of learned addresses were lost.
    void overrun(Time now);
    // Sends one probe at once and reports kAsked: 0, ENODEV when the port is not in the bridge,
    // EPERM when it is not watched, ENETDOWN when it does not forward, EBUSY beyond the switch's
    // rate, EIO when the kernel did not take the frame. kReturned follows for each port on which
    // that probe comes back, until the next call for the port.
    void ask(uint32_t ifx, Time now);
    // A frame of kProbeEtherType that arrived on this interface in this VLAN (0: untagged), from
    // its Ethernet header on, without the VLAN tag.
    void received(uint32_t ifx, std::span<const uint8_t> frame, Time now, uint16_t vid = 0);

    // Sends what is due, for at most kPortsPerRun ports.
    void run(Time now);
    // When run() has something to do; Time::max() when nothing is planned.
    Time next() const;

    uint64_t ignored(Ignored why) const;   // any thread
    uint64_t counted(Counted what) const;  // any thread
    size_t loops() const { return loops_.size(); }

 private:
    static constexpr std::chrono::milliseconds kShortestTurn{10};  // between two wake-ups of a port

    struct Port {
        bool present = false;
        bool forwarding = false;
        bool watched = false;
        bool shuts = false;
        PortOptions options{};
        bool wanted = false;      // a triggered burst is planned
        bool queued = false;      // it waits in queue_
        Trigger trigger{};        // of that burst, or of the latest one
        uint16_t moved_vid = 0;   // VLAN that the burst probes first; 0: none
        uint64_t sequence = 0;    // of the latest probe
        uint64_t asked = 0;       // of the latest one that ask() has sent
        uint64_t valid_from = 0;  // probes before belong to an earlier link
        Time period{};
        Time burst{};               // earliest next burst
        bool closed = false;        // by the guard at link-up
        unsigned guard_probes = 0;  // since the link came up
        Time guard_next = Time::max();
        Time recheck = Time::max();  // when a proof that was put aside is tried again
        Time cut{};                  // when the prober has taken it out of service
        bool tagged = false;         // takes part and has VLANs
        size_t vlan_turn = 0;        // place in the list of the next periodic tagged probe
        size_t burst_turn = 0;       // and of the next one in a burst
        Time vlan_next = Time::max();
        Time planned = Time::max();  // as in plan_
    };
    // A probe that came back: where, from where, and who reports it.
    struct Proof {
        uint32_t ifx;
        uint32_t sender;
        uint16_t vid;       // in which it came back
        uint16_t sent_vid;  // in which it was sent
        uint32_t reporter;
        uint32_t src_ifx;  // as reported
        uint32_t cut;      // the port to cut; 0: none
    };
    struct Loop {
        Proof proof;
        Time since;
        unsigned silent;  // periodic probes since the latest returned one
    };
    // The reporting port, and the VLAN that the probe was sent in.
    using Place = std::pair<uint32_t, uint16_t>;
    using Loops = std::map<Place, Loop>;
    // The port and the VLAN from which probes of a loop leave, and the loop's place.
    using Source = std::tuple<uint32_t, uint16_t, Place>;
    struct Hold {
        Proof proof;
        Trigger trigger;
        Time until;
    };
    struct Remembered {
        uint64_t address = 0;
        uint32_t ifx = 0;
    };

    bool may_probe(const Port& port) const;
    bool takes_part(const Port& port) const;
    Port* find(uint32_t ifx);
    void review(uint32_t ifx, Port& port, bool took_part, Time now);
    void request(uint32_t ifx, Trigger trigger, Time now, uint16_t vid = 0);
    void serve(uint32_t ifx, Port& port, Time now);
    void plan(uint32_t ifx, Port& port);
    void unplan(uint32_t ifx, Port& port);
    bool take_token(Time now);
    void begin_burst(uint32_t ifx, Port& port, Time now);
    void send_burst(uint32_t ifx, Port& port, Time now);
    void serve_queue(Time now);
    bool send(uint32_t ifx, Port& port, size_t count, Time now, uint16_t vid = 0,
              uint8_t flags = 0);
    int send_asked(uint32_t ifx, Time now);
    void tell_port(uint32_t ifx, const Port& port);
    void count_silent(uint32_t sender, uint16_t vid, Time now);
    void serve_recheck(uint32_t ifx, Port& port, Time now);
    static Time next_turn(uint32_t ifx, Duration interval, Time now);
    Duration vlan_step(const Port& port) const;
    void count_tagged(Port& port, bool tagged);
    void review_vlans(uint32_t ifx, Port& port, Time now);
    void serve_vlans(uint32_t ifx, Port& port, Time now);
    void send_vlans(uint32_t ifx, Port& port, size_t most, Time now);
    void end_unlisted(uint32_t ifx, const Port& port);
    void ignore(Ignored why);
    bool is_first(const Windows::Flow& flow, const Probe& probe, Time now);
    void tally(Counted what);
    void received_foreign(uint32_t ifx, const Probe& probe, Time now, uint16_t vid);
    uint32_t choose(uint32_t ifx, uint32_t other) const;
    Proof proof_of(uint32_t ifx, const Probe& probe, Time now, uint16_t vid) const;
    void prove(uint32_t ifx, const Probe& probe, Time now, uint16_t vid);
    void review_guard(uint32_t ifx, Port& port, Time now);
    void begin_guard(uint32_t ifx, Port& port, Time now);
    void close(uint32_t ifx, Port& port);
    void open(uint32_t ifx, Port& port, Time now);
    void step_guard(uint32_t ifx, Port& port, Time now);
    void release_guard(const Proof& proof);
    bool in_loop(uint32_t ifx) const;
    static bool concerns(const Proof& proof, uint32_t ifx);
    static Place place_of(const Proof& proof) { return {proof.reporter, proof.sent_vid}; }
    bool is_held(const Proof& proof, const Probe& probe, Time now);
    void cut(const Proof& proof, Time now);
    Loops::iterator end_loop(Loops::iterator loop);
    void end_loops_of(uint32_t ifx);
    void tell(const Report& report);
    bool flush();

    Identity identity_;
    ProberOutputs& outputs_;
    Settings settings_;
    std::map<uint32_t, Port> ports_;
    std::set<std::pair<Time, uint32_t>> plan_;
    std::deque<uint32_t> queue_;  // ports whose burst waits for the switch's rate, in this order
    Time queue_next_{};           // when to serve them
    size_t tagged_ports_ = 0;
    Loops loops_;
    std::set<Source> sources_;     // of loops_
    std::map<Place, Hold> holds_;  // proofs that were put aside
    Claims claims_;
    Windows windows_;
    std::deque<Report> backlog_;  // not taken yet
    Time next_report_{};          // when to offer them again
    Zeroes<Remembered> addresses_;
    uint64_t tokens_ = kBurstsAtOnce;
    Time filled_{};
    std::array<std::atomic<uint64_t>, kIgnoredKinds> ignored_{};
    std::array<std::atomic<uint64_t>, kCountedKinds> counted_{};
};

}  // namespace qv::tarnd
