#include "platform/driver/linux/bridge_ports.h"

#include <gtest/gtest.h>

#include "tests/unit/driver/linux/recording_sink.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t kBridge = 5;

LinkMessage bridge(uint32_t ifx = kBridge, const std::string& name = "br0") {
    return {.ifx = ifx, .name = name, .kind = "bridge"};
}

LinkMessage member(uint32_t ifx, const std::string& name, uint32_t master = kBridge) {
    return {.ifx = ifx,
            .name = name,
            .kind = "veth",
            .master = master,
            .bridge_port = ifx % 100,
            .admin_up = true,
            .oper_up = true};
}

LinkMessage gone(uint32_t ifx) {
    LinkMessage message;
    message.ifx = ifx;
    message.removed = true;
    return message;
}

struct BridgePortsTest : testing::Test {
    test::RecordingSink sink;
    BridgePorts ports{"br0", sink};

    void dump(const std::vector<LinkMessage>& links) {
        ports.begin_dump();
        for (const LinkMessage& link : links) {
            ports.take(link);
        }
        ports.end_dump();
    }
};

TEST_F(BridgePortsTest, MembersOfTheDumpAreAddedAtItsEnd) {
    ports.begin_dump();
    ports.take(member(101, "swp1"));
    ports.take(bridge());
    ports.take(member(102, "swp2"));
    ports.take(member(103, "other", 77));
    ports.take(member(104, "free", 0));
    EXPECT_EQ(sink.take(), Lines{});
    ports.end_dump();
    EXPECT_EQ(sink.take(), (Lines{"added swp1", "added swp2"}));

    const Port& port = sink.ports.at(102);
    EXPECT_EQ(port.phyid, 2u);
    EXPECT_EQ(port.type, 2u);
    EXPECT_EQ(port.flags, 0u);
    EXPECT_TRUE(port.switchport);
    EXPECT_EQ(port.mode, 1u);
    EXPECT_EQ(port.aggregate, 0u);
    EXPECT_TRUE(port.admin_up);
    EXPECT_TRUE(port.oper_up);
}

TEST_F(BridgePortsTest, RepeatedMessageReportsNothing) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(member(101, "swp1"));
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(BridgePortsTest, RenameAndStatesAreChanges) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(member(101, "uplink"));
    EXPECT_EQ(sink.take(), Lines{"changed uplink"});
    LinkMessage down = member(101, "uplink");
    down.oper_up = false;
    ports.take(down);
    EXPECT_FALSE(sink.ports.at(101).oper_up);
    EXPECT_TRUE(sink.ports.at(101).admin_up);
    down.admin_up = false;
    ports.take(down);
    EXPECT_FALSE(sink.ports.at(101).admin_up);
    EXPECT_EQ(sink.take(), (Lines{"changed uplink", "changed uplink"}));
}

TEST_F(BridgePortsTest, LeavingTheBridgeIsSaidBeforeTheRemoval) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(member(101, "swp1", 0));
    EXPECT_EQ(sink.take(), (Lines{"left swp1", "removed swp1"}));
    ports.take(member(101, "swp1"));
    EXPECT_EQ(sink.take(), Lines{"added swp1"});
}

TEST_F(BridgePortsTest, DeletedLinkIsRemovedOnce) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(gone(101));
    ports.take(gone(101));
    EXPECT_EQ(sink.take(), Lines{"removed swp1"});
}

TEST_F(BridgePortsTest, BridgeMayAppearAfterItsMembers) {
    dump({member(101, "swp1"), member(102, "swp2")});
    EXPECT_EQ(sink.take(), Lines{});
    ports.take(bridge());
    EXPECT_EQ(sink.take(), (Lines{"added swp1", "added swp2"}));
}

TEST_F(BridgePortsTest, BridgeRemovedAndBackUnderAnotherIndex) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(gone(kBridge));
    EXPECT_EQ(sink.take(), (Lines{"left swp1", "removed swp1"}));
    ports.take(member(101, "swp1", 0));
    ports.take(bridge(9));
    EXPECT_EQ(sink.take(), Lines{});
    ports.take(member(101, "swp1", 9));
    EXPECT_EQ(sink.take(), Lines{"added swp1"});
}

TEST_F(BridgePortsTest, RenamedBridgeIsAnotherBridge) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.take(bridge(kBridge, "old"));
    EXPECT_EQ(sink.take(), (Lines{"left swp1", "removed swp1"}));
    ports.take(bridge(kBridge, "br0"));
    EXPECT_EQ(sink.take(), Lines{"added swp1"});
}

TEST_F(BridgePortsTest, LinkOfAnotherKindWithTheNameIsNotTheBridge) {
    LinkMessage pretender = bridge();
    pretender.kind = "dummy";
    dump({pretender, member(101, "swp1")});
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(BridgePortsTest, SecondDumpReportsOnlyDifferencesAndRemovalsFirst) {
    dump({bridge(), member(101, "swp1"), member(102, "swp2"), member(103, "swp3")});
    sink.take();
    // swp2 was deleted and its name taken by a new link with a lower index than the others.
    LinkMessage down = member(103, "swp3");
    down.admin_up = false;
    dump({bridge(), member(90, "swp2"), member(101, "swp1"), down});
    EXPECT_EQ(sink.take(), (Lines{"removed swp2", "added swp2", "changed swp3"}));
    EXPECT_EQ(sink.ports.at(90).name, "swp2");
}

TEST_F(BridgePortsTest, ChangesDuringADumpAreNotUndoneByItsEnd) {
    dump({bridge(), member(101, "swp1"), member(102, "swp2")});
    sink.take();
    ports.begin_dump();
    ports.take(bridge());
    ports.take(member(101, "swp1"));
    ports.take(gone(101));            // deleted after its place in the dump
    ports.take(member(104, "swp4"));  // added after its place in the dump
    ports.take(member(102, "swp2"));
    ports.end_dump();
    EXPECT_EQ(sink.take(), (Lines{"removed swp1", "added swp4"}));
}

TEST_F(BridgePortsTest, BridgeMissingInTheDumpRemovesItsPorts) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    dump({member(101, "swp1", 0)});
    EXPECT_EQ(sink.take(), (Lines{"left swp1", "removed swp1"}));
    ports.take(member(101, "swp1"));  // a stale master index is not our bridge
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(BridgePortsTest, DumpBegunAgainStartsOver) {
    ports.begin_dump();
    ports.take(bridge());
    ports.take(member(101, "swp1"));
    dump({bridge(), member(102, "swp2")});
    EXPECT_EQ(sink.take(), Lines{"added swp2"});
}

TEST_F(BridgePortsTest, ModeIsKeptOverChangesAndForgottenWithThePort) {
    dump({bridge(), member(101, "swp1")});
    ports.set_mode(101, 7);
    ports.set_mode(101, 7);
    ports.set_mode(999, 7);
    EXPECT_EQ(sink.take(), (Lines{"added swp1", "changed swp1"}));
    ports.take(member(101, "uplink"));
    EXPECT_EQ(sink.ports.at(101).mode, 7u);
    ports.take(member(101, "uplink", 0));
    ports.take(member(101, "uplink"));
    EXPECT_EQ(sink.ports.at(101).mode, 1u);
}

TEST_F(BridgePortsTest, AdminStateGivenAheadOfItsMessageIsReportedOnce) {
    dump({bridge(), member(101, "swp1")});
    sink.take();
    ports.set_admin(101, false);
    ports.set_admin(101, false);
    ports.set_admin(999, false);
    EXPECT_EQ(sink.take(), Lines{"changed swp1"});
    EXPECT_FALSE(sink.ports.at(101).admin_up);
    EXPECT_FALSE(sink.ports.at(101).oper_up) << "a port that is shut passes nothing";
    LinkMessage down = member(101, "swp1");
    down.admin_up = down.oper_up = false;
    ports.take(down);
    EXPECT_EQ(sink.take(), Lines{}) << "its message says nothing new";
    ports.set_admin(101, true);
    EXPECT_TRUE(sink.ports.at(101).admin_up);
    EXPECT_FALSE(sink.ports.at(101).oper_up) << "the kernel says when the link works";
    EXPECT_EQ(sink.take(), Lines{"changed swp1"});
}

TEST_F(BridgePortsTest, AdminStateGivenDuringADumpIsReportedAtOnceAndOutlivesTheDump) {
    dump({bridge(), member(101, "swp1"), member(102, "swp2")});
    sink.take();
    ports.begin_dump();
    ports.take(bridge());
    ports.take(member(101, "swp1"));
    ports.set_admin(101, false);
    EXPECT_EQ(sink.take(), Lines{"changed swp1"});
    ports.take(member(102, "swp2"));
    ports.end_dump();
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_FALSE(sink.ports.at(101).admin_up);
}

TEST_F(BridgePortsTest, ModeIsKeptOverAnotherDump) {
    dump({bridge(), member(101, "swp1")});
    ports.set_mode(101, 7);
    sink.take();
    dump({bridge(), member(101, "swp1")});
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_EQ(sink.ports.at(101).mode, 7u);
}

TEST_F(BridgePortsTest, EveryFieldThatADumpHasChangedIsReported) {
    dump({bridge(), member(101, "swp1"), member(102, "swp2"), member(103, "swp3"),
          member(104, "swp4"), member(105, "swp5")});
    sink.take();
    LinkMessage number = member(101, "swp1");
    number.bridge_port = 9;
    LinkMessage kind = member(102, "swp2");
    kind.kind = "team";
    LinkMessage admin = member(103, "swp3");
    admin.admin_up = false;
    LinkMessage oper = member(104, "swp4");
    oper.oper_up = false;
    dump({bridge(), number, kind, admin, oper, member(105, "renamed")});
    EXPECT_EQ(sink.take(), (Lines{"changed swp1", "changed swp2", "changed swp3", "changed swp4",
                                  "changed renamed"}));
    EXPECT_EQ(sink.ports.at(101).phyid, 9u);
    EXPECT_EQ(sink.ports.at(102).type, 10u);
}

TEST_F(BridgePortsTest, BridgeRecreatedBetweenTwoDumpsKeepsItsPorts) {
    dump({bridge(), member(101, "swp1"), member(102, "swp2")});
    sink.take();
    dump({bridge(9), member(101, "swp1", 9), member(102, "swp2", 0)});
    EXPECT_EQ(ports.bridge(), 9u);
    EXPECT_EQ(sink.take(), (Lines{"left swp2", "removed swp2"}));
    ports.take(gone(kBridge));  // a late message about the old one
    EXPECT_EQ(ports.bridge(), 9u);
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(BridgePortsTest, LinkDroppedByADumpDoesNotReturnWithItsBridge) {
    dump({bridge(), member(101, "swp1")});
    dump({bridge()});
    sink.take();
    ports.take(gone(kBridge));
    ports.take(bridge());
    EXPECT_EQ(sink.take(), Lines{});
}

TEST_F(BridgePortsTest, BondIsAnAggregatePort) {
    LinkMessage bond = member(101, "bond0");
    bond.kind = "bond";
    dump({bridge(), bond});
    EXPECT_EQ(sink.ports.at(101).type, 10u);
}

}  // namespace
}  // namespace qv
