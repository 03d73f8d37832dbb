// The figures that the command line counts.
#include "platform/base/metrics.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "qv/cli.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;

class CliMetrics : public ::testing::Test {
 protected:
    CliMetrics() { qv::use_metrics(&figures); }
    ~CliMetrics() override { qv::use_metrics(nullptr); }

    // Executes a program's line on swp3.
    void execute(const char* line) {
        const int session = cli_sub_create_session();
        cli_mode mode{};
        std::string("interface").copy(mode.name, sizeof mode.name - 1);
        mode.ifx = 103;
        cli_execute_cmd_buf_fd(session, line, &mode, nullptr, nullptr);
        close(session);
    }

    qv::Metrics figures;
    qv::test::CliRig rig;
};

TEST_F(CliMetrics, LinesThatTheSwitchRefusesAreCountedAsRefused) {
    rig.hardware.refusal = "the port is burnt";
    execute("shutdown");
    EXPECT_EQ(figures.shutdowns_refused, 1U);
    EXPECT_EQ(figures.recoveries_refused, 0U);
    EXPECT_EQ(figures.held_ports, 0U);
    execute("no shutdown");
    EXPECT_EQ(figures.shutdowns_refused, 1U);
    EXPECT_EQ(figures.recoveries_refused, 1U);
    EXPECT_EQ(figures.shutdowns + figures.recoveries, 0U);
}

TEST_F(CliMetrics, OnlyLinesThatChangeThePortAreCounted) {
    execute("no shutdown");
    EXPECT_EQ(figures.recoveries, 0U);
    execute("shutdown");
    execute("shutdown");
    EXPECT_EQ(figures.shutdowns, 1U);
    EXPECT_EQ(figures.held_ports, 1U);
    execute("no shutdown");
    EXPECT_EQ(figures.recoveries, 1U);
    EXPECT_EQ(figures.held_ports, 0U);
}

TEST_F(CliMetrics, HeldPortThatLeavesIsNotHeldAnyMore) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    execute("shutdown");
    EXPECT_EQ(figures.held_ports, 1U);
    rig.hardware.remove(103);
    rig.platform.run_ready();
    EXPECT_EQ(figures.held_ports, 0U);
}

TEST_F(CliMetrics, SavesAreCountedByTheirResult) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    const uint64_t saves = figures.config_saves;
    EXPECT_EQ(figures.config_save_failures, 0U);
    EXPECT_EQ(rig.type("write"), "");
    EXPECT_EQ(figures.config_saves, saves + 1);
    const qv::test::FullDisk full(1);
    rig.type("write");
    EXPECT_EQ(figures.config_saves, saves + 1);
    EXPECT_EQ(figures.config_save_failures, 1U);
}

// The rig saves within the call; a change is saved by the background.
TEST_F(CliMetrics, SaveOfAChangeIsCountedAndAnUnchangedTextIsNot) {
    rig.announce_ready();
    rig.platform.run_for(1s);
    rig.session.mode = "config";
    const uint64_t saves = figures.config_saves;
    rig.type("tarn enable");
    rig.platform.run_for(1s);
    EXPECT_EQ(figures.config_saves, saves + 1);
    cli_client_c2p_reform();
    rig.platform.run_for(1s);
    EXPECT_EQ(figures.config_saves, saves + 1);
}

}  // namespace
