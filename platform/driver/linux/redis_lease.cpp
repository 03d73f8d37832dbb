#include "platform/driver/linux/redis_lease.h"

#include <utility>

#include "platform/driver/linux/redis_connection.h"

namespace qv {
namespace {

// Sets KEYS[1] to ARGV[2] if it is ARGV[1], or if there is no such key and ARGV[1] is empty.
// Returns its value after that. No time of life: that would be measured by the server's wall clock,
// which may jump.
constexpr std::string_view kReplaceScript = R"(
local held = redis.call('GET', KEYS[1]) or ''
if held ~= ARGV[1] then return held end
redis.call('SET', KEYS[1], ARGV[2])
return ARGV[2])";

}  // namespace

RedisLease::RedisLease(EventLoop& loop, RedisServer server)
    : loop_(loop), server_(std::move(server)) {}

RedisLease::~RedisLease() = default;

void RedisLease::connect(LeaseListener& listener) {
    listener_ = &listener;
    dial();
}

void RedisLease::dial() {
    connection_ = std::make_unique<RedisConnection>(
        loop_, server_, [this](const std::string& reason) { lose(reason); });
    connection_->send({"PING"}, [this](const RedisReply& reply) { greeted(reply); });
}

// A server that is still loading its file accepts connections but refuses this.
void RedisLease::greeted(const RedisReply& reply) {
    if (!reply.is(RedisReply::Type::kStatus)) {
        fail_later(complaint("PING", reply));
        return;
    }
    reached_ = true;
    listener_->lease_reached();
}

void RedisLease::read(Answer answer) {
    if (reached_) {
        connection_->send({"GET", kKey}, [this, answer = std::move(answer)](const auto& reply) {
            answered("GET", reply, answer);
        });
    }
}

void RedisLease::replace(const std::string& expected, const std::string& wanted, Answer answer) {
    if (reached_) {
        connection_->send({"EVAL", kReplaceScript, "1", kKey, expected, wanted},
                          [this, answer = std::move(answer)](const auto& reply) {
                              answered("EVAL", reply, answer);
                          });
    }
}

void RedisLease::answered(const char* request, const RedisReply& reply, const Answer& answer) {
    if (reply.is(RedisReply::Type::kNil)) {
        answer("");
    } else if (reply.is(RedisReply::Type::kString)) {
        answer(reply.text);
    } else {
        fail_later(complaint(request, reply));
    }
}

// For the callbacks of the connection, which must not destroy it.
void RedisLease::fail_later(const std::string& reason) {
    reached_ = false;
    connection_->stop();
    failing_ = loop_.after(Duration::zero(), [this, reason] { lose(reason); });
}

void RedisLease::lose(const std::string& reason) {
    failing_.reset();
    connection_.reset();
    reached_ = false;
    retry_ = loop_.after(kPause, [this] { dial(); });
    listener_->lease_unreachable(reason);
}

}  // namespace qv
