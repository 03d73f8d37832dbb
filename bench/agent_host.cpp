#include "bench/agent_host.h"

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>

#include "lda_cli_delivery.h"
#include "lda_cli_post.h"
#include "lda_main.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/root/platform.h"

extern "C" int lda_main();

namespace bench {
namespace {

using namespace std::chrono_literals;

class NoLog final : public qv::SystemLog {
 public:
    void write(const qv::SystemLogMessage&) override {}
};

}  // namespace

AgentHost::AgentHost(unsigned ports, std::initializer_list<std::string_view> lines) {
    std::string pattern = (std::filesystem::temp_directory_path() / "lda-bench-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    qv::PlatformConfig config;
    config.embedded_ports = ports;
    config.cli_socket = (folder_ / "cli.sock").string();
    config.startup_config = (folder_ / "startup.cfg").string();
    platform_ = qv::make_platform(std::move(config), std::make_unique<qv::SteadyClock>(),
                                  std::make_unique<NoLog>());
    qv::install_platform(*platform_);

    // The loop exists from the first piece of work on, which checks the readiness of the agent.
    static std::atomic<bool> started = false;
    agent_ = std::thread([] { lda_main(); });
    while (!started) {
        std::this_thread::sleep_for(10ms);
        started = g_lda_cli_msg_set != nullptr;
    }
    for (bool ready = false; !ready; std::this_thread::sleep_for(10ms)) {
        on_main([&] { ready = cli_ready != 0; });
    }
    configure(lines);
}

AgentHost::~AgentHost() {
    platform_->loop().stop();
    agent_.join();
    std::filesystem::remove_all(folder_);
}

void AgentHost::on_main(const std::function<void()>& job) {
    std::promise<void> done;
    loop().post([&] {
        job();
        done.set_value();
    });
    done.get_future().wait();
}

void AgentHost::configure(std::initializer_list<std::string_view> lines) {
    on_main([&] {
        qv::cli::SessionState session;
        session.mode = qv::cli::kModeConfig;
        for (const std::string_view line : lines) {
            const qv::cli::Result result = qv::cli::execute(session, line);
            if (result.code != 0) {
                std::fprintf(stderr, "refused: %s\n", result.output.c_str());
                std::_Exit(1);
            }
        }
    });
    wait_delivered();
}

// The delivery thread works without the queue lock, so an empty queue is not enough: this posts two
// messages that cause no work, and when the second is taken, all earlier work is done.
void AgentHost::wait_delivered() {
    for (int n = 0; n < 2; n++) {
        on_main([] { lda_loop_cmd_send(0, 0, 0); });
    }
    for (bool empty = false; !empty;) {
        std::this_thread::sleep_for(1ms);
        pthread_mutex_lock(&g_lda_cli_msg_set->lock);
        empty = g_lda_cli_msg_set->count == 0;
        pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
    }
}

}  // namespace bench
