// Reports to the supervisor of the process (systemd, sd_notify(3)): one status line, and once
// that the process is ready. Without a supervisor nothing happens. Loop thread only.
#pragma once

#include <cstdint>
#include <string>

namespace qv {

// The process does its work from now on. `state` is the status line while nothing is missing.
void report_ready(const std::string& state);

// Something that the process cannot work without is missing, or is there again. The status line
// names all of it.
void report_database(uint32_t db, bool missing);
void report_bridge(const std::string& name, bool missing);

// Tells a watchdog that the loop still turns.
void report_alive();

}  // namespace qv
