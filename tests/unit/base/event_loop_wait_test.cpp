// How the event loop waits: its alarm, its wake-ups, and its cost while nothing happens.
#include <event2/event.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/base/event_loop_fixture.h"

namespace {

std::function<void()> g_on_yield;  // runs once, in place of the next sched_yield()
std::optional<int> g_failing_add;  // counted down by event_add(), which fails at zero
bool g_no_config = false;
bool g_no_base = false;

}  // namespace

// The linker puts these in place of the calls of the same name.
extern "C" {
int __real_sched_yield();
int __wrap_sched_yield() {
    if (const auto hook = std::exchange(g_on_yield, nullptr)) {
        hook();
        return 0;
    }
    return __real_sched_yield();
}
int __real_event_add(event* watched, const timeval* timeout);
int __wrap_event_add(event* watched, const timeval* timeout) {
    if (g_failing_add && (*g_failing_add)-- == 0) {
        return -1;
    }
    return __real_event_add(watched, timeout);
}
event_config* __real_event_config_new();
event_config* __wrap_event_config_new() {
    return g_no_config ? nullptr : __real_event_config_new();
}
event_base* __real_event_base_new_with_config(const event_config* config);
event_base* __wrap_event_base_new_with_config(const event_config* config) {
    return g_no_base ? nullptr : __real_event_base_new_with_config(config);
}
}

namespace loop_test {
namespace {

// A descriptor that becomes readable once, after some real time.
struct Bell {
    explicit Bell(std::chrono::nanoseconds delay) {
        const itimerspec due = {.it_interval = {0, 0},
                                .it_value = {delay / 1s, (delay % 1s).count()}};
        EXPECT_EQ(timerfd_settime(fd, 0, &due, nullptr), 0);
    }
    ~Bell() { close(fd); }
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
};

// A stopped clock that counts how often the loop was about to wait.
class CountingClock : public qv::Clock {
 public:
    qv::Time now() const override { return qv::Time{}; }
    qv::Duration real_time_until(qv::Time) const override { return wait; }
    bool idle() override {
        idle_rounds++;
        return false;
    }

    qv::Duration wait = qv::Duration::max();
    int idle_rounds = 0;
};

// How often the loop wakes up while nothing happens for 50 ms.
int idle_rounds_of_a_quiet_time(EventLoop& loop, CountingClock& clock) {
    const Bell bell(50ms);
    bool rung = false;
    EventLoop::Handle watch = loop.watch(bell.fd, true, false, [&](EventLoop::Ready) {
        rung = true;
        watch.reset();
    });
    clock.idle_rounds = 0;
    while (!rung && loop.fetch()) {
        loop.run();
    }
    EXPECT_TRUE(rung);
    return clock.idle_rounds;
}

TEST(LoopOnTheRealClock, TimerFiresNotBeforeItsTime) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const auto start = std::chrono::steady_clock::now();
    const Rescue rescue(loop);
    const auto timer = loop.after(20ms, [] {});
    ASSERT_TRUE(loop.fetch());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(LoopOnTheRealClock, TimerArmedDuringTheWaitForALaterOneFiresFirst) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const Rescue rescue(loop);
    const auto late = loop.after(30s, [&] {
        ADD_FAILURE() << "the alarm of the later timer was kept";
        loop.stop();
    });
    const Bell bell(1ms);
    EventLoop::Handle early;
    EventLoop::Handle watch = loop.watch(bell.fd, true, false, [&](EventLoop::Ready) {
        watch.reset();
        early = loop.after(1ms, [&] { loop.stop(); });
    });
    run_to_the_end(loop);
    EXPECT_FALSE(early);
    EXPECT_TRUE(late);
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
    run_to_the_end(loop);
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
    run_to_the_end(loop);
}

TEST(LoopOnTheRealClock, WaitingCostsNoProcessorTime) {
    qv::SteadyClock clock;
    EventLoop loop(clock);
    const Rescue rescue(loop);
    const auto timer = loop.after(300ms, [] {});
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_THREAD, &before);
    ASSERT_TRUE(loop.fetch());
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 3) << "wakes up while there is nothing to do";
}

TEST(LoopWait, QuietLoopSleeps) {
    CountingClock clock;
    EventLoop loop(clock);
    EXPECT_LE(idle_rounds_of_a_quiet_time(loop, clock), 2);
}

TEST(LoopWait, LoopSleepsUntilATimerThatIsFarAway) {
    CountingClock clock;
    EventLoop loop(clock);
    clock.wait = 1h + 1ns;
    const auto timer = loop.after(1h, [] {});
    EXPECT_LE(idle_rounds_of_a_quiet_time(loop, clock), 2);
}

TEST(LoopWait, AlarmThatHasGoneOffWakesNobodyAgain) {
    CountingClock clock;
    EventLoop loop(clock);
    clock.wait = 1ns;
    EventLoop::Handle timer = loop.after(1h, [] {});  // never due, because the clock is stopped
    const Rescue rescue(loop);
    EXPECT_GT(idle_rounds_of_a_quiet_time(loop, clock), 1) << "the alarm goes off early";
    timer.reset();
    EXPECT_LE(idle_rounds_of_a_quiet_time(loop, clock), 3);
}

TEST(LoopWait, PostsThatWakeTheLoopLeaveItAsleepAfterwards) {
    CountingClock clock;
    EventLoop loop(clock);
    const Bell bell(60s);
    EventLoop::Handle watch = loop.watch(bell.fd, true, false, [&](EventLoop::Ready) {
        ADD_FAILURE() << "a post woke nobody";
        loop.stop();
    });
    constexpr int kPosts = 300;
    std::atomic<int> ran = 0;
    std::thread other([&] {
        for (int n = 0; n < kPosts; n++) {
            loop.post([&] {
                if (++ran == kPosts) {
                    watch.reset();
                }
            });
            while (ran == n) {
                std::this_thread::yield();
            }
        }
    });
    run_to_the_end(loop);
    EXPECT_EQ(ran, kPosts);
    ran = kPosts;
    other.join();
    EXPECT_LE(idle_rounds_of_a_quiet_time(loop, clock), 3);
}

TEST_F(Loop, TimerThatBecomesDueAsTheLoopIsAboutToWaitEndsTheWait) {
    const Pipe pipe;
    int idle_rounds = 0;
    const auto timer = loop.after(5s, note("fired"));
    EventLoop::Handle watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
        pipe.drain();
        seen.push_back("descriptor");
    });
    clock.on_idle = [&] {
        if (++idle_rounds == 1) {
            pipe.fill();
        } else {
            clock.advance(5s);
        }
        return false;
    };
    const Rescue rescue(loop);
    for (int n = 0; n < 2 && loop.fetch(); n++) {
        loop.run();
    }
    EXPECT_EQ(seen, (Seen{"descriptor", "fired"}));
}

TEST_F(Loop, StopInTheLastMomentEndsTheWait) {
    const Pipe pipe;
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    clock.on_idle = [this] {
        loop.stop();
        return false;
    };
    const Rescue rescue(loop);
    EXPECT_FALSE(loop.fetch());
}

TEST_F(Loop, DescriptorThatEndsTheWaitIsReportedOnce) {
    const Pipe pipe;
    auto watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
        seen.push_back("descriptor");
        char byte = 0;
        static_cast<void>(read(pipe.out(), &byte, 1));
    });
    clock.on_idle = [&] {
        pipe.fill();
        return false;
    };
    ASSERT_TRUE(loop.fetch());
    loop.run();
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"descriptor"});
}

TEST_F(Loop, DescriptorThatStaysReadyDoesNotBlockARound) {
    const Pipe pipe;
    pipe.fill();
    const auto watch = loop.watch(pipe.out(), true, false, [](EventLoop::Ready) {});
    std::atomic<bool> fetched = false;
    bool in_time = true;
    clockid_t cpu_clock{};
    ASSERT_EQ(pthread_getcpuclockid(pthread_self(), &cpu_clock), 0);
    std::thread other([&] {
        timespec used{};
        while (!fetched && in_time) {
            clock_gettime(cpu_clock, &used);
            in_time = used.tv_sec < 3;
            sched_yield();
        }
        pipe.drain();  // would end such a round
    });
    EXPECT_TRUE(loop.fetch());
    fetched = true;
    other.join();
    EXPECT_TRUE(in_time);
}

// In real time the loop may give up before its first yield; then the test tries again.
TEST_F(Loop, ExpectedPostThatArrivesWhileTheLoopPollsRunsFirst) {
    bool yielded = false;
    for (int attempt = 0; attempt < 1000 && !yielded; attempt++) {
        seen.clear();
        const auto late = loop.defer(note("put off"));
        loop.expect_post();
        g_on_yield = [&] {
            yielded = true;
            std::thread([this] { loop.post(note("posted")); }).join();
        };
        run_ready(loop, clock);
        g_on_yield = nullptr;
    }
    EXPECT_TRUE(yielded);
    EXPECT_EQ(seen, (Seen{"posted", "put off"}));
}

std::string failure_of_creation() {
    ManualClock clock;
    try {
        const EventLoop loop(clock);
        return "none";
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
}

TEST(LoopCreation, LoopThatLibeventCannotServeIsNotMade) {
    g_no_config = true;
    EXPECT_EQ(failure_of_creation(), "event loop: out of memory");
    g_no_config = false;
    g_no_base = true;
    EXPECT_EQ(failure_of_creation(), "event loop: cannot be set up");
    g_no_base = false;
    for (const int failing : {0, 1}) {
        g_failing_add = failing;
        EXPECT_EQ(failure_of_creation(), "event loop: cannot be set up");
    }
    g_failing_add = 2;
    EXPECT_EQ(failure_of_creation(), "none");
    g_failing_add.reset();
}

// Uses up all descriptors but a few.
class FewDescriptors {
 public:
    explicit FewDescriptors(size_t left) {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit few = before_;
        few.rlim_cur = 100;
        setrlimit(RLIMIT_NOFILE, &few);
        for (int fd = dup(STDERR_FILENO); fd >= 0; fd = dup(STDERR_FILENO)) {
            taken_.push_back(fd);
        }
        for (size_t n = 0; n < left; n++) {
            close(taken_.back());
            taken_.pop_back();
        }
    }
    ~FewDescriptors() {
        for (const int fd : taken_) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &before_);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
    rlimit before_{};
    std::vector<int> taken_;
};

TEST(LoopCreation, LoopThatGetsNoDescriptorsIsNotMade) {
    {
        const FewDescriptors few(0);
        EXPECT_EQ(failure_of_creation(), "event loop: eventfd: Too many open files");
    }
    const FewDescriptors few(1);
    EXPECT_EQ(failure_of_creation(), "event loop: timerfd: Too many open files");
}

std::vector<int> open_descriptors() {
    std::vector<int> open;
    for (int fd = 0; fd < 100; fd++) {
        if (fcntl(fd, F_GETFD) >= 0) {
            open.push_back(fd);
        }
    }
    return open;
}

TEST(LoopCreation, DescriptorsOfALoopAreItsOwnAndEndWithIt) {
    const std::vector<int> before = open_descriptors();
    {
        ManualClock clock;
        const EventLoop loop(clock);
        int own = 0;
        for (const int fd : open_descriptors()) {
            if (std::find(before.begin(), before.end(), fd) == before.end()) {
                EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << "passed to programs";
                own++;
            }
        }
        EXPECT_GE(own, 3);
    }
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace loop_test
