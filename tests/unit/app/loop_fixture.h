// A started agent on the fake platform, and the lines that its calls and log lines make there.
//
// The expected lines are put together from what a test writes out: function, text, values. Nothing
// here asks the agent what it would say.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "lda_cli_delivery.h"
#include "lda_msg.h"
#include "tests/support/fake_qv/fake_qv.h"

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

// ---- The queue of the delivery thread ----

// Takes all messages off the queue: "type=2 mid=2 ifx=7 shutdown=1", fields that are 0 left out
// but for the type.
Lines take_posted();
// A message as that shows it, fields in the order type, mid, ifx, new, old, shutdown, enable.
std::string message_text(const lda_cli_msg_t& message);

// ---- Memory and locks ----

// The records in list order.
std::vector<lda_intf_t*> records();
// Whether a thread other than the caller's could take the mutex now.
bool free_for_others(pthread_mutex_t* mutex);

// An agent after its role callback, ports and sessions still to come; detection is disabled. The
// delivery thread is held back.
class StartedAgent : public testing::Test {
 protected:
    void SetUp() override;

    // Adds a port to the switch and its record to the loop set; the calls of that are forgotten.
    lda_intf_t* add(uint32_t ifx, uint32_t mode = SWPORT_MODE_ACCESS);
    // A port that is in the loop table because of source 0, not shut down, with no trace left of
    // how it got there. The policy is the one given, now and afterwards.
    lda_intf_t* looped(uint32_t ifx, uint32_t mode, uint32_t policy);
    // From here on INFO and DEBUG lines are written too.
    static void log_everything();
    // Puts a port on the list of those to be marked when they appear.
    static void pend(uint32_t ifx);
};

}  // namespace loop_test
