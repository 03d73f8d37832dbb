#include "platform/base/background.h"

#include <csignal>
#include <utility>

#include <pthread.h>

namespace qv {

WorkerThread::~WorkerThread() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void WorkerThread::run(std::function<void()> work, EventLoop::Task done) {
    {
        const std::lock_guard lock(mutex_);
        jobs_.push_back({std::move(work), std::move(done)});
    }
    if (!thread_.joinable()) {
        // Signals belong to the loop's thread.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        thread_ = std::thread([this] { serve(); });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    wake_.notify_one();
}

void WorkerThread::serve() {
    pthread_setname_np(pthread_self(), "lda_disk");
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
        if (jobs_.empty()) {
            return;
        }
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job.work();
        loop_.post(std::move(job.done));
        lock.lock();
    }
}

}  // namespace qv
