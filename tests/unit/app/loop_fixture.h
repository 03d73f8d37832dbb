// A started agent on the fake platform, and the lines that its calls and log lines make there.
//
// The expected lines are put together from what a test writes out: function, text, values. Nothing
// here asks the agent what it would say.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/unit/app/agent_fixture.h"

namespace loop_test {

using fake::Lines;

// ---- Expected lines ----

// A line of the log file, "<function:line> " in front as the logging macro writes it.
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

    // A port that is in the loop table because of source 0, not shut down, with no trace left of
    // how it got there. The policy is the one given, now and afterwards.
    static lda_intf_t* looped(uint32_t ifx, uint32_t mode, uint32_t policy);
    // Adds a port to the switch and its record to the agent; the calls of that are forgotten.
    static lda_intf_t* add(uint32_t ifx, uint32_t mode = SWPORT_MODE_ACCESS);
    // From here on INFO and DEBUG lines are written too.
    static void log_everything();
    // Puts a port on the list of those to be marked when they appear.
    static void pend(uint32_t ifx);
    // Takes all messages off the queue, in the words of queued().
    static Lines take_posted();
};

}  // namespace loop_test
