#include "tests/scenario/switch_rig.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "lda_cli_delivery.h"
#include "p_bridge.pb-c.h"
#include "platform/driver/mutex.h"
#include "qv/mom.h"

extern "C" int lda_main();

// The delivery thread waits here when it has nothing to do, and nobody else does. Seeing it wait is
// how the rig knows that the agent has come to rest.
extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);

namespace {

struct Gate {
    qv::Mutex mutex;
    bool waiting GUARDED_BY(mutex) = false;
    qv::EventLoop* loop GUARDED_BY(mutex) = nullptr;

    void set_waiting(bool value) {
        const qv::MutexLock lock(mutex);
        waiting = value;
        if (value && loop) {
            loop->post([] {});  // the main thread may have gone to sleep until this moment
        }
    }
    void set_loop(qv::EventLoop* value) {
        const qv::MutexLock lock(mutex);
        loop = value;
    }
    bool is_waiting() {
        const qv::MutexLock lock(mutex);
        return waiting;
    }
};

Gate& gate() {
    static auto* const the_gate = new Gate;  // outlives the detached thread
    return *the_gate;
}

bool delivery_is_idle() {
    if (!g_lda_cli_msg_set) {
        return false;
    }
    pthread_mutex_lock(&g_lda_cli_msg_set->lock);
    const bool idle = g_lda_cli_msg_set->count == 0 && gate().is_waiting();
    pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
    return idle;
}

}  // namespace

extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const timespec* deadline) {
    gate().set_waiting(true);
    const int result = __real_pthread_cond_timedwait(cond, mutex, deadline);
    gate().set_waiting(false);
    return result;
}

namespace qv::test {

SwitchRig::SwitchRig() : SwitchRig(Options{}) {}

SwitchRig::SwitchRig(Options options) {
    std::string pattern = (std::filesystem::temp_directory_path() / "lda-rig-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    if (!options.saved_configuration.empty()) {
        std::ofstream(saved_file()) << options.saved_configuration;
    }
    PlatformConfig config;
    config.embedded_ports = options.ports;
    config.cli_socket = (folder_ / "cli.sock").string();
    config.startup_config = saved_file().string();
    auto clock = std::make_unique<ManualClock>();
    auto log = std::make_unique<RecordingLog>();
    clock_ = clock.get();
    log_ = log.get();
    clock_->on_idle = [this] {
        return idle();
    };
    deadline_ = clock_->now();
    platform_ = make_platform(std::move(config), std::move(clock), std::move(log));
    install_platform(*platform_);
    if (options.prepare) {
        options.prepare();
    }
    agent_ = std::thread([this] { run_agent(); });
    tests_turn_.acquire();
}

SwitchRig::~SwitchRig() {
    job_ = [this] {
        gate().set_loop(nullptr);
        platform_->loop().stop();
    };
    agents_turn_.release();
    agent_.join();
    std::filesystem::remove_all(folder_);
}

void SwitchRig::run_agent() {
    const int status = lda_main();
    EXPECT_EQ(status, -1);
}

// The main loop has nothing to do. True: look again.
bool SwitchRig::idle() {
    gate().set_loop(&platform_->loop());
    if (!delivery_is_idle()) {
        return false;
    }
    if (clock_->now() < deadline_) {
        const auto next = platform_->loop().next_timer();
        clock_->advance_to(next && *next < deadline_ ? *next : deadline_);
        return true;
    }
    tests_turn_.release();
    agents_turn_.acquire();
    if (job_) {
        std::exchange(job_, nullptr)();
    }
    return true;
}

void SwitchRig::let_agent_run() {
    agents_turn_.release();
    tests_turn_.acquire();
}

void SwitchRig::on_main(std::function<void()> job) {
    job_ = std::move(job);
    let_agent_run();
}

std::string SwitchRig::type(std::string_view line) {
    std::string output;
    on_main([&] { output = cli::execute(session_, line).output; });
    return output;
}

std::string SwitchRig::type(std::initializer_list<std::string_view> lines) {
    std::string output;
    for (const std::string_view line : lines) {
        output += type(line);
    }
    return output;
}

void SwitchRig::advance(std::chrono::seconds step) {
    deadline_ = clock_->now() + step;
    let_agent_run();
}

std::vector<std::string> SwitchRig::take_log() {
    const auto all = log_->lines();
    const std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(log_taken_),
                                         all.end());
    log_taken_ = all.size();
    return fresh;
}

std::vector<std::string> SwitchRig::section(std::string_view port) {
    std::istringstream text(type("show running-config"));
    const std::string title = "interface " + std::string(port);
    std::vector<std::string> lines;
    bool inside = false;
    for (std::string line; std::getline(text, line);) {
        if (inside && line == "!") {
            break;
        }
        if (inside) {
            lines.push_back(line.substr(line.find_first_not_of(' ')));
        }
        inside = inside || line == title;
    }
    return lines;
}

bool SwitchRig::configured(std::string_view line) {
    std::istringstream text(type("show running-config"));
    for (std::string at; std::getline(text, at);) {
        if (at.starts_with("interface ")) {
            return false;
        }
        const auto start = at.find_first_not_of(' ');
        if (start != std::string::npos && at.substr(start) == line) {
            return true;
        }
    }
    return false;
}

void SwitchRig::report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx) {
    on_main([=] {
        PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
        index.ifx = ifx;
        PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
        record.index = &index;
        record.vid = 1;
        record.is_loop = is_loop;
        record.src_ifx = src_ifx;
        static qv_mom_client* const writer = [] {
            auto* client = qv_mom_client_init("test", platform().loop().master(), nullptr);
            qv_mom_client_connect(
                client, QV_MOM_APP_DB, [](void*) { return 0; }, nullptr);
            return client;
        }();
        EXPECT_EQ(qv_mom_set(writer, QV_MOM_APP_DB, &record.base, 0, 0), 0);
    });
}

MemoryStore& SwitchRig::store() {
    return dynamic_cast<MemoryStore&>(platform_->store());
}

}  // namespace qv::test
