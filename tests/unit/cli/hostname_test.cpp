// "hostname NAME": the prompt, what is refused, and the running configuration.
#include <gtest/gtest.h>

#include <string>

#include "tests/unit/cli/cli_rig.h"

namespace {

constexpr const char* kRefusal =
    "% Invalid host name: 1 to 63 letters, digits and '-', which is neither first nor last.\n";
constexpr const char* kNoLines =
    "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";

class Hostname : public ::testing::Test {
 protected:
    // Types a line in mode config and returns its output.
    std::string configure(const std::string& line) {
        rig.session = {};
        rig.session.mode = "config";
        return rig.type(line);
    }
    std::string prompt() { return qv::cli::prompt(rig.session); }
    std::string running_config() {
        qv::cli::SessionState session;
        return qv::cli::execute(session, "show running-config").output;
    }

    qv::test::CliRig rig;
};

TEST_F(Hostname, IsInThePromptOfEveryMode) {
    EXPECT_EQ(configure("hostname edge-7"), "");
    EXPECT_EQ(prompt(), "edge-7(config)# ");
    rig.type("interface swp2");
    EXPECT_EQ(prompt(), "edge-7(config-if-swp2)# ");
    rig.type("interface range swp1-2");
    EXPECT_EQ(prompt(), "edge-7(config-if-range)# ");
    rig.type("end");
    EXPECT_EQ(prompt(), "edge-7# ");
    rig.type("disable");
    EXPECT_EQ(prompt(), "edge-7> ");
}

TEST_F(Hostname, IsTheFirstLineOfTheConfigurationUnlessItIsTheDefault) {
    EXPECT_EQ(running_config(), kNoLines);
    configure("tarn enable");
    configure("hostname edge-7");
    EXPECT_EQ(running_config(), "hostname edge-7\ntarn enable\n" + std::string(kNoLines));
    configure("hostname lda");
    EXPECT_EQ(running_config(), "tarn enable\n" + std::string(kNoLines));
}

TEST_F(Hostname, IsTakenBackByNoAndDefault) {
    for (const char* line : {"no hostname", "no hostname edge-7", "default hostname"}) {
        configure("hostname edge-7");
        EXPECT_EQ(configure(line), "") << line;
        EXPECT_EQ(prompt(), "lda(config)# ") << line;
    }
}

TEST_F(Hostname, OfOtherCharactersOrTooLongIsRefused) {
    const std::string longest(63, 'x');
    for (const std::string& name :
         {std::string("edge_7"), std::string("-edge"), std::string("7-"), std::string("edge.net"),
          std::string("gr\xc3\xbcn"), longest + "x"}) {
        EXPECT_EQ(configure("hostname " + name), kRefusal) << name;
        EXPECT_EQ(rig.code, 1);
    }
    EXPECT_EQ(configure("hostname edge 7"), "% Unknown command: '7'.\n");
    EXPECT_EQ(configure("hostname"), "% Incomplete command.\n");
    EXPECT_EQ(prompt(), "lda(config)# ");
    EXPECT_EQ(configure("hostname " + longest), "");
    EXPECT_EQ(prompt(), longest + "(config)# ");
    EXPECT_EQ(configure("hostname 7"), "");
    EXPECT_EQ(prompt(), "7(config)# ");
}

TEST_F(Hostname, IsAGlobalLineThatInterfaceModesTakeToo) {
    configure("interface swp2");
    EXPECT_EQ(qv::cli::help_text(rig.session, "").find("hostname"), std::string::npos);
    EXPECT_EQ(qv::cli::completions(rig.session, "hostn"), "hostname\n");
    EXPECT_EQ(rig.type("hostname edge-7"), "");
    EXPECT_EQ(prompt(), "edge-7(config)# ");
}

TEST_F(Hostname, IsSavedAndReplayed) {
    qv::test::write_text(rig.saved(), "hostname edge-7\nend\n");
    rig.announce_ready();
    EXPECT_EQ(prompt(), "edge-7# ");
    configure("hostname edge-8");
    rig.type("do write");
    EXPECT_EQ(qv::test::read_text(rig.saved()).substr(0, 16), "hostname edge-8\n");
}

}  // namespace
