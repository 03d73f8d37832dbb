// "configure exclusive": who is refused, and when the lock ends.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/base/running_lock.h"
#include "platform/cli/config_lock.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/operator_session.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using namespace std::chrono_literals;
using qv::test::WireClient;

bool says_locked_by_ann(const std::string& output) {
    static const std::regex kText(
        R"(% The configuration is locked by ann \(uid 1234, pid 812\) since )"
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\n)");
    return std::regex_match(output, kText);
}

void shut_by_a_program(uint64_t ifx) {
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = ifx;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown \r\n", &mode, nullptr, nullptr), 0);
    ::close(session);
}

class ConfigLock : public ::testing::Test {
 protected:
    bool up(uint32_t ifx) const { return rig.model.find(ifx)->admin_up; }

    qv::test::CliRig rig;
    qv::test::OperatorSession ann{"ann", 1234, 812};
    qv::test::OperatorSession bob{"bob", 1235, 900};
};

TEST_F(ConfigLock, KeepsOtherOperatorsOutAndNamesTheHolder) {
    bob.type("configure terminal");
    bob.type("interface swp1");
    EXPECT_EQ(ann.type("configure exclusive"), "");
    EXPECT_EQ(qv::cli::prompt(ann.state), "lda(config)# ");
    EXPECT_TRUE(says_locked_by_ann(bob.type("shutdown"))) << bob.type("shutdown");
    EXPECT_EQ(bob.code, 1);
    EXPECT_TRUE(up(101));
    bob.type("end");
    EXPECT_TRUE(says_locked_by_ann(bob.type("configure terminal")));
    EXPECT_TRUE(says_locked_by_ann(bob.type("configure exclusive")));
    EXPECT_TRUE(says_locked_by_ann(bob.type("configure terminal revert 5")));
    EXPECT_TRUE(says_locked_by_ann(bob.type("configure replace /nowhere")));
    EXPECT_EQ(qv::cli::prompt(bob.state), "lda# ");
    EXPECT_EQ(bob.type("configure confirm"), "% There is nothing to confirm.\n");
    EXPECT_EQ(bob.type("show version").substr(0, 4), "lda ");
    ann.type("interface swp1");
    EXPECT_EQ(ann.type("shutdown"), "");
    EXPECT_FALSE(up(101));
}

TEST_F(ConfigLock, OtherSessionMayLookAroundButNotConfigure) {
    bob.type("configure terminal");
    ann.type("configure exclusive");
    EXPECT_EQ(bob.type("interface swp1"), "");
    EXPECT_EQ(bob.type("exit"), "");
    EXPECT_TRUE(says_locked_by_ann(bob.type("tarn enable")));
    EXPECT_EQ(bob.type("nonsense"), "% Unknown command: 'nonsense'.\n");
}

TEST_F(ConfigLock, EndsWithTheConfigurationModes) {
    for (const char* way : {"end", "exit"}) {
        EXPECT_EQ(ann.type("configure exclusive"), "");
        ann.type("interface swp1");
        ann.type("exit");
        EXPECT_TRUE(says_locked_by_ann(bob.type("configure terminal"))) << "still in mode config";
        ann.type(way);
        EXPECT_EQ(qv::cli::config_lock_holder(), "");
        EXPECT_EQ(bob.type("configure terminal"), "");
        bob.type("end");
    }
    ann.type("configure exclusive");
    ann.type("interface swp1");
    ann.type("end");
    EXPECT_EQ(bob.type("configure exclusive"), "");
}

TEST_F(ConfigLock, ProgramsAreNeverHeldUp) {
    ann.type("configure exclusive");
    shut_by_a_program(102);
    EXPECT_FALSE(up(102));
}

TEST_F(ConfigLock, WishForAPortThatHasLeftIsALineOfItsOperator) {
    bob.type("configure terminal");
    bob.type("interface swp1");
    bob.type("shutdown");
    rig.announce_ready();
    rig.hardware.remove(101);
    ann.type("configure exclusive");
    EXPECT_EQ(bob.type("no shutdown"), "% The interface does not exist.\n");
    EXPECT_NE(rig.type("show running-config").find("interface swp1\n shutdown\n"),
              std::string::npos);
}

TEST_F(ConfigLock, ClearedLockStopsItsHolderUntilItLeavesTheModes) {
    EXPECT_EQ(bob.type("clear configure lock"), "% Nobody has locked the configuration.\n");
    ann.type("configure exclusive");
    EXPECT_EQ(bob.type("clear configure lock"), "");
    EXPECT_EQ(rig.platform.log.lines().back(),
              "CLI-4-LOCK: The configuration lock of ann (uid 1234, pid 812) was cleared by bob "
              "(uid 1235, pid 900).");
    EXPECT_EQ(bob.type("configure terminal"), "");
    EXPECT_EQ(bob.type("tarn enable"), "");
    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_EQ(ann.type("no tarn enable"),
                  "% Your configuration lock was cleared by bob (uid 1235, pid 900): leave the "
                  "configuration modes first.\n");
    }
    ann.type("end");
    EXPECT_EQ(ann.type("configure exclusive"), "");
    EXPECT_EQ(ann.type("no tarn enable"), "");
    EXPECT_TRUE(says_locked_by_ann(bob.type("tarn enable")));
}

TEST_F(ConfigLock, SaysWhoHoldsIt) {
    EXPECT_EQ(qv::cli::config_lock_holder(), "");
    ann.type("configure exclusive");
    EXPECT_TRUE(std::regex_match(
        qv::cli::config_lock_holder(),
        std::regex(R"(ann \(uid 1234, pid 812\) since \d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")));
    EXPECT_TRUE(qv::cli::holds_config_lock(ann.state));
    EXPECT_FALSE(qv::cli::holds_config_lock(bob.state));
}

// ---- Over the socket ----

class SharedConfigLock : public ConfigLock {
 protected:
    SharedConfigLock() { qv::cli::share_config_lock(folder.path()); }
    ~SharedConfigLock() override { qv::cli::share_config_lock(""); }

    qv::test::TemporaryDirectory folder;
    qv::RunningLock netconf{folder.path(), 7, "alice"};
};

TEST_F(SharedConfigLock, NetconfSessionKeepsOperatorsOut) {
    const std::regex text(R"(% The configuration is locked by NETCONF session 7 \(alice\) since )"
                          R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\n)");
    bob.type("configure terminal");
    bob.type("interface swp1");
    netconf.take();
    EXPECT_TRUE(std::regex_match(bob.type("shutdown"), text)) << bob.type("shutdown");
    EXPECT_TRUE(up(101));
    EXPECT_TRUE(std::regex_match(ann.type("configure terminal"), text));
    EXPECT_TRUE(std::regex_match(ann.type("configure exclusive"), text));
    EXPECT_TRUE(std::regex_match(ann.type("configure replace /nowhere"), text));
    EXPECT_EQ(ann.type("show version").substr(0, 4), "lda ");
    netconf.release();
    EXPECT_EQ(bob.type("shutdown"), "");
    EXPECT_FALSE(up(101));
    EXPECT_EQ(ann.type("configure exclusive"), "");
}

TEST_F(SharedConfigLock, ProgramsIgnoreTheNetconfSession) {
    netconf.take();
    shut_by_a_program(102);
    EXPECT_FALSE(up(102));
}

TEST_F(SharedConfigLock, ShellKeepsNetconfSessionsOutUntilItLeaves) {
    ann.type("configure exclusive");
    ASSERT_TRUE(netconf.holder());
    EXPECT_EQ(netconf.holder()->session, 0U);
    EXPECT_EQ(netconf.holder()->name, "ann (uid 1234, pid 812)");
    EXPECT_THROW(netconf.take(), std::runtime_error);
    EXPECT_EQ(ann.type("hostname a"), "");
    ann.type("end");
    EXPECT_FALSE(netconf.holder());
}

TEST_F(SharedConfigLock, ClearedLockIsGoneForNetconfSessionsToo) {
    ann.type("configure exclusive");
    EXPECT_EQ(bob.type("clear configure lock"), "");
    EXPECT_FALSE(netconf.holder());
}

TEST_F(SharedConfigLock, LockOfANetconfSessionIsNotCleared) {
    netconf.take();
    const std::string said = bob.type("clear configure lock");
    EXPECT_EQ(said.substr(0, 62), "% The configuration is locked by NETCONF session 7 (alice) sin");
    EXPECT_NE(said.find(": only <kill-session> ends that.\n"), std::string::npos);
    EXPECT_TRUE(netconf.mine());
}

TEST_F(SharedConfigLock, IsNotTakenInTheMiddleOfAnEdit) {
    {
        const qv::File turn = qv::create_lock_file(folder.path() + "/edit.lock");
        ASSERT_TRUE(qv::try_lock(turn));
        EXPECT_EQ(ann.type("configure exclusive"),
                  "% A NETCONF session is changing the configuration; try again.\n");
        EXPECT_EQ(qv::cli::config_lock_holder(), "");
        EXPECT_FALSE(netconf.holder());
    }
    EXPECT_EQ(ann.type("configure exclusive"), "");
    const qv::File turn = qv::create_lock_file(folder.path() + "/edit.lock");
    EXPECT_TRUE(qv::try_lock(turn)) << "a session finds out at once who has the lock";
}

TEST_F(SharedConfigLock, UnusableFolderIsNamed) {
    mkfifo((folder.path() + "/running.lock").c_str(), 0660);
    EXPECT_EQ(ann.type("configure exclusive"),
              "% The lock that NETCONF sessions share cannot be taken: " + folder.path() +
                  "/running.lock: Invalid argument.\n");
    EXPECT_EQ(ann.type("configure terminal"), "");
    qv::cli::share_config_lock(folder.path() + "/none");
    EXPECT_EQ(ann.type("end"), "");
    EXPECT_EQ(ann.type("configure exclusive"), "");
}

TEST_F(SharedConfigLock, LineWithoutTimeIsStillALock) {
    netconf.take();
    std::ofstream(folder.path() + "/running.lock") << "7\n";
    EXPECT_EQ(ann.type("configure terminal"),
              "% The configuration is locked by NETCONF session 7 () since an unknown time.\n");
}

class ConfigLockOnSocket : public ::testing::Test {
 protected:
    explicit ConfigLockOnSocket(unsigned idle_s = 0) : rig(settings(idle_s)) {}
    static qv::PlatformConfig settings(unsigned idle_s) {
        qv::PlatformConfig config;
        config.cli_idle_timeout_s = idle_s;
        return config;
    }
    std::unique_ptr<WireClient> connect() {
        return std::make_unique<WireClient>(rig.platform.settings.cli_socket);
    }
    std::string ask(WireClient& client, const std::string& line, const std::string& more = "") {
        client.send("{\"exec\": \"" + line + "\"" + more + "}\n");
        rig.platform.run_ready();
        return client.receive();
    }
    // Whether the session got the lock.
    bool takes(WireClient& client) {
        return ask(client, "configure exclusive").find("\"result\":0") != std::string::npos;
    }

    qv::test::CliRig rig;
};

TEST_F(ConfigLockOnSocket, RequestWithItsOwnModeHasTheLockOfItsSession) {
    const auto holder = connect();
    const auto other = connect();
    ASSERT_TRUE(takes(*holder));
    const std::string in_config = ", \"mode\": \"config\"";
    EXPECT_NE(ask(*other, "tarn enable", in_config).find("is locked by"), std::string::npos);
    EXPECT_EQ(ask(*holder, "tarn enable", in_config),
              "{\"output\":\"\",\"prompt\":\"lda(config)# \",\"result\":0}\n");
    EXPECT_FALSE(takes(*other));
}

TEST_F(ConfigLockOnSocket, SixtyFourSessionsFightAndOneWins) {
    std::vector<std::unique_ptr<WireClient>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(connect());
        clients.back()->send("{\"exec\": \"configure exclusive\"}\n");
    }
    rig.platform.run_ready();
    int winners = 0;
    for (const auto& client : clients) {
        const std::string answer = client->receive();
        const bool won = answer.find("\"result\":0") != std::string::npos;
        const bool lost = answer.find("% The configuration is locked by ") != std::string::npos;
        EXPECT_NE(won, lost) << answer;
        winners += won ? 1 : 0;
    }
    EXPECT_EQ(winners, 1);
}

TEST_F(ConfigLockOnSocket, EndsWithAClientThatDies) {
    auto holder = connect();
    const auto other = connect();
    ASSERT_TRUE(takes(*holder));
    ask(*holder, "interface swp1");
    ASSERT_FALSE(takes(*other));
    holder->send("{\"exec\": \"shut");
    holder->close();
    rig.platform.run_ready();
    EXPECT_TRUE(takes(*other));
    EXPECT_TRUE(rig.model.find(101U)->admin_up);
}

class ConfigLockOfAnIdler : public ConfigLockOnSocket {
 protected:
    ConfigLockOfAnIdler() : ConfigLockOnSocket(100) {}
};

TEST_F(ConfigLockOfAnIdler, EndsWithTheIdleSessionWhichGetsTheReason) {
    const auto holder = connect();
    ASSERT_TRUE(takes(*holder));
    rig.platform.run_for(100s);
    EXPECT_EQ(holder->receive(),
              "{\"end\":true,\"output\":\"% Session closed: it was idle for too long.\\n\","
              "\"prompt\":\"lda(config)# \",\"result\":-1}\n");
    EXPECT_TRUE(takes(*connect()));
}

}  // namespace
