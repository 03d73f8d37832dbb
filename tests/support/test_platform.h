// A small platform for unit tests: manual clock, recorded system log, memory store. A test that
// needs ports or a forwarding plane supplies its own. It installs itself; one for each process.
#pragma once

#include <string>
#include <vector>

#include "platform/base/mutex.h"
#include "platform/client/platform.h"
#include "platform/driver/embedded/memory_store.h"
#include "tests/support/manual_clock.h"

namespace qv::test {

class RecordingLog final : public SystemLog {
 public:
    void write(const SystemLogMessage& message) override;
    // "FACILITY-SEVERITY-MNEMONIC: text" of each message so far.
    std::vector<std::string> lines() const;

 private:
    mutable Mutex mutex_;
    std::vector<std::string> lines_ GUARDED_BY(mutex_);
};

// Runs background work at once, on the loop's thread.
class InlineBackground final : public Background {
 public:
    explicit InlineBackground(EventLoop& loop) : loop_(loop) {}
    void run(std::function<void()> work, EventLoop::Task done) override {
        work();
        loop_.post(std::move(done));
    }

 private:
    EventLoop& loop_;
};

class TestPlatform final : public Platform {
 public:
    TestPlatform();

    // Moves the manual clock and runs what becomes due; zero runs what is ready now.
    void run_for(Duration step);
    void run_ready();

    // Set before the loop is created, where the defaults do not fit.
    PlatformConfig settings;
    Clock* clock_in_use = &manual_clock;
    StoreDriver* store_in_use = nullptr;  // null: memory_store()
    PortModel* port_model = nullptr;
    ForwardingDriver* forwarding_plane = nullptr;
    LeaseDriver* lease_in_use = nullptr;
    int masters = 0;           // calls of become_master()
    bool refuse_loop = false;  // attach_loop fails

    ManualClock manual_clock;
    RecordingLog log;

    // The rest can be called once the loop exists.
    MemoryStore& memory_store();

    const PlatformConfig& config() const override { return settings; }
    Clock& clock() override { return *clock_in_use; }
    SystemLog& system_log() override { return log; }
    EventLoop& loop() override;
    StoreDriver& store() override;
    PortModel& ports() override;
    ForwardingDriver& forwarding() override;
    Background& background() override { return *background_; }
    LeaseDriver* lease() override { return lease_in_use; }
    void become_master() override { ++masters; }
    void attach_loop(EventLoop& loop) override;

 private:
    EventLoop* loop_ = nullptr;
    std::unique_ptr<MemoryStore> memory_store_;
    std::unique_ptr<InlineBackground> background_;
};

}  // namespace qv::test
