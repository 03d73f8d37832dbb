#include "platform/driver/embedded/simulation_commands.h"

#include <gtest/gtest.h>

#include "platform/cli/engine.h"
#include "platform/client/port_model.h"
#include "platform/driver/embedded/embedded_forwarding.h"
#include "platform/driver/embedded/embedded_switch.h"
#include "platform/driver/embedded/scripted_faults.h"
#include "qv/bridge.h"
#include "qv/lsm.h"
#include "tests/support/test_platform.h"

namespace {

// The commands on a switch of four ports and a memory store, typed in a privileged session.
class SimulationCommandsTest : public ::testing::Test {
 protected:
    SimulationCommandsTest() {
        platform.attach_loop(loop);
        platform.port_model = &model;
        model.start();
        platform.run_ready();
        qv::cli::register_simulation_commands(ports, plane, &platform.memory_store());
    }

    // The output of the line, "done" when it prints nothing and has the result 0.
    std::string type(const std::string& line) {
        const qv::cli::Result result = qv::cli::execute(session, line);
        if (result.code == 0) {
            return result.output.empty() ? "done" : result.output;
        }
        EXPECT_FALSE(result.output.empty()) << line;
        return result.output;
    }

    qv::test::TestPlatform platform;
    qv::EventLoop loop{platform.manual_clock};
    qv::EmbeddedSwitch ports{loop, 4};
    qv::PortModel model{ports};
    qv::EmbeddedForwarding plane{loop, [](uint32_t) {
                                     return true;
                                 }};
    qv::cli::SessionState session;
};

using SimulationCommands = SimulationCommandsTest;

TEST_F(SimulationCommands, PortIsAddedRenamedAndDeleted) {
    EXPECT_EQ(type("test port add uplink"), "done");
    EXPECT_NE(model.find("uplink"), nullptr);
    EXPECT_EQ(type("test port rename uplink swp9"), "done");
    EXPECT_NE(model.find("swp9"), nullptr);
    EXPECT_EQ(type("test port delete swp9"), "done");
    EXPECT_EQ(model.ports().size(), 4u);
}

TEST_F(SimulationCommands, PortLeavesTheBridge) {
    EXPECT_EQ(type("test port leave swp2"), "done");
    EXPECT_EQ(model.find(2)->mode, SWPORT_MODE_NONE);
    EXPECT_EQ(type("test port leave swp2"), "% swp2 is in no bridge\n");
}

TEST_F(SimulationCommands, ExistingPortIsRefused) {
    EXPECT_EQ(type("test port add swp2"), "% port swp2 exists already\n");
}

TEST_F(SimulationCommands, UnknownPortIsNamedInTheRefusal) {
    EXPECT_EQ(type("test port delete swp9"), "% no port is named swp9\n");
    EXPECT_EQ(type("test loop plug swp1 nowhere"), "% no port is named nowhere\n");
    EXPECT_EQ(type("test storm swp9 10"), "% no port is named swp9\n");
    EXPECT_EQ(type("test vsl create swp9"), "% no port is named swp9\n");
}

TEST_F(SimulationCommands, CableIsPluggedAndPulled) {
    EXPECT_EQ(type("test loop plug swp1 swp3"), "done");
    EXPECT_EQ(ports.loop_peer(1), 3u);
    EXPECT_EQ(type("test loop plug swp3 swp2"), "% swp3 has a cable already\n");
    EXPECT_EQ(type("test loop unplug swp1 swp2"), "% no cable between these ports\n");
    EXPECT_EQ(type("test loop unplug swp3 swp1"), "done");
    EXPECT_EQ(ports.loop_peer(1), std::nullopt);
}

TEST_F(SimulationCommands, StormReachesThePort) {
    std::vector<std::pair<uint32_t, uint64_t>> rates;
    ports.set_rate_listener(
        [&rates](uint32_t phyid, uint64_t pps) { rates.emplace_back(phyid, pps); });
    EXPECT_EQ(type("test storm swp2 9000"), "done");
    EXPECT_EQ(type("test storm swp2 0"), "done");
    EXPECT_EQ(rates, (std::vector<std::pair<uint32_t, uint64_t>>{{2, 9000}, {2, 0}}));
}

TEST_F(SimulationCommands, StormOutOfRangeChangesNothing) {
    bool notified = false;
    ports.set_rate_listener([&notified](uint32_t, uint64_t) { notified = true; });
    EXPECT_NE(type("test storm swp2 -1"), "done");
    EXPECT_NE(type("test storm swp2 1000000001"), "done");
    EXPECT_NE(type("test storm swp2 many"), "done");
    EXPECT_FALSE(notified);
}

TEST_F(SimulationCommands, AggregateIsMadeJoinedAndLeft) {
    EXPECT_EQ(type("test aggregate create ag1"), "done");
    EXPECT_EQ(model.find("ag1")->type, LSM_TYPE_AGGREGATE);
    EXPECT_EQ(type("test aggregate join ag1 swp2"), "done");
    EXPECT_EQ(model.find(2)->aggregate, 5u);
    EXPECT_EQ(type("test aggregate join swp1 swp3"), "% swp1 is not an aggregate port\n");
    EXPECT_EQ(type("test aggregate leave ag1 swp2"), "done");
    EXPECT_EQ(model.find(2)->aggregate, 0u);
}

TEST_F(SimulationCommands, VirtualSwitchLinkIsMadeAndTakenBack) {
    EXPECT_EQ(type("test vsl create swp2"), "done");
    EXPECT_TRUE(model.find(2)->vsl);
    EXPECT_EQ(type("test vsl remove swp2"), "done");
    EXPECT_FALSE(model.find(2)->vsl);
}

TEST_F(SimulationCommands, NextConfigurationLineIsRefusedWithTheText) {
    EXPECT_EQ(type("test refuse not on this port"), "done");
    std::string text;
    int result = 0;
    ASSERT_TRUE(qv::cli::take_refusal("shutdown", text, result));
    EXPECT_EQ(text, "not on this port");
    EXPECT_NE(result, 0);
    EXPECT_FALSE(qv::cli::take_refusal("shutdown", text, result));
}

TEST_F(SimulationCommands, NextSessionsFail) {
    EXPECT_EQ(type("test fail-sessions 2"), "done");
    EXPECT_TRUE(qv::cli::take_session_failure());
    EXPECT_TRUE(qv::cli::take_session_failure());
    EXPECT_FALSE(qv::cli::take_session_failure());
}

// ---- Forwarding plane ----

using Lines = std::vector<std::string>;

class Answers final : public qv::ForwardingSink {
 public:
    void done(qv::ForwardingId id) override { lines.push_back("done " + std::to_string(id)); }
    void failed(qv::ForwardingId id, int error) override {
        lines.push_back("failed " + std::to_string(id) + " " + std::to_string(error));
    }
    void counted(qv::ForwardingId, uint64_t, uint64_t) override {}
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
};

class ForwardingCommands : public SimulationCommandsTest {
 protected:
    ForwardingCommands() { plane.start(answers); }

    Lines after(qv::Duration time) {
        platform.run_for(time);
        return answers.take();
    }

    Answers answers;
};

using std::chrono::seconds;

TEST_F(ForwardingCommands, NextRequestsOfAKindFail) {
    using Table = qv::ForwardingDriver::Table;
    EXPECT_EQ(type("test forwarding fail acl 1"), "done");
    EXPECT_EQ(type("test forwarding fail entry 2"), "done");
    EXPECT_EQ(type("test forwarding fail apply 1"), "done");
    plane.reserve(1, Table::kAcl);
    plane.reserve(2, Table::kAcl);
    for (const qv::ForwardingId id : {3, 4, 5}) {
        plane.reserve(id, Table::kEntry);
    }
    plane.install(6, 1, {});
    plane.install(7, 2, {});
    EXPECT_EQ(after(seconds(1)), (Lines{"failed 1 28", "done 2", "failed 3 28", "failed 4 28",
                                        "done 5", "failed 6 28", "done 7"}));
}

TEST_F(ForwardingCommands, LaterRequestsAreAnsweredLate) {
    EXPECT_EQ(type("test forwarding delay 3"), "done");
    plane.install(6, 1, {});
    EXPECT_EQ(after(seconds(3)), Lines{});
    EXPECT_EQ(after(seconds(1)), Lines{"done 6"});
    EXPECT_EQ(type("test forwarding delay 0"), "done");
    plane.install(7, 2, {});
    EXPECT_EQ(after(seconds(1)), Lines{"done 7"});
}

TEST_F(ForwardingCommands, RuleOfAPortIsLost) {
    EXPECT_EQ(type("test forwarding lose swp2"), "% no rule is installed on swp2\n");
    plane.install(6, 2, {});
    after(seconds(1));
    EXPECT_EQ(type("test forwarding lose swp2"), "done");
    EXPECT_EQ(answers.take(), Lines{"failed 6 5"});
    EXPECT_EQ(type("test forwarding lose swp9"), "% no port is named swp9\n");
}

TEST_F(ForwardingCommands, NumbersOutOfRangeChangeNothing) {
    EXPECT_EQ(type("test forwarding fail apply 0"), "% Number out of range: '0' (1-1000).\n");
    EXPECT_EQ(type("test forwarding fail apply 1001"), "% Number out of range: '1001' (1-1000).\n");
    EXPECT_EQ(type("test forwarding delay 3601"), "% Number out of range: '3601' (0-3600).\n");
    plane.install(6, 1, {});
    EXPECT_EQ(after(seconds(1)), Lines{"done 6"});
}

TEST_F(ForwardingCommands, AreOfferedWithTheirHelp) {
    EXPECT_EQ(qv::cli::help_text(session, "test forwarding "),
              "  delay                   Answer later requests late\n"
              "  fail                    Let the next requests fail for want of room\n"
              "  lose                    Lose the rule of a port\n");
    EXPECT_EQ(qv::cli::help_text(session, "test forwarding fail "),
              "  acl                     Requests for an access control list\n"
              "  apply                   Requests to apply a rule to a port or to the switch\n"
              "  entry                   Requests for an entry\n");
    EXPECT_EQ(qv::cli::help_text(session, "test forwarding fail acl "),
              "  <1-1000>                How many\n");
}

// ---- Databases and sessions ----

TEST_F(SimulationCommands, DatabaseGoesAwayAndComesBack) {
    EXPECT_EQ(type("test database restore 4"), "% the database is not away\n");
    EXPECT_EQ(type("test database drop 4"), "done");
    EXPECT_FALSE(platform.memory_store().up(4));
    EXPECT_EQ(type("test database drop 4"), "% the database is away already\n");
    EXPECT_EQ(type("test database restore 4"), "done");
    EXPECT_TRUE(platform.memory_store().up(4));
    EXPECT_NE(type("test database drop 32"), "done");
}

TEST_F(SimulationCommands, SessionWithoutPrivilegesHasNone) {
    session.privileged = false;
    EXPECT_NE(type("test port delete swp1"), "done");
    EXPECT_NE(model.find(1), nullptr);
}

}  // namespace
