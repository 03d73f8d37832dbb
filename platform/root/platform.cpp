#include "platform/root/platform.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "platform/base/folders.h"
#include "platform/base/tarn_names.h"
#include "platform/base/visible.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/config_lock.h"
#include "platform/cli/loop_history.h"
#include "platform/cli/tarn_commands.h"
#include "platform/client/mom_key.h"
#include "platform/client/name_lock.h"
#include "platform/client/own_records.h"
#include "platform/client/port_follower.h"
#include "platform/client/thread_master.h"
#include "platform/driver/embedded/embedded_forwarding.h"
#include "platform/driver/embedded/embedded_switch.h"
#include "platform/driver/embedded/loop_probe.h"
#include "platform/driver/embedded/memory_store.h"
#include "platform/driver/embedded/simulation_commands.h"
#include "platform/driver/embedded/stderr_log.h"
#include "platform/driver/linux/nft_forwarding.h"
#include "platform/driver/linux/redis_lease.h"
#include "platform/driver/linux/redis_store.h"
#include "platform/driver/linux/rtnl_switch.h"
#include "platform/driver/linux/syslog_log.h"
#include "platform/driver/linux/termination.h"
#include "platform/root/held_answers.h"
#include "platform/root/loop_records.h"
#include "platform/root/metrics_server.h"
#include "platform/root/simulated_tarn.h"
#include "platform/root/tarn_records.h"
#include "platform/root/tarn_states.h"
#include "qv/mom.h"

namespace qv {
namespace {

std::unique_ptr<SystemLog> make_log(const PlatformConfig& config) {
    switch (config.switch_kind) {
        case PlatformConfig::Switch::kEmbedded:
            return std::make_unique<StderrLog>();
        case PlatformConfig::Switch::kLinux:
            return config.log_structured
                       ? std::make_unique<SyslogLog>("/dev/log", SyslogLog::kJournalSocket)
                       : std::make_unique<SyslogLog>();
    }
    std::abort();
}

std::string loop_entry_key(const std::string& port) {
    std::string name = port;
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    index.name = name.data();
    PApp__LdaLoopEntry entry = P_APP__LDA_LOOP_ENTRY__INIT;
    entry.index = &index;
    return record_key(entry.base).value_or("");
}

// The platform that a PlatformConfig describes. Lives as long as the process.
class DescribedPlatform final : public Platform {
 public:
    DescribedPlatform(PlatformConfig config, std::unique_ptr<Clock> clock,
                      std::unique_ptr<SystemLog> log)
        : config_(std::move(config)), clock_(std::move(clock)), log_(std::move(log)) {}

    const PlatformConfig& config() const override { return config_; }
    Clock& clock() override { return *clock_; }
    SystemLog& system_log() override { return *log_; }
    EventLoop& loop() override { return *loop_; }
    StoreDriver& store() override { return *store_; }
    PortModel& ports() override { return *ports_; }
    ForwardingDriver& forwarding() override { return *forwarding_; }
    Background& background() override { return *background_; }
    LeaseDriver* lease() override { return lease_.get(); }
    void become_master() override {
        if (redis_store_ != nullptr) {
            redis_store_->release();
        }
    }

    void attach_loop(EventLoop& loop) override {
        loop_ = &loop;
        background_ = std::make_unique<WorkerThread>(loop);
        MemoryStore* const memory = make_store();
        loop_records_ = std::make_unique<LoopRecords>(*store_);
        held_answers_ = std::make_unique<HeldAnswers>(*store_);
        switch (config_.switch_kind) {
            case PlatformConfig::Switch::kEmbedded:
                make_embedded_switch(memory);
                break;
            case PlatformConfig::Switch::kLinux:
                make_linux_switch();
                break;
        }
        keep_names_in_use();
        cli::share_config_lock(config_.netconf_runtime);
        serve_metrics();
        ports_->start();
        // Last, because the log may use the loop from here on. Tests have a log of another type.
        if (auto* const syslog = dynamic_cast<SyslogLog*>(log_.get())) {
            syslog->attach(*loop_);
        }
    }

 private:
    // After the switch is made: its threads must not take the signals that end the process.
    void serve_metrics() {
        if (!config_.metrics_listen.empty()) {
            metrics_server_ = std::make_unique<MetricsServer>(*loop_, config_.metrics_listen);
            use_metrics(&metrics_server_->metrics());
        }
    }

    // A port in the loop state has an entry under its name. If it is renamed, its clients see the
    // old name until that entry is deleted.
    void keep_names_in_use() {
        ports_->set_name_in_use([](const std::string& name) {
            return own_records().contains(QV_MOM_APP_DB, loop_entry_key(name));
        });
        own_records().on_erased([this](uint32_t db, const std::string& key) {
            loop_records_->erased(db, key);
            ports_->settle_renames();
        });
    }

    // Null when the store is not in memory.
    MemoryStore* make_store() {
        if (config_.store == PlatformConfig::Store::kRedis) {
            make_redis_store();
            return nullptr;
        }
        auto memory = std::make_unique<MemoryStore>(*loop_);
        MemoryStore* const made = memory.get();
        store_ = std::move(memory);
        return made;
    }

    void make_redis_store() {
        auto redis = std::make_unique<RedisStore>(*loop_, config_.redis);
        redis_store_ = redis.get();
        store_ = std::move(redis);
        if (config_.role == PlatformConfig::Role::kLease) {
            redis_store_->hold();
            lease_ = std::make_unique<RedisLease>(*loop_, config_.redis);
        }
    }

    void make_linux_switch() {
        auto bridge = std::make_unique<RtnlSwitch>(*loop_, config_.bridge);
        const RtnlSwitch& ports = *bridge;
        switch_ = std::move(bridge);
        shut_ports_ = std::make_unique<ShutPorts>(
            *switch_, [this](uint32_t ifx) { tarn_records_->port_changed(ifx); });
        ports_ = std::make_unique<PortModel>(*shut_ports_);
        tarn_records_ = std::make_unique<TarnRecords>(*loop_, *ports_, *shut_ports_);
        tarn_states_ = std::make_unique<TarnStates>(*loop_, [this] {
            return NameLock::holder(tarn_lock_name(config_), tarn_lock_file(config_)) != 0;
        });
        auto plane = std::make_unique<NftForwarding>(
            *loop_, NftForwarding::Settings{
                        .find_bridge = [&ports] { return ports.bridge(); },
                        .find_port = [this](uint32_t phyid) { return ports_->find_phyid(phyid); },
                        .mirror = {.entries = config_.max_addresses}});
        port_follower_ = std::make_unique<PortFollower>(
            [rules = plane.get()](uint32_t phyid) { rules->port_changed(phyid); });
        ports_->add_observer(*port_follower_);
        termination_ = std::make_unique<Termination>(*loop_, [this, rules = plane.get()] {
            rules->close();  // the kernel keeps the table when the process ends
            save_last();
        });
        forwarding_ = std::move(plane);
    }

    // Saves once more: lines and events of the last second are not in the files yet.
    void save_last() {
        background_.reset();  // waits for a running save
        if (cli::LoopHistory* const history = cli::loop_history()) {
            history->save_last();
        }
        if (cli::ConfigKeeper* const keeper = cli::config_keeper()) {
            keeper->saver().save_last();
        }
    }

    void make_embedded_switch(MemoryStore* memory) {
        auto embedded = std::make_unique<EmbeddedSwitch>(*loop_, config_.embedded_ports);
        EmbeddedSwitch& ports = *embedded;
        switch_ = std::move(embedded);
        ports_ = std::make_unique<PortModel>(ports);

        auto forwarding = std::make_unique<EmbeddedForwarding>(
            *loop_, [this](uint32_t phyid) { return ports_->find_phyid(phyid) != nullptr; });
        EmbeddedForwarding& plane = *forwarding;
        ports.set_rate_listener(
            [&plane](uint32_t phyid, uint64_t pps) { plane.set_rate(phyid, pps); });
        forwarding_ = std::move(forwarding);

        simulated_tarn_ = std::make_unique<SimulatedTarn>(*loop_, *ports_);
        probe_ = std::make_unique<LoopProbe>(
            *loop_, ports, simulated_tarn_->rules(),
            [this](const LoopReport& report) { return simulated_tarn_->publish(report); });
        simulated_tarn_->follow([this](uint32_t ifx) { return probe_->guarded(ifx); });
        tarn_states_ = std::make_unique<TarnStates>(*loop_, [] { return true; });
        cli::register_simulation_commands(ports, plane, memory);
    }

    const PlatformConfig config_;
    const std::unique_ptr<Clock> clock_;
    const std::unique_ptr<SystemLog> log_;
    // Set by attach_loop().
    EventLoop* loop_ = nullptr;
    std::unique_ptr<Background> background_;
    std::unique_ptr<StoreDriver> store_;
    std::unique_ptr<LoopRecords> loop_records_;
    std::unique_ptr<HeldAnswers> held_answers_;
    RedisStore* redis_store_ = nullptr;  // store_, with store = "redis"
    std::unique_ptr<LeaseDriver> lease_;
    std::unique_ptr<SwitchDriver> switch_;
    std::unique_ptr<PortModel> ports_;
    std::unique_ptr<ForwardingDriver> forwarding_;
    std::unique_ptr<TarnStates> tarn_states_;
    std::unique_ptr<SimulatedTarn> simulated_tarn_;  // embedded switch only, like the next
    std::unique_ptr<LoopProbe> probe_;
    std::unique_ptr<ShutPorts> shut_ports_;  // Linux only, like the next
    std::unique_ptr<TarnRecords> tarn_records_;
    std::unique_ptr<PortFollower> port_follower_;
    std::unique_ptr<Termination> termination_;
    std::unique_ptr<MetricsServer> metrics_server_;  // null when the metrics are off
};

}  // namespace

std::unique_ptr<Platform> make_platform(PlatformConfig config, std::unique_ptr<Clock> clock,
                                        std::unique_ptr<SystemLog> log) {
    return std::make_unique<DescribedPlatform>(std::move(config), std::move(clock), std::move(log));
}

std::unique_ptr<Platform> describe_platform() {
    const char* const path = std::getenv("LDA_PLATFORM");
    try {
        if (path && *path == '\0') {
            throw std::runtime_error(
                "LDA_PLATFORM is set but empty: set it to the path of a platform file, or unset it "
                "to run on the simulated switch");
        }
        auto config = path ? load_platform_config(path) : PlatformConfig();
        check_folders(config);
        auto clock = std::make_unique<SteadyClock>(config.speed);
        auto log = make_log(config);
        return make_platform(std::move(config), std::move(clock), std::move(log));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lda: %s\n", qv::visible(error.what()).c_str());
        std::exit(EXIT_FAILURE);
    }
}

}  // namespace qv
