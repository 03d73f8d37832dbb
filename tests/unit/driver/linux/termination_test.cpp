#include "platform/driver/linux/termination.h"

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/base/clock.h"
#include "tests/support/watch_refusal.h"

namespace qv {
namespace {

// Sends the process a signal and runs its loop until it ends, for at most one thousand pieces of
// work.
void end_by(int signal) {
    SteadyClock clock;
    EventLoop loop(clock);
    const Termination termination(loop, [] { std::fputs("last task\n", stderr); });
    kill(getpid(), signal);
    for (int i = 0; i < 1000 && loop.fetch(); ++i) {
        std::fputs("loop\n", stderr);
        loop.run();
    }
}

TEST(TerminationDeathTest, SignalEndsTheProcessAfterTheLastTaskOnTheLoop) {
    EXPECT_EXIT(end_by(SIGTERM), testing::KilledBySignal(SIGTERM), "^loop\nlast task\n$");
    EXPECT_EXIT(end_by(SIGINT), testing::KilledBySignal(SIGINT), "^loop\nlast task\n$");
}

TEST(TerminationDeathTest, OtherSignalsEndTheProcessAtOnce) {
    EXPECT_EXIT(end_by(SIGHUP), testing::KilledBySignal(SIGHUP), "^$");
}

std::string refusal_of(EventLoop& loop) {
    try {
        const Termination termination(loop, [] {});
        return "accepted";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(Termination, LoopThatCannotWatchForSignalsRefusesTheStart) {
    SteadyClock clock;
    EventLoop loop(clock);
    test::g_no_watch = true;
    EXPECT_EQ(refusal_of(loop), "the event loop cannot watch for signals");
    test::g_no_watch = false;
    EXPECT_EQ(refusal_of(loop), "accepted");
}

}  // namespace
}  // namespace qv
