// "show interfaces [NAME]": what the port model and the switch know of each port.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/cli/cli_rig.h"

namespace {

struct ShowInterfaces : ::testing::Test {
    ShowInterfaces() {
        rig.hardware.remove(103);
        rig.hardware.remove(104);
        rig.hardware.traffic[101] = {
            .received = {.packets = 18446744073709551615U, .bytes = 2, .drops = 3, .errors = 4},
            .sent = {.packets = 5, .bytes = 6, .drops = 7, .errors = 8}};
        rig.hardware.traffic[999] = {};  // of a link that is not a port
    }

    qv::test::CliRig rig;
};

TEST_F(ShowInterfaces, EveryPortIsShownWithTheCountersThatTheSwitchKnows) {
    EXPECT_EQ(rig.type("show interfaces"),
              "swp1 is up, link up\n"
              "  Index 101, type ethernet, VLAN mode access\n"
              "  Received 18446744073709551615 packets, 2 bytes, 3 drops, 4 errors\n"
              "  Sent 5 packets, 6 bytes, 7 drops, 8 errors\n"
              "swp2 is up, link up\n"
              "  Index 102, type ethernet, VLAN mode access\n");
    EXPECT_EQ(rig.hardware.asked_counters, std::vector<uint32_t>{0}) << "one request for all";
}

TEST_F(ShowInterfaces, OnePortIsRequestedAlone) {
    rig.hardware.traffic[102].sent.bytes = 60;
    EXPECT_EQ(rig.type("show interfaces swp2"),
              "swp2 is up, link up\n"
              "  Index 102, type ethernet, VLAN mode access\n"
              "  Sent 60 bytes\n");
    EXPECT_EQ(rig.hardware.asked_counters, std::vector<uint32_t>{102});
}

TEST_F(ShowInterfaces, StatesModeAndAggregateAreShown) {
    rig.hardware.add("po1", 201, 10);
    rig.hardware.join_aggregate(102, 201);
    for (const char* line :
         {"configure terminal", "interface swp2", "switchport mode trunk", "shutdown"}) {
        EXPECT_EQ(rig.type(line), "");
    }
    EXPECT_EQ(rig.type("show interfaces swp2"),
              "swp2 is down, link up\n"
              "  Index 102, type ethernet, VLAN mode trunk, aggregate po1\n");
    EXPECT_EQ(rig.type("show interfaces po1"),
              "po1 is up, link up\n"
              "  Index 201, type aggregate, VLAN mode access\n");
}

TEST_F(ShowInterfaces, JsonLeavesOutUnknownCounters) {
    rig.hardware.traffic[102].sent.bytes = 60;
    EXPECT_EQ(
        rig.type("show interfaces | json"),
        R"([{"port":"swp1","index":101,"type":"ethernet","admin":"up","link":"up","mode":"access",)"
        R"("aggregate":null,"received":{"packets":18446744073709551615,"bytes":2,"drops":3,)"
        R"("errors":4},"sent":{"packets":5,"bytes":6,"drops":7,"errors":8}},)"
        R"({"port":"swp2","index":102,"type":"ethernet","admin":"up","link":"up","mode":"access",)"
        R"("aggregate":null,"received":{},"sent":{"bytes":60}}])"
        "\n");
    const std::string one = rig.type("show interfaces swp2 | json");
    EXPECT_TRUE(one.starts_with(R"([{"port":"swp2",)")) << one;
}

TEST_F(ShowInterfaces, UnknownPortIsRefused) {
    EXPECT_EQ(rig.type("show interfaces swp9"), "% Unknown interface: 'swp9'.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(rig.hardware.asked_counters, std::vector<uint32_t>{});
}

TEST_F(ShowInterfaces, StatusRemainsATableOfItsOwn) {
    EXPECT_EQ(rig.type("show interfaces stat | count"), "3\n");
    EXPECT_EQ(rig.hardware.asked_counters, std::vector<uint32_t>{});
}

}  // namespace
