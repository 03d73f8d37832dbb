#include "tests/scenario/switch_rig.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "lda_cli_delivery.h"
#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "platform/base/mutex.h"
#include "platform/cli/config_file.h"
#include "platform/client/mom_key.h"
#include "platform/client/notification_ring.h"
#include "platform/root/platform.h"
#include "qv/cli.h"
#include "tests/support/test_platform.h"

extern "C" int lda_main();

extern "C" int __real_cli_execute_cmd_buf_fd(int, const char*, const cli_mode*, cli_output_cb,
                                             void*);

extern "C" int __real_cli_client_c2p_reform();
extern "C" int __real_cli_syn_config_notify();

// Only the delivery thread calls this, and only when it has nothing to do. So the call shows the
// rig that the agent is idle.
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

// Lines that any thread adds and the test takes.
struct Lines {
    qv::Mutex mutex;
    std::vector<std::string> lines GUARDED_BY(mutex);

    void add(std::string line) {
        const qv::MutexLock lock(mutex);
        lines.push_back(std::move(line));
    }
    std::vector<std::string> take() {
        const qv::MutexLock lock(mutex);
        return std::exchange(lines, {});
    }
};

Lines& executed() {
    static auto* const the_lines = new Lines;
    return *the_lines;
}

Lines& announcements() {
    static auto* const the_lines = new Lines;
    return *the_lines;
}

// "<function:12> text" as "<function> text".
std::string without_line_number(std::string line) {
    const size_t end = line.find("> ");
    const size_t colon = line.rfind(':', end);
    const bool numbered = end != std::string::npos && colon != std::string::npos &&
                          colon + 1 < end &&
                          std::all_of(line.begin() + static_cast<std::ptrdiff_t>(colon) + 1,
                                      line.begin() + static_cast<std::ptrdiff_t>(end),
                                      [](unsigned char c) { return std::isdigit(c) != 0; });
    return numbered ? line.erase(colon, end - colon) : line;
}

}  // namespace

extern "C" int __wrap_cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                                             cli_output_cb output, void* user) {
    std::string text = qv::platform().loop().on_loop_thread() ? "inline " : "";
    text += mode->name;
    if (mode->ifx != 0) {
        text += " " + std::to_string(mode->ifx);
    }
    executed().add(text + ": " + line);
    return __real_cli_execute_cmd_buf_fd(session, line, mode, output, user);
}

extern "C" int __wrap_cli_client_c2p_reform() {
    announcements().add("reform");
    return __real_cli_client_c2p_reform();
}

extern "C" int __wrap_cli_syn_config_notify() {
    announcements().add("announce");
    return __real_cli_syn_config_notify();
}

extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const timespec* deadline) {
    gate().set_waiting(true);
    const int result = __real_pthread_cond_timedwait(cond, mutex, deadline);
    gate().set_waiting(false);
    return result;
}

namespace qv::test {

class SwitchRig::Log final : public SystemLog {
 public:
    void write(const SystemLogMessage& message) override {
        std::string line(message.facility);
        line += "-" + std::to_string(message.severity) + "-";
        line += message.mnemonic;
        line += ": ";
        line += message.text;
        const bool on_main = std::this_thread::get_id() == main_thread;
        if (on_main && message.subject != nullptr) {
            subjects.add(std::string(message.mnemonic) + " port=" + message.subject->port +
                         " source=" + message.subject->source + " cause=" + message.subject->cause);
        }
        (on_main ? main : delivery).add(without_line_number(std::move(line)));
    }

    std::atomic<std::thread::id> main_thread;
    Lines main;
    Lines delivery;
    Lines subjects;
};

// The described platform; calls the test when its loop and its store have been made.
class SwitchRig::ObservedPlatform final : public Platform {
 public:
    ObservedPlatform(std::unique_ptr<Platform> inner, std::function<void(MemoryStore&)> store_made)
        : inner_(std::move(inner)), store_made_(std::move(store_made)) {}

    const PlatformConfig& config() const override { return inner_->config(); }
    Clock& clock() override { return inner_->clock(); }
    SystemLog& system_log() override { return inner_->system_log(); }
    EventLoop& loop() override { return inner_->loop(); }
    StoreDriver& store() override { return inner_->store(); }
    PortModel& ports() override { return inner_->ports(); }
    ForwardingDriver& forwarding() override { return inner_->forwarding(); }
    Background& background() override { return *background_; }
    void attach_loop(EventLoop& loop) override {
        background_ = std::make_unique<InlineBackground>(loop);
        inner_->attach_loop(loop);
        if (store_made_) {
            store_made_(dynamic_cast<MemoryStore&>(store()));
        }
    }

 private:
    std::unique_ptr<Platform> inner_;
    std::function<void(MemoryStore&)> store_made_;
    std::unique_ptr<InlineBackground> background_;
};

SwitchRig::SwitchRig() : SwitchRig(Options{}) {}

SwitchRig::SwitchRig(Options options) {
    std::string pattern = (std::filesystem::temp_directory_path() / "lda-rig-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    if (!options.saved_configuration.empty()) {
        std::string text = std::move(options.saved_configuration);
        text += text.ends_with('\n') ? "end\n" : "\nend\n";
        std::ofstream(saved_file()) << cli::seal_config(std::move(text), 0);
    }
    PlatformConfig config;
    config.embedded_ports = options.ports;
    config.cli_socket = (folder_ / "cli.sock").string();
    config.startup_config = saved_file().string();
    auto clock = std::make_unique<ManualClock>();
    auto log = std::make_unique<Log>();
    clock_ = clock.get();
    log_ = log.get();
    clock_->on_idle = [this] {
        return idle();
    };
    deadline_ = clock_->now();
    platform_ = std::make_unique<ObservedPlatform>(
        make_platform(std::move(config), std::move(clock), std::move(log)),
        std::move(options.store_made));
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
    log_->main_thread = std::this_thread::get_id();
    const int status = lda_main();
    EXPECT_EQ(status, -1);
}

// Called when the main loop has nothing to do. True: look again.
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

void SwitchRig::set_policy(std::string_view words) {
    type({"configure terminal", std::string("loop-detect enable ").append(words), "end"});
    advance(std::chrono::seconds(1));
    forget();
}

void SwitchRig::trace() {
    type({"debug lda syslog log-max-number nolimit", "debug lda syslog level 2"});
    forget();
}

void SwitchRig::forget() {
    take_log();
    take_delivery_log();
    take_executed();
    take_announcements();
    take_notifications();
}

std::vector<std::string> SwitchRig::take_log() {
    return log_->main.take();
}

std::vector<std::string> SwitchRig::take_delivery_log() {
    return log_->delivery.take();
}

std::vector<std::string> SwitchRig::take_subjects() {
    return log_->subjects.take();
}

std::vector<std::string> SwitchRig::take_executed() {
    return executed().take();
}

std::vector<std::string> SwitchRig::take_announcements() {
    return announcements().take();
}

std::vector<std::string> SwitchRig::take_notifications() {
    std::vector<std::string> lines;
    on_main([&] {
        const std::vector<SentNotification> all = recent_notifications();
        // The ring drops the oldest: a test must take its notifications before that.
        for (size_t i = notifications_taken_; i < all.size(); ++i) {
            std::string line;
            for (const SentLeaf& leaf : all[i].leaves) {
                const bool known = leaf.path.starts_with(kNotifyPath);
                line += line.empty() ? "" : " ";
                line += leaf.path.substr(known ? kNotifyPath.size() : 0);
                line += "=" + std::to_string(leaf.value);
            }
            lines.push_back(line);
        }
        notifications_taken_ = all.size();
    });
    return lines;
}

std::string SwitchRig::entry(std::string_view port) {
    const auto packed = store().get(4, "p_app.lda_loop_entry/name=" + std::string(port));
    if (!packed) {
        return "none";
    }
    auto* entry = p_app__lda_loop_entry__unpack(nullptr, packed->size(),
                                                reinterpret_cast<const uint8_t*>(packed->data()));
    if (!entry) {
        return "damaged";
    }
    const std::string text =
        "policy=" + std::to_string(entry->policy) + " src_port=" + std::to_string(entry->src_port);
    p_app__lda_loop_entry__free_unpacked(entry, nullptr);
    return text;
}

std::string SwitchRig::running_config() {
    std::string text;
    on_main([&] {
        cli::SessionState session;
        text = cli::execute(session, "show running-config").output;
    });
    return text;
}

std::vector<std::string> SwitchRig::section(std::string_view port) {
    std::istringstream text(running_config());
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
    std::istringstream text(running_config());
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

int SwitchRig::stored_policy() {
    const auto packed = store().get(QV_MOM_CFG_DB, "p_app.lda_nc_policy/");
    if (!packed) {
        return -1;
    }
    auto* record = p_app__lda_nc_policy__unpack(nullptr, packed->size(),
                                                reinterpret_cast<const uint8_t*>(packed->data()));
    const int policy = record ? static_cast<int>(record->loop_policy_cli) : -2;
    p_app__lda_nc_policy__free_unpacked(record, nullptr);
    return policy;
}

void SwitchRig::report(uint32_t ifx, uint32_t is_loop, uint32_t src_ifx) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    index.ifx = ifx;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    record.index = &index;
    record.vid = 1;
    record.is_loop = is_loop;
    record.src_ifx = src_ifx;
    put(QV_MOM_APP_DB, record.base);
}

void SwitchRig::put(uint32_t db, const ProtobufCMessage& record) {
    const auto key = record_key(record);
    ASSERT_TRUE(key.has_value());
    const std::vector<uint8_t> packed = pack_record(record);
    on_main([&] { store().put(db, *key, packed); });
}

std::string SwitchRig::saved_text() const {
    std::ostringstream text;
    text << std::ifstream(saved_file()).rdbuf();
    const cli::UnsealedConfig config = cli::unseal_config(text.str());
    return config.intact ? config.text : "not valid";
}

MemoryStore& SwitchRig::store() {
    return dynamic_cast<MemoryStore&>(platform_->store());
}

}  // namespace qv::test
