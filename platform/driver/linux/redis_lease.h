// The lease in a Redis server: one key, as docs/object-database.md says, on a connection of its
// own. After a loss, or a refusal, it connects again after 200 ms. Loop thread only. The process
// must ignore SIGPIPE.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/base/event_loop.h"
#include "platform/base/redis_server.h"
#include "platform/driver/lease_driver.h"
#include "platform/driver/linux/redis_reply.h"

namespace qv {

class RedisConnection;

class RedisLease final : public LeaseDriver {
 public:
    static constexpr std::string_view kKey = "lda/lease";  // in database 0
    static constexpr std::chrono::milliseconds kPause{200};

    // The server need not be there yet.
    RedisLease(EventLoop& loop, RedisServer server);
    ~RedisLease() override;

    void connect(LeaseListener& listener) override;
    void read(Answer answer) override;
    void replace(const std::string& expected, const std::string& wanted, Answer answer) override;

 private:
    void dial();
    void greeted(const RedisReply& reply);
    void answered(const char* request, const RedisReply& reply, const Answer& answer);
    void fail_later(const std::string& reason);
    void lose(const std::string& reason);

    EventLoop& loop_;
    const RedisServer server_;
    LeaseListener* listener_ = nullptr;
    bool reached_ = false;
    EventLoop::Handle failing_;
    EventLoop::Handle retry_;
    std::unique_ptr<RedisConnection> connection_;  // last: its callbacks use the members above
};

}  // namespace qv
