#include "tests/unit/netconf/held_answers.h"

#include <gtest/gtest.h>

#include "p_nc.pb-c.h"

namespace netconf::test {

HeldRecord full_record() {
    return {.name = "swp2",
            .sources = {"tarn", "storm"},
            .other_port = "swp3",
            .vlan = 20,
            .since_ms = 1001,
            .recovers_at_ms = 301'002,
            .shut_last_day = 4,
            .still_looped = true,
            .rule = "interval 600",
            .refused = "too early"};
}

std::string question_in(const std::string& channel, const std::string& payload) {
    EXPECT_EQ(channel, "mom/3/p_nc.held_question");
    EXPECT_EQ(payload.substr(0, 1), "\2");
    PNc__HeldQuestion* const question = p_nc__held_question__unpack(
        nullptr, payload.size() - 1, reinterpret_cast<const uint8_t*>(payload.data()) + 1);
    if (question == nullptr) {
        ADD_FAILURE() << "the question does not unpack";
        return "";
    }
    const std::string id = question->id;
    p_nc__held_question__free_unpacked(question, nullptr);
    return id;
}

std::string held_answer(std::string id, std::vector<HeldRecord> ports) {
    std::vector<std::vector<char*>> sources(ports.size());
    std::vector<PNc__HeldPort> records(ports.size());
    std::vector<PNc__HeldPort*> pointers;
    for (size_t n = 0; n < ports.size(); n++) {
        HeldRecord& port = ports[n];
        for (std::string& source : port.sources) {
            sources[n].push_back(source.data());
        }
        PNc__HeldPort& record = records[n] = P_NC__HELD_PORT__INIT;
        record.name = port.name.data();
        record.n_sources = sources[n].size();
        record.sources = sources[n].data();
        record.other_port = port.other_port.data();
        record.vlan = port.vlan;
        record.since_ms = port.since_ms;
        record.recovers_at_ms = port.recovers_at_ms;
        record.shut_last_day = port.shut_last_day;
        record.still_looped = port.still_looped ? 1 : 0;
        record.rule = port.rule.data();
        record.refused = port.refused.data();
        pointers.push_back(&record);
    }
    PNc__HeldAnswer answer = P_NC__HELD_ANSWER__INIT;
    answer.id = id.data();
    answer.n_ports = pointers.size();
    answer.ports = pointers.data();
    std::string packed(p_nc__held_answer__get_packed_size(&answer), '\0');
    p_nc__held_answer__pack(&answer, reinterpret_cast<uint8_t*>(packed.data()));
    return packed;
}

void answer_held_ports(DatabasePeer& database, const std::vector<HeldRecord>& ports) {
    database.set_other_listeners(1);
    database.on_publish([&database, ports](const std::string& channel, const std::string& payload) {
        database.publish(kHeldAnswers, '\2' + held_answer(question_in(channel, payload), ports));
    });
}

}  // namespace netconf::test
