// The server's requests to the object database, and its handling of every kind of answer.
#include "services/netconf/object_db.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using netconf::Database;
using netconf::DatabaseLost;
using netconf::Listener;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using Texts = std::vector<std::string>;

constexpr const char* kUnknownForm = "the object database answers in an unknown form";

class ObjectDb : public testing::Test {
 protected:
    void SetUp() override { reset_interception(); }

    // The message of the DatabaseLost that `call` throws.
    template <typename Call>
    static std::string lost(Call call) {
        try {
            call();
        } catch (const DatabaseLost& error) {
            return error.what();
        }
        return "nothing was thrown";
    }

    // Sends `bytes` to the listener in pieces that fit into the socket, and makes it take each one.
    static std::vector<netconf::Notice> feed(DatabasePeer& peer, Listener& listener,
                                             std::string_view bytes) {
        std::vector<netconf::Notice> notices;
        while (!bytes.empty()) {
            const size_t length = std::min<size_t>(bytes.size(), 16384);
            peer.send_to_listeners(std::string(bytes.substr(0, length)));
            bytes.remove_prefix(length);
            while (auto notice = listener.next()) {
                notices.push_back(*notice);
            }
        }
        return notices;
    }

    std::string password_file(const std::string& text, mode_t mode) {
        const std::string file = folder_.path("password");
        std::ofstream(file) << text;
        chmod(file.c_str(), mode);
        return file;
    }

    Folder folder_;
    DatabasePeer peer_{folder_.path("redis.sock")};
};

TEST_F(ObjectDb, GetReadsTheKeyInItsDatabase) {
    peer_.store(22, "a.b/", std::string("x\0y", 3));
    Database database({peer_.socket()});
    EXPECT_EQ(database.get(22, "a.b/"), std::string("x\0y", 3));
    EXPECT_EQ(database.get(4, "a.b/"), std::nullopt);
    EXPECT_EQ(peer_.commands(), (Texts{"22 GET a.b/", "4 GET a.b/"}));
}

TEST_F(ObjectDb, ValueOtherThanAStringIsIgnored) {
    peer_.answer("GET", integer(5));
    EXPECT_EQ(Database({peer_.socket()}).get(22, "a.b/"), std::nullopt);
}

TEST_F(ObjectDb, ValuesAreThoseOfTheTypeOnceEach) {
    for (const char* const key : {"a.b/n=1", "a.b/n=2", "a.b/n=3", "a.bc/n=1", "a.b"}) {
        peer_.store(4, key, std::string("of ") + key);
    }
    EXPECT_EQ(Database({peer_.socket()}).values(4, "a.b"),
              (Texts{"of a.b/n=1", "of a.b/n=2", "of a.b/n=3"}));
    EXPECT_EQ(peer_.commands(),
              (Texts{"4 SCAN 0 MATCH a.b/* COUNT 256", "4 SCAN 17 MATCH a.b/* COUNT 256",
                     "4 GET a.b/n=1", "4 GET a.b/n=2", "4 GET a.b/n=3"}));
}

TEST_F(ObjectDb, RecordDeletedDuringTheScanIsLeftOut) {
    peer_.store(4, "a.b/n=1", "x");
    peer_.answer("GET", kNil);
    EXPECT_EQ(Database({peer_.socket()}).values(4, "a.b"), Texts{});
}

TEST_F(ObjectDb, ScanInAnUnknownFormIsAFault) {
    const std::string names = array({bulk("a.b/n=1")});
    for (const std::string& answer :
         {std::string("+OK\r\n"), integer(0), kNil, array({}), array({bulk("0")}),
          array({integer(0), names}), array({bulk("0"), bulk("a.b/n=1")}),
          array({bulk("0"), array({integer(1)})}), array({bulk("0"), array({kNil})})}) {
        peer_.answer("SCAN", answer);
        Database database({peer_.socket()});
        EXPECT_EQ(lost([&] { database.values(4, "a.b"); }), kUnknownForm) << answer;
    }
}

TEST_F(ObjectDb, ListenersOfAChannelAreCounted) {
    peer_.set_other_listeners(3);
    Database database({peer_.socket()});
    EXPECT_EQ(database.listeners(3, "a.b"), 3);
    EXPECT_EQ(peer_.commands(), Texts{"0 PUBSUB NUMSUB mom/3/a.b"});
    for (const std::string& answer : {std::string("+OK\r\n"), array({bulk("mom/3/a.b")}),
                                      array({bulk("mom/3/a.b"), bulk("1")})}) {
        peer_.answer("PUBSUB", answer);
        EXPECT_EQ(lost([&] { database.listeners(3, "a.b"); }), kUnknownForm) << answer;
    }
}

TEST_F(ObjectDb, SetStoresAndAnnouncesInOneTransaction) {
    peer_.set_other_listeners(2);
    std::string announced;
    peer_.on_publish([&](const std::string& channel, const std::string& payload) {
        announced = channel + " " + payload;
    });
    EXPECT_EQ(Database({peer_.socket()}).set(3, "a.b", "record"), 2);
    EXPECT_EQ(announced, std::string("mom/3/a.b \0record", 17));
    EXPECT_EQ(peer_.commands(), (Texts{"3 MULTI", "3 SET a.b/ record",
                                       std::string("3 PUBLISH mom/3/a.b \0record", 27), "3 EXEC"}));
}

TEST_F(ObjectDb, TransactionThatIsNotCarriedOutIsAFault) {
    Database database({peer_.socket()});
    for (const std::string& answer : {kNil, array({"+OK\r\n"}), array({"+OK\r\n", "+OK\r\n"})}) {
        peer_.answer("EXEC", answer);
        EXPECT_EQ(lost([&] { database.set(3, "a.b", "record"); }), kUnknownForm) << answer;
    }
}

TEST_F(ObjectDb, RefusalIsAFaultWithTheServersReason) {
    peer_.answer("GET", "-NOPERM not you\r\n");
    Database database({peer_.socket()});
    EXPECT_EQ(lost([&] { database.get(22, "a.b/"); }),
              "the object database refuses: NOPERM not you");
    peer_.answer("SUBSCRIBE", "-NOPERM nor here\r\n");
    EXPECT_EQ(lost([&] { Listener({peer_.socket()}, 3, "a.b"); }),
              "the object database refuses: NOPERM nor here");
}

TEST_F(ObjectDb, ServerThatIsNotThereIsNamed) {
    EXPECT_EQ(lost([&] { Database({folder_.path("nobody.sock")}); }),
              "the object database at " + folder_.path("nobody.sock") +
                  " cannot be reached: No such file or directory");
}

TEST_F(ObjectDb, ServerThatHangsUpOrTalksNonsenseIsLost) {
    Database database({peer_.socket()});
    EXPECT_EQ(database.get(22, "a.b/"), std::nullopt);
    peer_.hang_up();
    EXPECT_EQ(lost([&] { database.get(22, "a.b/"); }),
              "the object database does not answer: Broken pipe");
    peer_.answer("GET", "nonsense\r\n");
    Database other({peer_.socket()});
    EXPECT_EQ(lost([&] { other.get(22, "a.b/"); }),
              "the object database does not answer: Protocol error, got \"n\" as reply type byte");
}

TEST_F(ObjectDb, SilentServerIsAbandonedAfterNineTenthsOfASecond) {
    shorten_connection_limits(milliseconds(20));
    peer_.answer("GET", "");
    Database database({peer_.socket()});
    EXPECT_EQ(connection_limits().connect_us, 900'000);
    ASSERT_EQ(connection_limits().command_us, 900'000);  // else the next line waits for ever
    EXPECT_EQ(lost([&] { database.get(22, "a.b/"); }),
              "the object database does not answer: Resource temporarily unavailable");
}

TEST_F(ObjectDb, NoticesArriveInOrderWithTheirOperation) {
    Listener listener({peer_.socket()}, 3, "a.b");
    EXPECT_EQ(peer_.commands(), Texts{"0 SUBSCRIBE mom/3/a.b"});
    EXPECT_FALSE(listener.next());
    peer_.publish("mom/3/a.b", std::string("\0one", 4));
    peer_.publish("mom/3/a.b", "\1two");
    peer_.publish("mom/3/other", "\2not ours");
    peer_.publish("mom/3/a.b", "\2");
    std::vector<std::pair<int, std::string>> taken;
    while (const auto notice = listener.next()) {
        taken.emplace_back(notice->operation, notice->record);
    }
    EXPECT_EQ(taken, (std::vector<std::pair<int, std::string>>{{0, "one"}, {1, "two"}, {2, ""}}));
}

TEST_F(ObjectDb, OtherMessagesAreSkipped) {
    Listener listener({peer_.socket()}, 3, "a.b");
    const std::string channel = bulk("mom/3/a.b");
    for (const std::string& other :
         {integer(1), kNil, bulk("message"), array({bulk("message"), channel}),
          array({bulk("pmessage"), bulk("mom/*"), channel, bulk("\2four")}),
          array({bulk("subscribe"), channel, integer(1)}),
          array({bulk("message"), channel, bulk("")}), std::string("-ERR\r\n")}) {
        peer_.send_to_listeners(other);
    }
    EXPECT_FALSE(listener.next());
    peer_.publish("mom/3/a.b", "\2good");
    const auto notice = listener.next();
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->record, "good");
}

TEST_F(ObjectDb, NoticeMayArriveInPieces) {
    Listener listener({peer_.socket()}, 3, "a.b");
    const std::string whole = array({bulk("message"), bulk("mom/3/a.b"), bulk("\2record")});
    for (const char byte : whole.substr(0, whole.size() - 1)) {
        peer_.send_to_listeners(std::string(1, byte));
        EXPECT_FALSE(listener.next());
    }
    peer_.send_to_listeners(whole.substr(whole.size() - 1));
    const auto notice = listener.next();
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->record, "record");
}

TEST_F(ObjectDb, ListenerNoticesThatTheServerIsGone) {
    Listener listener({peer_.socket()}, 3, "a.b");
    peer_.publish("mom/3/a.b", "\2last");
    peer_.hang_up();
    EXPECT_EQ(listener.next().value().record, "last");
    EXPECT_EQ(lost([&] { listener.next(); }), "Server closed the connection");
    Listener other({peer_.socket()}, 3, "a.b");
    peer_.send_to_listeners("nonsense\r\n");
    EXPECT_EQ(lost([&] { other.next(); }), "Protocol error, got \"n\" as reply type byte");
}

TEST_F(ObjectDb, NoticeBelowOneMebibyteIsTakenWhole) {
    Listener listener({peer_.socket()}, 3, "a.b");
    const std::string record((size_t{1} << 20) - 200, 'x');
    const auto notices =
        feed(peer_, listener, array({bulk("message"), bulk("mom/3/a.b"), bulk("\2" + record)}));
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_EQ(notices[0].record, record);
}

TEST_F(ObjectDb, NoticeAboveOneMebibyteIsAFaultBeforeItIsWhole) {
    Listener listener({peer_.socket()}, 3, "a.b");
    const std::string record((size_t{1} << 20) + 100'000, 'x');
    const std::string whole = array({bulk("message"), bulk("mom/3/a.b"), bulk("\2" + record)});
    EXPECT_EQ(lost([&] { feed(peer_, listener, whole.substr(0, whole.size() - 1000)); }),
              "a message is too long");
}

TEST_F(ObjectDb, LimitIsThatOfOneNoticeAndNotOfManyInARow) {
    Listener listener({peer_.socket()}, 3, "a.b");
    const std::string notice =
        array({bulk("message"), bulk("mom/3/a.b"), bulk("\2" + std::string(40'000, 'x'))});
    std::string many;
    for (int n = 0; n < 40; n++) {
        many += notice;
    }
    EXPECT_EQ(feed(peer_, listener, many).size(), 40U);
}

TEST_F(ObjectDb, WaitingEndsWithANoticeOrAtTheDeadline) {
    freeze_clock();
    Listener listener({peer_.socket()}, 3, "a.b");
    std::vector<int> waits;
    int looks = 0;
    on_poll([&](pollfd* watched, nfds_t count, int timeout_ms) {
        if (++looks > 1000) {
            throw std::runtime_error("the wait does not end");
        }
        if (timeout_ms > 0) {
            waits.push_back(timeout_ms);
            advance_clock(milliseconds(1500));
        }
        const timespec at_once{};
        return ppoll(watched, count, &at_once, nullptr);
    });
    EXPECT_FALSE(listener.wait(steady_clock::now() + milliseconds(2000)));
    EXPECT_EQ(waits, (std::vector<int>{2000, 500}));
    peer_.publish("mom/3/a.b", "\2there");
    EXPECT_EQ(listener.wait(steady_clock::now()).value().record, "there");
}

TEST_F(ObjectDb, NoCommandWaitsBeyondTheDeadline) {
    using namespace std::chrono_literals;
    freeze_clock();
    const auto deadline = std::chrono::steady_clock::now() + 1000ms;
    Database database({peer_.socket()}, deadline);
    EXPECT_EQ(database.get(22, "a.b/"), std::nullopt);
    EXPECT_EQ(connection_limits().command_us, 900'000);
    advance_clock(900ms);
    EXPECT_EQ(database.get(22, "a.b/"), std::nullopt);
    EXPECT_EQ(connection_limits().command_us, 100'000);
    advance_clock(100ms);
    EXPECT_EQ(lost([&] { database.get(22, "a.b/"); }), "the object database answers too slowly");
    EXPECT_EQ(lost([&] { Listener({peer_.socket()}, 3, "a.b", deadline); }),
              "the object database answers too slowly");
}

TEST_F(ObjectDb, LoginIsTheFirstCommandOfEachConnection) {
    const std::string file = password_file("secret\n", 0600);
    peer_.answer("AUTH", "+OK\r\n");
    Database({peer_.socket(), "front", file}).get(22, "a.b/");
    Listener({peer_.socket(), "front", file}, 3, "a.b");
    const Texts commands = peer_.commands();
    ASSERT_EQ(commands.size(), 4U);
    EXPECT_EQ(commands[0], "0 AUTH front secret");
    EXPECT_EQ(commands[1], "22 GET a.b/");
    EXPECT_EQ(commands[2], "0 AUTH front secret");
}

TEST_F(ObjectDb, LoginThatIsRefusedIsNamedWithoutThePassword) {
    const std::string file = password_file("secret\n", 0600);
    peer_.answer("AUTH", "-WRONGPASS invalid username-password pair or user is disabled.\r\n");
    EXPECT_EQ(lost([&] {
                  Database({peer_.socket(), "front", file});
              }),
              "no login as front: the object database refuses: WRONGPASS invalid username-password "
              "pair or user is disabled.");
}

TEST_F(ObjectDb, PasswordFileOpenToOthersIsRefusedAndNothingIsSent) {
    const std::string file = password_file("secret\n", 0604);
    EXPECT_EQ(
        lost([&] {
            Database({peer_.socket(), "front", file});
        }),
        "no login as front: the password file " + file + " is open to other users: chmod o= it");
    EXPECT_EQ(peer_.commands(), Texts{});
}

}  // namespace
