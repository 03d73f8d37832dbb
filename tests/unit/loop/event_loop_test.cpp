#include "platform/client/event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/manual_clock.h"

static thread_local bool g_out_of_memory = false;

// The linker puts this in place of operator new(size_t).
extern "C" {
void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size) {
    if (g_out_of_memory) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}
}

namespace {

using namespace std::chrono_literals;
using qv::EventLoop;
using qv::test::ManualClock;
using qv::test::run_for;
using qv::test::run_ready;

struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    void fill() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    void drain() const {
        char byte = 0;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }
    int out() const { return ends[0]; }
    int in() const { return ends[1]; }
    std::array<int, 2> ends{};
};

class Loop : public testing::Test {
 protected:
    ManualClock clock;
    EventLoop loop{clock};
    std::vector<std::string> seen;

    EventLoop::Task note(const std::string& text) {
        return [this, text] {
            seen.push_back(text);
        };
    }
};

using Seen = std::vector<std::string>;

TEST_F(Loop, FetchReturnsNullWhenNothingIsLeft) {
    qv_thread thread{};
    EXPECT_EQ(loop.fetch(&thread), nullptr);
}

TEST_F(Loop, FetchReturnsNullOnceTheLastTimerHasFired) {
    const auto timer = loop.after(0s, note("fired"));
    qv_thread thread{};
    ASSERT_EQ(loop.fetch(&thread), &thread);
    qv_thread_call(&thread);
    EXPECT_EQ(loop.fetch(&thread), nullptr);
    EXPECT_EQ(seen, Seen{"fired"});
}

TEST_F(Loop, FetchReturnsNullAfterStopWhateverIsPending) {
    loop.post(note("never"));
    const auto timer = loop.after(0s, note("never"));
    loop.stop();
    qv_thread thread{};
    EXPECT_EQ(loop.fetch(&thread), nullptr);
    EXPECT_EQ(loop.fetch(&thread), nullptr);
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, StopFromAnotherThreadEndsTheWait) {
    const Pipe pipe;
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    std::thread other([this] { loop.stop(); });
    qv_thread thread{};
    EXPECT_EQ(loop.fetch(&thread), nullptr);
    other.join();
}

// A clock that tells when a round has begun and when it has found nothing to do.
class StoppingClock final : public qv::Clock {
 public:
    qv::Time now() const override {
        if (loop != nullptr) {
            loop->stop();
        }
        return {};
    }
    qv::Duration real_time_until(qv::Time) const override { return qv::Duration::max(); }
    bool idle() override {
        idle_rounds++;
        loop->stop();  // else the test would hang where it should fail
        return false;
    }

    EventLoop* loop = nullptr;
    int idle_rounds = 0;
};

// The round has taken the wake-up already when it comes to wait.
TEST(LoopStop, StopInMidRoundEndsTheLoopBeforeItWaits) {
    StoppingClock clock;
    EventLoop loop(clock);
    const auto timer = loop.after(1h, [] {});
    clock.loop = &loop;
    qv_thread thread{};
    EXPECT_EQ(loop.fetch(&thread), nullptr);
    EXPECT_EQ(clock.idle_rounds, 0);
}

TEST_F(Loop, PostedTasksRunInOrderAndOnlyWhenCalled) {
    loop.post(note("one"));
    loop.post(note("two"));
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    EXPECT_EQ(seen, Seen{});
    qv_thread_call(&thread);
    EXPECT_EQ(seen, Seen{"one"});
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"one", "two"}));
}

TEST_F(Loop, PostFromAnotherThreadWakesTheWaitingLoop) {
    const Pipe pipe;
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    std::thread other;
    clock.on_idle = [&] {
        if (!other.joinable()) {
            other = std::thread([this] { loop.post([this] { seen.emplace_back("posted"); }); });
        }
        return false;
    };
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    qv_thread_call(&thread);
    EXPECT_EQ(seen, Seen{"posted"});
    other.join();
}

TEST_F(Loop, TaskPostedInTheLastMomentIsNotMissed) {
    clock.on_idle = [&] {
        std::thread([this] { loop.post(note("posted")); }).join();
        return false;
    };
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    qv_thread_call(&thread);
    EXPECT_EQ(seen, Seen{"posted"});
}

TEST_F(Loop, TenThousandTasksFromFourThreadsAllRun) {
    const Pipe pipe;
    auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    int count = 0;
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; t++) {
        posters.emplace_back([this, &count, &watch] {
            for (int n = 0; n < 2500; n++) {
                loop.post([&count, &watch] {
                    if (++count == 10000) {
                        watch.reset();
                    }
                });
            }
        });
    }
    qv_thread thread{};
    while (loop.fetch(&thread) != nullptr) {
        qv_thread_call(&thread);
    }
    for (auto& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(count, 10000);
}

TEST_F(Loop, TimersFireInOrderOfTimeThenOfArming) {
    const auto late = loop.after(3s, note("late"));
    const auto first = loop.after(1s, note("first"));
    const auto second = loop.after(1s, note("second"));
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});
    clock.advance(999ms);
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});
    clock.advance(1ms);
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"first", "second"}));
    clock.advance(10s);
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"first", "second", "late"}));
}

TEST_F(Loop, HandleTellsWhetherTheTimerIsPending) {
    auto timer = loop.after(1s, note("fired"));
    EXPECT_TRUE(timer);
    run_for(loop, clock, 1s);
    EXPECT_FALSE(timer);
    EXPECT_FALSE(EventLoop::Handle());
}

TEST_F(Loop, TimerMayRemoveAnotherThatIsDueAtTheSameTime) {
    EventLoop::Handle victim;
    const auto killer = loop.after(1s, [&] { victim.reset(); });
    victim = loop.after(1s, note("victim"));
    run_for(loop, clock, 2s);
    EXPECT_EQ(seen, Seen{});
    EXPECT_FALSE(victim);
}

TEST_F(Loop, CallbackMayResetItsOwnHandleAndKeepsItsCaptures) {
    EventLoop::Handle own;
    const std::string text = "a text that is too long for any small-string storage";
    own = loop.after(1s, [&own, &out = seen, text] {
        own.reset();
        out.push_back(text);
    });
    run_for(loop, clock, 1s);
    EXPECT_EQ(seen, Seen{"a text that is too long for any small-string storage"});
}

TEST_F(Loop, CallbackMayReplaceItsOwnHandle) {
    EventLoop::Handle own;
    own = loop.after(1s, [&] { own = loop.after(1s, note("again")); });
    run_for(loop, clock, 1s);
    EXPECT_TRUE(own);
    EXPECT_EQ(seen, Seen{});
    run_for(loop, clock, 1s);
    EXPECT_EQ(seen, Seen{"again"});
}

TEST_F(Loop, WatchReportsWhatIsReadyForAsLongAsItIs) {
    const Pipe pipe;
    pipe.fill();
    pipe.fill();
    const auto watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready ready) {
        EXPECT_TRUE(ready.read);
        EXPECT_FALSE(ready.write);
        pipe.drain();
        seen.emplace_back("byte");
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"byte", "byte"}));
}

TEST_F(Loop, WatchOfAWritableEndReportsWrite) {
    const Pipe pipe;
    EventLoop::Handle watch;
    watch = loop.watch(pipe.in(), false, true, [&](EventLoop::Ready ready) {
        EXPECT_TRUE(ready.write);
        seen.emplace_back("writable");
        watch.reset();
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"writable"});
    EXPECT_FALSE(watch);
}

TEST_F(Loop, WatchMayRemoveAnotherThatIsReadyToo) {
    const Pipe one;
    const Pipe two;
    one.fill();
    two.fill();
    EventLoop::Handle first;
    EventLoop::Handle second;
    first = loop.watch(one.out(), true, false, [&](EventLoop::Ready) {
        seen.emplace_back("ran");
        second.reset();
        first.reset();
    });
    second = loop.watch(two.out(), true, false, [&](EventLoop::Ready) {
        seen.emplace_back("ran");
        first.reset();
        second.reset();
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"ran"});
}

TEST_F(Loop, WatchOfARegularFileIsRefused) {
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(loop.watch(fd, true, false, [](EventLoop::Ready) {}));
    close(fd);
}

TEST_F(Loop, MemoryThatRunsOutWhileDescriptorsAreReportedDelaysThem) {
    std::array<Pipe, 40> pipes;
    std::vector<EventLoop::Handle> watches;
    size_t heard = 0;
    for (const Pipe& pipe : pipes) {
        pipe.fill();
        watches.push_back(loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
            pipe.drain();
            ++heard;
        }));
    }
    qv_thread thread{};
    g_out_of_memory = true;
    EXPECT_NO_THROW(loop.fetch(&thread));
    g_out_of_memory = false;
    qv_thread_call(&thread);
    EXPECT_EQ(heard, 1u);
    run_ready(loop, clock);
    EXPECT_EQ(heard, pipes.size());
}

TEST_F(Loop, FloodOfPostedWorkStarvesNeitherTimersNorDescriptors) {
    const Pipe pipe;
    pipe.fill();
    int flood = 0;
    int at_timer = 0;
    int at_watch = 0;
    EventLoop::Task again = [&] {
        flood++;
        if (at_timer == 0 || at_watch == 0) {
            loop.post(again);
            loop.post(again);
        }
    };
    loop.post(again);
    const auto timer = loop.after(0s, [&] { at_timer = flood; });
    const auto watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
        pipe.drain();
        at_watch = flood;
    });
    run_ready(loop, clock);
    EXPECT_GT(at_timer, 0);
    EXPECT_GT(at_watch, 0);
    EXPECT_LE(at_timer, 128);
    EXPECT_LE(at_watch, 128);
}

TEST_F(Loop, BacklogOfPostedWorkIsTakenInRounds) {
    int tasks = 0;
    int at_timer = 0;
    for (int i = 0; i < 10000; i++) {
        loop.post([&] { tasks++; });
    }
    const auto timer = loop.after(0s, [&] { at_timer = tasks; });
    run_ready(loop, clock);
    EXPECT_EQ(at_timer, 64);
    EXPECT_EQ(tasks, 10000);
}

TEST_F(Loop, ZeroDelayTimerThatRearmsItselfLetsPostedWorkRun) {
    EventLoop::Handle timer;
    bool posted = false;
    int rounds = 0;
    EventLoop::Task again = [&] {
        rounds++;
        if (!posted) {
            timer = loop.after(0s, again);
        }
    };
    timer = loop.after(0s, again);
    loop.post([&] { loop.post([&] { posted = true; }); });
    run_ready(loop, clock);
    EXPECT_TRUE(posted);
    EXPECT_LE(rounds, 3);
}

TEST_F(Loop, WhatIsPutOffRunsAfterAllThatIsReady) {
    const Pipe pipe;
    pipe.fill();
    const auto first = loop.put_off(note("put off first"));
    const auto second = loop.put_off(note("put off second"));
    const auto timer = loop.after(0s, note("timer"));
    const auto watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
        pipe.drain();
        seen.push_back("descriptor");
    });
    loop.post([this] {
        seen.push_back("posted");
        loop.post(note("posted by it"));
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"posted", "timer", "descriptor", "posted by it", "put off first",
                          "put off second"}));
    EXPECT_FALSE(first);
}

// Both orders would be allowed without the expectation: the other thread may be slow.
TEST_F(Loop, PostThatIsExpectedGoesBeforeWhatIsPutOff) {
    const auto late = loop.put_off(note("put off"));
    std::atomic<bool> waiting = false;
    clock.on_idle = [] {
        return false;
    };
    loop.expect_post();
    EXPECT_TRUE(loop.expects_post());
    std::thread other([&] {
        while (!waiting) {
        }
        loop.post(note("posted"));
    });
    waiting = true;
    other.join();
    EXPECT_TRUE(loop.expects_post()) << "its turn is still to come";
    run_ready(loop, clock);
    EXPECT_FALSE(loop.expects_post());
    EXPECT_EQ(seen, (Seen{"posted", "put off"}));
}

TEST_F(Loop, PostThatIsExpectedAndDoesNotComeHoldsNothingUp) {
    const auto late = loop.put_off(note("put off"));
    loop.expect_post();
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"put off"});
    EXPECT_FALSE(loop.expects_post());
}

TEST_F(Loop, PostOfTheLoopItselfIsNotTheExpectedOne) {
    loop.expect_post();
    loop.post(note("own"));
    EXPECT_TRUE(loop.expects_post());
}

TEST_F(Loop, WhatIsPutOffIsNotStarvedByAFlood) {
    int rounds = 0;
    bool ran = false;
    const auto late = loop.put_off([&] { ran = true; });
    EventLoop::Task again = [&] {
        if (!ran && ++rounds < 100) {
            loop.post(again);
        }
    };
    loop.post(again);
    run_ready(loop, clock);
    EXPECT_TRUE(ran);
    EXPECT_EQ(rounds, 8);
}

TEST_F(Loop, WhatIsPutOffCanBeCalledOff) {
    auto late = loop.put_off(note("put off"));
    EXPECT_TRUE(late);
    late.reset();
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});

    EventLoop::Handle both[2];
    both[0] = loop.put_off([&] { both[1].reset(); });
    both[1] = loop.put_off(note("called off by the one before"));
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, IdleHookMayMoveTheClock) {
    const auto timer = loop.after(5s, note("fired"));
    clock.on_idle = [this] {
        clock.advance_to(loop.next_timer().value());
        return true;
    };
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    qv_thread_call(&thread);
    EXPECT_EQ(seen, Seen{"fired"});
}

TEST_F(Loop, NextTimerIsTheEarliestPendingOne) {
    EXPECT_FALSE(loop.next_timer());
    const auto late = loop.after(5s, [] {});
    auto early = loop.after(2s, [] {});
    EXPECT_EQ(loop.next_timer(), clock.now() + 2s);
    early.reset();
    EXPECT_EQ(loop.next_timer(), clock.now() + 5s);
}

TEST_F(Loop, DelaysOutOfRangeAreCut) {
    const auto past = loop.after(-5s, note("past"));
    const auto never = loop.after(qv::Duration::max(), note("never"));
    run_for(loop, clock, 24h * 365 * 10);
    EXPECT_EQ(seen, Seen{"past"});
}

TEST_F(Loop, OnLoopThreadIsTrueThereAndNowhereElse) {
    EXPECT_TRUE(loop.on_loop_thread());
    bool elsewhere = true;
    std::thread([&] { elsewhere = loop.on_loop_thread(); }).join();
    EXPECT_FALSE(elsewhere);
}

TEST(LoopLifetime, HandlesMayOutliveTheLoop) {
    ManualClock clock;
    const Pipe pipe;
    EventLoop::Handle timer;
    EventLoop::Handle watch;
    {
        EventLoop loop(clock);
        timer = loop.after(1s, [] {});
        watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
        loop.post([] {});
    }
    EXPECT_FALSE(timer);
    EXPECT_FALSE(watch);
    timer.reset();
}

TEST(LoopLifetime, TimerThatIsDueMayOutliveTheLoop) {
    ManualClock clock;
    auto loop = std::make_unique<EventLoop>(clock);
    const EventLoop::Handle first = loop->after(1s, [] {});
    EventLoop::Handle second = loop->after(1s, [] { FAIL(); });
    clock.advance(1s);
    qv_thread thread;
    ASSERT_NE(loop->fetch(&thread), nullptr);  // both wait in this round's work
    loop.reset();
    EXPECT_FALSE(second);
    second.reset();
}

TEST(LoopLifetime, WhatIsPutOffMayOutliveTheLoop) {
    ManualClock clock;
    EventLoop::Handle late;
    {
        EventLoop loop(clock);
        late = loop.put_off([] { FAIL(); });
    }
    EXPECT_FALSE(late);
}

TEST(LoopLifetime, PendingWorkThatOwnsHandlesIsReleasedWithTheLoop) {
    ManualClock clock;
    EventLoop loop(clock);
    auto inner = std::make_shared<EventLoop::Handle>(loop.after(1s, [] {}));
    const auto outer = loop.after(2s, [inner] { inner->reset(); });
    loop.post([inner] { inner->reset(); });
}

TEST(LoopOnTheRealClock, TimerFiresNotBeforeItsTime) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const auto start = std::chrono::steady_clock::now();
    const auto timer = loop.after(20ms, [] {});
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(LoopOnTheRealClock, TimerArmedDuringTheWaitForALaterOneFiresFirst) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const auto start = std::chrono::steady_clock::now();
    const auto late = loop.after(10s, [&] { loop.stop(); });
    const int bell = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec soon = {.it_interval = {0, 0}, .it_value = {0, 1000000}};
    ASSERT_EQ(timerfd_settime(bell, 0, &soon, nullptr), 0);
    EventLoop::Handle early;
    EventLoop::Handle watch = loop.watch(bell, true, false, [&](EventLoop::Ready) {
        watch.reset();
        early = loop.after(1ms, [&] { loop.stop(); });
    });
    qv_thread thread{};
    while (loop.fetch(&thread) != nullptr) {
        qv_thread_call(&thread);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    close(bell);
}

// A descriptor that stops a loop whose timers do not end its waits, long after they should have.
struct Rescue {
    explicit Rescue(EventLoop& loop) {
        const itimerspec late = {.it_interval = {0, 0}, .it_value = {20, 0}};
        EXPECT_EQ(timerfd_settime(bell, 0, &late, nullptr), 0);
        watch = loop.watch(bell, true, false, [this, &loop](EventLoop::Ready) {
            needed = true;
            loop.stop();
        });
    }
    ~Rescue() {
        watch.reset();
        close(bell);
    }
    Rescue(const Rescue&) = delete;
    Rescue& operator=(const Rescue&) = delete;

    int bell = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    bool needed = false;
    EventLoop::Handle watch;
};

void run_to_the_stop(EventLoop& loop) {
    qv_thread thread{};
    while (loop.fetch(&thread) != nullptr) {
        qv_thread_call(&thread);
    }
}

TEST(LoopOnTheRealClock, EveryTimerOfAChainEndsItsWait) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const Rescue rescue(loop);
    int fired = 0;
    EventLoop::Handle timer;
    const std::function<void()> next = [&] {
        if (++fired == 4) {
            loop.stop();
        } else {
            timer = loop.after(2ms, next);
        }
    };
    timer = loop.after(2ms, next);
    run_to_the_stop(loop);
    EXPECT_FALSE(rescue.needed);
    EXPECT_EQ(fired, 4);
}

TEST(LoopOnTheRealClock, TimerAfterOneThatWasCancelledEndsItsWait) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const Rescue rescue(loop);
    EventLoop::Handle cancelled = loop.after(30ms, [] { ADD_FAILURE() << "cancelled"; });
    EventLoop::Handle late;
    // The alarm is set for the first of these two when the second cancels its other one.
    const auto early = loop.after(1ms, [&] {
        cancelled.reset();
        late = loop.after(60ms, [&] { loop.stop(); });
    });
    run_to_the_stop(loop);
    EXPECT_FALSE(rescue.needed);
}

TEST(LoopOnTheRealClock, WaitingCostsNoProcessorTime) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const auto timer = loop.after(300ms, [] {});
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_THREAD, &before);
    qv_thread thread{};
    ASSERT_NE(loop.fetch(&thread), nullptr);
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 3) << "wakes up while there is nothing to do";
}

TEST(Clocks, ScaledClockRunsAtItsSpeed) {
    const qv::SteadyClock clock(1000.0);
    const auto before = clock.now();
    const auto wait = clock.real_time_until(before + 1000s);
    EXPECT_LE(wait, 1s);
    EXPECT_GE(wait, 900ms);
    EXPECT_EQ(clock.real_time_until(before), 0s);
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + 1ms);
    EXPECT_GE(clock.now() - before, 1s);
}

TEST(Clocks, ManualClockStandsStillUntilItIsMoved) {
    ManualClock clock;
    const auto start = clock.now();
    EXPECT_EQ(clock.real_time_until(start), 0s);
    EXPECT_EQ(clock.real_time_until(start + 1ns), qv::Duration::max());
    clock.advance(90s);
    EXPECT_EQ(clock.now(), start + 90s);
    clock.advance_to(start);
    EXPECT_EQ(clock.now(), start + 90s);
}

}  // namespace
