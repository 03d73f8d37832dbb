#include "platform/cli/agent_table.h"

#include <gtest/gtest.h>

#include "tests/unit/cli/cli_rig.h"

namespace qv::cli {
namespace {

const std::string kHead =
    "loop-detect state: enable\n"
    "loop-detect policy: 4\n"
    "loop-detect clear interval: 60(s)\n\n"
    "loop-detect shutdown-recover-time: 300(s)\n\n"
    "loop-detect intf_num: 3, loop_num=1\n\n"
    "ifx      interface  name\t     total-state   tarn-state   storm-state     status     "
    "mode\r\n";

TEST(AgentTable, HasThePolicyAndEveryPort) {
    const auto table = parse_agent_table(
        kHead +
        "3      swp3                            loop          loop          normal       shutdown  "
        "access 0\n"
        "7      swp7                            normal        normal        loop         warning   "
        "hybrid 12\n"
        "9      swp9                            loop          normal        normal       warning   "
        "trunk 0\n"
        "10     ag1                             normal        normal        normal       warning   "
        "none 0\n");
    ASSERT_TRUE(table);
    EXPECT_EQ(table->policy, 4U);
    const std::vector<AgentPort> expected{
        {.ifx = 3, .name = "swp3", .in_table = true, .tarn = true, .held = true, .vlan_mode = 1},
        {.ifx = 7, .name = "swp7", .storm = true, .vlan_mode = 7},
        {.ifx = 9, .name = "swp9", .in_table = true, .vlan_mode = 2},
        {.ifx = 10, .name = "ag1"}};
    EXPECT_EQ(table->ports, expected);
}

TEST(AgentTable, NameMayFillItsColumn) {
    const std::string name = "a-name-of-more-than-thirty-two-bytes";
    const auto table = parse_agent_table(
        kHead + "3      " + name + "loop          loop          normal       shutdown  access 0\n");
    ASSERT_TRUE(table);
    ASSERT_EQ(table->ports.size(), 1U);
    EXPECT_EQ(table->ports[0].name, name);
    EXPECT_TRUE(table->ports[0].in_table);
}

TEST(AgentTable, NameOfAPortIsNoState) {
    const auto table = parse_agent_table(
        kHead +
        "4      loop4                           normal        normal        normal       warning   "
        "access 0\n");
    ASSERT_TRUE(table);
    const std::vector<AgentPort> expected{{.ifx = 4, .name = "loop4", .vlan_mode = 1}};
    EXPECT_EQ(table->ports, expected);
}

TEST(AgentTable, TextWithoutAPolicyIsNoTable) {
    EXPECT_FALSE(parse_agent_table(""));
    EXPECT_FALSE(parse_agent_table("% Unknown command: 'lda'.\n"));
    EXPECT_FALSE(parse_agent_table("loop-detect policy: x\n"));
}

TEST(AgentTable, RowsThatAreNotWholeAreLeftOut) {
    const auto table =
        parse_agent_table("loop-detect policy: 1\nswp3 loop\n3\n\n loop a b c d e\n");
    ASSERT_TRUE(table);
    EXPECT_EQ(table->ports, std::vector<AgentPort>{});
}

TEST(WhatIf, IsRefusedWithoutTheAgent) {
    test::CliRig rig;
    EXPECT_EQ(rig.type("show loop-detect what-if enable"), "% The agent does not answer.\n");
    EXPECT_EQ(rig.code, 1);
}

}  // namespace
}  // namespace qv::cli
