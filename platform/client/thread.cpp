// qv/thread.h over EventLoop.
//
// Work that ends in an exception, as when memory runs out, is half done and cannot be reported: the
// process ends at the place, and its next start puts everything right.
#include "qv/thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>

#include "platform/base/event_loop.h"
#include "platform/client/guarded.h"
#include "platform/client/platform.h"

namespace {

// Far more than any timer needs, and far from where nanoseconds overflow.
constexpr long kLongestTimer_s = 100L * 365 * 24 * 3600;

qv::Duration delay_of(long seconds) {
    return std::chrono::seconds(std::clamp(seconds, 0L, kLongestTimer_s));
}

}  // namespace

extern "C" {

qv_thread_master* qv_thread_master_create(void) {
    try {
        auto loop = std::make_unique<qv::EventLoop>(qv::platform().clock());
        qv::platform().attach_loop(*loop);
        return loop.release()->master();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "lda: %s\n", failure.what());
        return nullptr;
    }
}

qv_thread* qv_thread_fetch(qv_thread_master* master, qv_thread* thread) {
    return [=]() noexcept {
        return qv::loop_of(master).fetch(thread);
    }();
}

void qv_thread_call(qv_thread* thread) {
    [=]() noexcept {
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
        return qv::loop_of(master).add_timer(func, arg, delay_of(seconds), nullptr);
    });
}

int qv_thread_insert_timer(qv_thread_master* master, qv_thread** slot, int (*func)(qv_thread*),
                           void* arg, long seconds, const char* /*name*/) {
    if (master == nullptr || slot == nullptr || func == nullptr) {
        return EINVAL;
    }
    qv_thread_cancel(*slot);
    return qv::guarded(ENOMEM, [&] {
        qv::loop_of(master).add_timer(func, arg, delay_of(seconds), slot);
        return 0;
    });
}

void qv_thread_cancel(qv_thread* timer) {
    if (timer != nullptr) {
        qv::EventLoop::cancel(timer);
    }
}

}  // extern "C"
