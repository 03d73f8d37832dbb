#include "platform/cli/held_ports.h"

#include <algorithm>
#include <utility>

#include "platform/base/tarn_limits.h"
#include "platform/cli/port_sections.h"
#include "platform/cli/running_config.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using std::chrono::duration_cast;
using std::chrono::seconds;

Time loop_now() {
    return platform().clock().now();
}

WallTime wall_now() {
    return std::chrono::system_clock::now();
}

// The wall clock may have been set back since.
seconds time_since(WallTime time) {
    return std::max(seconds(0), duration_cast<seconds>(wall_now() - time));
}

// By the loop's clock where this process has shut the port, else by the wall clock.
seconds time_shut(const LoopedPort& port) {
    return port.shut_at ? duration_cast<seconds>(loop_now() - *port.shut_at)
                        : time_since(*port.shut_since);
}

// The port is no longer shut.
void end_shutdown(LoopedPort& port) {
    port.shut_since.reset();
    port.shut_at.reset();
    port.waits_from.reset();
    port.released = false;
    port.wait.reset();
}

// Whether the event is the last one of a loop or of a shutdown.
bool ends_something(const LoopEvent& event) {
    return event.action == LoopAction::kBroughtBack || event.action == LoopAction::kRecovered;
}

}  // namespace

bool HeldPorts::shut(const Port& before) {
    Ports::value_type& entry = *ports_.try_emplace(before.name).first;
    LoopedPort& port = entry.second;
    if (!port.counted_from) {
        port.counted_from = loop_now();
    }
    learn(entry, before.ifx);
    port.shut_under = policy_for(before);
    if (port.shut_since && !before.admin_up) {
        if (!port.waits_from) {  // an earlier process has shut it
            port.waits_from = loop_now() - time_shut(port);
        }
        return false;
    }
    port.waits_from = loop_now();
    port.shut_since = wall_now();
    port.shut_at = loop_now();
    add({.time = *port.shut_since,
         .port = before.name,
         .action = LoopAction::kShut,
         .facts = port.facts});
    return true;
}

void HeldPorts::waits(const std::string& port, const WaitInARow& wait) {
    LoopedPort& entry = ports_[port];
    entry.wait = wait;
    last_waits_[port] = {wait, {}};
    add({.time = wall_now(),
         .port = port,
         .action = LoopAction::kWaits,
         .facts = entry.facts,
         .duration = wait.wait,
         .times = wait.times});
}

void HeldPorts::on_probation(const std::string& port, std::chrono::seconds time) {
    add({.time = wall_now(), .port = port, .action = LoopAction::kProbation, .duration = time});
}

std::optional<WaitInARow> HeldPorts::wait_before(const std::string& port) const {
    const auto found = last_waits_.find(port);
    if (found == last_waits_.end() || !found->second.up_since ||
        loop_now() - *found->second.up_since > found->second.wait.wait) {
        return {};
    }
    return found->second.wait;
}

void HeldPorts::recovery_begins(const std::string& port) {
    const auto found = ports_.find(port);
    if (found != ports_.end()) {
        found->second.counted_from.reset();
        drop_if_idle(found);
    }
}

void HeldPorts::refused(const std::string& port, bool up, const std::string& reason) {
    LoopedPort& entry = ports_[port];
    if (up || !entry.counted_from) {
        entry.counted_from = loop_now();
    }
    add({.time = wall_now(),
         .port = port,
         .action = LoopAction::kRefused,
         .facts = entry.facts,
         .reason = reason});
}

void HeldPorts::postponed(const std::string& port, const std::string& reason) {
    const auto found = ports_.find(port);
    if (found == ports_.end()) {
        return;
    }
    found->second.counted_from = loop_now();
    if (last_refusal(port) != reason) {
        refused(port, true, reason);
    }
}

void HeldPorts::release(const std::string& port) {
    const auto found = ports_.find(port);
    if (found != ports_.end()) {
        found->second.released = true;
    }
}

void HeldPorts::came_up(const std::string& port) {
    const auto found = ports_.find(port);
    if (found == ports_.end() || !found->second.shut_since) {
        return;
    }
    LoopedPort& entry = found->second;
    add({.time = wall_now(),
         .port = port,
         .action = LoopAction::kBroughtBack,
         .facts = entry.facts,
         .duration = time_shut(entry)});
    end_shutdown(entry);
    drop_if_idle(found);
    const auto waited = last_waits_.find(port);
    if (waited != last_waits_.end()) {
        waited->second.up_since = loop_now();
    }
}

// The agent reports the end of its loop, too, but only when its timer is over.
void HeldPorts::removed(const std::string& port) {
    last_waits_.erase(port);
    const auto found = ports_.find(port);
    if (found == ports_.end()) {
        return;
    }
    end_shutdown(found->second);
    found->second.counted_from.reset();
    drop_if_idle(found);
}

void HeldPorts::renamed(const std::string& from, const std::string& to) {
    const auto found = ports_.find(from);
    if (found == ports_.end()) {
        return;
    }
    LoopedPort& port = ports_[to];
    port.facts = found->second.facts;
    port.shut_since = found->second.shut_since;
    port.shut_at = found->second.shut_at;
    port.counted_from = found->second.counted_from;
    port.waits_from = found->second.waits_from;
    port.shut_under = found->second.shut_under;
    port.released = found->second.released;
    port.wait = found->second.wait;
    if (port.wait) {
        last_waits_[to] = {*port.wait, {}};
    }
    drop_if_idle(ports_.find(to));
    removed(from);
}

void HeldPorts::loop_found(const std::string& port) {
    Ports::value_type& entry = *ports_.try_emplace(port).first;
    if (entry.second.looped_since) {
        return;
    }
    entry.second.looped_since = loop_now();
    add({.time = wall_now(),
         .port = port,
         .action = LoopAction::kFound,
         .facts = entry.second.facts});
    const Port* const known = platform().ports().find(std::string_view(port));
    learn(entry, known != nullptr ? known->ifx : 0);
    if (!entry.second.facts.tarn) {
        entry.second.judging = platform().loop().after(kSettle, [this, port] { judge(port); });
    }
}

// No probe has proved the loop of this port.
void HeldPorts::judge(const std::string& port) {
    const auto found = ports_.find(port);
    if (found != ports_.end() && !found->second.facts.tarn) {
        found->second.facts.storm = true;
        correct_events(*found);
    }
}

void HeldPorts::loop_ended(const std::string& port) {
    const auto found = ports_.find(port);
    if (found == ports_.end() || !found->second.looped_since) {
        return;
    }
    LoopedPort& entry = found->second;
    add({.time = wall_now(),
         .port = port,
         .action = LoopAction::kRecovered,
         .facts = entry.facts,
         .duration = duration_cast<seconds>(loop_now() - *entry.looped_since)});
    entry.looped_since.reset();
    entry.judging.reset();
    drop_if_idle(found);
}

void HeldPorts::probe_reports(const ProbeReport& report, bool is_loop) {
    if (!is_loop) {
        reports_.erase(report.ifx);
        return;
    }
    reports_[report.ifx] = report;
    for (const uint32_t ifx : {report.ifx, report.src_ifx}) {
        const Port* const port = platform().ports().find(ifx);
        const auto found = port != nullptr ? ports_.find(port->name) : ports_.end();
        if (found != ports_.end()) {
            learn(*found, ifx);
        }
    }
}

// The report of the port itself, else one that names it as the sender.
const ProbeReport* HeldPorts::report_about(uint32_t ifx) const {
    const auto own = reports_.find(ifx);
    if (own != reports_.end()) {
        return &own->second;
    }
    const auto other = std::find_if(reports_.begin(), reports_.end(),
                                    [ifx](const auto& item) { return item.second.src_ifx == ifx; });
    return other != reports_.end() ? &other->second : nullptr;
}

// A report of the probe protocol may be withdrawn; the facts that it gave stay known.
void HeldPorts::learn(Ports::value_type& port, uint32_t ifx) {
    const ProbeReport* const report = report_about(ifx);
    if (report == nullptr) {
        return;
    }
    const Port* const other =
        platform().ports().find(report->ifx == ifx ? report->src_ifx : report->ifx);
    LoopFacts& facts = port.second.facts;
    facts.tarn = true;
    facts.other_port = other != nullptr ? other->name : facts.other_port;
    facts.vlan = report->vid <= kLastVlan ? report->vid : 0;
    correct_events(port);
}

// The events of the port since its present loop was found.
void HeldPorts::correct_events(const Ports::value_type& port) {
    bool changed = false;
    for (auto event = events_.rbegin(); event != events_.rend(); ++event) {
        if (event->port != port.first) {
            continue;
        }
        if (ends_something(*event)) {
            break;
        }
        changed = changed || event->facts != port.second.facts;
        event->facts = port.second.facts;
        if (event->action == LoopAction::kFound) {
            break;
        }
    }
    if (changed) {
        report_change();
    }
}

void HeldPorts::add(LoopEvent event) {
    events_.push_back(std::move(event));
    if (events_.size() > kMaxEvents) {
        events_.pop_front();
    }
    report_change();
}

void HeldPorts::report_change() const {
    if (changed_) {
        changed_();
    }
}

// Loops are not restored: the agent finds them again. A port that it still holds is known as shut
// since then; if it was brought back in between, its next shutdown begins anew.
void HeldPorts::restore(std::deque<LoopEvent> events) {
    events_ = std::move(events);
    for (const LoopEvent& event : events_) {
        if (event.action == LoopAction::kShut) {
            ports_[event.port].facts = event.facts;
            ports_[event.port].shut_since = event.time;
        } else if (event.action == LoopAction::kWaits) {
            const WaitInARow wait{event.duration.value_or(seconds(0)), event.times.value_or(1)};
            const auto shut = ports_.find(event.port);
            if (shut != ports_.end()) {
                shut->second.wait = wait;
            }
            last_waits_[event.port] = {wait, {}};
        } else if (event.action == LoopAction::kBroughtBack) {
            ports_.erase(event.port);
            const auto waited = last_waits_.find(event.port);
            if (waited != last_waits_.end()) {
                waited->second.up_since = loop_now() - time_since(event.time);
            }
        }
    }
}

void HeldPorts::drop_if_idle(Ports::iterator port) {
    const LoopedPort& entry = port->second;
    if (!entry.looped_since && !entry.shut_since && !entry.counted_from) {
        ports_.erase(port);
    }
}

const LoopedPort* HeldPorts::find(const std::string& port) const {
    const auto found = ports_.find(port);
    return found != ports_.end() ? &found->second : nullptr;
}

size_t HeldPorts::times_shut(const std::string& port, WallTime since) const {
    return static_cast<size_t>(
        std::count_if(events_.begin(), events_.end(), [&](const LoopEvent& event) {
            return event.action == LoopAction::kShut && event.port == port && event.time > since;
        }));
}

std::string HeldPorts::last_refusal(const std::string& port) const {
    const auto latest = std::find_if(events_.rbegin(), events_.rend(), [&](const LoopEvent& event) {
        return event.port == port &&
               (event.action == LoopAction::kRefused || event.action == LoopAction::kShut ||
                event.action == LoopAction::kBroughtBack);
    });
    return latest != events_.rend() ? latest->reason : "";
}

HeldPorts& held_ports() {
    static auto& instance = *new HeldPorts;  // its timers are those of the process's loop
    return instance;
}

std::vector<std::string> source_names(const LoopFacts& facts) {
    std::vector<std::string> names;
    if (facts.tarn) {
        names.emplace_back("tarn");
    }
    if (facts.storm) {
        names.emplace_back("storm");
    }
    return names;
}

std::string policy_for(const Port& port) {
    std::string lines;
    for (const ConfigLine& line : generate_global().lines) {
        if (line.text.starts_with("loop-detect enable")) {
            lines = line.text;
        }
    }
    return lines + ", mode " + std::to_string(port.mode);
}

bool is_marked(const Port& port) {
    return has_line(generate_section(port), kHeldLine);
}

}  // namespace qv::cli
