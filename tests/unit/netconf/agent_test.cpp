// The agent's records as the server reads them, and the requests to the agent.
#include "services/netconf/agent.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "p_app.pb-c.h"
#include "p_mng.pb-c.h"
#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using netconf::Database;
using netconf::DatabaseLost;
using netconf::PolicyRequest;
using netconf::RequestFailed;

namespace {

using std::chrono::milliseconds;

constexpr const char* kAnswers = "mom/3/p_mng.ui_operate";
constexpr const char* kNotRunning = "the loop-detection agent is not running; nothing was changed";

std::string packed_policy(uint32_t policy) {
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = policy;
    std::string packed(p_app__lda_nc_policy__get_packed_size(&record), '\0');
    p_app__lda_nc_policy__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
    return packed;
}

std::string packed_entry(std::string name, uint32_t policy, bool src_port) {
    PApp__LdaLoopEntryIndex index = P_APP__LDA_LOOP_ENTRY_INDEX__INIT;
    index.name = name.data();
    PApp__LdaLoopEntry record = P_APP__LDA_LOOP_ENTRY__INIT;
    record.index = &index;
    record.policy = policy;
    record.src_port = src_port ? 1 : 0;
    std::string packed(p_app__lda_loop_entry__get_packed_size(&record), '\0');
    p_app__lda_loop_entry__pack(&record, reinterpret_cast<uint8_t*>(packed.data()));
    return packed;
}

// An answer of the agent; `indexed` and `judged` leave its parts out.
struct Answer {
    std::string publisher;
    int type = 0;
    int oid = 0;
    int result = 0;
    bool indexed = true;
    bool judged = true;

    std::string packed() const {
        std::string name = publisher;
        PMng__UiIndex index = P_MNG__UI_INDEX__INIT;
        index.publisher = name.data();
        index.type = type;
        index.oid = oid;
        PMng__OperateResult outcome = P_MNG__OPERATE_RESULT__INIT;
        outcome.result = result;
        PMng__UiOperate record = P_MNG__UI_OPERATE__INIT;
        record.index = indexed ? &index : nullptr;
        record.rst = judged ? &outcome : nullptr;
        std::string bytes(p_mng__ui_operate__get_packed_size(&record), '\0');
        p_mng__ui_operate__pack(&record, reinterpret_cast<uint8_t*>(bytes.data()));
        return bytes;
    }
};

// A request as the agent receives it.
struct Request {
    uint32_t policy = 0;
    int source = 0;
    Answer index;
};

Request request_in(const std::string& payload) {
    EXPECT_EQ(payload[0], '\0');  // set
    PApp__LdaNcPolicy* const record = p_app__lda_nc_policy__unpack(
        nullptr, payload.size() - 1, reinterpret_cast<const uint8_t*>(payload.data()) + 1);
    const PMng__UiIndex& index = *record->rst->index;
    const Request request{
        .policy = record->loop_policy_cli,
        .source = static_cast<int>(record->rst->src),
        .index = {.publisher = index.publisher, .type = index.type, .oid = index.oid}};
    p_app__lda_nc_policy__free_unpacked(record, nullptr);
    return request;
}

class Agent : public testing::Test {
 protected:
    void SetUp() override { reset_interception(); }

    // An agent that calls `react` with each request.
    void run_agent(std::function<void(const Request&)> react) {
        peer_.set_other_listeners(1);
        peer_.on_publish([this, react = std::move(react)](const std::string& channel,
                                                          const std::string& payload) {
            EXPECT_EQ(channel, "mom/3/p_app.lda_nc_policy");
            requests_.push_back(request_in(payload));
            react(requests_.back());
        });
    }

    void answer(const Answer& answer, char operation = '\2') {
        peer_.publish(kAnswers, operation + answer.packed());
    }

    // "done", or why the request failed.
    std::string outcome(PolicyRequest request = PolicyRequest::kSet, uint32_t policy = 2,
                        netconf::Deadline deadline = netconf::Deadline::max()) {
        try {
            netconf::request_policy({peer_.socket()}, request, policy, deadline);
            return "done";
        } catch (const RequestFailed& failed) {
            return failed.what();
        }
    }

    std::vector<std::string> looped_names() {
        Database database({peer_.socket()});
        std::vector<std::string> names;
        for (const netconf::LoopedPort& port : looped_ports(database)) {
            names.push_back(port.name);
        }
        return names;
    }

    Folder folder_;
    std::vector<Request> requests_;
    DatabasePeer peer_{folder_.path("redis.sock")};  // last: its thread uses the others
};

TEST_F(Agent, PolicyIsThatOfTheConfigurationDatabase) {
    Database database({peer_.socket()});
    EXPECT_EQ(published_policy(database), std::nullopt);
    peer_.store(3, "p_app.lda_nc_policy/", packed_policy(1));
    EXPECT_EQ(published_policy(database), std::nullopt);
    peer_.store(22, "p_app.lda_nc_policy/", packed_policy(7));
    EXPECT_EQ(published_policy(database), 7U);
    peer_.store(22, "p_app.lda_nc_policy/", "");
    EXPECT_EQ(published_policy(database), 0U);
}

TEST_F(Agent, PolicyThatDoesNotUnpackIsAFault) {
    peer_.store(22, "p_app.lda_nc_policy/", "garbage");
    Database database({peer_.socket()});
    try {
        published_policy(database);
        FAIL() << "no fault";
    } catch (const DatabaseLost& lost) {
        EXPECT_STREQ(lost.what(), "the agent's policy record does not unpack");
    }
}

TEST_F(Agent, LoopedPortsAreSortedByName) {
    peer_.store(4, "p_app.lda_loop_entry/name=1", packed_entry("swp3", 1, false));
    peer_.store(4, "p_app.lda_loop_entry/name=2", packed_entry("swp1", 0, true));
    peer_.store(4, "p_app.lda_loop_entry/name=3", packed_entry("swp2", 1, true));
    Database database({peer_.socket()});
    const auto ports = looped_ports(database);
    ASSERT_EQ(ports.size(), 3U);
    EXPECT_EQ(ports[0].name, "swp1");
    EXPECT_EQ(ports[0].policy, 0U);
    EXPECT_TRUE(ports[0].src_port);
    EXPECT_EQ(ports[1].name, "swp2");
    EXPECT_TRUE(ports[1].src_port);
    EXPECT_EQ(ports[2].name, "swp3");
    EXPECT_EQ(ports[2].policy, 1U);
    EXPECT_FALSE(ports[2].src_port);
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
}

TEST_F(Agent, NamesThatNoPortCanHaveAreLeftOut) {
    int number = 0;
    const auto store = [&](const std::string& packed) {
        peer_.store(4, "p_app.lda_loop_entry/name=" + std::to_string(number++), packed);
    };
    const std::vector<std::string> good{" a~", std::string(63, 'x')};
    for (const std::string& name : good) {
        store(packed_entry(name, 0, true));
    }
    const std::vector<std::string> bad{"",      std::string(64, 'x'), "a\x1f",
                                       "a\x7f", "\xc3\xbc",           "a\nb"};
    for (const std::string& name : bad) {
        store(packed_entry(name, 0, true));
    }
    store("garbage");
    store("");  // without an index
    EXPECT_EQ(looped_names(), good);
    EXPECT_EQ(logged(),
              std::vector<LogLine>(
                  8, {LOG_WARNING, "an invalid loop entry of the object database is skipped"}));
}

TEST_F(Agent, RequestNamesThePolicyAndTheRequester) {
    run_agent([this](const Request& request) { answer(request.index); });
    EXPECT_EQ(outcome(PolicyRequest::kSet, 4), "done");
    EXPECT_EQ(outcome(PolicyRequest::kDelete, 0), "done");
    EXPECT_EQ(outcome(PolicyRequest::kRemove, 0), "done");
    ASSERT_EQ(requests_.size(), 3U);
    EXPECT_EQ(requests_[0].policy, 4U);
    EXPECT_EQ(requests_[1].policy, 0U);
    EXPECT_EQ(requests_[0].source, 2);  // NETCONF
    EXPECT_EQ(requests_[0].index.publisher, "netconf-" + std::to_string(getpid()));
    EXPECT_EQ(requests_[0].index.type, 2);
    EXPECT_EQ(requests_[1].index.type, 3);
    EXPECT_EQ(requests_[2].index.type, 4);
    EXPECT_EQ(requests_[1].index.oid, requests_[0].index.oid + 1);
    EXPECT_EQ(requests_[2].index.oid, requests_[1].index.oid + 1);
}

TEST_F(Agent, AnswerIsListenedForBeforeTheRequestIsSent) {
    run_agent([this](const Request& request) { answer(request.index); });
    EXPECT_EQ(outcome(), "done");
    const auto commands = peer_.commands();
    ASSERT_EQ(commands.size(), 6U);
    EXPECT_EQ(commands[0], "0 PUBSUB NUMSUB mom/3/p_app.lda_nc_policy");
    EXPECT_EQ(commands[1], "0 SUBSCRIBE mom/3/p_mng.ui_operate");
    EXPECT_EQ(commands[2], "3 MULTI");
    EXPECT_EQ(commands[3].substr(0, 27), "3 SET p_app.lda_nc_policy/ ");
    EXPECT_EQ(commands[5], "3 EXEC");
}

TEST_F(Agent, NothingIsWrittenWhenNoAgentListens) {
    EXPECT_EQ(outcome(), kNotRunning);
    EXPECT_EQ(peer_.commands(),
              std::vector<std::string>{"0 PUBSUB NUMSUB mom/3/p_app.lda_nc_policy"});
}

TEST_F(Agent, AgentThatEndsBeforeTheRequestArrivesIsNotWaitedFor) {
    peer_.set_other_listeners(1);
    peer_.answer("EXEC", array({"+OK\r\n", integer(0)}));
    EXPECT_EQ(outcome(), kNotRunning);
}

TEST_F(Agent, RefusalNamesTheResult) {
    for (const int result : {1, 2, -1}) {
        run_agent([this, result](const Request& request) {
            Answer refusal = request.index;
            refusal.result = result;
            answer(refusal);
        });
        EXPECT_EQ(outcome(), "the loop-detection agent refused the request (result " +
                                 std::to_string(result) + "); nothing was changed");
    }
}

TEST_F(Agent, OnlyTheAnswerToTheRequestCounts) {
    run_agent([this](const Request& request) {
        Answer other = request.index;
        other.result = 1;
        answer(other, '\1');  // deleted
        Answer changed = other;
        changed.publisher += "0";
        answer(changed);
        changed = other;
        changed.type++;
        answer(changed);
        changed = other;
        changed.oid--;
        answer(changed);
        changed = other;
        changed.indexed = false;
        answer(changed);
        changed = other;
        changed.judged = false;
        answer(changed);
        peer_.publish(kAnswers, "\2garbage");
        answer(request.index, '\0');  // stored rather than published: an answer anyway
        answer(other);
    });
    EXPECT_EQ(outcome(), "done");
}

TEST_F(Agent, SilentAgentIsWaitedForTwoSeconds) {
    freeze_clock();
    run_agent([this](const Request& request) {
        Answer other = request.index;
        other.oid++;
        answer(other);
    });
    std::vector<int> waits;
    int looks = 0;
    on_poll([&](pollfd* watched, nfds_t count, int timeout_ms) {
        const timespec at_once{};
        const int ready = ppoll(watched, count, &at_once, nullptr);
        if (++looks > 1000) {
            throw std::runtime_error("the wait does not end");
        }
        if (timeout_ms > 0) {
            waits.push_back(timeout_ms);
            advance_clock(milliseconds(timeout_ms == 2000 ? 1999 : 1));
        }
        return ready;
    });
    EXPECT_EQ(outcome(),
              "the loop-detection agent did not answer within 2 s; the agent may still do what was "
              "asked");
    EXPECT_EQ(waits, (std::vector<int>{2000, 1}));
}

TEST_F(Agent, DatabaseLostAfterTheRequestLeavesItOpen) {
    run_agent([this](const Request&) { peer_.hang_up(); });
    EXPECT_EQ(outcome(),
              "the object database went away: the object database does not answer: Server closed "
              "the connection; the agent may still do what was asked");
}

TEST_F(Agent, MissingDatabaseIsNotReportedAsTheAgentsFault) {
    EXPECT_THROW(netconf::request_policy({folder_.path("nobody.sock")}, PolicyRequest::kSet, 1),
                 DatabaseLost);
}

TEST_F(Agent, AnswerIsNotWaitedForBeyondTheDeadline) {
    freeze_clock();
    run_agent([](const Request&) { advance_clock(milliseconds(1500)); });
    EXPECT_EQ(
        outcome(PolicyRequest::kSet, 2, std::chrono::steady_clock::now() + milliseconds(1500)),
        "the loop-detection agent did not answer in time; the agent may still do what was "
        "asked");
}

}  // namespace
