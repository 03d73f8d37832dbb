// Another program asks which ports are held shut, and gets an answer. The tests of "show
// errdisable" and of the NETCONF server cover its content.
#include "platform/root/held_answers.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "p_nc.pb-c.h"
#include "platform/client/mom_key.h"
#include "platform/client/thread_master.h"
#include "platform/driver/embedded/memory_store.h"
#include "platform/root/platform.h"
#include "qv/thread.h"
#include "tests/support/manual_clock.h"

namespace qv {
namespace {

constexpr uint32_t kLocalDb = 3;

// Another program, which listens for answers.
class Asker final : public StoreListener {
 public:
    explicit Asker(StoreDriver& store) : client_(store.connect(*this)) { client_->open(kLocalDb); }

    void session_up(uint32_t db) override {
        client_->subscribe(db, "p_nc.held_answer", 1);
        ++sessions;
    }
    void session_down(uint32_t /*db*/) override {}
    void subscribed(uint64_t /*subscription*/) override {}
    void notice(uint64_t /*subscription*/, Bytes notice) override {
        ASSERT_FALSE(notice.empty());
        EXPECT_EQ(notice[0], 2);
        PNc__HeldAnswer* const answer =
            p_nc__held_answer__unpack(nullptr, notice.size() - 1, notice.data() + 1);
        ASSERT_NE(answer, nullptr);
        answers.push_back(std::string(answer->id) + " " + std::to_string(answer->n_ports));
        p_nc__held_answer__free_unpacked(answer, nullptr);
    }
    void scanned(uint64_t /*scan*/, std::string_view /*key*/, Bytes /*record*/) override {}
    void scan_done(uint64_t /*scan*/) override {}

    void ask(std::string id) {
        PNc__HeldQuestion question = P_NC__HELD_QUESTION__INIT;
        question.id = id.data();
        client_->publish(kLocalDb, "p_nc.held_question", pack_record(question.base));
    }

    int sessions = 0;  // so far
    std::vector<std::string> answers;

 private:
    std::unique_ptr<StoreClient> client_;
};

// The platform of a simulated switch, which answers by itself.
class HeldAnswersTest : public testing::Test {
 protected:
    HeldAnswersTest() {
        unsetenv("LDA_PLATFORM");
        set_platform_maker(describe_platform);
        master = qv_thread_master_create();
        asker.emplace(platform().store());
        EXPECT_TRUE(test::run_until(loop_of(master), [] { return platform().ports().complete(); }));
    }
    ~HeldAnswersTest() override { qv_thread_master_finish(master); }

    MemoryStore& store() { return dynamic_cast<MemoryStore&>(platform().store()); }
    void expect_answers(const std::vector<std::string>& answers) {
        test::run_until(loop_of(master), [&] { return asker->answers.size() >= answers.size(); });
        EXPECT_EQ(asker->answers, answers);
    }

    qv_thread_master* master = nullptr;
    std::optional<Asker> asker;
};

TEST_F(HeldAnswersTest, EachQuestionHasItsAnswer) {
    asker->ask("one");
    asker->ask("");
    expect_answers({"one 0", " 0"});
}

TEST_F(HeldAnswersTest, WhatIsNoQuestionHasNone) {
    for (const std::string notice : {"", "\2\xff", "\1", "\7"}) {
        store().notify(kLocalDb, "p_nc.held_question",
                       {reinterpret_cast<const uint8_t*>(notice.data()), notice.size()});
    }
    asker->ask("last");
    expect_answers({"last 0"});
}

TEST_F(HeldAnswersTest, QuestionsAreHeardAgainAfterALoss) {
    store().drop(kLocalDb);
    store().restore(kLocalDb);
    test::run_until(loop_of(master), [this] { return asker->sessions == 2; });
    asker->ask("again");
    expect_answers({"again 0"});
}

}  // namespace
}  // namespace qv
