// Reports to the supervisor of the process (systemd, sd_notify(3)): a status line, and once that
// the process is ready. Does nothing without a supervisor. Loop thread only.
#pragma once

#include <cstdint>
#include <string>

namespace qv {

// Reports that the process is ready. `state` is the status line while nothing is missing.
void report_ready(const std::string& state);

// Reports that the process is ready because it stands by: it needs nothing until `standing_by` is
// false, and only then does the status line name what is missing.
void report_standby(bool standing_by);

// Reports that something the process needs is missing, or back. The status line names everything
// missing. For a database: returns whether this is news.
bool report_database(uint32_t db, bool missing);
void report_bridge(const std::string& name, bool missing);

// The status line: "starting" at first, then the state of a process that misses nothing, else
// "waiting for bridge br0 and databases 3, 4" or "standing by for the master".
std::string status_line();

// Tells a watchdog that the loop still runs.
void report_alive();

}  // namespace qv
