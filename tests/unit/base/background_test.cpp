// The worker thread of the platform. An alarm kills a worker that never ends, which fails the test.
#include "platform/base/background.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/manual_clock.h"

namespace {

using Lines = std::vector<std::string>;

struct Worker : testing::Test {
    Worker() { alarm(30); }
    ~Worker() override {
        worker.reset();
        alarm(0);
    }

    qv::test::ManualClock clock;
    qv::EventLoop loop{clock};
    std::unique_ptr<qv::Background> worker = std::make_unique<qv::WorkerThread>(loop);
    Lines worked;  // by the worker until it has ended
    Lines done;    // by the loop

    void run(const std::string& name) {
        worker->run([this, name] { worked.push_back(name); },
                    [this, name] {
                        EXPECT_TRUE(loop.on_loop_thread());
                        done.push_back(name);
                    });
    }
};

TEST_F(Worker, WorkIsDoneInOrderAndReportedOnTheLoop) {
    run("one");
    run("two");
    run("three");
    worker.reset();
    EXPECT_EQ(worked, (Lines{"one", "two", "three"})) << "its end waits for the work";
    EXPECT_EQ(done, Lines{});
    qv::test::run_ready(loop, clock);
    EXPECT_EQ(done, (Lines{"one", "two", "three"}));
}

TEST_F(Worker, LaterWorkIsDoneToo) {
    for (const char* const name : {"one", "two"}) {
        run(name);
        while (done.empty() || done.back() != name) {
            qv::test::run_ready(loop, clock);
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(done, (Lines{"one", "two"}));
}

TEST_F(Worker, WorkIsDoneOnAThreadThatTakesNoSignals) {
    sigset_t at_work;
    sigemptyset(&at_work);
    bool on_loop_thread = true;
    worker->run(
        [&] {
            on_loop_thread = loop.on_loop_thread();
            pthread_sigmask(SIG_BLOCK, nullptr, &at_work);
        },
        [] {});
    sigset_t here;
    pthread_sigmask(SIG_BLOCK, nullptr, &here);
    worker.reset();
    EXPECT_FALSE(on_loop_thread);
    EXPECT_TRUE(sigismember(&at_work, SIGTERM) == 1 && sigismember(&at_work, SIGHUP) == 1);
    EXPECT_EQ(sigismember(&here, SIGTERM), 0);
}

TEST_F(Worker, EndsWithoutWork) {
    worker.reset();
    EXPECT_EQ(worked, Lines{});
}

}  // namespace
