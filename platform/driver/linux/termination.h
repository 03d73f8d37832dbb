// Something to do before the process ends on a signal.
#pragma once

#include "platform/base/event_loop.h"

namespace qv {

// Loop thread only, and made before there are other threads: they inherit that SIGTERM and SIGINT
// are blocked.
class Termination {
 public:
    // When SIGTERM or SIGINT arrives, the loop runs `last_task`, and the process ends by that
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
