#include "platform/base/supervisor.h"

#include <set>
#include <sstream>

#include <systemd/sd-daemon.h>

#include "platform/base/metrics.h"

namespace qv {
namespace {

struct Report {
    std::set<uint32_t> databases;   // missing
    std::set<std::string> bridges;  // missing
    std::string state = "starting";
    bool standing_by = false;
    std::string status;  // as last sent
};

Report& report() {
    static Report& instance = *new Report;
    return instance;
}

// "databases 3, 4"; nothing for an empty set.
template <typename Thing>
std::string list(const std::set<Thing>& things, const char* one, const char* many) {
    std::ostringstream text;
    const char* before = things.size() == 1 ? one : many;
    for (const Thing& thing : things) {
        text << before << thing;
        before = ", ";
    }
    return text.str();
}

std::string status_of(const Report& report) {
    if (report.standing_by) {
        return "standing by for the master";
    }
    const std::string bridges = list(report.bridges, "bridge ", "bridges ");
    const std::string databases = list(report.databases, "database ", "databases ");
    if (bridges.empty() && databases.empty()) {
        return report.state;
    }
    return "waiting for " + bridges + (bridges.empty() || databases.empty() ? "" : " and ") +
           databases;
}

void tell(const std::string& before) {
    const std::string status = status_of(report());
    if (status != report().status || !before.empty()) {
        report().status = status;
        sd_notify(0, (before + "STATUS=" + status).c_str());
    }
}

template <typename Things, typename Thing>
void note(Things& things, const Thing& thing, bool missing) {
    if (missing) {
        things.insert(thing);
    } else {
        things.erase(thing);
    }
    tell("");
}

}  // namespace

void report_ready(const std::string& state) {
    report().state = state;
    tell("READY=1\n");
}

void report_standby(bool standing_by) {
    report().standing_by = standing_by;
    tell(standing_by ? "READY=1\n" : "");
}

bool report_database(uint32_t db, bool missing) {
    const bool news = report().databases.contains(db) != missing;
    note(report().databases, db, missing);
    if (Metrics* const figures = metrics()) {
        figures->databases_away = report().databases.size();
    }
    return news;
}

void report_bridge(const std::string& name, bool missing) {
    note(report().bridges, name, missing);
}

std::string status_line() {
    return status_of(report());
}

void report_alive() {
    sd_notify(0, "WATCHDOG=1");
}

}  // namespace qv
