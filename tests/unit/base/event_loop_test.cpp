#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/base/event_loop_fixture.h"

namespace loop_test {
namespace {

TEST_F(Loop, FetchReturnsFalseWhenNothingIsLeft) {
    EXPECT_FALSE(loop.fetch());
}

TEST_F(Loop, FetchReturnsFalseOnceTheLastTimerHasFired) {
    const auto timer = loop.after(0s, note("fired"));
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_FALSE(loop.fetch());
    EXPECT_EQ(seen, Seen{"fired"});
}

TEST_F(Loop, CheckIsMadeBeforeEachPieceOfWork) {
    loop.check_before_work(note("check"));
    loop.post(note("task"));
    const auto timer = loop.after(0s, note("timer"));
    const auto removed = std::make_unique<EventLoop::Handle>(loop.after(0s, note("never")));
    removed->reset();
    while (loop.fetch()) {
        loop.run();
    }
    EXPECT_EQ(seen, (Seen{"check", "task", "check", "timer"}));
    loop.check_before_work(nullptr);
    loop.post(note("unchecked"));
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen.back(), "unchecked");
}

TEST_F(Loop, FetchReturnsFalseAfterStopWhateverIsPending) {
    loop.post(note("never"));
    const auto timer = loop.after(0s, note("never"));
    loop.stop();
    EXPECT_FALSE(loop.fetch());
    EXPECT_FALSE(loop.fetch());
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, StopFromAnotherThreadEndsTheWait) {
    const Pipe pipe;
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    const Rescue rescue(loop);
    std::thread other([this] { loop.stop(); });
    EXPECT_FALSE(loop.fetch());
    other.join();
}

TEST_F(Loop, StopDropsTheRestOfTheRound) {
    const auto first = loop.after(0s, note("first"));
    const auto second = loop.after(0s, note("second"));
    ASSERT_TRUE(loop.fetch());
    loop.run();
    loop.stop();
    EXPECT_FALSE(loop.fetch());
    EXPECT_EQ(seen, Seen{"first"});
}

// A clock that reports when a round has begun and when it has found nothing to do.
class StoppingClock final : public qv::Clock {
 public:
    qv::Time now() const override {
        if (++readings > 1000) {
            throw std::runtime_error("test: the loop goes round although it was stopped");
        }
        if (loop != nullptr) {
            loop->stop();
        }
        return {};
    }
    qv::Duration real_time_until(qv::Time) const override { return qv::Duration::max(); }
    bool idle() override {
        idle_rounds++;
        loop->stop();  // so that the test fails instead of hanging
        return false;
    }

    EventLoop* loop = nullptr;
    int idle_rounds = 0;
    mutable int readings = 0;
};

// The round has already consumed the wake-up when it begins to wait.
TEST(LoopStop, StopInMidRoundEndsTheLoopBeforeItWaits) {
    StoppingClock clock;
    EventLoop loop(clock);
    const auto timer = loop.after(1h, [] {});
    clock.loop = &loop;
    EXPECT_FALSE(loop.fetch());
    EXPECT_EQ(clock.idle_rounds, 0);
}

TEST_F(Loop, PostedTasksRunInOrderAndOnlyWhenCalled) {
    loop.post(note("one"));
    loop.post(note("two"));
    ASSERT_TRUE(loop.fetch());
    EXPECT_EQ(seen, Seen{});
    loop.run();
    EXPECT_EQ(seen, Seen{"one"});
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"one", "two"}));
}

TEST_F(Loop, CapturesOfATaskAreReleasedOnceItHasRun) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    loop.post([held = std::move(held)] { ++*held; });
    ASSERT_TRUE(loop.fetch());
    EXPECT_FALSE(watched.expired());
    loop.run();
    EXPECT_TRUE(watched.expired());
}

// A task may run a round of the loop, whose work then replaces it as the current work.
TEST_F(Loop, TaskThatRunsTheLoopKeepsItsCaptures) {
    const std::string text = "a text that is too long for any small-string storage";
    loop.post([this, text] {
        run_ready(loop, clock);
        seen.push_back(text);
    });
    loop.post(note("inner"));
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_EQ(seen, (Seen{"inner", text}));
}

TEST_F(Loop, PostFromAnotherThreadWakesTheWaitingLoop) {
    const Pipe pipe;
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    const Rescue rescue(loop);
    std::thread other;
    clock.on_idle = [&] {
        if (!other.joinable()) {
            other = std::thread([this] { loop.post([this] { seen.emplace_back("posted"); }); });
        }
        return false;
    };
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_EQ(seen, Seen{"posted"});
    other.join();
}

TEST_F(Loop, TaskPostedInTheLastMomentIsNotMissed) {
    const Rescue rescue(loop);
    clock.on_idle = [&] {
        std::thread([this] { loop.post(note("posted")); }).join();
        return false;
    };
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_EQ(seen, Seen{"posted"});
}

TEST_F(Loop, TenThousandTasksFromFourThreadsAllRun) {
    const Pipe pipe;
    auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    const Rescue rescue(loop);
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
    while (loop.fetch()) {
        loop.run();
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

TEST_F(Loop, WorkWithoutItsHandleNeverRuns) {
    const Pipe pipe;
    pipe.fill();
    {
        const auto timer = loop.after(0s, note("timer"));
        const auto late = loop.defer(note("put off"));
        const auto watch = loop.watch(pipe.out(), true, false,
                                      [this](EventLoop::Ready) { seen.push_back("watch"); });
    }
    const Rescue rescue(loop);
    EXPECT_FALSE(loop.fetch());
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, HandleMovedOntoItselfKeepsItsTimer) {
    auto timer = loop.after(1s, note("fired"));
    auto& same = timer;
    timer = std::move(same);
    EXPECT_TRUE(timer);
    run_for(loop, clock, 1s);
    EXPECT_EQ(seen, Seen{"fired"});
}

TEST_F(Loop, HandleThatIsReplacedRemovesItsTimer) {
    auto timer = loop.after(1s, note("old"));
    timer = loop.after(1s, note("new"));
    run_for(loop, clock, 1s);
    EXPECT_EQ(seen, Seen{"new"});
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

TEST_F(Loop, BacklogOfPostedWorkIsExecutedInRounds) {
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

TEST_F(Loop, DeferredTaskRunsAfterAllThatIsReady) {
    const Pipe pipe;
    pipe.fill();
    const auto first = loop.defer(note("put off first"));
    const auto second = loop.defer(note("put off second"));
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
TEST_F(Loop, ExpectedPostRunsBeforeDeferredTasks) {
    const auto late = loop.defer(note("put off"));
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

TEST_F(Loop, MissingExpectedPostDelaysNothing) {
    const auto late = loop.defer(note("put off"));
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

TEST_F(Loop, DeferredTaskIsNotStarvedByAFlood) {
    int rounds = 0;
    bool ran = false;
    const auto late = loop.defer([&] { ran = true; });
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

TEST_F(Loop, FloodDelaysEachDeferredTaskForAsLong) {
    std::vector<int> ran_in;
    int rounds = 0;
    EventLoop::Handle late;
    EventLoop::Task deferred = [&] {
        ran_in.push_back(std::exchange(rounds, 0));
        if (ran_in.size() < 3) {
            late = loop.defer(deferred);
        }
    };
    late = loop.defer(deferred);
    EventLoop::Task again = [&] {
        if (ran_in.size() < 3 && ++rounds < 100) {
            loop.post(again);
        }
    };
    loop.post(again);
    run_ready(loop, clock);
    EXPECT_EQ(ran_in, (std::vector<int>{8, 8, 8}));
}

TEST_F(Loop, DeferredTaskCanBeCancelled) {
    auto late = loop.defer(note("put off"));
    EXPECT_TRUE(late);
    late.reset();
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});

    EventLoop::Handle both[2];
    both[0] = loop.defer([&] { both[1].reset(); });
    both[1] = loop.defer(note("called off by the one before"));
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, IdleHookMayMoveTheClock) {
    const Rescue rescue(loop);
    const auto timer = loop.after(5s, note("fired"));
    clock.on_idle = [this] {
        clock.advance_to(loop.next_timer().value());
        return true;
    };
    ASSERT_TRUE(loop.fetch());
    loop.run();
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
    ASSERT_TRUE(loop->fetch());  // both wait in this round's work
    loop.reset();
    EXPECT_FALSE(second);
    second.reset();
}

TEST(LoopLifetime, HandleOfADeferredTaskMayOutliveTheLoop) {
    ManualClock clock;
    EventLoop::Handle late;
    {
        EventLoop loop(clock);
        late = loop.defer([] { FAIL(); });
    }
    EXPECT_FALSE(late);
}

TEST(LoopLifetime, DeferredTaskThatOwnsItsHandleIsReleasedWithTheLoop) {
    ManualClock clock;
    auto loop = std::make_unique<EventLoop>(clock);
    auto handle = std::make_shared<EventLoop::Handle>();
    const std::weak_ptr<EventLoop::Handle> watched = handle;
    *handle = loop->defer([handle] { handle->reset(); });
    handle.reset();
    EXPECT_FALSE(watched.expired());
    loop.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(LoopLifetime, PendingWorkThatOwnsHandlesIsReleasedWithTheLoop) {
    ManualClock clock;
    EventLoop loop(clock);
    auto inner = std::make_shared<EventLoop::Handle>(loop.after(1s, [] {}));
    const auto outer = loop.after(2s, [inner] { inner->reset(); });
    loop.post([inner] { inner->reset(); });
}

TEST(Clocks, ScaledClockRunsAtItsSpeed) {
    using Real = std::chrono::steady_clock;
    const qv::SteadyClock clock(1000.0);
    const auto start = Real::now();
    const auto before = clock.now();
    const auto wait = clock.real_time_until(before + 1000s);
    const auto passed = Real::now() - start;
    EXPECT_LE(wait, 1s);
    EXPECT_GE(wait, 1s - passed);
    EXPECT_EQ(clock.real_time_until(before), 0s);
    const auto later = Real::now();
    while (Real::now() < later + 1ms) {
    }
    EXPECT_GE(clock.now() - before, 1s);
}

TEST(Clocks, EveryClockStartsAtTheMachinesTime) {
    const auto before = std::chrono::steady_clock::now();
    const qv::SteadyClock usual;
    const qv::SteadyClock fast(1000.0);
    const auto usual_time = usual.now();
    const auto fast_time = fast.now();
    const auto after = std::chrono::steady_clock::now();
    EXPECT_GE(usual_time, before);
    EXPECT_LE(usual_time, after);
    EXPECT_GE(fast_time, before);
    EXPECT_LE(fast_time, before + 1000 * (after - before));
}

TEST(Clocks, ManualClockIsStoppedUntilItIsMoved) {
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
}  // namespace loop_test
