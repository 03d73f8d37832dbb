#include "tests/support/store_fixture.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include "platform/client/mom_key.h"

namespace store_test {
namespace {

qv::Bytes bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

class MemoryWorld final : public World {
 public:
    explicit MemoryWorld(qv::test::TestPlatform& platform) : platform_(platform) {}

    qv::StoreDriver& driver() override { return memory(); }
    bool run_until(const std::function<bool()>& done) override {
        platform_.run_ready();
        return done();
    }
    void lose() override {
        for (const uint32_t db : {3, 4, 8, 22}) {
            memory().drop(db);
        }
    }
    void restore() override {
        for (const uint32_t db : {3, 4, 8, 22}) {
            memory().restore(db);
        }
    }
    void put(uint32_t db, const std::string& key, const std::string& record) override {
        memory().put(db, key, bytes_of(record));
    }
    void notify(uint32_t db, const std::string& type, const std::string& notice) override {
        memory().notify(db, type, bytes_of(notice));
    }
    Lines get(uint32_t db, const std::string& key) override {
        const auto record = memory().get(db, key);
        return record ? Lines{*record} : Lines{};
    }
    Lines keys(uint32_t db) override { return memory().keys(db); }

 private:
    qv::MemoryStore& memory() { return platform_.memory_store(); }

    qv::test::TestPlatform& platform_;
};

class RedisWorld final : public World {
 public:
    explicit RedisWorld(qv::test::TestPlatform& platform)
        : loop_(platform.loop()), store_(loop_, {server_.socket()}) {
        std::signal(SIGPIPE, SIG_IGN);
        server_.start();
    }

    qv::StoreDriver& driver() override { return store_; }
    bool run_until(const std::function<bool()>& done) override {
        return qv::test::run_until(loop_, done);
    }
    void lose() override { server_.kill(); }
    void restore() override { server_.start(); }
    void put(uint32_t db, const std::string& key, const std::string& record) override {
        server_.run(db, {"SET", key, record});
        server_.run(db, {"PUBLISH", channel(db, std::string(qv::type_of_key(key))), '\0' + record});
    }
    void notify(uint32_t db, const std::string& type, const std::string& notice) override {
        server_.run(db, {"PUBLISH", channel(db, type), notice});
    }
    Lines get(uint32_t db, const std::string& key) override {
        return server_.run(db, {"GET", key});
    }
    Lines keys(uint32_t db) override {
        Lines keys = server_.run(db, {"KEYS", "*"});
        std::sort(keys.begin(), keys.end());
        return keys;
    }
    qv::test::RedisServer* server() override { return &server_; }

 private:
    static std::string channel(uint32_t db, const std::string& type) {
        return "mom/" + std::to_string(db) + "/" + type;
    }

    qv::EventLoop& loop_;
    qv::test::RedisServer server_;
    qv::RedisStore store_;
};

std::string head(const qv_mom_msg& message) {
    return std::to_string(message.cmd) + "/" + std::to_string(message.oper) + "/" +
           std::to_string(message.db);
}

// The message that settle() waits for; no test subscribes to this type in this database.
constexpr uint32_t kFenceDb = 8;
constexpr uint32_t kFence = 12345;
bool g_fence_placed;
bool g_fence_seen;

int on_fence(qv_mom_client* /*client*/, const qv_mom_msg* message) {
    g_fence_placed |= message->cmd == QV_MOM_CMD_SUBSCRIBED;
    g_fence_seen |= message->cmd == QV_MOM_CMD_RECORD;
    return 0;
}

}  // namespace

Lines g_heard;

int on_up(void* /*arg*/) {
    g_heard.emplace_back("up");
    return 0;
}

int on_back(void* /*arg*/) {
    g_heard.emplace_back("back");
    return 0;
}

int on_down(void* /*arg*/) {
    g_heard.emplace_back("down");
    return 0;
}

int on_loop_info(qv_mom_client* /*client*/, const qv_mom_msg* message) {
    std::string line = head(*message);
    if (message->value != nullptr) {
        const auto& info = *reinterpret_cast<const PBridge__TarnLoopInfo*>(message->value);
        line += info.index != nullptr ? " ifx=" + std::to_string(info.index->ifx) : " no index";
        line += " vid=" + std::to_string(info.vid) + " loop=" + std::to_string(info.is_loop) +
                " src=" + std::to_string(info.src_ifx);
    }
    g_heard.push_back(line);
    return 0;
}

int on_loop_entry(qv_mom_client* /*client*/, const qv_mom_msg* message) {
    std::string line = head(*message);
    if (message->value != nullptr) {
        const auto& entry = *reinterpret_cast<const PApp__LdaLoopEntry*>(message->value);
        line += std::string(" ") + entry.index->name + " policy=" + std::to_string(entry.policy) +
                " src=" + std::to_string(entry.src_port);
    }
    g_heard.push_back(line);
    return 0;
}

int on_operate(qv_mom_client* /*client*/, const qv_mom_msg* message) {
    std::string line = head(*message);
    if (message->value != nullptr) {
        const auto& operate = *reinterpret_cast<const PMng__UiOperate*>(message->value);
        line +=
            std::string(" ") + operate.index->publisher + " " + std::to_string(operate.index->oid);
    }
    g_heard.push_back(line);
    return 0;
}

LoopInfo::LoopInfo(uint32_t ifx, uint32_t vid, uint32_t is_loop, uint32_t src_ifx) {
    index.ifx = ifx;
    info.index = &index;
    info.vid = vid;
    info.is_loop = is_loop;
    info.src_ifx = src_ifx;
}

std::string LoopInfo::packed() const {
    const auto bytes = qv::pack_record(info.base);
    return {bytes.begin(), bytes.end()};
}

LoopEntry::LoopEntry(const char* name, uint32_t policy, bool src_port) {
    index.name = const_cast<char*>(name);
    entry.index = &index;
    entry.policy = policy;
    entry.src_port = src_port ? 1 : 0;
}

std::string LoopEntry::packed() const {
    const auto bytes = qv::pack_record(entry.base);
    return {bytes.begin(), bytes.end()};
}

Operate::Operate(const char* publisher, int type, int oid) {
    index.publisher = const_cast<char*>(publisher);
    index.type = type;
    index.oid = oid;
    operate.index = &index;
}

void Store::SetUp() {
    g_heard.clear();
    const bool redis = GetParam() == "redis";
    if (redis && !qv::test::RedisServer::installed()) {
        GTEST_SKIP() << "redis-server is not installed";
    }
    if (redis) {
        platform.clock_in_use = &clock;
    }
    master = qv_thread_master_create();
    ASSERT_NE(master, nullptr);
    if (redis) {
        world = std::make_unique<RedisWorld>(platform);
    } else {
        world = std::make_unique<MemoryWorld>(platform);
    }
    platform.store_in_use = &world->driver();
    client = qv_mom_client_init("TEST", master, nullptr);
    ASSERT_NE(client, nullptr);
}

// The client stays, as all clients do, but its loop is gone.
void Store::TearDown() {
    qv_thread_master_finish(master);
}

void Store::open(uint32_t db) {
    ASSERT_EQ(qv_mom_client_connect(client, db, on_up, nullptr), 0);
    ASSERT_EQ(qv_mom_client_set_reconnect_cb(client, db, on_back, nullptr), 0);
    ASSERT_EQ(qv_mom_client_set_disconnect_cb(client, db, on_down, nullptr), 0);
    expect_heard("up");
    g_heard.clear();
}

void Store::pass(qv::Duration step) {
    bool over = false;
    const auto timer = platform.loop().after(step, [&] { over = true; });
    if (world->server() == nullptr) {
        platform.run_for(step);
    }
    ASSERT_TRUE(world->run_until([&] { return over; }));
}

void Store::settle() {
    const LoopInfo fence(kFence, 0, 0, 0);
    if (qv_mom_subscribe(client, kFenceDb, fence.record(), 0, on_fence, nullptr) != 0) {
        bool up = false;
        qv_mom_client_connect(
            client, kFenceDb,
            [](void* arg) {
                *static_cast<bool*>(arg) = true;
                return 0;
            },
            &up);
        ASSERT_TRUE(world->run_until([&] { return up; }));
        ASSERT_EQ(qv_mom_subscribe(client, kFenceDb, fence.record(), 0, on_fence, nullptr), 0);
    }
    g_fence_placed = false;
    g_fence_seen = false;
    ASSERT_TRUE(world->run_until([] { return g_fence_placed; }));
    ASSERT_EQ(qv_mom_publish(client, kFenceDb, fence.record(), 0, 0), 0);
    ASSERT_TRUE(world->run_until([] { return g_fence_seen; }));
}

void Store::expect_heard(const std::string& line) {
    EXPECT_TRUE(world->run_until([&] { return !g_heard.empty() && g_heard.back() == line; }))
        << "waited for: " << line
        << (g_heard.empty() ? ", heard nothing" : ", last heard: " + g_heard.back());
}

Lines Store::take_events() {
    return std::exchange(g_heard, {});
}

}  // namespace store_test
