#include "services/tarnd/take_over.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/manual_clock.h"

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Ports = std::vector<uint32_t>;

struct Switch final : TakeOverOutputs {
    bool ask() override {
        ++asked;
        return reachable;
    }
    bool has_record(uint32_t ifx) override { return recorded.contains(ifx); }
    void give_back(uint32_t ifx) override { given_back.push_back(ifx); }

    int asked = 0;
    bool reachable = true;
    std::set<uint32_t> recorded{7, 8};
    Ports given_back;
};

struct TakeOverTest : testing::Test {
    void pass(Duration time) { test::run_for(loop, clock, time); }
    Ports given_back() { return std::exchange(the_switch.given_back, {}); }

    test::ManualClock clock;
    EventLoop loop{clock};
    Switch the_switch;
    TakeOver take_over{loop, the_switch};
};

TEST_F(TakeOverTest, APortThatItsRecordSaysIsNotShutIsGivenBackAfterFiveSeconds) {
    take_over.set_database(true);
    take_over.cut(7);
    take_over.not_taken(7);  // written before the cut
    pass(milliseconds(4900));
    EXPECT_EQ(the_switch.asked, 0);
    pass(milliseconds(200));
    EXPECT_EQ(the_switch.asked, 1);
    EXPECT_EQ(given_back(), Ports{});
    take_over.not_taken(7);
    EXPECT_EQ(given_back(), Ports{7});
    pass(seconds(60));
    EXPECT_EQ(given_back(), Ports{});
}

TEST_F(TakeOverTest, APortThatTheSwitchHasShutIsItsOwn) {
    take_over.set_database(true);
    take_over.cut(7);
    take_over.cut(8);
    EXPECT_TRUE(take_over.taken(7));
    EXPECT_FALSE(take_over.taken(7));
    pass(milliseconds(5100));
    EXPECT_TRUE(take_over.taken(8));  // the answer
    pass(seconds(60));
    EXPECT_EQ(given_back(), Ports{});
}

TEST_F(TakeOverTest, WhileTheDatabaseIsAwayAPortIsKept) {
    take_over.cut(7);
    pass(seconds(60));
    EXPECT_EQ(given_back(), Ports{});
    take_over.set_database(true);
    pass(seconds(4));
    take_over.set_database(false);
    take_over.not_taken(7);
    pass(seconds(60));
    EXPECT_EQ(given_back(), Ports{});
    take_over.set_database(true);
    pass(milliseconds(5100));
    EXPECT_EQ(the_switch.asked, 1);
    take_over.not_taken(7);
    EXPECT_EQ(given_back(), Ports{7});
}

TEST_F(TakeOverTest, WhatADatabaseThatIsBackSaysCountsAfterTheWait) {
    take_over.cut(7);
    take_over.set_database(true);
    EXPECT_FALSE(take_over.taken(7)) << "it may have been written before the cut";
    pass(milliseconds(5100));
    take_over.not_taken(7);
    EXPECT_EQ(given_back(), Ports{7});

    take_over.cut(8);
    take_over.set_database(false);
    take_over.set_database(true);
    EXPECT_FALSE(take_over.taken(8));
    pass(milliseconds(5100));
    EXPECT_TRUE(take_over.taken(8));
}

TEST_F(TakeOverTest, AServerThatDoesNotAnswerIsAskedAgain) {
    take_over.set_database(true);
    take_over.cut(7);
    pass(milliseconds(11100));
    EXPECT_EQ(the_switch.asked, 2);
    EXPECT_EQ(given_back(), Ports{});
    the_switch.reachable = false;
    pass(seconds(60));
    EXPECT_EQ(given_back(), Ports{});
}

TEST_F(TakeOverTest, APortWithoutARecordIsGivenBack) {
    take_over.set_database(true);
    take_over.cut(9);
    pass(milliseconds(6100));
    EXPECT_EQ(given_back(), Ports{9});
}

TEST_F(TakeOverTest, ReleaseNamesThePortsThatWait) {
    take_over.cut(8);
    take_over.cut(7);
    EXPECT_EQ(take_over.release(), (Ports{7, 8}));
    EXPECT_EQ(take_over.release(), Ports{});
}

}  // namespace
}  // namespace qv::tarnd
