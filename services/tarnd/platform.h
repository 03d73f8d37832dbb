// The platform under the object-database client in tarnd.
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "platform/client/platform.h"
#include "platform/driver/linux/redis_store.h"
#include "platform/driver/linux/syslog_log.h"

namespace qv::tarnd {

// There are no ports, no forwarding plane and no background work: asking for them is a mistake in
// the program and ends it. Main thread only.
class ServicePlatform final : public Platform {
 public:
    explicit ServicePlatform(PlatformConfig config)
        : config_(std::move(config)),
          log_("/dev/log",
               config_.log_structured ? std::optional(SyslogLog::kJournalSocket) : std::nullopt) {}

    const PlatformConfig& config() const override { return config_; }
    Clock& clock() override { return clock_; }
    SystemLog& system_log() override { return log_; }
    EventLoop& loop() override { return *loop_; }
    StoreDriver& store() override { return *store_; }
    PortModel& ports() override { std::abort(); }
    ForwardingDriver& forwarding() override { std::abort(); }
    Background& background() override { std::abort(); }

    void attach_loop(EventLoop& loop) override {
        loop_ = &loop;
        store_ = std::make_unique<RedisStore>(loop, config_.redis);
        log_.attach(loop);
    }

 private:
    const PlatformConfig config_;
    SteadyClock clock_;
    SyslogLog log_;
    EventLoop* loop_ = nullptr;
    std::unique_ptr<StoreDriver> store_;
};

}  // namespace qv::tarnd
