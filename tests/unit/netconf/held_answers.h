// An agent that answers the question for the ports that are held shut.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/netconf/database_peer.h"

namespace netconf::test {

// As in p_nc.held_port.
struct HeldRecord {
    std::string name;
    std::vector<std::string> sources{};
    std::string other_port{};
    uint32_t vlan = 0;
    uint64_t since_ms = 0;
    uint64_t recovers_at_ms = 0;
    uint32_t shut_last_day = 0;
    bool still_looped = false;
    std::string rule{};
    std::string refused{};
};

// swp2 with a value in each field.
HeldRecord full_record();

inline constexpr const char* kHeldAnswers = "mom/3/p_nc.held_answer";

// The id of a question, as it is published.
std::string question_in(const std::string& channel, const std::string& payload);
// A packed p_nc.held_answer.
std::string held_answer(std::string id, std::vector<HeldRecord> ports);
// From now on `database` answers each question with these ports.
void answer_held_ports(DatabasePeer& database, const std::vector<HeldRecord>& ports);

}  // namespace netconf::test
