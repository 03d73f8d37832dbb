// The same tests for both stores: a client of qv/mom.h on one side, "another program" on the other.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "p_mng.pb-c.h"
#include "platform/driver/linux/redis_store.h"
#include "qv/mom.h"
#include "tests/support/redis_server.h"
#include "tests/support/test_platform.h"

namespace store_test {

using Lines = std::vector<std::string>;

// The calls of the callbacks below, in order: "up", "back", "down", and messages as
// "29/0/4", "1/0/4 ifx=7 vid=1 loop=1 src=8" (command/operation/database).
extern Lines g_heard;

int on_up(void* arg);
int on_back(void* arg);
int on_down(void* arg);
int on_loop_info(qv_mom_client* client, const qv_mom_msg* message);
int on_loop_entry(qv_mom_client* client, const qv_mom_msg* message);
int on_operate(qv_mom_client* client, const qv_mom_msg* message);

// Packs on the stack, as the agent does.
struct LoopInfo {
    LoopInfo(uint32_t ifx, uint32_t vid, uint32_t is_loop, uint32_t src_ifx);
    LoopInfo(const LoopInfo&) = delete;
    LoopInfo& operator=(const LoopInfo&) = delete;
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo info = P_BRIDGE__TARN_LOOP_INFO__INIT;
    const ProtobufCMessage* record() const { return &info.base; }
    std::string packed() const;
};

struct LoopEntry {
    LoopEntry(const char* name, uint32_t policy, bool src_port);
    LoopEntry(const LoopEntry&) = delete;
    LoopEntry& operator=(const LoopEntry&) = delete;
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    const ProtobufCMessage* record() const { return &entry.base; }
    std::string packed() const;
};

struct Operate {
    Operate(const char* publisher, int type, int oid);
    Operate(const Operate&) = delete;
    Operate& operator=(const Operate&) = delete;
    PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
    PMng__UiOperate operate = P_MNG__UI_OPERATE__INIT;
    const ProtobufCMessage* record() const { return &operate.base; }
};

// The machine's clock, which a test sets forward instead of waiting. It never runs faster than real
// time: the server works in real time, and a busy machine would let it miss the driver's limits.
class SkippingClock final : public qv::Clock {
 public:
    qv::Time now() const override { return real_.now() + skipped_; }
    qv::Duration real_time_until(qv::Time t) const override {
        return real_.real_time_until(t - skipped_);
    }
    void skip(qv::Duration step) { skipped_ += step; }

 private:
    qv::SteadyClock real_;
    qv::Duration skipped_{};
};

// The store under test, seen from outside.
class World {
 public:
    virtual ~World() = default;
    virtual qv::StoreDriver& driver() = 0;
    virtual bool run_until(const std::function<bool()>& done) = 0;
    virtual void lose() = 0;
    virtual void restore() = 0;
    virtual void put(uint32_t db, const std::string& key, const std::string& record) = 0;
    virtual void notify(uint32_t db, const std::string& type, const std::string& notice) = 0;
    virtual Lines get(uint32_t db, const std::string& key) = 0;  // empty: no such key
    virtual Lines keys(uint32_t db) = 0;                         // ascending
    virtual qv::test::RedisServer* server() { return nullptr; }  // null for the memory store
};

class Store : public testing::TestWithParam<std::string_view> {
 protected:
    void SetUp() override;
    void TearDown() override;

    // Opens `db` with all three callbacks and waits for the first.
    void open(uint32_t db);
    // Waits until everything requested has arrived, by means of a message sent after it.
    void settle();
    // Lets this much time of the loop's clock pass.
    void pass(qv::Duration step);
    // Waits until the last recorded call is `line`.
    void expect_heard(const std::string& line);
    Lines take_events();  // and drops them

    qv::test::TestPlatform platform;
    SkippingClock clock;  // of the loop, when the store is a real server
    std::unique_ptr<World> world;
    qv_thread_master* master = nullptr;
    qv_mom_client* client = nullptr;
};

}  // namespace store_test
