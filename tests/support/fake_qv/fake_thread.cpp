// Event loop and timers: work that tests queue, timers that tests fire.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

struct qv_thread_master {
    std::vector<fake::Timer> timers;
    std::deque<std::function<void()>> work;
};

namespace fake {
namespace {

[[noreturn]] void misuse(const char* what) {
    fprintf(stderr, "fake platform: %s\n", what);
    std::abort();
}

// Removes a pending timer from the list. The handle is invalid afterwards.
Timer take_timer(qv_thread* handle, const char* what) {
    auto& timers = master()->timers;
    auto found = std::find_if(timers.begin(), timers.end(),
                              [&](const Timer& t) { return t.handle == handle; });
    if (found == timers.end())
        misuse(what);
    Timer timer = *found;
    timers.erase(found);
    if (timer.slot != nullptr)
        *timer.slot = nullptr;
    delete handle;
    return timer;
}

int run_work(qv_thread* thread) {
    std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(thread->arg));
    (*work)();
    return 0;
}

qv_thread* arm(Timer timer) {
    timer.handle = new qv_thread{master(), timer.func, timer.arg};
    master()->timers.push_back(timer);
    return timer.handle;
}

}  // namespace

qv_thread_master* master() {
    static auto* instance = new qv_thread_master;
    return instance;
}

std::vector<Timer> timers() {
    return master()->timers;
}

int fire(qv_thread* handle) {
    Timer timer = take_timer(handle, "fired a timer that is not pending");
    qv_thread thread{master(), timer.func, timer.arg};
    return timer.func(&thread);
}

int fire(int (*func)(qv_thread*)) {
    for (const Timer& timer : master()->timers)
        if (timer.func == func)
            return fire(timer.handle);
    misuse("no pending timer has this callback");
}

void queue_work(std::function<void()> work) {
    master()->work.push_back(std::move(work));
}

}  // namespace fake

extern "C" {

qv_thread_master* qv_thread_master_create(void) {
    if (fake::enter_refused("qv_thread_master_create", "qv_thread_master_create"))
        return nullptr;
    return fake::master();
}

qv_thread* qv_thread_fetch(qv_thread_master* master, qv_thread* thread) {
    if (fake::enter_refused("qv_thread_fetch", "qv_thread_fetch") || master->work.empty())
        return nullptr;
    *thread = {master, fake::run_work, new std::function<void()>(std::move(master->work.front()))};
    master->work.pop_front();
    return thread;
}

void qv_thread_call(qv_thread* thread) {
    fake::enter("qv_thread_call", "qv_thread_call");
    thread->func(thread);
}

void qv_thread_master_finish(qv_thread_master* master) {
    fake::enter("qv_thread_master_finish",
                master == nullptr ? "qv_thread_master_finish null" : "qv_thread_master_finish");
}

qv_thread* qv_thread_add_timer(qv_thread_master* master, int (*func)(qv_thread*), void* arg,
                               long seconds) {
    std::string line = "qv_thread_add_timer " + std::to_string(seconds);
    if (master != fake::master())
        line += " wrong master";
    if (fake::enter_refused("qv_thread_add_timer", line))
        return nullptr;
    return fake::arm({nullptr, func, arg, seconds, "", nullptr});
}

int qv_thread_insert_timer(qv_thread_master* master, qv_thread** slot, int (*func)(qv_thread*),
                           void* arg, long seconds, const char* name) {
    std::string line = "qv_thread_insert_timer " + fake::quoted_or_null(name) + " " +
                       std::to_string(seconds) + (arg == nullptr ? "" : " with argument");
    if (master != fake::master())
        line += " wrong master";
    if (long result = fake::enter("qv_thread_insert_timer", line))
        return static_cast<int>(result);
    if (*slot != nullptr)
        fake::take_timer(*slot, "the slot of a timer holds something else");
    *slot = fake::arm({nullptr, func, arg, seconds, name, slot});
    return 0;
}

void qv_thread_cancel(qv_thread* timer) {
    if (timer == nullptr) {
        fake::enter("qv_thread_cancel", "qv_thread_cancel null");
        return;
    }
    fake::Timer taken = fake::take_timer(timer, "cancelled a timer that is not pending");
    fake::enter("qv_thread_cancel", "qv_thread_cancel " + std::to_string(taken.seconds));
}

}  // extern "C"
