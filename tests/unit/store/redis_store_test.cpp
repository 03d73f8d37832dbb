// What only a server in another process can do to its clients.
#include <cerrno>

#include "tests/unit/store/store_fixture.h"

namespace store_test {
namespace {

class RedisOnly : public Store {
 protected:
    qv::test::RedisServer& server() { return *world->server(); }

    Lines numbered_keys(int count) {
        Lines keys;
        for (int n = 0; n < count; n++) {
            keys.push_back("p_bridge.tarn_loop_info/ifx=" + std::to_string(1000 + n));
        }
        return keys;
    }
};

TEST_P(RedisOnly, LossAndReturnAreLoggedOnceEach) {
    open(4);
    open(3);
    world->lose();
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    EXPECT_EQ(take_heard(), (Lines{"down", "down"}));
    world->bring_back();
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    EXPECT_EQ(take_heard(), (Lines{"back", "back"}));
    EXPECT_EQ(platform.log.lines(),
              (Lines{"MOM-4-STORE_AWAY: Object database at " + server().socket() +
                         " is away (the server closed the connection). Retrying; check that "
                         "redis-server runs.",
                     "MOM-6-STORE_UP: Object database at " + server().socket() + " is back."}));
}

TEST_P(RedisOnly, WritesThatWereNotConfirmedAreSentAgain) {
    open(4);
    server().freeze();
    for (uint32_t n = 0; n < 100; n++) {
        ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(1000 + n, 1, 1, 1).record(), 0, 0), 0);
    }
    platform.loop().post([this] { server().kill(); });
    expect_heard("down");
    server().start();
    expect_heard("back");
    settle();
    EXPECT_EQ(world->keys(4), numbered_keys(100));
}

TEST_P(RedisOnly, ServerThatDoesNotReadEndsTheSession) {
    open(4);
    server().freeze();
    const std::string name(100000, 'x');
    const LoopEntry entry(name.c_str(), 1, true);
    int accepted = 0;
    while (accepted < 1000 && qv_mom_set(client, 4, entry.record(), 0, 0) == 0) {
        accepted++;
    }
    EXPECT_GT(accepted, 20);
    EXPECT_LT(accepted, 100);
    expect_heard("down");
    server().kill();
    server().start();
    expect_heard("back");
    settle();
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=" + name});
}

TEST_P(RedisOnly, MessageThatIsTooLongEndsTheConnection) {
    open(4);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("29/0/4");
    world->notify(4, "p_bridge.tarn_loop_info", std::string(20 << 20, 'x'));
    expect_heard("back");
    EXPECT_EQ(take_heard(), (Lines{"29/0/4", "down", "back"}));
    EXPECT_EQ(platform.log.lines().at(0), "MOM-4-STORE_AWAY: Object database at " +
                                              server().socket() +
                                              " is away (a message is longer than 8 MiB). "
                                              "Retrying; check that redis-server runs.");
}

TEST_P(RedisOnly, DatabaseThatTheServerDoesNotHaveIsLogged) {
    qv_mom_client_connect(client, 40, on_up, nullptr);
    open(4);
    settle();
    EXPECT_EQ(take_heard(), Lines{});
    EXPECT_EQ(qv_mom_set(client, 40, LoopInfo(1, 1, 1, 1).record(), 0, 0), ENOTCONN);
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-NO_DATABASE: Database 40: ERR DB index is out of range"});
}

TEST_P(RedisOnly, KeyThatHoldsNoRecordIsPassedOverAndPurged) {
    open(4);
    server().run(4, {"RPUSH", "p_bridge.tarn_loop_info/ifx=1", "list"});
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    qv_mom_pdel(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, 0, 0);
    settle();
    EXPECT_EQ(take_heard(), Lines{});
    EXPECT_EQ(world->keys(4), Lines{});
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_P(RedisOnly, RefusedWriteIsLoggedOnceUntilOneSucceeds) {
    open(4);
    const LoopEntry entry("swp1", 1, true);
    for (size_t round = 0; round < 2; round++) {
        server().run(4, {"CONFIG", "SET", "maxmemory", "1"});
        qv_mom_set(client, 4, entry.record(), 0, 0);
        qv_mom_set(client, 4, entry.record(), 0, 0);
        // The refused writes are answered before this one, which needs no memory.
        qv_mom_del(client, 4, entry.record(), 0, 0);
        settle();
        // The answers come on another connection than what settle() waits for.
        EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() > round; }));
        server().run(4, {"CONFIG", "SET", "maxmemory", "0"});
    }
    EXPECT_EQ(platform.log.lines(),
              (Lines{"MOM-3-WRITE_REFUSED: Database 4, p_app.lda_loop_entry/name=swp1: EXECABORT "
                     "Transaction discarded because of previous errors.",
                     "MOM-3-WRITE_REFUSED: Database 4, p_app.lda_loop_entry/name=swp1: EXECABORT "
                     "Transaction discarded because of previous errors."}));
}

TEST_P(RedisOnly, NoticeIsOneTransactionWithTheWrite) {
    open(4);
    server().run(4, {"CONFIG", "RESETSTAT"});
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    settle();
    const std::string stats = server().run(4, {"INFO", "commandstats"}).at(0);
    EXPECT_NE(stats.find("cmdstat_multi:calls=1,"), std::string::npos) << stats;
    EXPECT_NE(stats.find("cmdstat_set:calls=1,"), std::string::npos) << stats;
    EXPECT_NE(stats.find("cmdstat_exec:calls=1,"), std::string::npos) << stats;
}

INSTANTIATE_TEST_SUITE_P(Redis, RedisOnly, testing::Values("redis"));

}  // namespace
}  // namespace store_test
