// A client of qv/mom.h with a scripted server, on a manual clock.
#pragma once

#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/scripted_server.h"
#include "tests/support/store_fixture.h"

namespace store_test {

using namespace std::chrono_literals;
using qv::test::ScriptedServer;

// A correct server's answer to a set or to a delete of one record.
inline const std::string kWritten = "+OK\r\n+QUEUED\r\n+QUEUED\r\n*2\r\n+OK\r\n:0\r\n";

class RedisProtocol : public testing::Test {
 protected:
    // With a user the client logs in.
    explicit RedisProtocol(const std::string& user = {}, const std::string& password_file = {}) {
        std::signal(SIGPIPE, SIG_IGN);
        g_heard.clear();
        master = qv_thread_master_create();
        store = std::make_unique<qv::RedisStore>(
            platform.loop(), qv::RedisServer{server.path(), user, password_file});
        platform.store_in_use = store.get();
        client = qv_mom_client_init("TEST", master, nullptr);
        open(4);
    }
    ~RedisProtocol() override { qv_thread_master_finish(master); }

    void open(uint32_t db) {
        qv_mom_client_connect(client, db, on_up, nullptr);
        qv_mom_client_set_reconnect_cb(client, db, on_back, nullptr);
        qv_mom_client_set_disconnect_cb(client, db, on_down, nullptr);
    }

    // The command connection is made first.
    ScriptedServer::Peer& commands() { return peers.at(0); }
    ScriptedServer::Peer& subscriptions() { return peers.at(1); }

    // Takes the two connections that the client makes.
    void accept() {
        platform.run_ready();
        peers = server.accept();
        ASSERT_EQ(peers.size(), 2U);
    }

    void answer(ScriptedServer::Peer& peer, const std::string& reply) {
        platform.run_ready();
        peer.received();
        peer.send(reply);
        platform.run_ready();
    }

    // Opens the session with database 4.
    void greet() {
        accept();
        answer(commands(), "+PONG\r\n");
        answer(subscriptions(), "+PONG\r\n");
        answer(commands(), "+OK\r\n");
        ASSERT_EQ(g_heard, Lines{"up"});
        g_heard.clear();
    }

    // The same after a loss; `others` are the answers for the databases after database 4.
    void greet_again(const std::string& others = "") {
        accept();
        answer(commands(), "+PONG\r\n");
        answer(subscriptions(), "+PONG\r\n");
        answer(commands(), "+OK\r\n" + others);
    }

    void subscribe() {
        ASSERT_EQ(
            qv_mom_subscribe(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr),
            0);
    }
    void scan() {
        ASSERT_EQ(qv_mom_scan(client, 4, LoopInfo(0, 0, 0, 0).record(), 0, on_loop_info, nullptr),
                  0);
    }

    void set(uint32_t ifx) {
        ASSERT_EQ(qv_mom_set(client, 4, LoopInfo(ifx, 1, 1, 8).record(), 0, 0), 0);
    }

    // Expects that the session has ended for this reason and that the client reconnects.
    void expect_lost(const std::string& reason) {
        platform.run_ready();
        EXPECT_EQ(g_heard, Lines{"down"});
        EXPECT_EQ(platform.log.lines(),
                  Lines{"MOM-4-STORE_AWAY: Object database at " + server.path() + " is away (" +
                        reason + "). Retrying; check that redis-server runs."});
        platform.run_for(10s);
        EXPECT_GE(server.accept().size(), 2U);
    }

    qv::test::TestPlatform platform;
    ScriptedServer server;
    std::vector<ScriptedServer::Peer> peers;
    qv_thread_master* master;
    std::unique_ptr<qv::RedisStore> store;
    qv_mom_client* client;
};

}  // namespace store_test
