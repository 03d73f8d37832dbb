// The lease of the master role in virtual time: agents with a loop of their own each, and a store
// that the test stops, empties and rolls back.
#include "platform/client/lease.h"

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr Duration kStep = 10ms;

// A server. Requests wait for serve(), in order, as in the sockets of a stopped process.
struct Store {
    std::string text;
    bool stopped = false;
    std::deque<std::function<void()>> requests;

    void serve() {
        while (!stopped && !requests.empty()) {
            const std::function<void()> request = std::move(requests.front());
            requests.pop_front();
            request();
        }
    }
};

// A connection to it. A lost one gets no answers, but what it has sent is still executed.
class PlayedDriver final : public LeaseDriver {
 public:
    PlayedDriver(EventLoop& loop, Store& store) : loop_(loop), store_(store) {}

    void connect(LeaseListener& listener) override {
        listener_ = &listener;
        reach();
    }
    void read(Answer answer) override {
        request([this] { return store_.text; }, std::move(answer));
    }
    void replace(const std::string& expected, const std::string& wanted, Answer answer) override {
        request(
            [this, expected, wanted] {
                if (store_.text == expected) {
                    store_.text = wanted;
                }
                return store_.text;
            },
            std::move(answer));
    }

    void reach() {
        up_ = true;
        loop_.post([this, made = connections_] {
            if (made == connections_) {
                listener_->lease_reached();
            }
        });
    }
    void lose(const std::string& reason) {
        up_ = false;
        ++connections_;
        loop_.post([this, reason] { listener_->lease_unreachable(reason); });
    }

 private:
    void request(std::function<std::string()> execute, Answer answer) {
        if (up_) {
            store_.requests.push_back([this, execute = std::move(execute),
                                       answer = std::move(answer), made = connections_] {
                loop_.post([this, text = execute(), answer, made] {
                    if (made == connections_) {
                        answer(text);
                    }
                });
            });
        }
    }

    EventLoop& loop_;
    Store& store_;
    LeaseListener* listener_ = nullptr;
    bool up_ = false;
    int connections_ = 0;
};

// A process: "a" has token ta, host ha, and the number 11.
struct Agent {
    Agent(test::ManualClock& clock, Store& store, const std::string& name, uint64_t pid,
          uint64_t time_ms = 3000)
        : loop(clock),
          driver(loop, store),
          lease(loop, driver,
                {.time = std::chrono::milliseconds(time_ms),
                 .mine = {.fence = 0,
                          .count = 0,
                          .time_ms = time_ms,
                          .token = "t" + name,
                          .host = "h" + name,
                          .pid = pid}},
                {.granted =
                     [this](const std::optional<LeaseText>& before) {
                         ++granted;
                         predecessor = before;
                         loop.check_before_work([this] { lease.check(); });
                     },
                 .lost = [this](const std::string& reason) { lost.push_back(reason); },
                 .trouble =
                     [this](const std::string& reason) {
                         troubles.push_back(reason);
                     }}) {
        lease.start();
    }

    bool acts() const { return !stopped && !killed && lease.state().master; }

    EventLoop loop;
    PlayedDriver driver;
    Lease lease;
    bool stopped = false;  // as by SIGSTOP
    bool killed = false;
    int granted = 0;
    std::optional<LeaseText> predecessor;
    Lines lost;
    Lines troubles;
};

class LeaseTest : public ::testing::Test {
 protected:
    Agent& start(const std::string& name, uint64_t pid, uint64_t time_ms = 3000) {
        agents.push_back(std::make_unique<Agent>(clock, store, name, pid, time_ms));
        return *agents.back();
    }
    // Everything that can run now; two turns for an answer to an answer, twice.
    void settle() {
        for (int turn = 0; turn < 4; ++turn) {
            for (const auto& agent : agents) {
                if (!agent->stopped && !agent->killed && agent->lost.empty()) {
                    test::run_ready(agent->loop, clock);
                }
            }
            store.serve();
        }
        int acting = 0;
        for (const auto& agent : agents) {
            acting += agent->acts() ? 1 : 0;
        }
        most_acting = std::max(most_acting, acting);
    }
    void run_for(Duration time) {
        settle();
        for (Duration passed{}; passed < time; passed += kStep) {
            clock.advance(kStep);
            settle();
        }
    }
    // As a server that ends and starts again with this text.
    void restart(const std::string& text) {
        store.requests.clear();
        store.text = text;
        for (const auto& agent : agents) {
            agent->driver.lose("the server closed the connection");
            agent->driver.reach();
        }
    }
    // The first agent, as the master since now.
    Agent& master() {
        Agent& first = start("a", 11);
        run_for(3s);
        EXPECT_EQ(store.text, "1 0 3000 ta ha 11");
        return first;
    }

    test::ManualClock clock;
    Store store;
    std::vector<std::unique_ptr<Agent>> agents;
    int most_acting = 0;
};

TEST(LeaseText, IsSixWordsAndNothingElse) {
    const LeaseText lease{
        .fence = 7, .count = 12, .time_ms = 3000, .token = "c0ffee", .host = "sw1", .pid = 4711};
    EXPECT_EQ(lease_text(lease), "7 12 3000 c0ffee sw1 4711");
    EXPECT_EQ(parse_lease("7 12 3000 c0ffee sw1 4711"), lease);
    for (const char* const damaged :
         {"", " ", "7 12 3000 c0ffee sw1", "7 12 3000 c0ffee sw1 4711 ",
          "7 12 3000 c0ffee sw1 4711 x", "7 12 3000  sw1 4711", "7 12 3000 c0ffee  4711",
          "-7 12 3000 c0ffee sw1 4711", "7x 12 3000 c0ffee sw1 4711", "7 +1 3000 c0ffee sw1 4711",
          "7 12 3s c0ffee sw1 4711", "7 12 3000 c0ffee sw1 pid", "7 12 3000 c0ffee s\tw1 4711",
          "1000000000000001 12 3000 c0ffee sw1 4711"}) {
        EXPECT_EQ(parse_lease(damaged), std::nullopt) << '"' << damaged << '"';
    }
    EXPECT_NE(parse_lease("1000000000000000 12 3000 c0ffee sw1 4711"), std::nullopt);
    const std::string longest = "7 12 3000 c0ffee " + std::string(234, 'h') + " 4711";
    ASSERT_EQ(longest.size(), 256U);
    EXPECT_NE(parse_lease(longest), std::nullopt);
    EXPECT_EQ(parse_lease(longest + "1"), std::nullopt);
}

TEST_F(LeaseTest, FreeLeaseIsTakenAfterItsTimeAndNotBefore) {
    const Agent& agent = start("a", 11);
    run_for(2990ms);
    EXPECT_EQ(agent.granted, 0);
    EXPECT_EQ(store.text, "");
    run_for(10ms);
    EXPECT_EQ(agent.granted, 1);
    EXPECT_EQ(agent.predecessor, std::nullopt);
    EXPECT_EQ(store.text, "1 0 3000 ta ha 11");
}

TEST_F(LeaseTest, MasterRenewsAtAThirdOfTheTime) {
    const Agent& agent = master();
    run_for(990ms);
    EXPECT_EQ(store.text, "1 0 3000 ta ha 11");
    run_for(10ms);
    EXPECT_EQ(store.text, "1 1 3000 ta ha 11");
    EXPECT_EQ(agent.lease.state().left, 2700ms);
    EXPECT_EQ(agent.lease.state().fence, 1U);
    run_for(60s);
    EXPECT_EQ(store.text, "1 61 3000 ta ha 11");
    EXPECT_EQ(agent.granted, 1);
    EXPECT_EQ(agent.lost, Lines{});
}

TEST_F(LeaseTest, StandbyWaitsAsLongAsTheMasterLives) {
    const Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(60s);
    EXPECT_TRUE(first.lease.state().master);
    EXPECT_EQ(second.granted, 0);
    EXPECT_FALSE(second.lease.state().master);
    EXPECT_EQ(most_acting, 1);
}

TEST_F(LeaseTest, StandbyTakesOverWhenTheLeaseOfAKilledMasterEnds) {
    Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(1s);  // renewed in this moment
    first.killed = true;
    run_for(2990ms);
    EXPECT_EQ(second.granted, 0) << "the lease still runs";
    run_for(260ms);
    EXPECT_EQ(second.granted, 1);
    ASSERT_TRUE(second.predecessor);
    EXPECT_EQ(lease_text(*second.predecessor), "1 1 3000 ta ha 11");
    EXPECT_EQ(store.text, "2 0 3000 tb hb 12");
}

TEST_F(LeaseTest, OfSeveralThatTryOneSucceeds) {
    const Agent& first = start("a", 11);
    const Agent& second = start("b", 12);
    const Agent& third = start("c", 13);
    run_for(20s);
    EXPECT_EQ(first.granted + second.granted + third.granted, 1);
    EXPECT_EQ(most_acting, 1);
    EXPECT_EQ(first.troubles, Lines{}) << "being late is no fault";
}

TEST_F(LeaseTest, MasterThatGetsNoAnswerEndsATenthBeforeTheOthersMayBegin) {
    const Agent& first = master();
    store.stopped = true;
    run_for(2690ms);
    EXPECT_TRUE(first.lease.state().master);
    EXPECT_EQ(first.lost, Lines{});
    run_for(10ms);
    EXPECT_FALSE(first.lease.state().master);
    EXPECT_EQ(first.lost, Lines{"the lease was not renewed in time (the server did not answer, or "
                                "this process was stopped)"});
}

// The moment that counts is that of the request, not that of its answer.
TEST_F(LeaseTest, TimeOfALeaseBeginsWhenItIsAskedFor) {
    const Agent& first = master();
    run_for(900ms);
    store.stopped = true;
    run_for(1s);  // asked after 100 ms of it
    store.stopped = false;
    settle();
    EXPECT_EQ(first.lease.state().left, 1800ms);
}

TEST_F(LeaseTest, MasterNamesTheTroubleThatKeptItFromRenewing) {
    Agent& first = master();
    first.driver.lose("No such file or directory");
    run_for(2700ms);
    EXPECT_EQ(first.troubles, Lines{"No such file or directory"});
    EXPECT_EQ(first.lost, Lines{"the lease was not renewed in time (No such file or directory)"});
}

TEST_F(LeaseTest, StoppedStoreMakesNoSecondMaster) {
    const Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(500ms);
    store.stopped = true;
    run_for(20s);
    EXPECT_EQ(first.lost.size(), 1U);
    EXPECT_EQ(second.granted, 0) << "nothing proves that the lease is free";
    store.stopped = false;
    run_for(3250ms);
    EXPECT_EQ(second.granted, 1);
    EXPECT_EQ(most_acting, 1);
}

// The store executes it when it continues: that costs the standby one more lease, and nothing else.
TEST_F(LeaseTest, LateRenewalOfADeadMasterOnlyDelaysTheNext) {
    Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(800ms);
    store.stopped = true;
    run_for(300ms);  // the renewal waits in the store
    first.killed = true;
    run_for(10s);
    store.stopped = false;
    run_for(2990ms);
    EXPECT_EQ(store.text, "1 1 3000 ta ha 11");
    run_for(260ms);
    EXPECT_EQ(second.granted, 1);
    EXPECT_EQ(store.text, "2 0 3000 tb hb 12");
}

TEST_F(LeaseTest, StoppedMasterFindsOutBeforeItsFirstPieceOfWork) {
    Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(500ms);
    first.stopped = true;
    bool knew = false;
    first.loop.post([&] { knew = !first.lost.empty(); });
    run_for(10s);
    EXPECT_EQ(second.granted, 1);
    first.stopped = false;
    test::run_ready(first.loop, clock);
    EXPECT_TRUE(knew);
    ASSERT_EQ(first.lost.size(), 1U);
    EXPECT_EQ(most_acting, 1);
}

TEST_F(LeaseTest, MasterThatWasStoppedForLessThanItsLeaseContinues) {
    Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(1s);
    first.stopped = true;
    run_for(2690ms);
    first.stopped = false;
    run_for(10s);
    EXPECT_EQ(first.lost, Lines{});
    EXPECT_EQ(second.granted, 0);
}

TEST_F(LeaseTest, StandbyThatWasStoppedLooksAgainBeforeItTakesTheLease) {
    const Agent& first = master();
    Agent& second = start("b", 12);
    run_for(500ms);
    second.stopped = true;
    run_for(20s);
    second.stopped = false;
    run_for(20s);
    EXPECT_EQ(second.granted, 0);
    EXPECT_EQ(first.lost, Lines{});
}

TEST_F(LeaseTest, GrantThatArrivesTooLateIsNone) {
    Agent& first = master();
    Agent& second = start("b", 12);
    run_for(500ms);
    first.killed = true;
    while (store.text == "1 0 3000 ta ha 11") {
        clock.advance(kStep);
        test::run_ready(second.loop, clock);
        store.serve();
    }
    ASSERT_EQ(store.text, "2 0 3000 tb hb 12");
    ASSERT_EQ(second.granted, 0) << "its answer is on the way";
    second.stopped = true;
    run_for(2700ms);
    second.stopped = false;
    settle();
    EXPECT_EQ(second.granted, 0);
    run_for(3250ms);
    EXPECT_EQ(second.granted, 1) << "its own text is watched like any other";
    EXPECT_EQ(store.text, "3 0 3000 tb hb 12");
}

TEST_F(LeaseTest, MasterWritesALeaseThatTheStoreHasLostAgain) {
    const Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(1500ms);
    restart("");
    run_for(10s);
    EXPECT_EQ(first.lost, Lines{});
    EXPECT_EQ(second.granted, 0);
    EXPECT_EQ(store.text.substr(0, 2), "1 ");
}

TEST_F(LeaseTest, EmptyStoreIsTakenOnlyAfterTheTimeOfALease) {
    Agent& first = master();
    const Agent& second = start("b", 12);
    run_for(500ms);
    first.killed = true;
    restart("");
    run_for(2990ms);
    EXPECT_EQ(second.granted, 0) << "somebody may hold a lease that the store has lost";
    run_for(10ms);
    EXPECT_EQ(second.granted, 1);
    EXPECT_EQ(store.text, "2 0 3000 tb hb 12") << "the fencing number goes on";
}

TEST_F(LeaseTest, FencingNumberNeverFallsBackWithTheStore) {
    store.text = "5 0 3000 tb hb 12";
    const Agent& first = start("a", 11);
    run_for(100ms);
    restart("2 0 3000 tc hc 13");
    run_for(3s);
    EXPECT_EQ(first.granted, 1);
    EXPECT_EQ(store.text, "6 0 3000 ta ha 11");
}

// A server that restarts from its disk may show the very text that a standby has watched, although
// it was renewed in the meantime.
TEST_F(LeaseTest, NewConnectionStartsTheWatchAgain) {
    Agent& first = master();
    Agent& second = start("b", 12);
    run_for(990ms);
    const std::string watched = store.text;
    second.stopped = true;
    run_for(20ms);
    ASSERT_NE(store.text, watched);
    restart(watched);
    first.stopped = true;
    second.stopped = false;
    run_for(2900ms);
    EXPECT_EQ(second.granted, 0);
    run_for(350ms);
    EXPECT_EQ(second.granted, 1);
}

TEST_F(LeaseTest, MasterContinuesFromAnOlderTextOfItsOwn) {
    const Agent& first = master();
    run_for(5s);
    ASSERT_EQ(store.text, "1 5 3000 ta ha 11");
    restart("1 2 3000 ta ha 11");
    settle();
    EXPECT_EQ(store.text, "1 6 3000 ta ha 11") << "a number that nobody has seen";
    EXPECT_EQ(first.lost, Lines{});
}

TEST_F(LeaseTest, RenewalWhoseAnswerWasLostIsRecognised) {
    Agent& first = master();
    run_for(990ms);
    store.stopped = true;
    run_for(20ms);
    first.driver.lose("the server closed the connection");
    store.stopped = false;
    store.serve();
    ASSERT_EQ(store.text, "1 1 3000 ta ha 11");
    first.driver.reach();
    run_for(10s);
    EXPECT_EQ(first.lost, Lines{});
}

TEST_F(LeaseTest, MasterEndsWhenAnotherProcessHoldsTheLease) {
    const Agent& first = master();
    store.text = "5 3 3000 tb hb 12";
    run_for(1s);
    EXPECT_EQ(first.lost, Lines{"process 12 on hb holds the lease, with fencing number 5"});
    EXPECT_EQ(store.text, "5 3 3000 tb hb 12");
}

// Process numbers return, and hosts may share a name.
TEST_F(LeaseTest, OwnTextIsKnownByItsTokenAlone) {
    const Agent& first = master();
    store.text = "2 0 3000 other ha 11";
    run_for(1s);
    EXPECT_EQ(first.lost, Lines{"process 11 on ha holds the lease, with fencing number 2"});
}

TEST_F(LeaseTest, MasterEndsWhenAnotherProgramWritesTheLease) {
    const Agent& first = master();
    store.text = "nonsense";
    run_for(1s);
    EXPECT_EQ(first.lost, Lines{"another program has written the lease"});
}

TEST_F(LeaseTest, EndedMasterDoesNothingMore) {
    Agent& first = master();
    store.text = "nonsense";
    run_for(1s);
    ASSERT_EQ(first.lost.size(), 1U);
    const std::string left = store.text;
    first.driver.lose("gone");
    first.driver.reach();
    test::run_for(first.loop, clock, 10s);
    store.serve();
    test::run_for(first.loop, clock, 10s);
    EXPECT_EQ(first.lost.size(), 1U);
    EXPECT_EQ(first.troubles, Lines{});
    EXPECT_EQ(store.text, left);
}

TEST_F(LeaseTest, TextThatIsNoLeaseIsReplacedAfterTheTimeOfALease) {
    store.text = "nonsense";
    const Agent& first = start("a", 11);
    run_for(2990ms);
    EXPECT_EQ(first.granted, 0);
    run_for(10ms);
    EXPECT_EQ(first.granted, 1);
    EXPECT_EQ(first.predecessor, std::nullopt);
    EXPECT_EQ(store.text, "1 0 3000 ta ha 11");
}

TEST_F(LeaseTest, LongerLeaseOfAnotherAgentIsRespected) {
    store.text = "4 9 9000 tb hb 12";
    const Agent& first = start("a", 11, 1500);
    run_for(8990ms);
    EXPECT_EQ(first.granted, 0);
    run_for(10ms);
    EXPECT_EQ(first.granted, 1);
    EXPECT_EQ(store.text, "5 0 1500 ta ha 11");
}

TEST_F(LeaseTest, ShorterLeaseOfAnotherAgentShortensNothing) {
    store.text = "4 9 1000 tb hb 12";
    const Agent& first = start("a", 11);
    run_for(2990ms);
    EXPECT_EQ(first.granted, 0);
}

TEST_F(LeaseTest, NobodyHoldsALeaseForMoreThanAMinute) {
    store.text = "4 9 999999999999999 tb hb 12";
    const Agent& first = start("a", 11);
    run_for(59990ms);
    EXPECT_EQ(first.granted, 0);
    run_for(10ms);
    EXPECT_EQ(first.granted, 1);
}

TEST_F(LeaseTest, EachTroubleIsReportedOnceUntilTheStoreAnswers) {
    Agent& first = start("a", 11);
    run_for(100ms);
    for (int attempt = 0; attempt < 5; ++attempt) {
        first.driver.lose("NOPERM");
        settle();
    }
    first.driver.lose("Connection refused");
    settle();
    EXPECT_EQ(first.troubles, (Lines{"NOPERM", "Connection refused"}));
    first.driver.reach();
    settle();
    first.driver.lose("Connection refused");
    settle();
    EXPECT_EQ(first.troubles.size(), 3U) << "news after an answer";
}

// Agents and store are stopped, killed, restarted and rolled back at random.
TEST_F(LeaseTest, SeededDisturbancesNeverMakeTwoMasters) {
    std::mt19937 random(20261123);
    const auto below = [&random](unsigned limit) {
        return random() % limit;
    };
    start("a", 11, 1000);
    start("b", 12, 1000);
    start("c", 13, 1000);
    uint64_t pid = 14;
    int granted = 0;
    std::string old_text;
    for (int round = 0; round < 500; ++round) {
        switch (below(8)) {
            case 0:
                agents[below(3)]->stopped = true;
                break;
            case 1:
                agents[below(3)]->stopped = false;
                break;
            case 2: {
                const size_t one = below(3);
                store.requests.clear();  // they name the agent
                granted += agents[one]->granted;
                agents[one] = std::make_unique<Agent>(clock, store, std::to_string(pid), pid, 1000);
                ++pid;
                break;
            }
            case 3:
                store.stopped = !store.stopped;
                break;
            case 4:
                old_text = store.text;
                break;
            case 5:
                restart(below(2) == 0 ? "" : old_text);
                break;
            default:
                agents[below(3)]->stopped = false;
                store.stopped = false;
                break;
        }
        run_for(std::chrono::milliseconds(10 * below(120)));
        for (std::unique_ptr<Agent>& agent : agents) {
            if (!agent->lost.empty()) {  // as its supervisor does
                store.requests.clear();
                granted += agent->granted;
                agent = std::make_unique<Agent>(clock, store, std::to_string(pid), pid, 1000);
                ++pid;
            }
        }
        ASSERT_LE(most_acting, 1) << "round " << round;
    }
    EXPECT_GT(granted, 30) << "the role has changed hands";
}

}  // namespace
}  // namespace qv
