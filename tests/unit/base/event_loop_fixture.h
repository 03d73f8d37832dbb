// Fixture of the event loop's suites.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/event_loop.h"
#include "tests/support/manual_clock.h"

namespace loop_test {

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

using Seen = std::vector<std::string>;

class Loop : public testing::Test {
 protected:
    ManualClock clock;
    EventLoop loop{clock};
    Seen seen;

    EventLoop::Task note(const std::string& text) {
        return [this, text] {
            seen.push_back(text);
        };
    }
};

// Stops a loop that still waits a minute after it should have ended, and fails the test.
class Rescue {
 public:
    explicit Rescue(EventLoop& loop)
        : thread_([&loop, over = over_.get_future()] {
              if (over.wait_for(60s) == std::future_status::timeout) {
                  ADD_FAILURE() << "the loop sleeps although there is something to do";
                  loop.stop();
                  loop.post([] {});  // wakes the loop in case stop() does not
              }
          }) {}
    ~Rescue() {
        over_.set_value();
        thread_.join();
    }
    Rescue(const Rescue&) = delete;
    Rescue& operator=(const Rescue&) = delete;

 private:
    std::promise<void> over_;
    std::thread thread_;
};

inline void run_to_the_end(EventLoop& loop) {
    while (loop.fetch()) {
        loop.run();
    }
}

}  // namespace loop_test
