// The ports that offer the command "loop-detect apply shutdown-port". The ports here are of kinds
// that only other drivers report.
#include <gtest/gtest.h>

#include "lda_main.h"
#include "lda_msg.h"
#include "qv/lsm.h"
#include "tests/scenario/lines.h"
#include "tests/scenario/switch_rig.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

constexpr char kCommand[] = "loop-detect apply shutdown-port";

// Reports a port of this LSM type that is not a switch port.
void add_port(SwitchRig& rig, uint32_t ifx, const std::string& name, uint32_t type) {
    Port port;
    port.ifx = ifx;
    port.name = name;
    port.type = type;
    port.switchport = false;
    rig.on_main([&] { platform().ports().port_added(port); });
    rig.advance(1s);
    rig.forget();
}

std::string help(SwitchRig& rig, uint32_t ifx, std::string_view line) {
    std::string text;
    rig.on_main([&] {
        cli::SessionState session;
        session.mode = "interface";
        session.ifx = ifx;
        text = cli::help_text(session, line);
    });
    return text;
}

class PortOfType : public testing::TestWithParam<uint32_t> {};

class PortWithoutTheCommand : public PortOfType {};

TEST_P(PortWithoutTheCommand, RefusesAndHidesIt) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    add_port(rig, 20, "extra20", GetParam());
    rig.type({"configure terminal", "interface extra20"});
    for (const std::string prefix : {"", "no ", "default "}) {
        SCOPED_TRACE(prefix);
        EXPECT_EQ(rig.type(prefix + kCommand), "% Unknown command: 'loop-detect'.\n");
    }
    EXPECT_EQ(rig.take_executed(), Lines{});
    EXPECT_EQ(lda_back_node_lookup(20), 0);
    EXPECT_EQ(help(rig, 20, "").find("loop-detect"), std::string::npos);
    EXPECT_NE(help(rig, 3, "").find("loop-detect"), std::string::npos);
}

TEST_P(PortWithoutTheCommand, HasNoLineInTheConfigurationEvenWhileItIsHeld) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    rig.report(3, 1, 3);
    EXPECT_EQ(rig.section("swp3"), (Lines{"shutdown", "tarn port loop-detect warning", kCommand,
                                          "storm-loop-detect enable"}));
    rig.on_main([] {
        Port port = *platform().ports().find(3);
        port.type = GetParam();
        port.switchport = false;
        platform().ports().port_changed(port);
    });
    EXPECT_EQ(lda_loop_result_get(3)->is_shutdown, 1);
    EXPECT_EQ(rig.section("swp3"), (Lines{"shutdown", "tarn port loop-detect warning"}));
}

INSTANTIATE_TEST_SUITE_P(Type, PortWithoutTheCommand,
                         testing::Values(LSM_TYPE_OTHER, LSM_TYPE_VLAN),
                         testing::PrintToStringParamName());

class PortWithTheCommand : public PortOfType {};

TEST_P(PortWithTheCommand, AcceptsAndShowsIt) {
    SwitchRig rig;
    rig.set_policy("shutdown access-mode");
    add_port(rig, 20, "extra20", GetParam());
    rig.type({"configure terminal", "interface extra20"});
    EXPECT_EQ(rig.type(kCommand), "");
    EXPECT_NE(help(rig, 20, "").find("loop-detect"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Type, PortWithTheCommand, testing::Values(2U, 10U),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace qv::test
