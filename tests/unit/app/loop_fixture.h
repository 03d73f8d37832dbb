// A started agent on the fake platform, and the lines recorded for its calls and log lines.
//
// The expected lines are assembled from the function, text and values that a test writes out, never
// from the agent's own output.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/unit/app/agent_fixture.h"

namespace loop_test {

using fake::Lines;

// ---- Expected lines ----

// A line of the log file, with the logging macro's "<function:line> " at its start.
std::string debug_line(const std::string& function, const std::string& text);
std::string info(const std::string& function, const std::string& text);
std::string warn(const std::string& function, const std::string& text);
std::string error(const std::string& function, const std::string& text);

// The NETCONF notification of a port: kind 1 loop, 2 cleared.
std::string notification(const std::string& name, int kind, int policy, int src_port);
// Publication and withdrawal of a loop entry.
std::string entry_set(const std::string& name, int policy, int src_port);
std::string entry_del(const std::string& name);
// System-log lines of a port that enters and leaves the loop table.
std::string detected(const std::string& name);
std::string recovered(const std::string& name);
// An executed line on a session, in global configuration or in the mode of a port.
std::string executed(int session, const std::string& line);
std::string executed(int session, const std::string& line, uint32_t ifx);

Lines joined(std::initializer_list<Lines> parts);

// ---- State of the agent ----

// The records in list order.
std::vector<lda_intf_t*> records();
// Whether a thread other than the caller's could take the mutex now.
bool free_for_others(pthread_mutex_t* mutex);

// The started agent with the log levels of a start without a level file. It logs errors and
// warnings only, so hardly any log line is among the recorded calls. Detection is disabled.
class StartedAgent : public AgentTest {
 protected:
    StartedAgent();

    // Adds a port that is in the loop table because of source 0 and not shut down; drops the calls
    // made. The policy stays the one given.
    static lda_intf_t* looped(uint32_t ifx, uint32_t mode, uint32_t policy);
    // Adds a port to the switch and its record to the agent; drops the calls made.
    static lda_intf_t* add(uint32_t ifx, uint32_t mode = SWPORT_MODE_ACCESS);
    // Turns INFO and DEBUG lines on.
    static void log_everything();
    // Adds a port to the pending-interface list.
    static void pend(uint32_t ifx);
    // Removes all messages from the queue; returns them like queued().
    static Lines take_posted();
};

}  // namespace loop_test
