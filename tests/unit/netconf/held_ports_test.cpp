// The question for the ports that are held shut, and its answers.
#include "services/netconf/held_ports.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <syslog.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/netconf/held_answers.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using netconf::DatabaseLost;
using netconf::EventTime;
using netconf::held_ports;
using std::chrono::milliseconds;

namespace {

class HeldPortsOfTheAgent : public testing::Test {
 protected:
    void SetUp() override { reset_interception(); }

    std::vector<std::string> names() {
        std::vector<std::string> names;
        for (const netconf::HeldPort& port : held_ports({peer_.socket()})) {
            names.push_back(port.name);
        }
        return names;
    }

    Folder folder_;
    DatabasePeer peer_{folder_.path("redis.sock")};
};

TEST_F(HeldPortsOfTheAgent, EverythingItKnowsArrives) {
    answer_held_ports(peer_, {full_record(), {.name = "swp1"}});
    const auto ports = held_ports({peer_.socket()});
    ASSERT_EQ(ports.size(), 2U);
    EXPECT_EQ(ports[0].name, "swp2");
    EXPECT_EQ(ports[0].sources, (std::vector<std::string>{"tarn", "storm"}));
    EXPECT_EQ(ports[0].other_port, "swp3");
    EXPECT_EQ(ports[0].vlan, 20U);
    EXPECT_EQ(ports[0].since, EventTime(milliseconds(1001)));
    EXPECT_EQ(ports[0].recovers_at, EventTime(milliseconds(301'002)));
    EXPECT_EQ(ports[0].shut_last_day, 4U);
    EXPECT_TRUE(ports[0].still_looped);
    EXPECT_EQ(ports[0].rule, "interval 600");
    EXPECT_EQ(ports[0].refused, "too early");
    EXPECT_EQ(ports[1].name, "swp1");
    EXPECT_EQ(ports[1].sources, std::vector<std::string>{});
    EXPECT_EQ(ports[1].since, std::nullopt);
    EXPECT_EQ(ports[1].recovers_at, std::nullopt);
    EXPECT_FALSE(ports[1].still_looped);
}

TEST_F(HeldPortsOfTheAgent, ThereAreNoneWithoutAnAgent) {
    on_poll([](pollfd*, nfds_t, int) -> int { throw std::runtime_error("it waits"); });
    EXPECT_EQ(names(), std::vector<std::string>{});
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
}

TEST_F(HeldPortsOfTheAgent, AnswersToOthersAreNotMeant) {
    peer_.set_other_listeners(1);
    peer_.on_publish([this](const std::string& channel, const std::string& payload) {
        const std::string id = question_in(channel, payload);
        peer_.publish(kHeldAnswers, '\2' + held_answer(id + "0", {{.name = "other"}}));
        peer_.publish(kHeldAnswers, "\2garbage");
        peer_.publish(kHeldAnswers, "\2");
        peer_.publish(kHeldAnswers, '\2' + held_answer(id, {{.name = "own"}}));
    });
    EXPECT_EQ(names(), std::vector<std::string>{"own"});
}

TEST_F(HeldPortsOfTheAgent, QuestionsDiffer) {
    std::set<std::string> ids;
    peer_.set_other_listeners(1);
    peer_.on_publish([&](const std::string& channel, const std::string& payload) {
        const std::string id = question_in(channel, payload);
        ids.insert(id);
        peer_.publish(kHeldAnswers, '\2' + held_answer(id, {}));
    });
    names();
    names();
    EXPECT_EQ(ids.size(), 2U);
}

TEST_F(HeldPortsOfTheAgent, SilentAgentIsWaitedForOneSecond) {
    freeze_clock();
    peer_.set_other_listeners(1);
    std::vector<int> waits;
    on_poll([&](pollfd* watched, nfds_t count, int timeout_ms) {
        const timespec at_once{};
        const int ready = ppoll(watched, count, &at_once, nullptr);
        if (timeout_ms > 0) {
            waits.push_back(timeout_ms);
            advance_clock(milliseconds(timeout_ms == 1000 ? 999 : 1));
        }
        return ready;
    });
    EXPECT_EQ(names(), std::vector<std::string>{});
    EXPECT_EQ(waits, (std::vector<int>{1000, 1}));
    EXPECT_EQ(
        logged(),
        (std::vector<LogLine>{{LOG_WARNING, "the agent does not say which ports are held shut"}}));
}

TEST_F(HeldPortsOfTheAgent, LostDatabaseIsAFault) {
    peer_.set_other_listeners(1);
    peer_.on_publish([this](const std::string&, const std::string&) { peer_.hang_up(); });
    EXPECT_THROW(held_ports({peer_.socket()}), DatabaseLost);
    EXPECT_THROW(held_ports({folder_.path("nobody.sock")}), DatabaseLost);
}

TEST_F(HeldPortsOfTheAgent, AnswerOfAnUnknownFormIsAFault) {
    peer_.answer("PUBLISH", "+OK\r\n");
    EXPECT_THROW(held_ports({peer_.socket()}), DatabaseLost);
}

}  // namespace
