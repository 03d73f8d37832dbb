// A whole switch with its agent in one process, in virtual time.
//
// The agent runs as in the product: its own main() on another thread, its delivery thread, the
// client libraries, the embedded switch, the store in memory. The test is the operator and the
// clock. The two alternate: a call below returns only when the agent has nothing left to do - main
// loop idle and delivery thread waiting for work - so a test never waits and never races.
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
#include "qv/mom.h"
#include "tests/support/manual_clock.h"

namespace qv::test {

class SwitchRig {
 public:
    static constexpr std::string_view kNotifyPath =
        "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/";

    struct Options {
        unsigned ports = 8;
        std::string saved_configuration;  // without its end and seal; empty: there is no file
        std::function<void()> prepare;    // runs before the agent starts, on the test's thread
        // Runs when the store exists and no client is connected yet, on the agent's main thread.
        std::function<void(MemoryStore&)> store_made;
    };

    SwitchRig();
    explicit SwitchRig(Options options);
    ~SwitchRig();
    SwitchRig(const SwitchRig&) = delete;
    SwitchRig& operator=(const SwitchRig&) = delete;

    // Types a line in the operator's session and returns what it prints. The session keeps its
    // mode.
    std::string type(std::string_view line);
    // Types several lines and returns their whole output.
    std::string type(std::initializer_list<std::string_view> lines);

    // Lets time pass; every timer runs at its own time.
    void advance(std::chrono::seconds step);

    // Runs `job` on the agent's main thread.
    void on_main(std::function<void()> job);

    // Enters "loop-detect enable" and `words`, lets a second pass and drops the records of it.
    void set_policy(std::string_view words);

    // Makes the agent write its INFO lines to the system log, without a budget, and drops earlier
    // records.
    void trace();
    // Drops the records of messages, lines, announcements and notifications so far.
    void forget();

    // System log messages of the agent's main thread since the last call, as
    // "FACILITY-SEVERITY-MNEMONIC: text". Line numbers are left out: "<function:12> " becomes
    // "<function> ". The delivery thread runs in parallel, so its messages are kept separately.
    std::vector<std::string> take_log();
    std::vector<std::string> take_delivery_log();
    // "MNEMONIC port=PORT source=SOURCE cause=CAUSE" of each message of the main thread with a
    // subject since the last call.
    std::vector<std::string> take_subjects();
    // Command lines that the agent has executed since the last call: "config: LINE" or
    // "interface INDEX: LINE" with the line's own end; those of the main thread begin with "inline
    // ".
    std::vector<std::string> take_executed();
    // Calls since the last call: "reform" asks for the running configuration to be generated again,
    // "announce" says that it has changed.
    std::vector<std::string> take_announcements();
    // NETCONF notifications since the last call, one line each: for every leaf its path without
    // kNotifyPath and the value, separated by a blank.
    std::vector<std::string> take_notifications();
    // The published loop entry of a port, "policy=P src_port=S"; "none" when there is none.
    std::string entry(std::string_view port);

    // The running configuration, in any mode of the operator.
    std::string running_config();
    // The section of a port in the running configuration, one line each, without its indentation.
    std::vector<std::string> section(std::string_view port);
    // Whether a line is in the global part.
    bool configured(std::string_view line);

    // Sets a probe report as the peer protocol does.
    void report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx);

    // The policy record in the configuration database, -1 when there is none.
    int stored_policy();

    // Writes a record as another program does: packed under its key, with a notice.
    void put(uint32_t db, const ProtobufCMessage& record);

    // On the main thread, or while the agent is idle.
    MemoryStore& store();
    const std::filesystem::path& folder() const { return folder_; }
    std::filesystem::path saved_file() const { return folder_ / "startup.cfg"; }
    // The saved file without its seal; "not valid" when it has none.
    std::string saved_text() const;

 private:
    class Log;
    class ObservedPlatform;

    bool idle();
    void run_agent();
    void let_agent_run();

    std::filesystem::path folder_;
    std::unique_ptr<Platform> platform_;
    ManualClock* clock_;
    Log* log_;
    size_t notifications_taken_ = 0;
    cli::SessionState session_;
    Time deadline_{};            // end of the running advance()
    std::function<void()> job_;  // for the agent's main thread
    std::binary_semaphore agents_turn_{0};
    std::binary_semaphore tests_turn_{0};
    std::thread agent_;
};

}  // namespace qv::test
