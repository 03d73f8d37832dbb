// "show users" and "show history", asked for by clients of the socket and by sessions made up here.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/operator_session.h"
#include "tests/unit/cli/wire_client.h"

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using qv::test::CliRig;
using qv::test::OperatorSession;
using qv::test::WireClient;

qv::PlatformConfig settings(double speed) {
    qv::PlatformConfig config;
    config.speed = speed;
    return config;
}

struct ShowUsers : ::testing::Test {
    explicit ShowUsers(double speed = 1.0) : rig(settings(speed)) {}

    std::unique_ptr<WireClient> connect() {
        auto client = std::make_unique<WireClient>(rig.platform.settings.cli_socket);
        rig.platform.run_ready();
        return client;
    }
    // Returns the output of a line in the client's session.
    std::string type(WireClient& client, const std::string& line, const std::string& more = "") {
        client.send("{\"exec\": \"" + line + "\"" + more + "}\n");
        rig.platform.run_ready();
        return Json::parse(client.receive())["output"];
    }
    Json users(WireClient& client) { return Json::parse(type(client, "show users | json")); }

    // The row of a client of this process.
    static Json row(bool own, int session, const std::string& mode, bool lock, int idle) {
        const passwd* const user = ::getpwuid(::geteuid());
        return {{"own", own},
                {"session", session},
                {"user", user ? Json(user->pw_name) : Json()},
                {"uid", ::geteuid()},
                {"pid", ::getpid()},
                {"mode", mode},
                {"lock", lock},
                {"idle", idle}};
    }

    CliRig rig;
};

TEST_F(ShowUsers, EverySessionHasItsNumberModeLockAndIdleTime) {
    const auto first = connect();
    const auto second = connect();
    type(*first, "configure exclusive");
    rig.platform.run_for(90s);
    EXPECT_EQ(users(*second),
              Json::array({row(false, 1, "config", true, 90), row(true, 2, "exec", false, 0)}));
    EXPECT_EQ(users(*first),
              Json::array({row(true, 1, "config", true, 0), row(false, 2, "exec", false, 0)}));
}

TEST_F(ShowUsers, TableMarksTheOwnSession) {
    const auto first = connect();
    rig.platform.run_for(1512s);
    const auto second = connect();
    std::istringstream shown(type(*second, "show users"));
    std::string line;
    std::getline(shown, line);
    EXPECT_EQ(line, "  Session User             UID    PID     Mode      Lock Idle");
    std::getline(shown, line);
    EXPECT_TRUE(line.starts_with("  1       ")) << line;
    EXPECT_TRUE(line.ends_with(" exec           0:25:12")) << line;
    std::getline(shown, line);
    EXPECT_TRUE(line.starts_with("* 2       ")) << line;
    EXPECT_TRUE(line.ends_with(" exec           0:00:00")) << line;
    EXPECT_FALSE(std::getline(shown, line));
}

TEST_F(ShowUsers, IdleTimeCountsOnWhileASessionMonitors) {
    const auto monitors = connect();
    type(*monitors, "terminal monitor");
    rig.platform.run_for(2h);
    const auto other = connect();
    EXPECT_EQ(users(*other)[0]["idle"], 7200);
    const std::string shown = type(*other, "show users");
    EXPECT_NE(shown.find(" exec           2:00:00\n"), std::string::npos) << shown;
}

struct ShowUsersOnAFastClock : ShowUsers {
    ShowUsersOnAFastClock() : ShowUsers(10.0) {}
};

TEST_F(ShowUsersOnAFastClock, IdleTimeIsRealTime) {
    const auto first = connect();
    rig.platform.run_for(100s);
    const auto second = connect();
    EXPECT_EQ(users(*second)[0]["idle"], 10);
}

TEST_F(ShowUsers, LineInAModeOfItsOwnBelongsToItsSession) {
    const auto client = connect();
    const Json shown = Json::parse(type(*client, "show users | json", ", \"mode\": \"exec\""));
    EXPECT_EQ(shown, Json::array({row(true, 1, "exec", false, 0)}));
}

TEST_F(ShowUsers, SessionThatHasEndedIsNotListed) {
    const auto first = connect();
    const auto second = connect();
    type(*first, "exit");
    EXPECT_EQ(users(*second), Json::array({row(true, 2, "exec", false, 0)}));
}

TEST_F(ShowUsers, ProgramsAndSessionsWithoutASocketAreNotListed) {
    EXPECT_EQ(rig.type("show users"),
              "  Session User             UID    PID     Mode      Lock Idle\n");
}

TEST(ShowHistory, ListsTheLinesOfTheSessionOldestFirst) {
    CliRig rig;
    OperatorSession ann("ann", 1001, 812);
    OperatorSession bob("bob", 1002, 813);
    ann.type("show version");
    bob.type("show debugging");
    ann.type("  frobnicate the  switch \n");
    ann.type("");
    ann.type("! a comment");
    ann.type("show version");
    EXPECT_EQ(ann.type("show history"),
              "show version\nfrobnicate the  switch\nshow version\nshow history\n");
    EXPECT_EQ(ann.type("show history | include frob"),
              "frobnicate the  switch\nshow history | include frob\n");
    EXPECT_EQ(bob.type("show history | count"), "2\n");
}

TEST(ShowHistory, KeepsTheNewestHundredLines) {
    CliRig rig;
    OperatorSession ann("ann", 1001, 812);
    for (int i = 1; i <= 100; ++i) {
        ann.type("line-" + std::to_string(i));
    }
    EXPECT_EQ(ann.type("show history | count"), "100\n");
    EXPECT_TRUE(ann.type("show history").starts_with("line-3\nline-4\n"));
}

TEST(ShowHistory, LinesThatCannotBeALineAreLeftOut) {
    CliRig rig;
    OperatorSession ann("ann", 1001, 812);
    ann.type("bell \a");
    ann.type(std::string(1025, 'x'));
    EXPECT_EQ(ann.type("show history"), "show history\n");
}

}  // namespace
