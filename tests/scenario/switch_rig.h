// A whole switch with its agent in one process, in virtual time.
//
// The agent runs as in the product: its own main() on a thread of its own, its delivery thread, the
// client libraries, the embedded switch, the store in memory. The test is the operator and the
// clock. The two take turns: a call below runs the agent until nothing is left to do - main loop
// idle and delivery thread waiting for work - and only then returns, so a test never waits and
// never races.
//
// One rig for each process, since the agent's state is global.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/cli/engine.h"
#include "platform/client/platform.h"
#include "platform/driver/embedded/memory_store.h"
#include "tests/support/manual_clock.h"
#include "tests/support/test_platform.h"

namespace qv::test {

class SwitchRig {
 public:
    struct Options {
        unsigned ports = 8;
        std::string saved_configuration;  // the file at the start; empty: there is none
        std::function<void()> prepare;    // runs before the agent starts, on the test's thread
    };

    SwitchRig();
    explicit SwitchRig(Options options);
    ~SwitchRig();
    SwitchRig(const SwitchRig&) = delete;
    SwitchRig& operator=(const SwitchRig&) = delete;

    // Types a line in the operator's session and returns what it prints. The session keeps its
    // mode.
    std::string type(std::string_view line);
    // Several lines, one after the other; the output of all.
    std::string type(std::initializer_list<std::string_view> lines);

    // Lets time pass; every timer runs at its own time.
    void advance(std::chrono::seconds step);

    // Runs `job` on the agent's main thread.
    void on_main(std::function<void()> job);

    // System log messages since the last call: "FACILITY-SEVERITY-MNEMONIC: text".
    std::vector<std::string> take_log();

    // The section of a port in the running configuration, one line each, without its indentation.
    std::vector<std::string> section(std::string_view port);
    // Whether a line stands in the global part.
    bool configured(std::string_view line);

    // A probe report as the peer protocol sets it.
    void report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx);

    MemoryStore& store();
    const std::filesystem::path& folder() const { return folder_; }
    std::filesystem::path saved_file() const { return folder_ / "startup.cfg"; }

 private:
    bool idle();
    void run_agent();
    void let_agent_run();

    std::filesystem::path folder_;
    std::unique_ptr<Platform> platform_;
    ManualClock* clock_;
    RecordingLog* log_;
    size_t log_taken_ = 0;
    cli::SessionState session_;
    Time deadline_{};            // where advance() wants the clock to be
    std::function<void()> job_;  // for the agent's main thread
    std::binary_semaphore agents_turn_{0};
    std::binary_semaphore tests_turn_{0};
    std::thread agent_;
};

}  // namespace qv::test
