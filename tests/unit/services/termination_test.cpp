// The last work of a process that is told to end.
#include "platform/driver/linux/termination.h"

#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/support/test_platform.h"
#include "tests/unit/services/rtnl_script.h"

namespace qv {
namespace {

// Never returns when the signal does what it should.
void end_by(int signal) {
    SteadyClock clock;
    EventLoop loop(clock);
    const Termination termination(loop, [] { std::fputs("cleaned up", stderr); });
    raise(signal);
    test::run_until(loop, [] { return false; });
}

TEST(TerminationDeathTest, ProcessCleansUpAndEndsByTheSignal) {
    EXPECT_EXIT(end_by(SIGTERM), testing::KilledBySignal(SIGTERM), "cleaned up");
    EXPECT_EXIT(end_by(SIGINT), testing::KilledBySignal(SIGINT), "cleaned up");
}

TEST(Termination, SignalsThatCannotBeWatchedAreAnError) {
    SteadyClock clock;
    EventLoop loop(clock);
    test::g_rtnl.no_watch = true;
    EXPECT_THROW(Termination(loop, [] {}), std::runtime_error);
}

}  // namespace
}  // namespace qv
