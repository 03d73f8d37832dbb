// The effect of every poll on a record, written out.
//
// '+' is a poll that saw one packet more than the rate allows in 4 seconds, '=' one that saw
// exactly what it allows. A change is a new rate for the interface, given between two polls.
#include "tests/unit/storm/storm_fixture.h"

namespace {

struct Step {
    char traffic = 0;
    uint32_t flow_over_times = 0;
    uint32_t unloop_times = 0;
    int32_t timer_notify = 0;
    uint8_t is_loop = 0;
    const char* verdicts = "";  // the is_loop of every notification of this step
    uint32_t change = 0;
};

// clang-format off
const Step kLoopAndRemoval[] = {
    {'=', 0, 0, 1, 0, ""},
    {'=', 0, 0, 2, 0, ""},
    {'=', 0, 0, 3, 0, ""},
    {'=', 0, 0, 4, 0, ""},
    {'=', 0, 0, 5, 0, ""},
    {'+', 1, 0, 6, 0, ""},
    {'+', 2, 0, 7, 0, ""},
    {'+', 3, 0, 8, 1, "1"},
    {'+', 4, 0, 9, 1, ""},
    {'+', 5, 0, 10, 1, ""},
    {'+', 6, 0, 11, 1, ""},
    {'+', 7, 0, 12, 1, ""},
    {'+', 8, 0, 13, 1, ""},
    {'+', 9, 0, 14, 1, ""},
    {'+', 10, 0, 15, 1, ""},
    {'+', 11, 0, 16, 1, ""},
    {'+', 12, 0, 17, 1, ""},
    {'+', 13, 0, 18, 1, ""},
    {'+', 14, 0, 19, 1, ""},
    {'+', 15, 0, 20, 1, ""},
    {'+', 16, 0, 21, 1, ""},
    {'+', 17, 0, 0, 1, "1"},
    {'+', 18, 0, 1, 1, ""},
    {'+', 19, 0, 2, 1, ""},
    {'+', 20, 0, 3, 1, ""},
    {'+', 21, 0, 4, 1, ""},
    {'+', 22, 0, 5, 1, ""},
    {'+', 23, 0, 6, 1, ""},
    {'+', 24, 0, 7, 1, ""},
    {'+', 25, 0, 8, 1, ""},
    {'+', 26, 0, 9, 1, ""},
    {'+', 27, 0, 10, 1, ""},
    {'+', 28, 0, 11, 1, ""},
    {'+', 29, 0, 12, 1, ""},
    {'+', 30, 0, 13, 1, ""},
    {'=', 0, 1, 14, 1, ""},
    {'=', 0, 2, 15, 1, ""},
    {'=', 0, 3, 16, 1, ""},
    {'=', 0, 4, 17, 1, ""},
    {'=', 0, 5, 18, 1, ""},
    {'=', 0, 6, 19, 1, ""},
    {'=', 0, 7, 20, 1, ""},
    {'=', 0, 8, 21, 1, ""},
    {'=', 0, 9, 0, 1, "1"},
    {'=', 0, 0, 1, 0, "0"},
    {'=', 0, 0, 2, 0, ""},
    {'=', 0, 0, 3, 0, ""},
    {'+', 1, 0, 4, 0, ""},
    {'+', 2, 0, 5, 0, ""},
    {'=', 0, 0, 6, 0, ""},
    {'+', 1, 0, 7, 0, ""},
    {'+', 2, 0, 8, 0, ""},
    {'=', 0, 0, 9, 0, ""},
    {'+', 1, 0, 10, 0, ""},
    {'+', 2, 0, 11, 0, ""},
    {'=', 0, 0, 12, 0, ""},
    {'+', 1, 0, 13, 0, ""},
    {'+', 2, 0, 14, 0, ""},
    {'=', 0, 0, 15, 0, ""},
    {'+', 1, 0, 16, 0, ""},
    {'+', 2, 0, 17, 0, ""},
    {'=', 0, 0, 18, 0, ""},
    {'+', 1, 0, 19, 0, ""},
    {'+', 2, 0, 20, 0, ""},
    {'=', 0, 0, 21, 0, ""},
};

const Step kRateChange[] = {
    {'=', 0, 0, 1, 0, ""},
    {'=', 0, 0, 2, 0, ""},
    {'=', 0, 0, 3, 0, ""},
    {'=', 0, 0, 4, 0, ""},
    {'=', 0, 0, 5, 0, ""},
    {'+', 1, 0, 6, 0, ""},
    {'+', 2, 0, 7, 0, ""},
    {'+', 3, 0, 8, 1, "1"},
    {'+', 4, 0, 9, 1, ""},
    {'+', 5, 0, 10, 1, ""},
    {'+', 6, 0, 11, 1, ""},
    {'+', 7, 0, 12, 1, ""},
    {'+', 8, 0, 13, 1, ""},
    {'+', 9, 0, 14, 1, ""},
    {'+', 10, 0, 15, 1, ""},
    {'+', 11, 0, 16, 1, ""},
    {'+', 12, 0, 17, 1, ""},
    {'+', 13, 0, 18, 1, ""},
    {'+', 14, 0, 19, 1, ""},
    {'+', 15, 0, 20, 1, ""},
    {'+', 16, 0, 21, 1, ""},
    {'+', 17, 0, 0, 1, "1"},
    {'+', 18, 0, 1, 1, ""},
    {'+', 19, 0, 2, 1, ""},
    {'+', 20, 0, 3, 1, ""},
    {'+', 21, 0, 4, 1, ""},
    {'+', 22, 0, 5, 1, ""},
    {'+', 23, 0, 6, 1, ""},
    {'+', 24, 0, 7, 1, ""},
    {'+', 25, 0, 8, 1, ""},
    {'+', 26, 0, 9, 1, ""},
    {'+', 27, 0, 10, 1, ""},
    {'+', 28, 0, 11, 1, ""},
    {'+', 29, 0, 12, 1, ""},
    {'+', 30, 0, 13, 1, ""},
    {.verdicts = "0", .change = 2000},
    {'=', 1, 0, 1, 0, ""},
    {'=', 0, 0, 2, 0, ""},
    {'=', 0, 0, 3, 0, ""},
    {'=', 0, 0, 4, 0, ""},
    {'=', 0, 0, 5, 0, ""},
    {'=', 0, 0, 6, 0, ""},
    {'=', 0, 0, 7, 0, ""},
    {'=', 0, 0, 8, 0, ""},
    {'=', 0, 0, 9, 0, ""},
    {'=', 0, 0, 10, 0, ""},
    {'=', 0, 0, 11, 0, ""},
    {'=', 0, 0, 12, 0, ""},
    {'+', 1, 0, 13, 0, ""},
    {'+', 2, 0, 14, 0, ""},
    {'=', 0, 0, 15, 0, ""},
    {'+', 1, 0, 16, 0, ""},
    {'+', 2, 0, 17, 0, ""},
    {'=', 0, 0, 18, 0, ""},
    {'+', 1, 0, 19, 0, ""},
    {'+', 2, 0, 20, 0, ""},
    {'=', 0, 0, 21, 0, ""},
    {'+', 1, 0, 0, 0, ""},
    {'+', 2, 0, 1, 0, ""},
    {'=', 0, 0, 2, 0, ""},
    {'+', 1, 0, 3, 0, ""},
    {'+', 2, 0, 4, 0, ""},
    {'=', 0, 0, 5, 0, ""},
    {'+', 1, 0, 6, 0, ""},
    {'+', 2, 0, 7, 0, ""},
    {'=', 0, 0, 8, 0, ""},
};

const Step kShortRuns[] = {
    {'+', 1, 0, 1, 0, ""},
    {'+', 2, 0, 2, 0, ""},
    {'+', 3, 0, 3, 1, "1"},
    {'=', 0, 1, 4, 1, ""},
    {'+', 1, 2, 5, 1, ""},
    {'+', 2, 3, 6, 1, ""},
    {'=', 0, 4, 7, 1, ""},
    {'+', 1, 5, 8, 1, ""},
    {'+', 2, 6, 9, 1, ""},
    {'=', 0, 7, 10, 1, ""},
    {'+', 1, 8, 11, 1, ""},
    {'+', 2, 9, 12, 1, ""},
    {'=', 0, 0, 13, 0, "0"},
    {'+', 1, 0, 14, 0, ""},
    {'+', 2, 0, 15, 0, ""},
    {'=', 0, 0, 16, 0, ""},
    {'+', 1, 0, 17, 0, ""},
    {'+', 2, 0, 18, 0, ""},
    {'=', 0, 0, 19, 0, ""},
    {'+', 1, 0, 20, 0, ""},
    {'+', 2, 0, 21, 0, ""},
    {'=', 0, 0, 0, 0, ""},
};
// clang-format on

class StormPollTable : public RunningStormTest {
 protected:
    StormPollTable() {
        storm_set_burst_limit(1, rate_, 0, true);
        storm_set(1, true);
        fake::clear_calls();
    }

    template <size_t Size>
    void follow(const Step (&steps)[Size]) {
        for (size_t n = 0; n < Size; ++n) {
            SCOPED_TRACE("step " + std::to_string(n + 1));
            take(steps[n]);
        }
    }

 private:
    void take(const Step& step) {
        if (step.change != 0) {
            rate_ = step.change;
            storm_set_burst_limit(1, rate_, 0, true);
        } else {
            count(101, rate_ * 4 + (step.traffic == '+' ? 1 : 0));
            poll();
        }
        const storm_port_info* info = record(101);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->flow_over_times, step.flow_over_times);
        EXPECT_EQ(info->unloop_times, step.unloop_times);
        EXPECT_EQ(info->timer_notify, step.timer_notify);
        EXPECT_EQ(info->is_loop, step.is_loop);
        EXPECT_EQ(info->poll_times, 0);
        EXPECT_EQ(verdicts(), step.verdicts);
    }

    static std::string verdicts() {
        std::string text;
        for (const std::string& line : fake::calls_of({"verdict"})) {
            text += line == "verdict is_loop=1 ifx=1" ? '1' : '0';
        }
        fake::clear_calls();
        return text;
    }

    uint32_t rate_ = 1000;
};

// 5 polls under the rate, 30 over, 12 under, then over, over, under six times.
TEST_F(StormPollTable, LoopRepetitionAndRemoval) {
    follow(kLoopAndRemoval);
    EXPECT_EQ(std_opt_statics.get_cnt_times, 65);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 2u);
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 1);
    EXPECT_EQ(std_opt_statics.flow_over_times, 0u);
    EXPECT_EQ(std_opt_statics.get_fail_times, 0);
}

// The same with a new rate after the 30 polls: the loop ends with the old rule, and the first poll
// afterwards measures everything since the rule was first installed.
TEST_F(StormPollTable, RateChangeBetweenPolls) {
    follow(kRateChange);
    EXPECT_EQ(std_opt_statics.notify_loop_times, 1);
    EXPECT_EQ(std_opt_statics.fix_notify_times, 1u);
    EXPECT_EQ(std_opt_statics.notify_unloop_times, 0);
}

// In loop, one or two polls over the rate between quiet ones do not delay the removal.
TEST_F(StormPollTable, ShortRunsCountTowardsRemoval) {
    follow(kShortRuns);
}

}  // namespace
