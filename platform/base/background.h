// Work that may wait for the disk and so must not run in the loop.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/base/event_loop.h"

namespace qv {

class Background {
 public:
    virtual ~Background() = default;
    // Runs `work` on another thread, after all work given earlier, then `done` on the loop. Neither
    // may throw. Loop thread.
    virtual void run(std::function<void()> work, EventLoop::Task done) = 0;
};

// One thread, started by the first call of run(). The destructor waits until all work is done; its
// `done` tasks are posted to the loop, which must outlive this.
class WorkerThread final : public Background {
 public:
    explicit WorkerThread(EventLoop& loop) : loop_(loop) {}
    ~WorkerThread() override;
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    void run(std::function<void()> work, EventLoop::Task done) override;

 private:
    struct Job {
        std::function<void()> work;
        EventLoop::Task done;
    };
    void serve();

    EventLoop& loop_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;  // guarded by mutex_
    bool ending_ = false;   // guarded by mutex_
    std::thread thread_;
};

}  // namespace qv
