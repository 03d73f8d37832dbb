// Runs a last task before the process ends on SIGTERM or SIGINT.
#pragma once

#include "platform/base/event_loop.h"

namespace qv {

// Loop thread only. Create it before other threads: they must inherit the blocked SIGTERM and
// SIGINT.
class Termination {
 public:
    // When one of the signals arrives, the loop runs `last_task` and then ends the process by that
    // signal. Throws std::runtime_error.
    Termination(EventLoop& loop, EventLoop::Task last_task);
    ~Termination();
    Termination(const Termination&) = delete;
    Termination& operator=(const Termination&) = delete;

 private:
    void on_signal();

    const EventLoop::Task last_task_;
    int fd_;
    EventLoop::Handle watch_;
};

}  // namespace qv
