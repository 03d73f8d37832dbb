// "show loop-detect what-if": the answer, and what the agent then does.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "lda_msg.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// The agent's policies 1 to 4, as its line names them.
const std::vector<std::string> kPolicies{"", " shutdown access-mode", " shutdown hybrid-mode",
                                         " shutdown access-hybrid-mode"};
const std::vector<std::string> kModes{"access", "trunk", "hybrid"};

json ask(SwitchRig& rig, const std::string& policy) {
    return json::parse(rig.type("show loop-detect what-if enable" + policy + " | json"));
}

std::set<std::string> names(const json& rows) {
    std::set<std::string> ports;
    for (const json& row : rows) {
        ports.insert(row["port"].get<std::string>());
    }
    return ports;
}

std::set<std::string> answered(SwitchRig& rig, const std::string& policy) {
    return names(ask(rig, policy)["shut"]);
}

// Ports that the agent holds shut.
std::set<std::string> held(SwitchRig& rig) {
    std::set<std::string> ports;
    rig.on_main([&] {
        for (const lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
            if (record.is_shutdown) {
                ports.insert(record.name);
            }
        }
    });
    return ports;
}

void set_policy(SwitchRig& rig, const std::string& policy) {
    rig.type({"configure terminal", "loop-detect enable" + policy, "end"});
}

void set_mode(SwitchRig& rig, const std::string& port, const std::string& mode) {
    rig.type({"configure terminal", "interface " + port, "switchport mode " + mode, "end"});
}

SwitchRig::Options with_ports(unsigned ports) {
    SwitchRig::Options options;
    options.ports = ports;
    return options;
}

// ---- Agreement with the agent ----

TEST(WhatIf, NamesThePortsThatTheAgentThenHolds) {
    SwitchRig rig(with_ports(3));
    size_t compared = 0;
    for (const std::string& first : kModes) {
        for (const std::string& second : kModes) {
            set_mode(rig, "swp1", first);
            set_mode(rig, "swp2", second);
            for (const std::string& before : kPolicies) {
                for (const std::string& after : kPolicies) {
                    SCOPED_TRACE(first + " " + second + ":" + before + " ->" + after);
                    set_policy(rig, before);
                    rig.report(1, 1, 2);
                    const std::set<std::string> answer = answered(rig, after);
                    set_policy(rig, after);
                    EXPECT_EQ(answer, held(rig));
                    rig.type({"configure terminal", "no loop-detect enable", "end"});
                    ++compared;
                }
            }
        }
    }
    EXPECT_EQ(compared, 144U);
}

TEST(WhatIf, AgreesForPortsThatWereRecoveredAndStillLoop) {
    SwitchRig rig(with_ports(2));
    for (const std::string& after : kPolicies) {
        SCOPED_TRACE(after);
        set_policy(rig, " shutdown access-mode");
        rig.report(1, 1, 1);
        rig.advance(310s);
        EXPECT_EQ(held(rig), std::set<std::string>{});
        const std::set<std::string> answer = answered(rig, after);
        set_policy(rig, after);
        EXPECT_EQ(answer, held(rig));
        rig.type({"configure terminal", "no loop-detect enable", "end"});
    }
}

TEST(WhatIf, AgreesWhenTheLoopTableIsFull) {
    SwitchRig rig(with_ports(12));
    set_policy(rig, " shutdown access-mode");
    for (uint32_t port = 1; port <= 11; ++port) {
        rig.report(port, 1, port);
    }
    EXPECT_EQ(held(rig).size(), 11U);
    const json answer = ask(rig, " shutdown access-hybrid-mode");
    EXPECT_EQ(answer["shut"].size(), 10U);
    ASSERT_EQ(names(answer["reported"]), std::set<std::string>{"swp11"});
    EXPECT_EQ(answer["reported"][0]["reason"],
              "the loop table is full; the next report of the loop shuts it");
    EXPECT_EQ(answered(rig, " shutdown access-mode").size(), 11U);  // it is in force
    set_policy(rig, " shutdown access-hybrid-mode");
    EXPECT_EQ(names(answer["shut"]), held(rig));
    rig.report(11, 1, 11);
    EXPECT_EQ(held(rig).size(), 11U);
}

TEST(WhatIf, JudgesAMemberByTheModeOfItsAggregate) {
    SwitchRig rig(with_ports(3));
    set_policy(rig, "");
    rig.type("test aggregate create ag1");
    set_mode(rig, "ag1", "hybrid");
    rig.type("test aggregate join ag1 swp2");
    rig.report(2, 1, 2);
    EXPECT_EQ(answered(rig, " shutdown access-mode"), std::set<std::string>{});
    EXPECT_EQ(answered(rig, " shutdown hybrid-mode"), std::set<std::string>{"swp2"});
    set_policy(rig, " shutdown hybrid-mode");
    EXPECT_EQ(held(rig), std::set<std::string>{"swp2"});
}

TEST(WhatIf, PortThatCameBackUnderTheNameOfALoopedOneIsNotLooped) {
    SwitchRig rig(with_ports(2));
    set_policy(rig, "");
    rig.report(2, 1, 2);
    rig.type({"test port delete swp2", "test port add swp2"});
    EXPECT_EQ(rig.entry("swp2"), "policy=0 src_port=1");  // the entry outlives its port
    EXPECT_EQ(answered(rig, " shutdown access-mode"), std::set<std::string>{});
    set_policy(rig, " shutdown access-mode");
    EXPECT_EQ(held(rig), std::set<std::string>{});
}

// ---- The answer ----

TEST(WhatIf, HasThreeGroupsWithReasons) {
    SwitchRig rig(with_ports(5));
    set_mode(rig, "swp2", "trunk");
    set_mode(rig, "swp3", "hybrid");
    set_mode(rig, "swp5", "trunk");
    set_policy(rig, "");
    rig.report(1, 1, 2);
    EXPECT_EQ(rig.type("show loop-detect what-if enable shutdown access-mode"),
              "Policy: loop-detect enable shutdown access-mode\n"
              "Now:    loop-detect enable\n"
              "\n"
              "Looped and shut:\n"
              "Port             VLAN mode Source     Other port       VLAN  Now\n"
              "swp1             access    tarn       swp2             1     open\n"
              "\n"
              "Looped and only reported:\n"
              "Port             VLAN mode Source     Other port       VLAN  Now    Reason\n"
              "swp2             trunk     tarn       swp1             1     open   no policy shuts "
              "this VLAN mode\n"
              "\n"
              "Never shut by this policy:\n"
              "Port             VLAN mode Reason\n"
              "swp3             hybrid    the policy does not name this VLAN mode\n"
              "swp5             trunk     no policy shuts this VLAN mode\n");
}

TEST(WhatIf, HasEveryGroupInJson) {
    SwitchRig rig(with_ports(2));
    set_policy(rig, " shutdown access-mode");
    rig.report(1, 1, 1);
    EXPECT_EQ(ask(rig, ""), json::parse(R"({"version":1,"policy":"loop-detect enable",
                  "policy_now":"loop-detect enable shutdown access-mode","shut":[],
                  "reported":[{"port":"swp1","mode":"access","sources":["tarn"],
                               "other_port":"swp1","vlan":1,"now":"shut",
                               "reason":"the policy only warns"}],
                  "never":[{"port":"swp2","mode":"access","reason":"the policy only warns"}]})"));
}

TEST(WhatIf, SaysThatNoLoopIsKnownWhileDetectionIsDisabled) {
    SwitchRig rig(with_ports(1));
    EXPECT_EQ(rig.type("show loop-detect what-if enable shutdown access-hybrid-mode"),
              "Policy: loop-detect enable shutdown access-hybrid-mode\n"
              "Now:    no loop-detect enable\n"
              "Loop detection is disabled: no loop is known.\n"
              "\nLooped and shut: none\n"
              "\nLooped and only reported: none\n"
              "\nNever shut by this policy: none\n");
}

TEST(WhatIf, NamesPortsThatDetectionDoesNotWatch) {
    SwitchRig rig(with_ports(2));
    set_policy(rig, "");
    rig.type("test vsl create swp2");
    const json answer = ask(rig, " shutdown access-mode");
    ASSERT_EQ(answer["never"].size(), 1U);
    EXPECT_EQ(answer["never"][0]["port"], "swp2");
    EXPECT_EQ(answer["never"][0]["reason"], "loop detection does not watch this port");
}

TEST(WhatIf, PolicyInForceLeavesARecoveredPortOpen) {
    SwitchRig rig(with_ports(1));
    set_policy(rig, " shutdown access-mode");
    rig.report(1, 1, 1);
    rig.advance(310s);
    const json answer = ask(rig, " shutdown access-mode");
    EXPECT_EQ(answer["shut"], json::array());
    EXPECT_EQ(answer["reported"][0]["reason"],
              "the policy is in force already; the next report of the loop shuts it");
}

TEST(WhatIf, StormIsASource) {
    SwitchRig rig(with_ports(2));
    set_policy(rig, "");
    rig.advance(5s);
    rig.type("test storm swp1 100000");
    rig.advance(30s);
    const json answer = ask(rig, " shutdown access-mode");
    ASSERT_EQ(names(answer["shut"]), std::set<std::string>{"swp1"});
    EXPECT_EQ(answer["shut"][0]["sources"], json::array({"storm"}));
    EXPECT_EQ(answer["shut"][0]["other_port"], json());
}

TEST(WhatIf, ChangesNothing) {
    SwitchRig rig(with_ports(2));
    set_policy(rig, "");
    rig.report(1, 1, 1);
    rig.advance(1s);
    rig.forget();
    const std::string before = rig.running_config();
    for (const std::string& policy : kPolicies) {
        ask(rig, policy);
    }
    EXPECT_EQ(rig.running_config(), before);
    EXPECT_EQ(rig.stored_policy(), 1);
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(rig.take_announcements(), Lines{});
    EXPECT_EQ(rig.take_log(), Lines{});
}

TEST(WhatIf, CompletionOffersThePolicies) {
    SwitchRig rig(with_ports(1));
    std::string words;
    rig.on_main([&] {
        cli::SessionState session;
        words = cli::completions(session, "show loop-detect what-if enable shutdown ");
    });
    EXPECT_EQ(words, "access-hybrid-mode\naccess-mode\nhybrid-mode\n");
}

}  // namespace
}  // namespace qv::test
