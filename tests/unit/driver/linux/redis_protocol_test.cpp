// The client with a scripted server, on a manual clock: connecting, back-off, and replies that no
// correct server sends. Those end the session, never the process.
#include <cerrno>

#include "tests/unit/driver/linux/redis_protocol_fixture.h"

namespace store_test {
namespace {

using namespace std::string_literals;

TEST_F(RedisProtocol, BackoffDoublesFromAHundredMillisecondsToFiveSeconds) {
    for (const auto wait : {100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 5000ms, 5000ms}) {
        platform.run_ready();
        EXPECT_EQ(server.accept().size(), 2U) << "before a wait of " << wait.count() << " ms";
        platform.run_ready();
        platform.run_for(wait - 1ms);
        EXPECT_EQ(server.accept().size(), 0U) << "after " << wait.count() - 1 << " ms";
        platform.run_for(1ms);
    }
    EXPECT_EQ(platform.log.lines().size(), 1U);
}

// The session opens each time, and is lost after `stay`.
TEST_F(RedisProtocol, BackoffGrowsUntilASessionHasLasted) {
    const auto lose_after = [&](qv::Duration stay, qv::Duration wait) {
        accept();
        answer(commands(), "+PONG\r\n");
        answer(subscriptions(), "+PONG\r\n");
        answer(commands(), "+OK\r\n");
        platform.run_for(stay);
        peers.clear();
        platform.run_ready();
        platform.run_for(wait - 1ms);
        EXPECT_EQ(server.accept().size(), 0U) << "too early after a session of " << stay.count();
        platform.run_for(1ms);
    };
    lose_after(0s, 100ms);
    lose_after(0s, 200ms);
    lose_after(9s, 400ms);
    lose_after(10s, 100ms);
    lose_after(0s, 200ms);
    EXPECT_EQ(g_heard, (Lines{"up", "down", "back", "down", "back", "down", "back", "down", "back",
                              "down"}));
}

TEST_F(RedisProtocol, RefusedDatabaseIsLogged) {
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), "-NOPERM no\r\n");
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines(), Lines{"MOM-3-NO_DATABASE: The object database at " +
                                          server.path() + " refuses database 4: NOPERM no"});
}

TEST_F(RedisProtocol, RefusedReturnToADatabaseEndsTheSession) {
    open(22);
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), "+OK\r\n+OK\r\n");
    set(7);
    answer(commands(), "-NOPERM no\r\n");
    EXPECT_EQ(std::exchange(g_heard, {}), (Lines{"up", "up", "down", "down"}));
}

TEST_F(RedisProtocol, FirstErrorOfATransactionIsLogged) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n-OOM first\r\n-ERR second\r\n-EXECABORT Transaction discarded\r\n");
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-WRITE_REFUSED: Database 4: p_bridge.tarn_loop_info/ifx=7 was not "
                    "written: OOM first. Further refusals are not logged until a write succeeds."});
}

TEST_F(RedisProtocol, RefusalOfTheTransactionItselfIsLogged) {
    greet();
    set(7);
    answer(commands(), "-NOPERM multi\r\n+OK\r\n:0\r\n-ERR EXEC without MULTI\r\n");
    EXPECT_NE(platform.log.lines().at(0).find("was not written: NOPERM multi."), std::string::npos);
    set(7);
    answer(commands(), kWritten);
    ASSERT_EQ(qv_mom_del(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    answer(commands(), "-NOPERM del\r\n+OK\r\n:0\r\n-ERR EXEC without MULTI\r\n");
    EXPECT_NE(platform.log.lines().at(1).find("was not written: NOPERM del."), std::string::npos);
}

TEST_F(RedisProtocol, RefusedPartOfADeleteIsLogged) {
    greet();
    ASSERT_EQ(qv_mom_del(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    answer(commands(), "+OK\r\n-NOPERM del\r\n-NOPERM publish\r\n-EXECABORT Discarded\r\n");
    EXPECT_NE(platform.log.lines().at(0).find("was not written: NOPERM del."), std::string::npos);
}

TEST_F(RedisProtocol, ErrorInsideATransactionIsLogged) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n-MISCONF disk\r\n:0\r\n");
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-WRITE_REFUSED: Database 4: p_bridge.tarn_loop_info/ifx=7 was not "
                    "written: MISCONF disk. Further refusals are not logged until a write "
                    "succeeds."});
}

TEST_F(RedisProtocol, TransactionThatWasNotExecutedEndsTheSession) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*-1\r\n");
    expect_lost("the server answers a write with nothing");
}

TEST_F(RedisProtocol, PageOfAWrongShapeEndsTheSession) {
    const std::string cursor = "$1\r\n0\r\n";
    for (const std::string& page :
         {"*4\r\n:0\r\n*0\r\n*0\r\n*0\r\n"s, "*3\r\n" + cursor + "*0\r\n*0\r\n",
          "*4\r\n" + cursor + "*1\r\n$1\r\nk\r\n*0\r\n*0\r\n",
          "*4\r\n" + cursor + "*2\r\n$1\r\nk\r\n:1\r\n*0\r\n*0\r\n",
          "*4\r\n" + cursor + "*0\r\n$1\r\nk\r\n*0\r\n",
          "*4\r\n" + cursor + "*0\r\n*1\r\n*0\r\n*0\r\n",
          "*4\r\n" + cursor + "*0\r\n*0\r\n*2\r\n$1\r\nk\r\n$1\r\n1\r\n"}) {
        accept();
        answer(commands(), "+PONG\r\n");
        answer(subscriptions(), "+PONG\r\n");
        answer(commands(), "+OK\r\n");
        g_heard.clear();
        scan();
        answer(commands(), page);
        EXPECT_EQ(g_heard, Lines{"down"}) << page;
        platform.run_for(5s);
    }
}

TEST_F(RedisProtocol, SessionIsUpOnceBothConnectionsAndTheDatabaseAnswer) {
    accept();
    EXPECT_EQ(commands().received(), "*1\r\n$4\r\nPING\r\n");
    EXPECT_EQ(subscriptions().received(), "*1\r\n$4\r\nPING\r\n");
    answer(commands(), "+PONG\r\n");
    EXPECT_EQ(commands().received(), "");
    answer(subscriptions(), "+PONG\r\n");
    EXPECT_EQ(commands().received(), "*2\r\n$6\r\nSELECT\r\n$1\r\n4\r\n");
    EXPECT_EQ(g_heard, Lines{});
    answer(commands(), "+OK\r\n");
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_F(RedisProtocol, ServerThatIsStillLoadingIsNotUsed) {
    accept();
    answer(commands(), "-LOADING Redis is loading the dataset in memory\r\n");
    answer(subscriptions(), "+PONG\r\n");
    EXPECT_TRUE(commands().closed());
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-4-STORE_AWAY: Object database at " + server.path() +
                    " is away (LOADING Redis is loading the dataset in memory). Retrying; check "
                    "that redis-server runs."});
    platform.run_for(100ms);
    greet();
}

TEST_F(RedisProtocol, ReplyInSmallPiecesIsPutTogether) {
    accept();
    answer(subscriptions(), "+PONG\r\n");
    for (const char c : "+PONG\r\n+OK\r\n"s) {
        answer(commands(), std::string(1, c));
    }
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_F(RedisProtocol, UnexpectedReplyEndsTheSession) {
    greet();
    commands().send("+OK\r\n");
    expect_lost("the server answers what nobody asked");
}

TEST_F(RedisProtocol, MessageOnTheCommandConnectionEndsTheSession) {
    greet();
    commands().send("*3\r\n$7\r\nmessage\r\n$1\r\nx\r\n$1\r\ny\r\n");
    expect_lost("the server answers what nobody asked");
}

TEST_F(RedisProtocol, NothingForAGreetingEndsTheConnection) {
    accept();
    answer(commands(), "$-1\r\n");
    EXPECT_TRUE(commands().closed());
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines().at(0), "MOM-4-STORE_AWAY: Object database at " + server.path() +
                                              " is away (the server answers PING with nothing). "
                                              "Retrying; check that redis-server runs.");
}

TEST_F(RedisProtocol, MessageBeforeASubscriptionEndsTheSession) {
    greet();
    subscriptions().send(
        "*3\r\n$7\r\nmessage\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$1\r\n\2\r\n");
    expect_lost("the server sends a message that nobody subscribed to");
}

TEST_F(RedisProtocol, MessageBeforeTheConfirmationEndsTheSession) {
    greet();
    subscribe();
    answer(subscriptions(),
           "*3\r\n$7\r\nmessage\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$1\r\n\2\r\n");
    expect_lost("the server sends a message that nobody subscribed to");
}

TEST_F(RedisProtocol, MessageOfAWrongShapeEndsTheSession) {
    greet();
    subscribe();
    answer(subscriptions(),
           "*3\r\n$9\r\nsubscribe\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n:1\r\n");
    ASSERT_EQ(std::exchange(g_heard, {}), Lines{"29/0/4"});
    subscriptions().send("*3\r\n$7\r\nmessage\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$-1\r\n");
    expect_lost("the server sends a message that nobody subscribed to");
}

TEST_F(RedisProtocol, MessageWithoutAChannelEndsTheSession) {
    greet();
    subscriptions().send("*1\r\n$7\r\nmessage\r\n");
    expect_lost("the server sends a message that nobody subscribed to");
}

TEST_F(RedisProtocol, PatternMessageEndsTheSession) {
    greet();
    subscriptions().send("*4\r\n$8\r\npmessage\r\n$1\r\n*\r\n$1\r\nx\r\n$1\r\ny\r\n");
    expect_lost("the server answers what nobody asked");
}

TEST_F(RedisProtocol, EmptyArrayOnTheSubscriptionConnectionEndsTheSession) {
    greet();
    subscriptions().send("*0\r\n");
    expect_lost("the server answers what nobody asked");
}

TEST_F(RedisProtocol, SubscriptionAnsweredWithNothingEndsTheSession) {
    greet();
    subscribe();
    answer(subscriptions(), "$-1\r\n");
    expect_lost("the server answers SUBSCRIBE with nothing");
}

TEST_F(RedisProtocol, RefusedSubscriptionIsLogged) {
    greet();
    subscribe();
    answer(subscriptions(), "-NOPERM no\r\n");
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-SUBSCRIBE_REFUSED: The object database at " + server.path() +
                    " refuses the subscription to mom/4/p_bridge.tarn_loop_info: NOPERM no"});
}

TEST_F(RedisProtocol, RefusedSubscriptionIsRepeatedUntilItIsConfirmed) {
    const std::string request = "*2\r\n$9\r\nSUBSCRIBE\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n";
    greet();
    subscribe();
    platform.run_ready();
    subscriptions().received();
    for (int refusals = 0; refusals < 2; ++refusals) {
        subscriptions().send("-NOPERM no\r\n");
        platform.run_ready();
        EXPECT_EQ(subscriptions().received(), "");
        platform.run_for(5s);
        EXPECT_EQ(subscriptions().received(), request);
    }
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines().size(), 1U) << "the same refusal is logged once";
    subscriptions().send("*3\r\n$9\r\nsubscribe\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n:1\r\n");
    platform.run_ready();
    EXPECT_EQ(g_heard, Lines{"29/0/4"});
    platform.run_for(5s);
    EXPECT_EQ(subscriptions().received(), "");
}

TEST_F(RedisProtocol, ServerThatNeverAnswersIsLeftAfterTenSeconds) {
    accept();
    commands().send("*1000000000\r\n$536870911\r\nthe rest never comes");
    platform.run_for(9999ms);
    EXPECT_FALSE(commands().closed());
    platform.run_for(1ms);
    EXPECT_TRUE(commands().closed());
    EXPECT_TRUE(subscriptions().closed());
    EXPECT_EQ(
        platform.log.lines(),
        Lines{"MOM-4-STORE_AWAY: Object database at " + server.path() +
              " is away (the server does not answer). Retrying; check that redis-server runs."});
    platform.run_for(100ms);
    greet_again();
    EXPECT_EQ(g_heard, Lines{"up"});
}

TEST_F(RedisProtocol, SilentServerIsLeftAlsoDuringASession) {
    greet();
    set(7);
    answer(commands(), kWritten);
    platform.run_for(4s);
    EXPECT_EQ(g_heard, Lines{});
    // The check of the records is not answered.
    platform.run_for(10999ms);
    EXPECT_EQ(g_heard, Lines{});
    platform.run_for(1ms);
    EXPECT_EQ(g_heard, Lines{"down"});
}

TEST_F(RedisProtocol, IdleServerIsKept) {
    greet();
    platform.run_for(3600s);
    EXPECT_EQ(g_heard, Lines{});
    set(7);
    platform.run_for(9s);
    answer(commands(), kWritten);
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_FALSE(commands().closed());
}

TEST_F(RedisProtocol, AnswerThatArrivedWhileTheProcessPausedCounts) {
    accept();
    platform.run_ready();
    commands().send("+PONG\r\n");
    subscriptions().send("+PONG\r\n");
    platform.manual_clock.advance(60s);
    platform.run_ready();
    EXPECT_FALSE(commands().closed());
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(RedisProtocol, ConfirmationOfAnotherChannelEndsTheSession) {
    greet();
    subscribe();
    answer(subscriptions(), "*3\r\n$9\r\nsubscribe\r\n$5\r\nmom/4\r\n:1\r\n");
    expect_lost("the server answers SUBSCRIBE with an array");
}

TEST_F(RedisProtocol, ScanAnsweredWithNothingEndsTheSession) {
    greet();
    scan();
    answer(commands(), "*-1\r\n");
    expect_lost("the server answers a scan with nothing");
}

TEST_F(RedisProtocol, DatabaseAnsweredWithANumberEndsTheConnection) {
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), ":4\r\n");
    EXPECT_TRUE(commands().closed());
    EXPECT_EQ(g_heard, Lines{});
}

TEST_F(RedisProtocol, WriteAnsweredWithNothingEndsTheSessionAndIsSentAgain) {
    greet();
    ASSERT_EQ(qv_mom_publish(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    answer(commands(), "$-1\r\n");
    EXPECT_EQ(g_heard, Lines{"down"});
    platform.run_for(100ms);
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), "+OK\r\n");
    EXPECT_EQ(
        commands().received(),
        "*3\r\n$7\r\nPUBLISH\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$5\r\n\2\x2a\2\x08\7\r\n");
}

TEST_F(RedisProtocol, InvalidReplyEndsTheSession) {
    greet();
    commands().send("HTTP/1.1 400 Bad Request\r\n\r\n");
    expect_lost("Protocol error, got \"H\" as reply type byte");
}

TEST_F(RedisProtocol, ArraysWithinArraysEndTheSession) {
    greet();
    std::string nested;
    for (int depth = 0; depth < 1000; depth++) {
        nested += "*1\r\n";
    }
    commands().send(nested);
    expect_lost("No support for nested multi bulk replies with depth > 7");
}

TEST_F(RedisProtocol, AnnouncedLengthAllocatesNoMemory) {
    greet();
    scan();
    answer(commands(), "*2147483647\r\n$1\r\nx\r\n");
    EXPECT_EQ(g_heard, Lines{});
    commands().send("!");
    expect_lost("Protocol error, got \"!\" as reply type byte");
}

TEST_F(RedisProtocol, ArrayWithoutAnEndEndsTheSession) {
    greet();
    scan();
    answer(commands(), "*1000000\r\n");
    std::string part;
    for (int n = 0; n < 10000; n++) {
        part += ":1\r\n";
    }
    for (int n = 0; n < 7 && g_heard.empty(); n++) {
        commands().send(part);
        platform.run_ready();
    }
    expect_lost("a message has too many parts");
}

TEST_F(RedisProtocol, MessageWithoutAnEndEndsTheSession) {
    greet();
    scan();
    answer(commands(), "$100000000\r\n");
    const std::string part(size_t{64} << 10, 'x');
    for (int n = 0; n < 150 && g_heard.empty(); n++) {
        commands().send(part);
        platform.run_ready();
    }
    expect_lost("a message is longer than 9 MiB");
}

TEST_F(RedisProtocol, RepliesAfterOneThatEndsTheSessionAreIgnored) {
    greet();
    scan();
    scan();
    answer(commands(),
           "$-1\r\n"
           "*4\r\n$1\r\n0\r\n*2\r\n$29\r\np_bridge.tarn_loop_info/ifx=7\r\n$10\r\n" +
               LoopInfo(7, 1, 1, 8).packed() + "\r\n*0\r\n*0\r\n");
    EXPECT_EQ(g_heard, Lines{"down"});
}

TEST_F(RedisProtocol, ManyMessagesAreNotOneLongMessage) {
    greet();
    subscribe();
    answer(subscriptions(),
           "*3\r\n$9\r\nsubscribe\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n:1\r\n");
    std::string messages;
    for (int n = 0; n < 1000; n++) {
        messages += "*3\r\n$7\r\nmessage\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$11\r\n\2" +
                    LoopInfo(7, 1, 1, 8).packed() + "\r\n";
    }
    for (int round = 0; round < 30; round++) {
        answer(subscriptions(), messages);
    }
    EXPECT_EQ(g_heard.size(), 30001U);
    EXPECT_EQ(g_heard.back(), "1/2/4 ifx=7 vid=1 loop=1 src=8");
}

TEST_F(RedisProtocol, ConfirmationAfterTheEndOfTheSessionIsIgnored) {
    greet();
    subscribe();
    subscribe();
    answer(subscriptions(),
           "*2\r\n$9\r\nsubscribe\r\n:1\r\n"
           "*3\r\n$9\r\nsubscribe\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n:1\r\n");
    EXPECT_EQ(g_heard, Lines{"down"});
}

// The callback of the first database writes into the second one.
TEST_F(RedisProtocol, EverySessionIsDownWhenTheFirstLossIsReported) {
    open(22);
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), "+OK\r\n+OK\r\n");
    ASSERT_EQ(std::exchange(g_heard, {}), (Lines{"up", "up"}));
    for (const uint32_t db : {4, 22}) {
        qv_mom_client_set_disconnect_cb(
            client, db,
            [](void* arg) {
                auto* const inner = static_cast<qv_mom_client*>(arg);
                const LoopInfo info(7, 1, 1, 8);
                for (const uint32_t other : {4, 22}) {
                    EXPECT_EQ(qv_mom_set(inner, other, info.record(), 0, 0), ENOTCONN);
                    EXPECT_EQ(qv_mom_scan(inner, other, info.record(), 0, on_loop_info, nullptr),
                              ENOTCONN);
                    EXPECT_EQ(
                        qv_mom_subscribe(inner, other, info.record(), 0, on_loop_info, nullptr),
                        ENOTCONN);
                }
                return on_down(nullptr);
            },
            client);
    }
    peers.clear();
    platform.run_ready();
    EXPECT_EQ(g_heard, (Lines{"down", "down"}));
}

}  // namespace
}  // namespace store_test
