#include "platform/root/held_answers.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "p_nc.pb-c.h"
#include "platform/base/guarded.h"
#include "platform/cli/held_list.h"
#include "platform/client/mom_key.h"
#include "qv/mom.h"

namespace qv {
namespace {

constexpr uint64_t kQuestions = 1;  // number of the only subscription

struct FreeQuestion {
    void operator()(PNc__HeldQuestion* question) const {
        p_nc__held_question__free_unpacked(question, nullptr);
    }
};

uint64_t milliseconds_of(const std::optional<cli::WallTime>& time) {
    return time ? static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            time->time_since_epoch())
                                            .count())
                : 0;
}

// The record of a port, with the texts that it points to.
class PortRecord {
 public:
    explicit PortRecord(cli::HeldPort port)
        : port_(std::move(port)), sources_(cli::source_names(port_.facts)) {}

    // Valid until this object moves.
    PNc__HeldPort packable() {
        source_texts_.clear();
        for (std::string& source : sources_) {
            source_texts_.push_back(source.data());
        }
        PNc__HeldPort record = P_NC__HELD_PORT__INIT;
        record.name = port_.name.data();
        record.n_sources = source_texts_.size();
        record.sources = source_texts_.data();
        record.other_port = port_.facts.other_port.data();
        record.vlan = port_.facts.vlan;
        record.since_ms = milliseconds_of(port_.since);
        record.recovers_at_ms = milliseconds_of(cli::wall_time_of(port_.recovery_due));
        record.shut_last_day = static_cast<uint32_t>(port_.shut_last_day);
        record.still_looped = port_.still_looped ? 1 : 0;
        record.rule = port_.rule.data();
        record.refused = port_.refused.data();
        return record;
    }

 private:
    cli::HeldPort port_;
    std::vector<std::string> sources_;
    std::vector<char*> source_texts_;
};

std::vector<uint8_t> packed_answer(char* id) {
    std::vector<PortRecord> ports;
    for (cli::HeldPort& port : cli::ports_held_shut()) {
        ports.emplace_back(std::move(port));
    }
    std::vector<PNc__HeldPort> records;
    records.reserve(ports.size());
    for (PortRecord& port : ports) {
        records.push_back(port.packable());
    }
    std::vector<PNc__HeldPort*> pointers;
    pointers.reserve(records.size());
    for (PNc__HeldPort& record : records) {
        pointers.push_back(&record);
    }
    PNc__HeldAnswer answer = P_NC__HELD_ANSWER__INIT;
    answer.id = id;
    answer.n_ports = pointers.size();
    answer.ports = pointers.data();
    return pack_record(answer.base);
}

}  // namespace

HeldAnswers::HeldAnswers(StoreDriver& store) : client_(store.connect(*this)) {
    client_->open(QV_MOM_LOCAL_DB);
}

void HeldAnswers::session_up(uint32_t db) {
    client_->subscribe(db, p_nc__held_question__descriptor.name, kQuestions);
}

void HeldAnswers::notice(uint64_t, Bytes notice) {
    if (notice.empty() || notice[0] != static_cast<uint8_t>(StoreOper::kPublish)) {
        return;
    }
    const std::unique_ptr<PNc__HeldQuestion, FreeQuestion> question(
        p_nc__held_question__unpack(nullptr, notice.size() - 1, notice.data() + 1));
    if (question == nullptr) {
        return;
    }
    guarded([&] {
        client_->publish(QV_MOM_LOCAL_DB, p_nc__held_answer__descriptor.name,
                         packed_answer(question->id));
    });
}

}  // namespace qv
