// qv/thread.h over EventLoop.
//
// Work that throws, as it does when memory runs out, is half done and has no caller to report to.
// The process ends there, and its next start restores a sound state.
#include "qv/thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "platform/base/event_loop.h"
#include "platform/base/guarded.h"
#include "platform/base/metrics.h"
#include "platform/base/visible.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"

namespace {

// Far more than any timer needs, and far from where nanoseconds overflow.
constexpr long kLongestTimer_s = 100L * 365 * 24 * 3600;

qv::Duration delay_of(long seconds) {
    return std::chrono::seconds(std::clamp(seconds, 0L, kLongestTimer_s));
}

// A pending timer; its address is the handle. The loop owns it through the Expiry task.
struct Timer final : qv_thread {
    Timer(const qv_thread& record, qv_thread** used_slot) : qv_thread(record), slot(used_slot) {}

    // Ends the timer, because it fires or is cancelled. The result owns the task in the loop;
    // destroying it may destroy the timer.
    qv::EventLoop::Handle end() {
        if (slot != nullptr) {
            *slot = nullptr;
        }
        return std::move(pending);
    }

    qv_thread** slot;
    qv::EventLoop::Handle pending;
};

// The task of a timer in the loop.
struct Expiry {
    std::shared_ptr<Timer> timer;

    // Ends the timer and returns its record. Call once.
    qv_thread take() const {
        timer->end();
        return *timer;
    }
    // For a loop that is run through EventLoop::run() rather than qv_thread_call().
    void operator()() const {
        qv_thread record = take();
        qv_thread_call(&record);
    }
};

qv_thread* arm(const qv_thread& record, long seconds, qv_thread** slot) {
    const auto timer = std::make_shared<Timer>(record, slot);
    timer->pending = qv::loop_of(record.master).after(delay_of(seconds), Expiry{timer});
    if (slot != nullptr) {
        *slot = timer.get();
    }
    return timer.get();
}

int run_fetched(qv_thread* thread) {
    qv::loop_of(thread->master).run();
    return 0;
}

}  // namespace

namespace qv {

// qv_thread_master is never defined: a pointer to one points to the loop.
qv_thread_master* master_of(EventLoop& loop) {
    return reinterpret_cast<qv_thread_master*>(&loop);
}

EventLoop& loop_of(qv_thread_master* master) {
    return *reinterpret_cast<EventLoop*>(master);
}

}  // namespace qv

extern "C" {

qv_thread_master* qv_thread_master_create(void) {
    try {
        auto loop = std::make_unique<qv::EventLoop>(qv::platform().clock());
        qv::platform().attach_loop(*loop);
        return qv::master_of(*loop.release());
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "lda: %s\n", qv::visible(failure.what()).c_str());
        return nullptr;
    }
}

qv_thread* qv_thread_fetch(qv_thread_master* master, qv_thread* thread) {
    return [=]() noexcept -> qv_thread* {
        qv::EventLoop& loop = qv::loop_of(master);
        if (!loop.fetch()) {
            return nullptr;
        }
        const auto* const expiry = loop.fetched().target<Expiry>();
        *thread = expiry != nullptr ? expiry->take() : qv_thread{master, run_fetched, nullptr};
        return thread;
    }();
}

void qv_thread_call(qv_thread* thread) {
    [=]() noexcept {
        const qv::TurnTimer timer;
        thread->func(thread);
    }();
}

void qv_thread_master_finish(qv_thread_master* master) {
    if (master != nullptr) {
        delete &qv::loop_of(master);
    }
}

qv_thread* qv_thread_add_timer(qv_thread_master* master, int (*func)(qv_thread*), void* arg,
                               long seconds) {
    if (master == nullptr || func == nullptr) {
        return nullptr;
    }
    return qv::guarded<qv_thread*>(nullptr, [&] {
        return arm({master, func, arg}, seconds, nullptr);
    });
}

int qv_thread_insert_timer(qv_thread_master* master, qv_thread** slot, int (*func)(qv_thread*),
                           void* arg, long seconds, const char* /*name*/) {
    if (master == nullptr || slot == nullptr || func == nullptr) {
        return EINVAL;
    }
    qv_thread_cancel(*slot);
    return qv::guarded(ENOMEM, [&] {
        arm({master, func, arg}, seconds, slot);
        return 0;
    });
}

void qv_thread_cancel(qv_thread* timer) {
    if (timer != nullptr) {
        static_cast<Timer*>(timer)->end();
    }
}

}  // extern "C"
