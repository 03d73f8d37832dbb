// The client after losses: of a session, of writes, and of the records in the server.
#include "tests/unit/driver/linux/redis_protocol_fixture.h"

namespace store_test {
namespace {

using RedisLoss = RedisProtocol;

size_t count(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        found++;
    }
    return found;
}

TEST_F(RedisLoss, OwnRecordsAreCheckedEveryFiveSeconds) {
    greet();
    commands().received();
    platform.run_for(60s);
    EXPECT_EQ(commands().received(), "") << "nothing was set";
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    for (int check = 0; check < 3; check++) {
        platform.run_for(4999ms);
        EXPECT_EQ(commands().received(), "");
        platform.run_for(1ms);
        EXPECT_EQ(commands().received(),
                  "*2\r\n$6\r\nEXISTS\r\n$29\r\np_bridge.tarn_loop_info/ifx=7\r\n");
        platform.run_for(9s);
        EXPECT_EQ(commands().received(), "") << "one check at a time";
        answer(commands(), ":1\r\n");
    }
    ASSERT_EQ(qv_mom_del(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n:1\r\n:0\r\n");
    platform.run_for(60s);
    EXPECT_EQ(commands().received(), "") << "nothing is left";
}

TEST_F(RedisLoss, OnlyTheOwnRecordsOfTheSessionAreSetWhenOneIsMissing) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    platform.run_for(5s);
    answer(commands(), ":0\r\n");
    const std::string sent = commands().received();
    EXPECT_EQ(sent.find("*6\r\n$4\r\nEVAL\r\n"), 0U) << sent;
    EXPECT_TRUE(sent.ends_with("$1\r\n1\r\n$29\r\np_bridge.tarn_loop_info/ifx=7\r\n$10\r\n" +
                               LoopInfo(7, 1, 1, 8).packed() +
                               "\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n"))
        << sent;
    answer(commands(), ":0\r\n");
    platform.run_for(5s);
    EXPECT_EQ(commands().received(),
              "*2\r\n$6\r\nEXISTS\r\n$29\r\np_bridge.tarn_loop_info/ifx=7\r\n");
}

TEST_F(RedisLoss, ChecksTakeTurnsAmongDatabases) {
    open(22);
    accept();
    answer(commands(), "+PONG\r\n");
    answer(subscriptions(), "+PONG\r\n");
    answer(commands(), "+OK\r\n+OK\r\n");
    ASSERT_EQ(qv_mom_set(client, 22, LoopInfo(1, 0, 0, 0).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(2, 0, 0, 0).record(), 0, 0), 0);
    answer(commands(),
           "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n"
           "+OK\r\n+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    const std::string first = "*2\r\n$6\r\nEXISTS\r\n$29\r\np_bridge.tarn_loop_info/ifx=";
    platform.run_for(5s);
    EXPECT_EQ(commands().received(), first + "2\r\n");
    commands().send(":1\r\n");
    platform.run_for(5s);
    EXPECT_EQ(commands().received(), "*2\r\n$6\r\nSELECT\r\n$2\r\n22\r\n" + first + "1\r\n");
    commands().send("+OK\r\n:1\r\n");
    platform.run_for(5s);
    EXPECT_EQ(commands().received(), "*2\r\n$6\r\nSELECT\r\n$1\r\n4\r\n" + first + "2\r\n");
}

TEST_F(RedisLoss, CheckAsksForSixtyFourKeysAtMost) {
    greet();
    std::string replies;
    for (uint32_t ifx = 100; ifx < 165; ifx++) {
        set(ifx);
        replies += "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n";
    }
    answer(commands(), replies);
    platform.run_for(5s);
    EXPECT_EQ(commands().received().substr(0, 5), "*65\r\n");
    commands().send(":64\r\n");
    platform.run_for(5s);
    EXPECT_EQ(commands().received(),
              "*2\r\n$6\r\nEXISTS\r\n$31\r\np_bridge.tarn_loop_info/ifx=164\r\n");
}

TEST_F(RedisLoss, RefusedCheckIsLoggedAndNotRepeated) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    platform.run_for(5s);
    answer(commands(), "-NOPERM no\r\n");
    set(8);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    platform.run_for(60s);
    EXPECT_EQ(commands().received(), "");
    EXPECT_EQ(g_heard, Lines{});
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-CHECK_REFUSED: The object database at " + server.path() +
                    " refuses EXISTS (NOPERM no), so records that it loses while it runs are not "
                    "written again."});
}

TEST_F(RedisLoss, CheckAnsweredWithNothingEndsTheSession) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n");
    platform.run_for(5s);
    answer(commands(), "$-1\r\n");
    expect_lost("the server answers EXISTS with nothing");
}

TEST_F(RedisLoss, RefusedCheckIsTriedAgainByTheNextConnection) {
    greet();
    set(7);
    answer(commands(), kWritten);
    platform.run_for(5s);
    answer(commands(), "-NOPERM no\r\n");
    peers.clear();
    platform.run_for(100ms);
    greet_again();
    answer(commands(), ":0\r\n");  // the record that is set if it is missing
    platform.run_for(5s);
    EXPECT_EQ(count(commands().received(), "EXISTS"), 1U);
}

TEST_F(RedisLoss, RecordIsSetAgainOnceWithEachConnection) {
    greet();
    set(7);
    answer(commands(), kWritten);
    for (int loss = 0; loss < 3; loss++) {
        peers.clear();
        platform.run_for(1s);
        greet_again();
        EXPECT_EQ(count(commands().received(), "$4\r\nEVAL\r\n"), 1U);
    }
    commands().send(":0\r\n");
    platform.run_for(5s);
    EXPECT_EQ(count(commands().received(), "EXISTS"), 1U) << "and checked from then on";
}

TEST_F(RedisLoss, ChecksPassOverADatabaseThatTheServerHasNoMore) {
    open(22);
    greet_again("+OK\r\n");
    ASSERT_EQ(qv_mom_set(client, 22, LoopInfo(1, 0, 0, 0).record(), 0, 0), 0);
    set(7);
    answer(commands(), kWritten + "+OK\r\n" + kWritten);
    peers.clear();
    platform.run_for(100ms);
    greet_again("-ERR DB index is out of range\r\n");
    answer(commands(), "+OK\r\n:0\r\n");  // SELECT 4, and the record that is set if missing
    for (int turn = 0; turn < 3; turn++) {
        platform.run_for(10s);
        EXPECT_EQ(count(commands().received(), "EXISTS"), 1U) << "turn " << turn;
        commands().send(":1\r\n");
    }
    EXPECT_EQ(g_heard, (Lines{"up", "up", "down", "down", "back"}));
}

TEST_F(RedisLoss, SubscriptionEndsWithItsSession) {
    greet();
    subscribe();
    answer(subscriptions(),
           "*3\r\n$9\r\nsubscribe\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n:1\r\n");
    peers.clear();
    platform.run_for(100ms);
    greet_again();
    g_heard.clear();
    subscriptions().send(
        "*3\r\n$7\r\nmessage\r\n$29\r\nmom/4/p_bridge.tarn_loop_info\r\n$1\r\n\2\r\n");
    platform.run_ready();
    EXPECT_EQ(g_heard, Lines{"down"});
}

TEST_F(RedisLoss, WriteThatWasNotSentYetIsSentByTheNextConnection) {
    greet();
    ASSERT_EQ(qv_mom_publish(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    peers.clear();
    platform.run_for(100ms);
    greet_again();
    EXPECT_EQ(count(commands().received(), "PUBLISH"), 1U);
    answer(commands(), ":0\r\n");
    EXPECT_EQ(g_heard, (Lines{"down", "back"}));
}

TEST_F(RedisLoss, WritesAreSentAgainInTheirOwnDatabase) {
    open(22);
    greet_again("+OK\r\n");
    ASSERT_EQ(qv_mom_publish(client, 4, LoopInfo(7, 0, 0, 0).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_publish(client, 22, LoopInfo(8, 0, 0, 0).record(), 0, 0), 0);
    peers.clear();
    platform.run_for(100ms);
    greet_again();
    const std::string first = commands().received();
    EXPECT_EQ(count(first, "mom/4/p_bridge.tarn_loop_info"), 1U);
    EXPECT_EQ(count(first, "mom/22/"), 0U);
    answer(commands(), "+OK\r\n");
    const std::string second = commands().received();
    EXPECT_EQ(count(second, "mom/22/p_bridge.tarn_loop_info"), 1U);
    EXPECT_EQ(count(second, "mom/4/"), 0U);
}

TEST_F(RedisLoss, RefusalInATransactionThatWasNotFinishedIsForgotten) {
    greet();
    set(7);
    answer(commands(), "+OK\r\n-OOM no room\r\n");
    peers.clear();
    platform.run_for(100ms);
    greet_again();
    answer(commands(), kWritten + ":0\r\n");
    ASSERT_EQ(platform.log.lines().size(), 2U);
    EXPECT_TRUE(platform.log.lines()[1].starts_with("MOM-6-STORE_UP"));
}

TEST_F(RedisLoss, ConfirmedWritesMakeRoomForOthers) {
    greet();
    const std::string name(100000, 'x');
    for (int n = 0; n < 100; n++) {
        ASSERT_EQ(qv_mom_publish(client, 4, LoopEntry(name.c_str(), 1, true).record(), 0, 0), 0)
            << "after " << n;
        answer(commands(), ":0\r\n");
    }
    EXPECT_EQ(g_heard, Lines{});
}

TEST_F(RedisLoss, ResetConnectionEndsTheSession) {
    greet();
    set(7);
    platform.run_ready();
    peers.clear();  // with unread bytes, which resets the connection
    expect_lost("Connection reset by peer");
}

// The driver alone: the number of a scan is free again when its end is reported.
TEST_F(RedisLoss, EndOfAScanIsReportedOnce) {
    struct Listener final : qv::StoreListener {
        void session_up(uint32_t) override {}
        void session_down(uint32_t) override {}
        void subscribed(uint64_t) override {}
        void notice(uint64_t, qv::Bytes) override {}
        void scanned(uint64_t, std::string_view, qv::Bytes) override {}
        void scan_done(uint64_t number) override { done.push_back(number); }
        std::vector<uint64_t> done;
    } listener;
    accept();
    const auto driver = store->connect(listener);
    driver->open(4);
    greet_again();
    ASSERT_TRUE(driver->scan(4, "type", 17));
    answer(commands(), "*4\r\n$1\r\n5\r\n*0\r\n*0\r\n*0\r\n");
    EXPECT_EQ(listener.done, std::vector<uint64_t>{});
    answer(commands(), "*4\r\n$1\r\n0\r\n*0\r\n*0\r\n*0\r\n");
    EXPECT_EQ(listener.done, std::vector<uint64_t>{17});
}

}  // namespace
}  // namespace store_test
