// The answers of a Redis server, as one of the client's connections reads them while it waits for a
// subscription, a scan and a write.
//
// The first byte selects the connection and how many bytes arrive at a time.
#include <algorithm>

#include "platform/driver/linux/redis_store.h"
#include "tests/fuzz/agent.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_platform.h"

using namespace qv;

namespace {

class Listener final : public StoreListener {
 public:
    void session_up(uint32_t) override { up = true; }
    void session_down(uint32_t) override { up = false; }
    void subscribed(uint64_t number) override { fuzz::require(number == 1, "subscription"); }
    void notice(uint64_t number, Bytes) override { fuzz::require(number == 1, "notice"); }
    void scanned(uint64_t number, std::string_view, Bytes) override {
        fuzz::require(number == 2, "scan");
    }
    void scan_done(uint64_t number) override { fuzz::require(number == 2, "end of a scan"); }
    StoreKeys keys_to_check() override { return {4, {"type/key=1"}}; }
    void records_lost() override {}

    bool up = false;
};

test::TestPlatform& test_platform() {
    static auto& made = *new test::TestPlatform;
    static EventLoop& loop = *new EventLoop(made.manual_clock);
    static const bool attached = [] {
        made.attach_loop(loop);
        return true;
    }();
    static_cast<void>(attached);
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    test::ScriptedServer server;
    RedisStore store(test_platform().loop(), {server.path()});
    Listener listener;
    const auto client = store.connect(listener);
    client->open(4);
    const auto peers = server.accept();
    fuzz::require(peers.size() == 2, "two connections");
    peers[0].send("+PONG\r\n");
    peers[1].send("+PONG\r\n");
    test_platform().run_ready();
    peers[0].send("+OK\r\n");
    test_platform().run_ready();
    fuzz::require(listener.up, "the session is up");
    client->subscribe(4, "type", 1);
    client->scan(4, "type", 2);
    client->set(4, "type", "type/key=1", Bytes(data, 1));

    const auto& peer = peers[data[0] & 1];
    const size_t step = std::max<size_t>(1 + (data[0] >> 1), size / 16);  // few rounds: speed
    for (size_t sent = 1; sent < size; sent += step) {
        const size_t part = std::min(step, size - sent);
        peer.send({reinterpret_cast<const char*>(data) + sent, part});
        test_platform().run_ready();
    }
    return 0;
}
