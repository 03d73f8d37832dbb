#include "platform/client/loop_metrics.h"

#include <map>

#include "p_bridge.pb-c.h"
#include "platform/base/metrics.h"
#include "platform/client/platform.h"

namespace qv {
namespace {

constexpr std::string_view kLoopEntries = "p_app.lda_loop_entry/";

bool g_probe_report = false;          // a report of the probe protocol is being delivered
std::map<uint32_t, Time> g_reported;  // first report of each port, until its next line

bool is_old(Time reported) {
    return platform().clock().now() - reported > kLongestReaction;
}

// The indexes come from outside: only those of ports are kept. Those of ports that have left are
// dropped when there are more of them than ports.
void note_report(uint32_t ifx) {
    const PortModel& ports = platform().ports();
    if (!ports.find(ifx)) {
        return;
    }
    if (g_reported.size() > ports.ports().size()) {
        std::erase_if(g_reported, [](const auto& report) { return is_old(report.second); });
    }
    const auto known = g_reported.find(ifx);
    if (known == g_reported.end() || is_old(known->second)) {
        g_reported[ifx] = platform().clock().now();
    }
}

}  // namespace

RecordDelivery::RecordDelivery(const ProtobufCMessage& record, bool deleted) {
    if (record.descriptor != &p_bridge__tarn_loop_info__descriptor) {
        return;
    }
    g_probe_report = true;
    if (metrics()) {
        const auto& report = reinterpret_cast<const PBridge__TarnLoopInfo&>(record);
        if (!deleted && report.is_loop != 0 && report.index) {
            note_report(report.index->ifx);
            note_report(report.src_ifx);
        }
    }
}

RecordDelivery::~RecordDelivery() {
    g_probe_report = false;
}

bool delivering_probe_report() {
    return g_probe_report;
}

void count_own_record(std::string_view key) {
    if (Metrics* const figures = metrics(); figures && key.starts_with(kLoopEntries)) {
        figures->looped_ports++;
        (g_probe_report ? figures->loops_by_probe : figures->loops_by_storm)++;
    }
}

void discount_own_record(std::string_view key) {
    if (Metrics* const figures = metrics(); figures && key.starts_with(kLoopEntries)) {
        figures->looped_ports--;
    }
}

void count_admin_line(uint32_t ifx, bool up, bool changed) {
    Metrics* const figures = metrics();
    if (!figures) {
        return;
    }
    const auto reported = g_reported.extract(ifx);
    if (!changed) {
        return;
    }
    (up ? figures->recoveries : figures->shutdowns)++;
    if (!up && !reported.empty() && !is_old(reported.mapped())) {
        figures->reaction.observe(platform().clock().now() - reported.mapped());
    }
}

size_t running_reactions() {
    return g_reported.size();
}

void count_refused_admin_line(bool up) {
    if (Metrics* const figures = metrics()) {
        (up ? figures->recoveries_refused : figures->shutdowns_refused)++;
    }
}

}  // namespace qv
