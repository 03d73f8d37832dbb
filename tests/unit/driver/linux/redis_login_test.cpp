// The login at the Redis server: of a client of qv/mom.h, and of the lease.
#include <sys/stat.h>

#include "platform/driver/linux/redis_lease.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/driver/linux/redis_protocol_fixture.h"

namespace store_test {
namespace {

const std::string kAuth = "*3\r\n$4\r\nAUTH\r\n$5\r\nagent\r\n$6\r\nsecret\r\n";
const std::string kPing = "*1\r\n$4\r\nPING\r\n";
const std::string kWrong =
    "-WRONGPASS invalid username-password pair or user is disabled.\r\n-NOAUTH Authentication "
    "required.\r\n";

struct PasswordFolder {
    PasswordFolder() { write_password("secret\n"); }
    void write_password(const std::string& text, mode_t mode = 0600) {
        folder.write("password", text);
        ::chmod(folder.file("password").c_str(), mode);
    }

    qv::test::TemporaryDirectory folder;
};

class RedisLogin : protected PasswordFolder, public RedisProtocol {
 protected:
    RedisLogin() : RedisProtocol("agent", folder.file("password")) {}

    std::string refused(const std::string& reason) const {
        return "MOM-3-LOGIN_REFUSED: No login to the object database at " + server.path() + " (" +
               reason + "). Retrying; check [redis] user and password_file.";
    }
    std::string refused_password() const {
        return refused(
            "the login of agent is refused: WRONGPASS invalid username-password pair "
            "or user is disabled.");
    }
    std::string away() const {
        return "MOM-4-STORE_AWAY: Object database at " + server.path() +
               " is away (the server closed the connection). Retrying; check that redis-server "
               "runs.";
    }
    // Takes the connections and closes them.
    void hang_up() {
        accept();
        commands().received();
        subscriptions().received();
        peers.clear();
    }
    // Lets the server refuse each login for some time.
    void refuse_logins(std::chrono::seconds time) {
        for (std::chrono::seconds passed{0}; passed < time; passed += 1s) {
            platform.run_for(1s);
            std::vector<ScriptedServer::Peer> fresh = server.accept();
            for (ScriptedServer::Peer& peer : fresh) {
                logins += peer.received() == kAuth + kPing ? 1 : 0;
                peer.send(kWrong);
            }
            platform.run_ready();
        }
    }

    int logins = 0;
};

TEST_F(RedisLogin, IsTheFirstRequestOfBothConnections) {
    accept();
    EXPECT_EQ(commands().received(), kAuth + kPing);
    EXPECT_EQ(subscriptions().received(), kAuth + kPing);
    answer(commands(), "+OK\r\n+PONG\r\n");
    subscriptions().send("+OK\r\n+PONG\r\n");
    platform.run_ready();
    EXPECT_EQ(commands().received(), "*2\r\n$6\r\nSELECT\r\n$1\r\n4\r\n");
    commands().send("+OK\r\n");
    platform.run_ready();
    EXPECT_EQ(g_heard, Lines{"up"});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(RedisLogin, IsRepeatedWithThePasswordOfTheMoment) {
    accept();
    write_password("other!\n");
    peers.clear();
    platform.run_for(1s);
    peers = server.accept();
    ASSERT_GE(peers.size(), 2U);
    EXPECT_EQ(peers[0].received(), "*3\r\n$4\r\nAUTH\r\n$5\r\nagent\r\n$6\r\nother!\r\n" + kPing);
}

TEST_F(RedisLogin, RefusalIsLoggedOnceAndRepeatedUntilItIsGranted) {
    refuse_logins(60s);
    EXPECT_GE(logins, 10);
    EXPECT_EQ(platform.log.lines(), Lines{refused_password()});
    platform.run_for(5s);
    peers = server.accept();
    ASSERT_EQ(peers.size(), 2U);
    answer(commands(), "+OK\r\n+PONG\r\n");
    answer(subscriptions(), "+OK\r\n+PONG\r\n");
    answer(commands(), "+OK\r\n");
    EXPECT_EQ(g_heard, Lines{"up"});
    EXPECT_EQ(platform.log.lines(),
              (Lines{refused_password(),
                     "MOM-6-STORE_UP: Object database at " + server.path() + " is back."}));
    peers.clear();
    refuse_logins(20s);
    EXPECT_EQ(platform.log.lines().back(), refused_password()) << "a new trouble is logged again";
}

TEST_F(RedisLogin, RefusalAfterAnAbsenceIsLoggedToo) {
    hang_up();
    refuse_logins(20s);
    EXPECT_EQ(platform.log.lines(), (Lines{away(), refused_password()}));
}

TEST_F(RedisLogin, PasswordFileThatIsRefusedSendsNothingAndIsLoggedOnce) {
    hang_up();
    write_password("secret\n", 0644);
    platform.run_for(30s);
    for (ScriptedServer::Peer& peer : server.accept()) {
        EXPECT_EQ(peer.received(), "");
    }
    const Lines expected = {away(), refused("the password file " + folder.file("password") +
                                            " is open to other users: chmod o= it")};
    EXPECT_EQ(platform.log.lines(), expected);
    write_password("secret\n");
    platform.run_for(5s);
    server.accept();
    platform.run_for(5s);
    EXPECT_EQ(platform.log.lines(), expected);
}

TEST_F(RedisLogin, AnswerThatIsNoAnswerToALoginIsRefused) {
    accept();
    answer(commands(), ":1\r\n");
    EXPECT_EQ(platform.log.lines(),
              Lines{refused("the login of agent is refused: the server answers AUTH with a "
                            "number")});
}

TEST_F(RedisProtocol, ServerThatAsksForALoginIsNamedAsSuch) {
    accept();
    answer(commands(), "-NOAUTH Authentication required.\r\n");
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-LOGIN_REFUSED: No login to the object database at " + server.path() +
                    " (NOAUTH Authentication required.). Retrying; check [redis] user and "
                    "password_file."});
}

struct Reasons final : qv::LeaseListener {
    void lease_reached() override { lines.emplace_back("reached"); }
    void lease_unreachable(const std::string& reason) override { lines.push_back(reason); }
    Lines lines;
};

TEST_F(RedisLogin, OfTheLeaseComesFirstToo) {
    server.accept();
    Reasons heard;
    qv::RedisLease lease(platform.loop(), {server.path(), "agent", folder.file("password")});
    lease.connect(heard);
    platform.run_ready();
    std::vector<ScriptedServer::Peer> all = server.accept();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().received(), kAuth + kPing);
    all.back().send(kWrong);
    platform.run_ready();
    EXPECT_EQ(heard.lines, Lines{"the login of agent is refused: WRONGPASS invalid "
                                 "username-password pair or user is disabled."});
}

}  // namespace
}  // namespace store_test
