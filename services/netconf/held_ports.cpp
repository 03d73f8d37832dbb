#include "services/netconf/held_ports.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include "p_nc.pb-c.h"
#include "services/netconf/log.h"

namespace netconf {
namespace {

using std::chrono::steady_clock;

constexpr const char* kHeldQuestionType = "p_nc.held_question";
constexpr const char* kHeldAnswerType = "p_nc.held_answer";
constexpr std::chrono::seconds kHeldAnswerLimit{1};

struct FreeAnswer {
    void operator()(PNc__HeldAnswer* answer) const {
        p_nc__held_answer__free_unpacked(answer, nullptr);
    }
};
using Answer = std::unique_ptr<PNc__HeldAnswer, FreeAnswer>;

std::string fresh_id() {
    static uint64_t last = 0;
    return "netconf-" + std::to_string(getpid()) + "-" + std::to_string(++last);
}

std::string packed_question(std::string id) {
    PNc__HeldQuestion question = P_NC__HELD_QUESTION__INIT;
    question.id = id.data();
    std::string packed(p_nc__held_question__get_packed_size(&question), '\0');
    p_nc__held_question__pack(&question, reinterpret_cast<uint8_t*>(packed.data()));
    return packed;
}

// The answer to the question with this id; null for any other notice.
Answer answer_in(const Notice& notice, const std::string& id) {
    Answer answer(p_nc__held_answer__unpack(
        nullptr, notice.record.size(), reinterpret_cast<const uint8_t*>(notice.record.data())));
    return answer && answer->id == id ? std::move(answer) : nullptr;
}

std::optional<EventTime> time_or_none(uint64_t since_1970_ms) {
    return since_1970_ms != 0 ? std::optional(EventTime(std::chrono::milliseconds(since_1970_ms)))
                              : std::nullopt;
}

std::vector<HeldPort> ports_in(const PNc__HeldAnswer& answer) {
    std::vector<HeldPort> ports;
    for (size_t n = 0; n < answer.n_ports; n++) {
        const PNc__HeldPort& port = *answer.ports[n];
        ports.push_back({.name = port.name,
                         .sources = {port.sources, port.sources + port.n_sources},
                         .other_port = port.other_port,
                         .vlan = port.vlan,
                         .since = time_or_none(port.since_ms),
                         .recovers_at = time_or_none(port.recovers_at_ms),
                         .shut_last_day = port.shut_last_day,
                         .still_looped = port.still_looped != 0,
                         .rule = port.rule,
                         .refused = port.refused});
    }
    return ports;
}

}  // namespace

std::vector<HeldPort> held_ports(const qv::RedisServer& server) {
    const std::string id = fresh_id();
    const auto deadline = steady_clock::now() + kHeldAnswerLimit;
    Listener answers(server, kLocalDatabase, kHeldAnswerType);
    Database database(server);
    if (database.publish(kLocalDatabase, kHeldQuestionType, packed_question(id)) == 0) {
        return {};
    }
    while (const auto notice = answers.wait(deadline)) {
        if (const Answer answer = answer_in(*notice, id)) {
            return ports_in(*answer);
        }
    }
    log_line(LOG_WARNING, "the agent does not say which ports are held shut");
    return {};
}

}  // namespace netconf
