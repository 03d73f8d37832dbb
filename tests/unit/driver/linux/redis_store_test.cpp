// Faults that only a server in another process can cause.
#include <algorithm>
#include <cerrno>

#include "tests/support/store_fixture.h"

namespace store_test {
namespace {

class RedisOnly : public Store {
 protected:
    // How often the driver asks the server for the records of this process.
    static constexpr std::chrono::seconds kCheckPeriod{5};

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
    open(22);
    world->lose();
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    EXPECT_EQ(take_events(), (Lines{"down", "down"}));
    world->restore();
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    EXPECT_EQ(take_events(), (Lines{"back", "back"}));
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
    EXPECT_EQ(take_events(), (Lines{"29/0/4", "down", "back"}));
    EXPECT_EQ(platform.log.lines().at(0), "MOM-4-STORE_AWAY: Object database at " +
                                              server().socket() +
                                              " is away (a message is longer than 9 MiB). "
                                              "Retrying; check that redis-server runs.");
}

TEST_P(RedisOnly, DatabaseThatTheServerDoesNotHaveIsLogged) {
    qv_mom_client_connect(client, 40, on_up, nullptr);
    open(4);
    settle();
    EXPECT_EQ(take_events(), Lines{});
    EXPECT_EQ(qv_mom_set(client, 40, LoopInfo(1, 1, 1, 1).record(), 0, 0), ENOTCONN);
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-NO_DATABASE: The object database at " + server().socket() +
                    " has no database 40. Put \"databases 32\" into the configuration of "
                    "redis-server and restart it."});
}

TEST_P(RedisOnly, DatabaseIsUsedOnceTheServerHasIt) {
    server().kill();
    server().start(16);
    open(4);
    ASSERT_EQ(qv_mom_client_connect(client, 22, on_up, nullptr), 0);
    settle();
    for (int loss = 0; loss < 2; loss++) {
        server().kill();
        expect_heard("down");
        server().start(16);
        expect_heard("back");
    }
    EXPECT_EQ(take_events(), (Lines{"down", "back", "down", "back"}));
    server().kill();
    expect_heard("down");
    server().start(32);
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 3; }));
    EXPECT_EQ(g_heard, (Lines{"down", "back", "up"}));
    EXPECT_EQ(qv_mom_set(client, 22, LoopInfo(1, 1, 1, 1).record(), 0, 0), 0);
    const auto errors = [&] {
        const Lines log = platform.log.lines();
        return std::count_if(log.begin(), log.end(),
                             [](const auto& line) { return line.starts_with("MOM-3"); });
    };
    EXPECT_EQ(errors(), 1);
    server().kill();
    server().forget();
    server().start(16);
    EXPECT_TRUE(world->run_until([&] { return errors() == 2; })) << "it had been there meanwhile";
}

TEST_P(RedisOnly, KeyWithoutARecordIsSkippedAndPurged) {
    open(4);
    server().run(4, {"RPUSH", "p_bridge.tarn_loop_info/ifx=1", "list"});
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    qv_mom_pdel(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, 0, 0);
    settle();
    EXPECT_EQ(take_events(), Lines{});
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
        // The answers use another connection than the one settle() waits for.
        EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() > round; }));
        server().run(4, {"CONFIG", "SET", "maxmemory", "0"});
    }
    EXPECT_EQ(platform.log.lines(),
              (Lines{"MOM-3-WRITE_REFUSED: Database 4: p_app.lda_loop_entry/name=swp1 was not "
                     "written: OOM command not allowed when used memory > 'maxmemory'.. Further "
                     "refusals are not logged until a write succeeds.",
                     "MOM-3-WRITE_REFUSED: Database 4: p_app.lda_loop_entry/name=swp1 was not "
                     "written: OOM command not allowed when used memory > 'maxmemory'.. Further "
                     "refusals are not logged until a write succeeds."}));
}

TEST_P(RedisOnly, RefusedPublicationIsLoggedByItsChannel) {
    open(4);
    server().run(0, {"ACL", "SETUSER", "default", "-publish"});
    ASSERT_EQ(qv_mom_publish(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0), 0);
    EXPECT_TRUE(world->run_until([&] { return !platform.log.lines().empty(); }));
    EXPECT_EQ(platform.log.lines(),
              Lines{"MOM-3-WRITE_REFUSED: Database 4: mom/4/p_bridge.tarn_loop_info was not "
                    "written: NOPERM this user has no permissions to run the 'publish' command. "
                    "Further refusals are not logged until a write succeeds."});
}

TEST_P(RedisOnly, ServerThatRestartsEmptyGetsTheRecordsAgain) {
    open(4);
    open(22);
    PApp__LdaNcPolicy policy = P_APP__LDA_NC_POLICY__INIT;
    policy.loop_policy_cli = 2;
    ASSERT_EQ(qv_mom_set(client, 22, &policy.base, 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 0, false).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp2", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp3", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_del(client, 4, LoopEntry("swp2", 0, false).record(), 0, 0), 0);
    // The writes are confirmed: the scan is answered after them.
    qv_mom_scan(client, 4, LoopEntry("", 0, false).record(), 0, on_loop_entry, nullptr);
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 2; }));
    g_heard.clear();
    server().kill();
    server().forget();
    server().start();
    world->put(4, "p_app.lda_loop_entry/name=swp3", LoopEntry("swp3", 0, false).packed());
    ASSERT_TRUE(world->run_until([] { return g_heard.size() == 4; }));
    EXPECT_EQ(take_events(), (Lines{"down", "down", "back", "back"}));
    settle();
    EXPECT_EQ(world->keys(4),
              (Lines{"p_app.lda_loop_entry/name=swp1", "p_app.lda_loop_entry/name=swp3"}));
    EXPECT_EQ(world->get(4, "p_app.lda_loop_entry/name=swp1"),
              Lines{"\x2a\x06\x0a\x04swp1\x30\x01\x38\x01"});
    EXPECT_EQ(world->get(4, "p_app.lda_loop_entry/name=swp3"), Lines{"\x2a\x06\x0a\x04swp3"})
        << "what another program has set since";
    EXPECT_EQ(world->get(22, "p_app.lda_nc_policy/"), Lines{"\x28\x02"});
}

TEST_P(RedisOnly, BulkDeleteBeforeTheLossIsNotUndone) {
    open(4);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp2", 1, true).record(), 0, 0), 0);
    settle();
    server().freeze();
    ASSERT_EQ(qv_mom_pdel(client, 4, LoopEntry("", 0, false).record(), 0, 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp2", 0, true).record(), 0, 0), 0);
    server().kill();
    server().forget();
    expect_heard("down");
    server().start();
    world->put(4, "p_app.lda_loop_entry/name=swp9", LoopEntry("swp9", 0, true).packed());
    expect_heard("back");
    settle();
    EXPECT_EQ(world->keys(4), Lines{"p_app.lda_loop_entry/name=swp2"});
}

TEST_P(RedisOnly, SubscribersAreNotifiedOfARecordThatIsSetAgain) {
    open(4);
    ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0), 0);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    settle();
    g_heard.clear();
    server().run(4, {"FLUSHALL"});
    clock.skip(kCheckPeriod);
    expect_heard("1/0/4 ifx=7 vid=1 loop=1 src=8");
    settle();
    EXPECT_EQ(take_events(), Lines{"1/0/4 ifx=7 vid=1 loop=1 src=8"});
    EXPECT_EQ(world->get(4, "p_bridge.tarn_loop_info/ifx=7"), Lines{LoopInfo(7, 1, 1, 8).packed()});
}

TEST_P(RedisOnly, EmptiedServerGetsTheRecordsOfEveryDatabaseAgain) {
    open(4);
    open(22);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp2", 1, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 22, LoopInfo(7, 1, 1, 8).record(), 0, 0), 0);
    settle();
    server().run(4, {"FLUSHALL"});
    clock.skip(kCheckPeriod);
    EXPECT_TRUE(world->run_until([&] { return world->keys(22).size() == 1; }));
    EXPECT_TRUE(world->run_until([&] { return world->keys(4).size() == 2; }));
    EXPECT_EQ(take_events(), Lines{});
}

TEST_P(RedisOnly, RefusedSetIsRepeatedOnceTheServerHasRoom) {
    open(4);
    server().run(4, {"CONFIG", "SET", "maxmemory", "1"});
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() == 1; }));
    server().run(4, {"CONFIG", "SET", "maxmemory", "0"});
    clock.skip(kCheckPeriod);
    EXPECT_TRUE(world->run_until([&] { return world->keys(4).size() == 1; }));
}

// With `most` bytes of memory, 0 for no limit, the server refuses to set records.
void limit_memory(qv::test::RedisServer& server, const char* most) {
    server.run(4, {"CONFIG", "SET", "maxmemory", most});
}

TEST_P(RedisOnly, RefusedChangeIsRepeatedOnceTheServerHasRoom) {
    open(4);
    const std::string key = "p_app.lda_loop_entry/name=swp1";
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    settle();
    limit_memory(server(), "1");
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 2, true).record(), 0, 0), 0);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 3, true).record(), 0, 0), 0);
    EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() == 1; }));
    clock.skip(kCheckPeriod);
    settle();
    EXPECT_EQ(world->get(4, key), Lines{LoopEntry("swp1", 1, true).packed()});
    limit_memory(server(), "0");
    clock.skip(kCheckPeriod);
    EXPECT_TRUE(world->run_until(
        [&] { return world->get(4, key) == Lines{LoopEntry("swp1", 3, true).packed()}; }));
}

TEST_P(RedisOnly, RefusedDeletionIsRepeatedOnceItIsAllowed) {
    open(4);
    ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    settle();
    server().run(4, {"ACL", "SETUSER", "default", "-del"});
    ASSERT_EQ(qv_mom_del(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0), 0);
    EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() == 1; }));
    server().run(4, {"ACL", "SETUSER", "default", "+del"});
    EXPECT_EQ(world->keys(4).size(), 1U);
    clock.skip(kCheckPeriod);
    EXPECT_TRUE(world->run_until([&] { return world->keys(4).empty(); }));
}

TEST_P(RedisOnly, RefusedWriteIsNotRepeatedAfterALaterOneOfTheRecord) {
    open(4);
    const std::string key = "p_app.lda_loop_entry/name=swp1";
    const std::function<void()> later[] = {
        [&] { qv_mom_set(client, 4, LoopEntry("swp1", 3, true).record(), 0, 0); },
        [&] { qv_mom_del(client, 4, LoopEntry("swp1", 1, true).record(), 0, 0); },
        [&] { qv_mom_pdel(client, 4, LoopEntry("", 1, true).record(), 0, 0, 0); },
    };
    const Lines results[] = {Lines{LoopEntry("swp1", 3, true).packed()}, Lines{}, Lines{}};
    for (const bool at_once : {true, false}) {
        for (size_t n = 0; n < std::size(later); ++n) {
            if (at_once && n == 0) {
                continue;  // both sets are refused
            }
            const size_t logged = platform.log.lines().size();
            limit_memory(server(), "1");
            ASSERT_EQ(qv_mom_set(client, 4, LoopEntry("swp1", 2, true).record(), 0, 0), 0);
            if (at_once) {
                later[n]();
            }
            EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() > logged; }));
            limit_memory(server(), "0");
            if (!at_once) {
                later[n]();
            }
            settle();
            clock.skip(kCheckPeriod);
            settle();
            EXPECT_EQ(world->get(4, key), results[n]) << n << at_once;
        }
    }
}

// Adds an unknown field of `size` bytes, which unpacking keeps and nobody reads.
std::string packed_with_filler(uint32_t ifx, size_t size) {
    std::string packed = LoopInfo(ifx, 1, 1, 1).packed() + "\x7a";
    for (size_t rest = size; rest > 0; rest >>= 7) {
        packed += static_cast<char>((rest & 0x7f) | (rest > 0x7f ? 0x80 : 0));
    }
    return packed + std::string(size, 'x');
}

TEST_P(RedisOnly, RecordThatIsTooLongCostsOnlyItself) {
    open(4);
    const auto scan = [&] {
        ASSERT_EQ(qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr),
                  0);
        EXPECT_TRUE(world->run_until([] { return !g_heard.empty(); }));
        settle();
        EXPECT_EQ(take_events(), Lines{"1/0/4 ifx=8 vid=1 loop=1 src=1"});
    };
    server().run(4, {"SET", "p_bridge.tarn_loop_info/ifx=8", packed_with_filler(8, 1)});
    server().run(4, {"SETRANGE", "p_bridge.tarn_loop_info/ifx=7\n", "8388608", "x"});
    server().run(4, {"SET", "p_bridge.tarn_loop_info/" + std::string(1100, 'k'), "x"});
    scan();
    scan();
    server().run(4, {"SETRANGE", "p_bridge.tarn_loop_info/ifx=7\n", "20000000", "x"});
    scan();
    EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() >= 3; }));
    Lines log = platform.log.lines();
    ASSERT_EQ(log.size(), 3U);
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log,
              (Lines{"MOM-3-RECORD_TOO_LONG: Database 4: p_bridge.tarn_loop_info/ifx=7\\x0a is "
                     "ignored: its 20000001 bytes or its key are too long. Delete it.",
                     "MOM-3-RECORD_TOO_LONG: Database 4: p_bridge.tarn_loop_info/ifx=7\\x0a is "
                     "ignored: its 8388609 bytes or its key are too long. Delete it.",
                     "MOM-3-RECORD_TOO_LONG: Database 4: p_bridge.tarn_loop_info/" +
                         std::string(104, 'k') +
                         " is ignored: its 1 bytes or its key are too long. Delete it."}));
}

TEST_P(RedisOnly, RecordThatWasDeletedAndIsTooLongAgainIsLoggedAgain) {
    open(4);
    for (size_t round = 1; round <= 2; round++) {
        server().run(4, {"SETRANGE", "p_bridge.tarn_loop_info/ifx=7", "9000000", "x"});
        qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
        EXPECT_TRUE(world->run_until([&] { return platform.log.lines().size() == round; }));
        server().run(4, {"DEL", "p_bridge.tarn_loop_info/ifx=7"});
        qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
        settle();
    }
}

TEST_P(RedisOnly, ManyLongRecordsArriveInSeveralAnswers) {
    open(4);
    for (uint32_t ifx = 10; ifx < 40; ifx++) {
        server().run(4, {"SET", "p_bridge.tarn_loop_info/ifx=" + std::to_string(ifx),
                         packed_with_filler(ifx, 700000)});
    }
    server().run(4, {"SET", "p_bridge.tarn_loop_info/ifx=40", packed_with_filler(40, 8000000)});
    ASSERT_EQ(qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr), 0);
    EXPECT_TRUE(world->run_until([] { return g_heard.size() == 31; }));
    settle();
    Lines heard = take_events();
    std::sort(heard.begin(), heard.end());
    ASSERT_EQ(heard.size(), 31U);
    EXPECT_EQ(heard.front(), "1/0/4 ifx=10 vid=1 loop=1 src=1");
    EXPECT_EQ(heard.back(), "1/0/4 ifx=40 vid=1 loop=1 src=1");
    EXPECT_EQ(std::unique(heard.begin(), heard.end()), heard.end());
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_P(RedisOnly, NoticeThatIsTooLongIsFollowedByAScanThatPassesTheRecordOver) {
    open(4);
    const std::string record(size_t{10} << 20, 'x');
    qv_mom_client_set_reconnect_cb(
        client, 4,
        [](void* arg) {
            qv_mom_scan(static_cast<qv_mom_client*>(arg), 4, LoopInfo(0, 0, 0, 0).record(), 0,
                        on_loop_info, nullptr);
            return on_back(nullptr);
        },
        client);
    qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    server().run(4, {"SET", "p_bridge.tarn_loop_info/ifx=8", LoopInfo(8, 1, 1, 1).packed()});
    settle();
    world->put(4, "p_bridge.tarn_loop_info/ifx=7", record);
    expect_heard("1/0/4 ifx=8 vid=1 loop=1 src=1");
    settle();
    EXPECT_EQ(take_events(), (Lines{"29/0/4", "down", "back", "1/0/4 ifx=8 vid=1 loop=1 src=1"}));
}

TEST_P(RedisOnly, ScanFindsRecordsSetJustBefore) {
    open(4);
    qv_mom_set(client, 4, LoopInfo(7, 1, 1, 8).record(), 0, 0);
    qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr);
    expect_heard("1/0/4 ifx=7 vid=1 loop=1 src=8");
}

TEST_P(RedisOnly, ScanStaysInItsDatabaseWhileOthersAreWritten) {
    open(22);
    open(4);
    for (uint32_t ifx = 1; ifx <= 1000; ifx++) {
        ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(ifx, 1, 1, ifx).record(), 0, 0), 0);
    }
    settle();
    ASSERT_EQ(qv_mom_set(client, 22, LoopInfo(1, 3, 3, 3).record(), 0, 0), 0);
    qv_mom_scan(
        client, 4, LoopInfo(0, 0, 0, 0).record(), 0,
        [](qv_mom_client* inner, const qv_mom_msg* message) {
            EXPECT_EQ(qv_mom_set(inner, 22, LoopInfo(5000, 3, 3, 3).record(), 0, 0), 0);
            return on_loop_info(inner, message);
        },
        nullptr);
    EXPECT_TRUE(world->run_until([] { return g_heard.size() >= 1000; }));
    settle();
    Lines heard = take_events();
    std::sort(heard.begin(), heard.end());
    heard.erase(std::unique(heard.begin(), heard.end()), heard.end());
    EXPECT_EQ(heard.size(), 1000U);
    EXPECT_EQ(world->keys(22).size(), 2U);
}

TEST_P(RedisOnly, RefusedScanEndsTheSessionWithTheReason) {
    open(4);
    server().run(0, {"ACL", "SETUSER", "default", "-scan"});
    ASSERT_EQ(qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr), 0);
    expect_heard("back");
    EXPECT_EQ(take_events(), (Lines{"down", "back"}));
    EXPECT_NE(platform.log.lines().at(0).find("is away (ERR The user executing the script "
                                              "can't run this command"),
              std::string::npos)
        << platform.log.lines().at(0);
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
