// "configure terminal revert": what is returned, what stays, and the effect of a crash in between.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "platform/cli/config_file.h"
#include "platform/cli/tarn_commands.h"
#include "tests/unit/cli/held_ports.h"
#include "tests/unit/cli/operator_session.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using namespace std::chrono_literals;
using qv::test::g_held;
using qv::test::read_text;
using qv::test::write_text;
using Lines = std::vector<std::string>;

const std::string kHeld = "loop-detect apply shutdown-port";
const std::string kIsBack =
    "CLI-4-REVERT: The configuration was not confirmed in time: the one before is back.";

class TimedReturn : public qv::test::HeldPorts {
 protected:
    void type(const Lines& lines) {
        for (const std::string& line : lines) {
            EXPECT_EQ(ann.type(line), "") << line;
        }
    }
    void expire() { rig.platform.run_for(10min); }
    Lines log() const { return qv::test::logged(rig.platform.log, "CLI-4-REVERT: "); }
    std::string section(const std::string& port) {
        const std::string all = rig.type("show running-config");
        const size_t start = all.find("interface " + port + "\n");
        return all.substr(start, all.find("!\n", start) - start);
    }
    bool file_exists() const { return std::filesystem::exists(file); }

    const std::string file = rig.saved() + ".return";
    qv::test::OperatorSession ann{"ann", 1234, 812};
};

TEST_F(TimedReturn, UndoesTypedLinesWhenTheTimeIsOver) {
    start();
    type({"configure terminal", "tarn enable", "interface swp1", "shutdown", "end"});
    const std::string before = rig.type("show running-config");
    type({"configure terminal revert 10", "no tarn enable", "tarn error-recover interval 90",
          "interface swp1", "no shutdown", "switchport mode trunk", "interface swp2", "shutdown",
          "end"});
    rig.platform.run_for(10min - 1s);
    EXPECT_TRUE(up(101));
    EXPECT_FALSE(up(102));
    EXPECT_EQ(log(), Lines{});
    EXPECT_TRUE(file_exists());
    rig.platform.run_for(1s);
    EXPECT_EQ(rig.type("show running-config"), before);
    EXPECT_EQ(log(), Lines{kIsBack});
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp1"), " shutdown\n");
    EXPECT_EQ(saved("swp2"), "");
    EXPECT_FALSE(file_exists());
}

TEST_F(TimedReturn, ConfirmedConfigurationStays) {
    start();
    type(
        {"configure terminal revert 10", "interface swp1", "shutdown", "end", "configure confirm"});
    EXPECT_FALSE(file_exists());
    expire();
    EXPECT_FALSE(up(101));
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(ann.type("configure confirm"), "% There is nothing to confirm.\n");
}

TEST_F(TimedReturn, ConfirmationOverTheSocketIsAnsweredWhenItIsOnTheDisk) {
    start();
    qv::test::WireClient client(rig.platform.settings.cli_socket);
    client.send(
        "{\"exec\": \"configure terminal revert 10\"}\n{\"exec\": \"end\"}\n"
        "{\"exec\": \"configure confirm\"}\n");
    rig.platform.run_ready();
    EXPECT_EQ(client.receive(),
              "{\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n"
              "{\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n"
              "{\"output\":\"\",\"prompt\":\"lda# \",\"result\":0}\n");
    EXPECT_FALSE(file_exists());
}

TEST_F(TimedReturn, OnlyOneCanBePending) {
    start();
    type({"configure terminal revert 10", "end"});
    const std::string second = ann.type("configure terminal revert 5");
    EXPECT_TRUE(std::regex_match(
        second,
        std::regex(R"(% The configuration goes back at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d unless )"
                   R"('configure confirm' is typed: only one return can be pending\.\n)")))
        << second;
    EXPECT_EQ(ann.state.mode, "exec");
    const std::string replace = ann.type("configure replace " + rig.saved());
    EXPECT_TRUE(replace.ends_with(" is typed: it cannot be replaced before.\n")) << replace;
    expire();
    EXPECT_EQ(log(), Lines{kIsBack});
    EXPECT_EQ(ann.type("configure terminal revert 0"), "% Number out of range: '0' (1-1440).\n");
    EXPECT_EQ(ann.type("configure terminal revert 1441"),
              "% Number out of range: '1441' (1-1440).\n");
    EXPECT_EQ(ann.type("configure terminal revert 1440"), "");
}

TEST_F(TimedReturn, SurvivesItsSession) {
    start();
    {
        qv::test::WireClient client(rig.platform.settings.cli_socket);
        client.send(
            "{\"exec\": \"configure terminal revert 10\"}\n"
            "{\"exec\": \"interface swp1\"}\n{\"exec\": \"shutdown\"}\n");
        rig.platform.run_ready();
    }
    expire();
    EXPECT_TRUE(up(101));
    EXPECT_EQ(log(), Lines{kIsBack});
}

TEST_F(TimedReturn, SavedConfigurationSaysThatItReturns) {
    start();
    EXPECT_EQ(rig.type("show startup-config").find("Goes back"), std::string::npos);
    type({"configure terminal revert 10", "tarn enable", "end"});
    rig.platform.run_for(1s);
    const std::string shown = rig.type("show startup-config");
    EXPECT_TRUE(std::regex_search(
        shown, std::regex(R"(^! Last saved [-0-9: ]+\n! Goes back at [-0-9: ]+ unless )"
                          R"('configure confirm' is typed\ntarn enable\n)")))
        << shown;
}

// ---- Programs ----

TEST_F(TimedReturn, PortThatAProgramHasShutStaysShut) {
    start();
    type({"configure terminal revert 10", "tarn enable", "end"});
    program(102, "shutdown");
    program(102, kHeld.c_str());
    expire();
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_FALSE(qv::cli::tarn_enabled());
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n " + kHeld + "\n");
}

TEST_F(TimedReturn, PortThatAProgramHasBroughtUpStaysUp) {
    start();
    program(102, "shutdown");
    program(102, kHeld.c_str());
    type({"configure terminal revert 10", "tarn enable", "end"});
    program(102, ("no " + kHeld).c_str());
    program(102, "no shutdown");
    expire();
    EXPECT_TRUE(up(102));
    EXPECT_FALSE(g_held.contains(102));
    EXPECT_EQ(log(), Lines{kIsBack});
}

TEST_F(TimedReturn, PortThatAProgramIsAboutToBringBackIsLeftToIt) {
    start();
    program(102, "shutdown");
    program(102, kHeld.c_str());
    type({"configure terminal revert 10", "end"});
    program(102, ("no " + kHeld).c_str());
    expire();
    EXPECT_FALSE(up(102));
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " no shutdown\n");
}

TEST_F(TimedReturn, OtherLinesOfAHeldPortReturn) {
    start();
    type({"configure terminal revert 10", "interface swp2", "switchport mode trunk", "end"});
    program(102, "shutdown");
    program(102, kHeld.c_str());
    expire();
    EXPECT_EQ(section("swp2"), "interface swp2\n shutdown\n " + kHeld + "\n");
}

TEST_F(TimedReturn, OperatorsShutdownOfAPortThatAProgramHoldsByNowIsInForce) {
    start();
    type({"configure terminal", "interface swp2", "shutdown", "end"});
    type({"configure terminal revert 10", "interface swp2", "no shutdown", "end"});
    program(102, "shutdown");
    program(102, kHeld.c_str());
    expire();
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(g_held.contains(102));
}

TEST_F(TimedReturn, PortThatWasTakenDownFromOutsideIsNotTouched) {
    start();
    type({"configure terminal revert 10", "tarn enable", "end"});
    change(103, [](qv::Port& port) { port.admin_up = false; });
    expire();
    EXPECT_FALSE(up(103));
    EXPECT_EQ(log(), Lines{kIsBack});
}

TEST_F(TimedReturn, PortThatLeftWhileHeldKeepsWhatTheProgramSaid) {
    start();
    program(102, "shutdown");
    program(102, kHeld.c_str());
    type({"configure terminal revert 10", "interface swp2", "switchport mode trunk", "end"});
    rig.hardware.remove(102);
    expire();
    EXPECT_EQ(section("swp2"), "interface swp2\n shutdown\n " + kHeld + "\n");
}

// "configure replace FILE confirm" uses the same return.
TEST_F(TimedReturn, ReturnOfAReplacementLeavesAHeldPortShut) {
    start();
    const std::string target = rig.folder.file("target");
    write_text(target, "tarn enable\nend\n");
    EXPECT_EQ(rig.type("configure replace " + target + " confirm 10"), "");
    program(102, "shutdown");
    program(102, kHeld.c_str());
    expire();
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(g_held.contains(102));
    EXPECT_FALSE(qv::cli::tarn_enabled());
}

// ---- Trouble with the disk ----

TEST_F(TimedReturn, TrialDoesNotBeginWhenItsReturnCannotBeKept) {
    start();
    {
        const qv::test::FullDisk full(16);
        EXPECT_EQ(ann.type("configure terminal revert 10"),
                  "% The present configuration cannot be kept in " + file + ": File too large.\n");
    }
    EXPECT_EQ(ann.state.mode, "exec");
    EXPECT_EQ(ann.type("configure confirm"), "% There is nothing to confirm.\n");
    EXPECT_EQ(ann.type("configure terminal revert 10"), "") << "there is room again";
}

TEST_F(TimedReturn, FileStaysUntilThePreviousConfigurationIsSaved) {
    start();
    type({"configure terminal revert 10", "interface swp1", "shutdown", "end"});
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp1"), " shutdown\n");
    {
        const qv::test::FullDisk full(16);
        expire();
        rig.platform.run_for(20s);
        EXPECT_TRUE(up(101));
        EXPECT_TRUE(file_exists());
    }
    rig.platform.run_for(61s);
    EXPECT_EQ(saved("swp1"), "");
    EXPECT_FALSE(file_exists());
}

TEST_F(TimedReturn, NextTrialKeepsItsFileWhenTheLastOneEndsLate) {
    start();
    type({"configure terminal revert 10", "interface swp1", "shutdown", "end"});
    {
        const qv::test::FullDisk full(16);
        expire();
    }
    type({"configure terminal revert 10", "end"});
    rig.platform.run_for(2min);
    EXPECT_TRUE(file_exists());
}

TEST_F(TimedReturn, ConfirmationSaysThatARestartWouldStillReturn) {
    start();
    type({"configure terminal revert 10", "end"});
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_EQ(ann.type("configure confirm"),
              "% Confirmed, but a restart would still go back: Is a directory.\n");
    EXPECT_EQ(ann.code, 1);
}

TEST_F(TimedReturn, SavesNothingBeforeTheReplay) {
    type({"configure terminal revert 10", "interface swp1", "shutdown", "end"});
    rig.platform.run_for(10min);
    EXPECT_TRUE(up(101));
    EXPECT_FALSE(std::filesystem::exists(rig.saved())) << "nothing was replayed yet";
    EXPECT_FALSE(file_exists());
}

// ---- Restarts ----

// A return due `from_now` seconds from now, requested with `minutes`.
std::string kept(std::chrono::seconds from_now, const std::string& minutes,
                 const std::string& config) {
    const auto due = std::chrono::system_clock::now() + from_now;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(due.time_since_epoch()).count();
    return qv::cli::seal_config(
        "! return " + std::to_string(seconds) + " " + minutes + "\n" + config + "end\n", 0);
}

class ReturnAfterARestart : public TimedReturn {
 protected:
    ReturnAfterARestart() {
        was_saved("tarn enable\ninterface swp1\n shutdown\n!\ninterface swp2\n!\n", 0);
    }
    const std::string before = "interface swp1\n!\ninterface swp2\n shutdown\n!\n";
};

TEST_F(TimedReturn, FileHasEverythingThatTheNextStartNeeds) {
    start();
    type({"configure terminal", "tarn enable", "interface swp2", "shutdown", "end"});
    program(103, "shutdown");
    program(103, kHeld.c_str());
    type({"configure terminal revert 10", "no tarn enable", "end"});
    const qv::cli::UnsealedConfig kept = qv::cli::unseal_config(read_text(file));
    EXPECT_TRUE(kept.intact);
    EXPECT_TRUE(std::regex_match(
        kept.text, std::regex(R"(! return \d{10,} 10\ntarn enable\ninterface swp1\n!\n)"
                              R"(interface swp2\n shutdown\n!\ninterface swp3\n!\n)"
                              R"(interface swp4\n!\nend\n)")))
        << kept.text;
}

TEST_F(ReturnAfterARestart, OverdueReturnIsCarriedOutWithinTenSeconds) {
    write_text(file, kept(-1h, "10", before));
    start();
    EXPECT_TRUE(qv::cli::tarn_enabled()) << "the trial was saved and is in force again";
    EXPECT_FALSE(up(101));
    ASSERT_EQ(log().size(), 1U);
    EXPECT_TRUE(std::regex_match(
        log().front(),
        std::regex(
            R"(CLI-4-REVERT: The configuration was not confirmed before the restart: it goes )"
            R"(back at [-0-9: ]+ unless 'configure confirm' is typed\.)")))
        << log().front();
    rig.platform.run_for(9s);
    EXPECT_FALSE(qv::cli::tarn_enabled());
    EXPECT_TRUE(up(101));
    EXPECT_FALSE(up(102));
    EXPECT_EQ(log().back(), kIsBack);
    rig.platform.run_for(1s);
    EXPECT_EQ(saved("swp2"), " shutdown\n");
    EXPECT_FALSE(file_exists());
}

TEST_F(ReturnAfterARestart, RestOfTheTimeIsWaitedFor) {
    write_text(file, kept(1h, "100", before));
    start();
    rig.platform.run_for(50min);
    EXPECT_FALSE(up(101));
    rig.platform.run_for(10min);
    EXPECT_TRUE(up(101));
}

TEST_F(ReturnAfterARestart, ClockSetBackDelaysItByAtMostTheRequestedTime) {
    write_text(file, kept(24h * 365, "2", before));
    rig.announce_ready();
    rig.platform.run_for(119s);
    EXPECT_FALSE(up(101));
    rig.platform.run_for(1s);
    EXPECT_TRUE(up(101));
}

TEST_F(ReturnAfterARestart, CanStillBeConfirmed) {
    write_text(file, kept(1h, "100", before));
    start();
    EXPECT_EQ(ann.type("configure confirm"), "");
    EXPECT_FALSE(file_exists());
    rig.platform.run_for(2h);
    EXPECT_FALSE(up(101));
}

TEST_F(ReturnAfterARestart, HeldPortIsLeftAsTheProgramHasIt) {
    was_saved("interface swp2\n shutdown\n " + kHeld + "\n!\n", 0);
    write_text(file, kept(-1h, "10", "tarn enable\ninterface swp2\n!\n"));
    start();
    rig.platform.run_for(10s);
    EXPECT_TRUE(qv::cli::tarn_enabled());
    EXPECT_FALSE(up(102));
    EXPECT_TRUE(g_held.contains(102));
}

class DamagedReturn : public ReturnAfterARestart,
                      public ::testing::WithParamInterface<std::string> {};

TEST_P(DamagedReturn, IsReportedAndKeptAside) {
    write_text(file, GetParam());
    start();
    rig.platform.run_for(1min);
    EXPECT_FALSE(up(101));
    EXPECT_EQ(
        qv::test::logged(rig.platform.log, "CLI-3-REVERT: "),
        Lines{"CLI-3-REVERT: The previous configuration is lost, and the running one stays: " +
              file + ": the file is damaged."});
    EXPECT_FALSE(file_exists());
    EXPECT_EQ(read_text(file + ".damaged"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    All, DamagedReturn,
    ::testing::Values("", "! return 1 10\ninterface swp1\n",
                      qv::cli::seal_config("interface swp1\n!\nend\n", 0),
                      qv::cli::seal_config("! return 9223372036854775807 10\nend\n", 0),
                      qv::cli::seal_config("! return 1 ten\ninterface swp1\n!\nend\n", 0),
                      qv::cli::seal_config("! return 1\ninterface swp1\n!\nend\n", 0)));

TEST_F(ReturnAfterARestart, WithoutAFileNothingIsSaid) {
    start();
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(ann.type("configure confirm"), "% There is nothing to confirm.\n");
}

}  // namespace
