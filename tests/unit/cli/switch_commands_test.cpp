// The switch's own commands, typed into a session.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/tarn_commands.h"
#include "qv/bridge.h"
#include "qv/syslog.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

class DefaultsObserver final : public qv::PortObserver {
 public:
    void on_added(const qv::Port&) override {}
    void on_removed(const qv::Port&) override {}
    void on_changed(const qv::Port&, const qv::Port&) override {}
    void on_default(const qv::Port& port) override { names.push_back(port.name); }
    void on_left_bridge(const qv::Port&) override {}
    void on_complete() override {}
    std::vector<std::string> names;
};

class SwitchCommands : public ::testing::Test {
 protected:
    // Types lines, starting in mode exec, and returns their whole output.
    std::string from_exec(const std::vector<std::string>& lines) {
        rig.session = {};
        std::string output;
        for (const std::string& line : lines) {
            output += rig.type(line);
        }
        return output;
    }
    std::string configure(std::vector<std::string> lines) {
        lines.insert(lines.begin(), "configure terminal");
        return from_exec(lines);
    }
    std::string prompt() { return qv::cli::prompt(rig.session); }

    qv::test::CliRig rig;
};

TEST_F(SwitchCommands, ModesAreEnteredAndLeft) {
    EXPECT_EQ(prompt(), "lda# ");
    rig.type("configure terminal");
    EXPECT_EQ(prompt(), "lda(config)# ");
    rig.type("interface swp3");
    EXPECT_EQ(prompt(), "lda(config-if-swp3)# ");
    rig.type("interface swp4");
    EXPECT_EQ(prompt(), "lda(config-if-swp4)# ");
    rig.type("exit");
    EXPECT_EQ(prompt(), "lda(config)# ");
    rig.type("interface range swp1-swp3");
    EXPECT_EQ(prompt(), "lda(config-if-range)# ");
    rig.type("end");
    EXPECT_EQ(prompt(), "lda# ");
    rig.type("conf t");
    rig.type("exit");
    EXPECT_EQ(prompt(), "lda# ");
}

TEST_F(SwitchCommands, DisabledSessionHasViewCommandsOnly) {
    rig.type("disable");
    EXPECT_EQ(prompt(), "lda> ");
    EXPECT_EQ(rig.type("configure terminal"), "% Unknown command: 'configure'.\n");
    EXPECT_EQ(rig.type("write"), "% Unknown command: 'write'.\n");
    EXPECT_EQ(rig.type("debug lda-debug"), "% Unknown command: 'debug'.\n");
    EXPECT_EQ(rig.type("show version"), "lda 0.1.0\n");
    rig.type("enable");
    EXPECT_EQ(prompt(), "lda# ");
    EXPECT_EQ(rig.type("configure terminal"), "");
}

TEST_F(SwitchCommands, UnknownInterfaceIsRefused) {
    EXPECT_EQ(configure({"interface swp9"}), "% Unknown interface: 'swp9'.\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(prompt(), "lda(config)# ");
    EXPECT_EQ(configure({"interface swp"}), "% Unknown interface: 'swp'.\n");
}

TEST_F(SwitchCommands, BadRangesAreRefused) {
    EXPECT_EQ(configure({"interface range swp1-9"}), "% Invalid range: 'swp1-9'.\n");
    EXPECT_EQ(configure({"interface range swp2-6"}), "% Unknown interface: 'swp5'.\n");
    EXPECT_EQ(configure({"interface range swp4-1"}), "% Invalid range: 'swp4-1'.\n");
    EXPECT_EQ(configure({"interface range swp1-eth3"}), "% Invalid range: 'swp1-eth3'.\n");
    EXPECT_EQ(configure({"interface range swp1-99999999999"}),
              "% Invalid range: 'swp1-99999999999'.\n");
    EXPECT_EQ(configure({"interface range ,"}), "% Unknown interface: ''.\n");
    EXPECT_EQ(prompt(), "lda(config)# ");
}

TEST_F(SwitchCommands, ShutdownActsOnThePortAndIsInTheConfiguration) {
    EXPECT_EQ(configure({"interface swp2", "shutdown"}), "");
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n shutdown\n!\n"
              "interface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(configure({"interface swp2", "no shutdown"}), "");
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

TEST_F(SwitchCommands, DefaultPrefixBringsAPortUpAndIntoAccessMode) {
    configure({"interface swp2", "shutdown", "switchport mode hybrid"});
    EXPECT_EQ(configure({"interface swp2", "default shutdown", "default switchport mode"}), "");
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(rig.model.find(102U)->mode, SWPORT_MODE_ACCESS);
}

TEST_F(SwitchCommands, RefusedRequestPrintsTheReason) {
    rig.hardware.refusal = "Device or resource busy";
    EXPECT_EQ(configure({"interface swp2", "no shutdown"}), "% Device or resource busy\n");
    EXPECT_EQ(rig.code, 1);
    EXPECT_EQ(configure({"interface swp2", "switchport mode trunk"}),
              "% Device or resource busy\n");
}

TEST_F(SwitchCommands, RecoveryOfTheErrorStateIsSilent) {
    EXPECT_EQ(configure({"interface swp2", "errdisable recovery \r\n"}), "");
    EXPECT_EQ(rig.code, 0);
}

TEST_F(SwitchCommands, RangeShutsAllItsPorts) {
    EXPECT_EQ(configure({"interface range swp1-2,swp4", "shutdown"}), "");
    EXPECT_FALSE(rig.model.find(101U)->admin_up);
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_TRUE(rig.model.find(103U)->admin_up);
    EXPECT_FALSE(rig.model.find(104U)->admin_up);
}

TEST_F(SwitchCommands, VlanModeIsSetAndTakenBack) {
    EXPECT_EQ(configure({"interface swp1", "switchport mode trunk", "interface swp2",
                         "switchport mode hybrid"}),
              "");
    EXPECT_EQ(rig.model.find(101U)->mode, SWPORT_MODE_TRUNK);
    EXPECT_EQ(rig.model.find(102U)->mode, SWPORT_MODE_HYBRID);
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n switchport mode trunk\n!\n"
              "interface swp2\n switchport mode hybrid\n!\n"
              "interface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(configure({"interface swp1", "no switchport mode", "interface swp2",
                         "switchport mode access"}),
              "");
    EXPECT_EQ(rig.model.find(101U)->mode, SWPORT_MODE_ACCESS);
    EXPECT_EQ(rig.model.find(102U)->mode, SWPORT_MODE_ACCESS);
}

TEST_F(SwitchCommands, DefaultInterfaceResetsItsLinesAndNotifiesThePortModel) {
    static DefaultsObserver observer;
    rig.model.add_observer(observer);
    configure({"interface swp1", "shutdown", "switchport mode hybrid",
               "tarn port loop-detect warning", "interface swp2", "shutdown"});
    EXPECT_EQ(configure({"default interface swp1"}), "");
    EXPECT_EQ(observer.names, std::vector<std::string>{"swp1"});
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n shutdown\n!\n"
              "interface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(configure({"no interface swp1"}), "% Invalid prefix: 'no' does not apply here.\n");
    EXPECT_EQ(configure({"default interface swp8"}), "% Unknown interface: 'swp8'.\n");
}

TEST_F(SwitchCommands, DefaultsOfAPortThatRefusesAreStillReported) {
    static DefaultsObserver observer;
    rig.model.add_observer(observer);
    configure({"interface swp1", "switchport mode hybrid"});
    rig.hardware.refusal = "Device or resource busy";
    EXPECT_EQ(configure({"default interface swp1"}), "% Device or resource busy\n");
    EXPECT_EQ(observer.names, std::vector<std::string>{"swp1"});
}

TEST_F(SwitchCommands, TarnLinesAreKeptPrintedAndTakenBack) {
    static std::vector<uint64_t> changes;
    qv::cli::add_tarn_observer([](uint64_t ifx) { changes.push_back(ifx); });
    EXPECT_EQ(configure({"tarn enable", "tarn error-recover interval 90", "tarn enable",
                         "interface swp3", "tarn port loop-detect warning"}),
              "");
    EXPECT_EQ(changes, (std::vector<uint64_t>{0, 0, 103}));
    EXPECT_TRUE(qv::cli::tarn_enabled());
    EXPECT_TRUE(qv::cli::tarn_port_enabled(103));
    EXPECT_FALSE(qv::cli::tarn_port_enabled(101));
    EXPECT_EQ(from_exec({"show running-config"}),
              "tarn enable\ntarn error-recover interval 90\n"
              "interface swp1\n!\ninterface swp2\n!\n"
              "interface swp3\n tarn port loop-detect warning\n!\ninterface swp4\n!\n");
    EXPECT_EQ(configure({"no tarn enable\r\n", "no tarn error-recover interval\r\n",
                         "interface swp3", "no tarn port loop-detect\r\n"}),
              "");
    EXPECT_FALSE(qv::cli::tarn_enabled());
    EXPECT_FALSE(qv::cli::tarn_port_enabled(103));
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

TEST_F(SwitchCommands, TarnProbeIntervalIsPrintedUnlessItIsTheDefault) {
    const std::string ports =
        "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";
    EXPECT_EQ(configure({"tarn probe-interval 100"}), "");
    EXPECT_EQ(qv::cli::tarn_config().probe_interval_ms, 100);
    EXPECT_EQ(from_exec({"show running-config"}), "tarn probe-interval 100\n" + ports);
    EXPECT_NE(configure({"tarn probe-interval 99"}), "");
    EXPECT_NE(configure({"tarn probe-interval 10001"}), "");
    EXPECT_EQ(qv::cli::tarn_config().probe_interval_ms, 100);
    EXPECT_EQ(configure({"no tarn probe-interval"}), "");
    EXPECT_EQ(qv::cli::tarn_config().probe_interval_ms, 1000);
    EXPECT_EQ(from_exec({"show running-config"}), ports);
}

TEST_F(SwitchCommands, TarnSettingsOfTheSwitchArePrintedInOrderAndTakenBack) {
    const std::string ports =
        "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n";
    EXPECT_EQ(configure({"tarn fabric-key /etc/lda/fabric", "tarn priority 0", "tarn cut one",
                         "tarn probe-interval 200"}),
              "");
    EXPECT_EQ(from_exec({"show running-config"}),
              "tarn probe-interval 200\ntarn cut one\ntarn priority 0\n"
              "tarn fabric-key /etc/lda/fabric\n" +
                  ports);
    EXPECT_EQ(configure({"tarn cut both"}), "");
    EXPECT_FALSE(qv::cli::tarn_config().cut_one);
    EXPECT_EQ(configure({"tarn cut one", "no tarn cut one", "no tarn priority 0",
                         "no tarn fabric-key", "no tarn probe-interval 200"}),
              "");
    EXPECT_EQ(qv::cli::tarn_config().priority, 128);
    EXPECT_EQ(from_exec({"show running-config"}), ports);
}

TEST_F(SwitchCommands, TarnSettingsOutOfRangeChangeNothing) {
    EXPECT_NE(configure({"tarn priority 256"}), "");
    EXPECT_NE(configure({"tarn cut none"}), "");
    EXPECT_EQ(configure({"tarn fabric-key fabric"}),
              "% Invalid key file: 'fabric' is not an absolute path.\n");
    EXPECT_NE(configure({"interface swp1", "tarn link-up guard 14"}), "");
    EXPECT_NE(configure({"interface swp1", "tarn link-up guard 1001"}), "");
    EXPECT_EQ(configure({"interface swp1", "tarn vlan 10,4095"}),
              "% Invalid VLAN list: '10,4095' is not made of numbers and ranges from 1 to 4094, as "
              "in 10,20-30.\n");
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
}

TEST_F(SwitchCommands, TarnSettingsOfAPortArePrintedInOrderAndTakenBack) {
    EXPECT_EQ(
        configure({"interface swp1", "tarn vlan 30,10-12,11", "tarn link-up guard",
                   "tarn port loop-detect warning", "interface swp2", "tarn link-up guard 1000"}),
        "");
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n tarn port loop-detect warning\n tarn link-up guard 30\n"
              " tarn vlan 10-12,30\n!\n"
              "interface swp2\n tarn link-up guard 1000\n!\n"
              "interface swp3\n!\ninterface swp4\n!\n");
    EXPECT_EQ(configure({"interface swp1", "no tarn vlan 10-12,30", "no tarn link-up guard 30",
                         "no tarn port loop-detect", "interface swp2", "no tarn link-up guard"}),
              "");
    EXPECT_EQ(from_exec({"show running-config"}),
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\n");
    EXPECT_TRUE(qv::cli::tarn_config().ports.empty());
}

TEST_F(SwitchCommands, RemovedPortLosesItsTarnLine) {
    configure({"interface swp3", "tarn port loop-detect warning"});
    rig.hardware.remove(103);
    EXPECT_FALSE(qv::cli::tarn_port_enabled(103));
}

TEST_F(SwitchCommands, InterfaceStatesAreShown) {
    configure({"interface swp2", "shutdown", "switchport mode trunk"});
    EXPECT_EQ(from_exec({"show interfaces status"}),
              "Port             Index    Admin  Link  Mode    Aggregate        Reason\n"
              "swp1             101      up     up    access  -\n"
              "swp2             102      down   up    trunk   -                admin\n"
              "swp3             103      up     up    access  -\n"
              "swp4             104      up     up    access  -\n");
}

TEST_F(SwitchCommands, SectionOfOnePortIsShown) {
    configure({"tarn enable", "interface swp1", "shutdown", "interface swp2",
               "switchport mode trunk", "shutdown"});
    EXPECT_EQ(from_exec({"show running-config interface swp2"}),
              "interface swp2\n switchport mode trunk\n shutdown\n!\n");
    EXPECT_EQ(from_exec({"show running-config interface swp3"}), "interface swp3\n!\n");
    EXPECT_EQ(from_exec({"show running-config interface swp2 | json"}),
              R"({"global":[],"interfaces":[{"name":"swp2",)"
              R"("lines":["switchport mode trunk","shutdown"]}]})"
              "\n");
    EXPECT_EQ(from_exec({"show running-config interface swp9"}), "% Unknown interface: 'swp9'.\n");
}

TEST_F(SwitchCommands, SectionOfAPortThatHasLeftIsShown) {
    configure({"interface swp1", "shutdown"});
    rig.announce_ready();
    rig.hardware.remove(101);
    EXPECT_EQ(from_exec({"show running-config interface swp1"}), "interface swp1\n shutdown\n!\n");
}

TEST_F(SwitchCommands, StartupConfigurationIsShownAfterWrite) {
    EXPECT_EQ(from_exec({"show startup-config"}),
              "% " + rig.saved() + ": No such file or directory.\n");
    rig.announce_ready();
    const std::string shown = configure({"tarn enable", "end", "write", "show startup-config"});
    EXPECT_TRUE(shown.starts_with("! Last saved 20")) << shown;
    EXPECT_EQ(shown.substr(shown.find('\n') + 1),
              "tarn enable\n"
              "interface swp1\n!\ninterface swp2\n!\ninterface swp3\n!\ninterface swp4\n!\nend\n");
}

int g_level = 0;
void control(int operation) {
    if (operation == 1) {
        g_level = 3;
    } else if (operation == 2) {
        g_level = 0;
    } else if (g_level > 0) {
        cli_printf("level %d\n", g_level);
    }
}

TEST_F(SwitchCommands, DebugSwitchesTurnOnAndOffAndShowTheirState) {
    EXPECT_EQ(sys_add_debug("lda-debug", control), 0);
    EXPECT_EQ(sys_add_debug("lda-debug", control), -1);
    EXPECT_EQ(sys_add_debug("", control), -1);
    EXPECT_EQ(sys_add_debug("other", nullptr), -1);
    EXPECT_EQ(from_exec({"show debugging"}), "");
    EXPECT_EQ(from_exec({"debug lda-d"}), "");
    EXPECT_EQ(from_exec({"show debugging"}), "level 3\n");
    EXPECT_EQ(from_exec({"no debug lda-debug"}), "");
    EXPECT_EQ(g_level, 0);
    EXPECT_EQ(from_exec({"debug nothing"}), "% Unknown command: 'nothing'.\n");
}

TEST_F(SwitchCommands, RecentLogIsShown) {
    printk_syslog(4, "LDA", "LOOP_DETECT", "Detected loop error on interface %s.\r\n", "swp1");
    const std::string shown = from_exec({"show logging"});
    EXPECT_TRUE(shown.ends_with(" %LDA-4-LOOP_DETECT: Detected loop error on interface swp1.\n"))
        << shown;
}

}  // namespace
