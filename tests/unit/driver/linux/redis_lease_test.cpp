// The lease in a Redis server: a scripted server for what a correct one never does, and a real one
// for the script.
#include "platform/driver/linux/redis_lease.h"

#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"
#include "tests/support/redis_server.h"
#include "tests/support/scripted_server.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct Heard final : LeaseListener {
    void lease_reached() override { lines.emplace_back("reached"); }
    void lease_unreachable(const std::string& reason) override { lines.push_back(reason); }
    LeaseDriver::Answer answer() {
        return [this](const std::string& text) {
            lines.push_back("\"" + text + "\"");
        };
    }
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
};

struct ScriptedLease : testing::Test {
    test::ManualClock clock;
    EventLoop loop{clock};
    test::ScriptedServer server;
    RedisLease lease{loop, {server.path()}};
    Heard heard;
    std::vector<test::ScriptedServer::Peer> peers;

    ScriptedLease() {
        std::signal(SIGPIPE, SIG_IGN);
        lease.connect(heard);
    }
    void run_for(Duration time) { test::run_for(loop, clock, time); }
    // Takes the connection that the driver has made, and greets it.
    void greet() {
        run_for(0s);
        peers = server.accept();
        ASSERT_EQ(peers.size(), 1U);
        send("+PONG\r\n");
        ASSERT_EQ(heard.take(), Lines{"reached"});
        received();
    }
    std::string received() {
        run_for(0s);
        return peers.at(0).received();
    }
    void send(const std::string& bytes) {
        peers.at(0).send(bytes);
        run_for(0s);
    }
};

TEST_F(ScriptedLease, IsOneKeyOfDatabaseZero) {
    greet();
    lease.read(heard.answer());
    EXPECT_EQ(received(), "*2\r\n$3\r\nGET\r\n$9\r\nlda/lease\r\n");
    send("$-1\r\n");
    lease.read(heard.answer());
    send("$4\r\ntext\r\n");
    EXPECT_EQ(heard.take(), (Lines{"\"\"", "\"text\""}));
}

TEST_F(ScriptedLease, ServerThatIsStillLoadingIsTriedAgainAfterAPause) {
    run_for(0s);
    peers = server.accept();
    send("-LOADING Redis is loading the dataset in memory\r\n");
    EXPECT_EQ(heard.take(), Lines{"LOADING Redis is loading the dataset in memory"});
    run_for(199ms);
    EXPECT_TRUE(server.accept().empty());
    run_for(1ms);
    EXPECT_EQ(server.accept().size(), 1U);
}

TEST_F(ScriptedLease, RefusedRequestEndsTheConnectionWithTheServersReason) {
    greet();
    lease.replace("old", "new", heard.answer());
    run_for(0s);
    send("-NOPERM this user has no permissions to run the 'eval' command\r\n");
    EXPECT_EQ(heard.take(), Lines{"NOPERM this user has no permissions to run the 'eval' command"});
    lease.read(heard.answer());  // dropped: there is no connection
    run_for(200ms);
    peers = server.accept();
    ASSERT_EQ(peers.size(), 1U);
    send("+PONG\r\n");
    EXPECT_EQ(heard.take(), Lines{"reached"});
}

TEST_F(ScriptedLease, NonsenseEndsTheConnection) {
    greet();
    lease.read(heard.answer());
    run_for(0s);
    send(":7\r\n");
    EXPECT_EQ(heard.take(), Lines{"the server answers GET with a number"});
}

TEST_F(ScriptedLease, AnswersAfterARefusalAreDropped) {
    greet();
    lease.read(heard.answer());
    lease.read(heard.answer());
    run_for(0s);
    send(":7\r\n$4\r\ntext\r\n");
    EXPECT_EQ(heard.take(), Lines{"the server answers GET with a number"});
}

TEST_F(ScriptedLease, LostConnectionDropsItsRequests) {
    greet();
    lease.read(heard.answer());
    run_for(0s);
    peers.clear();
    run_for(0s);
    ASSERT_EQ(heard.lines.size(), 1U);
    run_for(200ms);
    peers = server.accept();
    ASSERT_EQ(peers.size(), 1U);
    heard.take();
    send("+PONG\r\n");
    EXPECT_EQ(heard.take(), Lines{"reached"});
}

struct RealLease : testing::Test {
    SteadyClock clock;
    EventLoop loop{clock};
    test::RedisServer server;
    std::unique_ptr<RedisLease> lease;
    Heard heard;

    void SetUp() override {
        if (!test::RedisServer::installed()) {
            GTEST_SKIP() << "redis-server is not installed";
        }
        std::signal(SIGPIPE, SIG_IGN);
        server.start();
        lease = std::make_unique<RedisLease>(loop, RedisServer{server.socket()});
        lease->connect(heard);
        expect("reached");
    }
    void expect(const std::string& line) {
        EXPECT_TRUE(test::run_until(loop, [&] { return !heard.lines.empty(); }));
        EXPECT_EQ(heard.take(), Lines{line});
    }
};

TEST_F(RealLease, IsReplacedByWhoKnowsItOnly) {
    lease->read(heard.answer());
    expect("\"\"");
    lease->replace("other", "mine", heard.answer());
    expect("\"\"");
    lease->replace("", "mine", heard.answer());
    expect("\"mine\"");
    lease->replace("", "other", heard.answer());
    expect("\"mine\"");
    lease->replace("mine", "next", heard.answer());
    expect("\"next\"");
    lease->read(heard.answer());
    expect("\"next\"");
    EXPECT_EQ(server.run(0, {"GET", "lda/lease"}), Lines{"next"});
    EXPECT_EQ(server.run(0, {"TTL", "lda/lease"}), Lines{"-1"})
        << "the server's wall clock may jump";
}

TEST_F(RealLease, KeyOfAnotherTypeIsARefusal) {
    server.run(0, {"LPUSH", "lda/lease", "x"});
    lease->read(heard.answer());
    expect("WRONGTYPE Operation against a key holding the wrong kind of value");
}

TEST_F(RealLease, UserWithoutThePermissionIsARefusal) {
    server.run(0, {"ACL", "SETUSER", "default", "-eval"});
    lease->replace("", "mine", heard.answer());
    EXPECT_TRUE(test::run_until(loop, [&] { return !heard.lines.empty(); }));
    EXPECT_NE(heard.lines.at(0).find("NOPERM"), std::string::npos) << heard.lines.at(0);
}

TEST_F(RealLease, ServerThatReturnsIsReachedAgain) {
    server.kill();
    EXPECT_TRUE(test::run_until(loop, [&] { return !heard.lines.empty(); }));
    server.start();
    EXPECT_TRUE(test::run_until(loop, [&] { return heard.lines.back() == "reached"; }));
}

}  // namespace
}  // namespace qv
