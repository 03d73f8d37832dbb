// The agent's own table of ports, as its command "show lda detect-result" prints it.
//
// The object database has an entry for each port in the loop state, but an entry outlives the port
// that it is about, and has neither the VLAN mode by which the agent judges (a member of an
// aggregate is judged by that of the aggregate) nor the sources. The table has all of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::cli {

// One port of the agent.
struct AgentPort {
    uint32_t ifx = 0;
    std::string name;
    bool in_table = false;   // counted as looped
    bool tarn = false;       // a probe reports the loop
    bool storm = false;      // storm detection reports it
    bool held = false;       // shut down by the agent
    uint32_t vlan_mode = 0;  // a value of qv/bridge.h
    bool operator==(const AgentPort&) const = default;
};

struct AgentTable {
    uint32_t policy = 0;  // as in platform/client/loop_policy.h
    std::vector<AgentPort> ports;
};

// Nothing when the text has no policy. Rows that are not whole are left out. Any thread.
std::optional<AgentTable> parse_agent_table(std::string_view text);

// Asks the agent in this process; nothing while it has not added its command. Loop thread only.
std::optional<AgentTable> read_agent_table();

}  // namespace qv::cli
