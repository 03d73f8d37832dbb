// Ports that loop detection has shut: since when, why, and what happened to ports before.
//
// The state of the agent is seen from outside. Its mark in a port's section (kHeldLine) says
// that it holds the port shut. Its "shutdown" and "no shutdown" pass the keeper of the
// configuration. A port in the loop state has a record in the object database, and so has a loop
// that a probe has proved: a port that entered the loop state without such a record was judged by a
// storm.
//
// Ports are known by their names, like sections of the configuration. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/client/port_model.h"

namespace qv::cli {

using WallTime = std::chrono::system_clock::time_point;

// A loop that the probe protocol reports.
struct ProbeReport {
    uint32_t ifx = 0;      // port on which the probe came back
    uint32_t src_ifx = 0;  // port that had sent it
    uint32_t vid = 0;
};

struct LoopFacts {
    bool tarn = false;  // proved by a probe
    bool storm = false;
    std::string other_port;  // at the other end; empty when it is not known
    uint32_t vlan = 0;       // 0 when it is not known
    bool operator==(const LoopFacts&) const = default;
};

enum class LoopAction { kFound, kShut, kWaits, kBroughtBack, kProbation, kRecovered, kRefused };

struct LoopEvent {
    WallTime time{};
    std::string port;
    LoopAction action = LoopAction::kFound;
    LoopFacts facts = {};
    // How long the port was shut (kBroughtBack) or in the loop state (kRecovered), or shall be shut
    // (kWaits) or probed (kProbation).
    std::optional<std::chrono::seconds> duration = {};
    // kWaits only: the number of this shutdown in a row of shutdowns, from 1.
    std::optional<uint32_t> times = {};
    std::string reason = {};  // of the switch, kRefused only
};

// How long a port waits for its recovery under a backoff.
struct WaitInARow {
    std::chrono::seconds wait{};
    uint32_t times = 1;  // the number of this shutdown in a row
};

// A port that is in the loop state, held shut, or both.
struct LoopedPort {
    LoopFacts facts;
    std::optional<Time> looped_since;
    std::optional<WallTime> shut_since;
    std::optional<Time> shut_at;       // empty when an earlier process has shut it
    std::optional<Time> counted_from;  // the agent counts the time to the recovery from here
    // For recovery_rules.h; they end when the port is up or gone.
    std::optional<Time> waits_from;  // the shutdown, also that of an earlier process
    std::string shut_under;          // policy_for() the port when the agent shut it last
    bool released = false;           // an operator has removed the agent's mark
    std::optional<WaitInARow> wait;  // decided at the shutdown, empty without a backoff
    EventLoop::Handle judging;       // until it is decided that no probe has proved the loop
};

class HeldPorts {
 public:
    static constexpr size_t kMaxEvents = 1000;
    // A probe's record that is later than this after the loop state did not cause it.
    static constexpr std::chrono::seconds kSettle{1};

    // ---- What happens ----

    // The agent's "shutdown" was carried out. `before` is the port as it was. Returns false, and
    // adds no event, for a line that is repeated while the port is shut.
    bool shut(const Port& before);
    // The port, which was shut just now, waits for its recovery.
    void waits(const std::string& port, const WaitInARow& wait);
    // The port, which the agent has just brought back, is probed for this time before it forwards.
    void on_probation(const std::string& port, std::chrono::seconds time);
    // The agent's "no shutdown" is about to be executed, or the agent takes the port for another
    // one: it no longer counts.
    void recovery_begins(const std::string& port);
    // The switch has refused the agent's "shutdown", or "no shutdown" for `up`. The agent goes on
    // holding the port.
    void refused(const std::string& port, bool up, const std::string& reason);
    // The switch has refused the agent's "no shutdown" by a rule of its own. The same reason is one
    // event for each shutdown.
    void postponed(const std::string& port, const std::string& reason);
    // An operator removes the agent's mark: no rule of the switch postpones the recovery.
    void release(const std::string& port);
    // The port is up, whoever did it.
    void came_up(const std::string& port);
    // The port has left.
    void removed(const std::string& port);
    // It has another name. A loop of the agent keeps the old one.
    void renamed(const std::string& from, const std::string& to);
    // The port has entered the loop state, has left it.
    void loop_found(const std::string& port);
    void loop_ended(const std::string& port);
    // A record of the probe protocol: it says that there is a loop, or that there is none.
    void probe_reports(const ProbeReport& report, bool is_loop);
    void forget_probe_reports() { reports_.clear(); }

    // The events of an earlier process, oldest first; before all others.
    void restore(std::deque<LoopEvent> events);
    // Calls `callback` after each change of the events. There is one callback: a later one replaces
    // it, null removes it.
    void on_event(std::function<void()> callback) { changed_ = std::move(callback); }

    // ---- What is known ----

    // Null when the port is neither shut nor in the loop state. Valid until the next event.
    const LoopedPort* find(const std::string& port) const;
    // Whether the records of the probe protocol say that the port is part of a loop now.
    bool probe_sees_loop(uint32_t ifx) const { return report_about(ifx) != nullptr; }
    // How often the port has been shut since a time.
    size_t times_shut(const std::string& port, WallTime since) const;
    // The wait of the shutdown before, if the port is shut again so soon that this one is the next
    // in a row: the port has been up for no longer than that wait. Else empty.
    std::optional<WaitInARow> wait_before(const std::string& port) const;
    // The reason of the latest refusal since the port was shut; empty when there is none.
    std::string last_refusal(const std::string& port) const;
    // The newest kMaxEvents events, oldest first.
    const std::deque<LoopEvent>& events() const { return events_; }

 private:
    using Ports = std::map<std::string, LoopedPort>;

    const ProbeReport* report_about(uint32_t ifx) const;
    void learn(Ports::value_type& port, uint32_t ifx);
    void judge(const std::string& port);
    void correct_events(const Ports::value_type& port);
    void add(LoopEvent event);
    void report_change() const;
    void drop_if_idle(Ports::iterator port);

    // The newest wait of a port that has one.
    struct LastWait {
        WaitInARow wait;
        std::optional<Time> up_since;  // empty while the port is shut
    };

    Ports ports_;
    std::map<std::string, LastWait> last_waits_;  // also of ports that are quiet
    std::map<uint32_t, ProbeReport> reports_;     // of present loops, by `ifx`
    std::deque<LoopEvent> events_;
    std::function<void()> changed_;
};

// The ones of this process.
HeldPorts& held_ports();

// "tarn", "storm", both or none.
std::vector<std::string> source_names(const LoopFacts& facts);

// The lines of the configuration that decide whether the agent shuts a port: the policy and the
// port's VLAN mode, as text to be compared. Walks the global trees.
std::string policy_for(const Port& port);

// Whether the section of the port has the agent's mark. Walks the trees of its mode.
bool is_marked(const Port& port);

}  // namespace qv::cli
