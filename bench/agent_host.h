// The whole agent in a measuring program: its own main() on another thread, the embedded switch,
// records in memory, the machine's clock, a system log that drops everything. One for each process.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>

#include "platform/client/platform.h"

namespace bench {

class AgentHost {
 public:
    // Returns once the saved configuration has been replayed and `lines` are configured.
    AgentHost(unsigned ports, std::initializer_list<std::string_view> lines);
    ~AgentHost();
    AgentHost(const AgentHost&) = delete;
    AgentHost& operator=(const AgentHost&) = delete;

    // Executes lines in mode config and waits until the agent has delivered the resulting lines. A
    // refusal ends the program.
    void configure(std::initializer_list<std::string_view> lines);
    // Runs `job` on the agent's main thread and waits for its end.
    void on_main(const std::function<void()>& job);
    // Waits until the delivery thread has nothing left to do.
    void wait_delivered();

    qv::EventLoop& loop() { return platform_->loop(); }
    const qv::PortModel& ports() { return platform_->ports(); }

 private:
    std::filesystem::path folder_;
    std::unique_ptr<qv::Platform> platform_;
    std::thread agent_;
};

}  // namespace bench
