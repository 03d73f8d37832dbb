// C library calls that the linker redirects (--wrap): allocation, files, threads, timed waits.
// The redirection reaches the objects linked into the test executable, not shared libraries.
#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

namespace fake {

namespace {

struct HeldThread {
    void* (*entry)(void*);
    void* argument;
};

struct State {
    std::mutex mutex;
    std::map<std::string, std::optional<std::string>> files;  // no content: cannot be opened
    std::map<FILE*, std::string*> open;
    std::vector<HeldThread> held;
    int calloc_countdown = 0;  // 0: no failure planned
    int strdup_countdown = 0;
    // The timed wait in progress.
    std::condition_variable wait_begun;
    int waits = 0;
    bool waiting = false;
    bool time_out = false;
    pthread_cond_t* condition = nullptr;
    pthread_mutex_t* waited_mutex = nullptr;
    timespec deadline{};
    timespec started{};
    std::function<int()> signal_hook;
    pthread_mutex_t* watched_mutex = nullptr;  // atomic: read by every lock of the process
    std::function<void(bool)> lock_hook;       // set before the mutex is watched
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

std::unique_lock<std::mutex> locked() {
    return std::unique_lock(state().mutex);
}

// Whether this call must fail. Takes no lock: the state's own containers may allocate.
bool is_out_of_memory(int& countdown) {
    int left = __atomic_load_n(&countdown, __ATOMIC_RELAXED);
    if (left == 0)
        return false;
    __atomic_store_n(&countdown, left - 1, __ATOMIC_RELAXED);
    if (left > 1)
        return false;
    errno = ENOMEM;
    return true;
}

// Waits for the next action of the agent's thread; after a minute the test fails.
template <typename Condition>
void await(std::unique_lock<std::mutex>& lock, Condition condition) {
    if (state().wait_begun.wait_for(lock, std::chrono::seconds(60), condition))
        return;
    fprintf(stderr, "fake platform: the thread did not come to wait\n");
    std::abort();
}

}  // namespace

void fail_calloc(int nth) {
    auto lock = locked();
    state().calloc_countdown = nth;
}

void fail_strdup(int nth) {
    auto lock = locked();
    state().strdup_countdown = nth;
}

void file(const std::string& path, const std::string& content) {
    auto lock = locked();
    state().files[path] = content;
}

void no_file(const std::string& path) {
    auto lock = locked();
    state().files[path] = std::nullopt;
}

int open_files() {
    auto lock = locked();
    return static_cast<int>(state().open.size());
}

int held_threads() {
    auto lock = locked();
    return static_cast<int>(state().held.size());
}

int timed_waits() {
    auto lock = locked();
    return state().waits;
}

timespec last_deadline() {
    auto lock = locked();
    return state().deadline;
}

timespec last_wait_started() {
    auto lock = locked();
    return state().started;
}

void wait_until_idle(const std::function<bool()>& nothing_to_do) {
    for (;;) {
        auto lock = locked();
        await(lock, [] { return state().waiting; });
        int wait = state().waits;
        pthread_mutex_t* mutex = state().waited_mutex;
        lock.unlock();

        pthread_mutex_lock(mutex);
        bool idle = nothing_to_do();
        pthread_mutex_unlock(mutex);
        lock.lock();
        if (idle && state().waiting && state().waits == wait)
            return;
        if (!idle)
            await(lock, [&] { return state().waits != wait; });
    }
}

void on_signal(std::function<int()> hook) {
    auto lock = locked();
    state().signal_hook = std::move(hook);
}

void on_lock(pthread_mutex_t* mutex, std::function<void(bool taken)> hook) {
    __atomic_store_n(&state().watched_mutex, nullptr, __ATOMIC_RELEASE);
    state().lock_hook = std::move(hook);
    __atomic_store_n(&state().watched_mutex, mutex, __ATOMIC_RELEASE);
}

void let_wait_time_out() {
    auto lock = locked();
    await(lock, [] { return state().waiting; });
    pthread_mutex_t* mutex = state().waited_mutex;
    pthread_cond_t* condition = state().condition;
    lock.unlock();
    pthread_mutex_lock(mutex);
    lock.lock();
    state().time_out = true;
    lock.unlock();
    pthread_cond_broadcast(condition);
    pthread_mutex_unlock(mutex);
}

}  // namespace fake

using fake::locked;
using fake::state;

extern "C" {

void* __real_calloc(size_t number, size_t size);
char* __real_strdup(const char* text);
FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(FILE* stream);
int __real_close(int descriptor);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument);
int __real_pthread_detach(pthread_t thread);
int __real_pthread_condattr_init(pthread_condattr_t* attributes);
int __real_pthread_condattr_setclock(pthread_condattr_t* attributes, clockid_t clock);
int __real_pthread_condattr_destroy(pthread_condattr_t* attributes);
int __real_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_signal(pthread_cond_t* condition);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline);

void* __wrap_calloc(size_t number, size_t size) {
    return fake::is_out_of_memory(state().calloc_countdown) ? nullptr : __real_calloc(number, size);
}

char* __wrap_strdup(const char* text) {
    return fake::is_out_of_memory(state().strdup_countdown) ? nullptr : __real_strdup(text);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    auto lock = locked();
    auto found = state().files.find(path);
    if (found == state().files.end())
        return __real_fopen(path, mode);
    std::optional<std::string> content = found->second;
    lock.unlock();
    fake::enter("fopen", "fopen " + fake::quoted(path) + " " + fake::quoted(mode));
    if (!content) {
        errno = ENOENT;
        return nullptr;
    }
    // fmemopen refuses an empty buffer: a NUL byte reads as no number either.
    auto* bytes = new std::string(content->empty() ? std::string(1, '\0') : *content);
    FILE* stream = fmemopen(bytes->data(), bytes->size(), "r");
    lock.lock();
    state().open[stream] = bytes;
    return stream;
}

int __wrap_fclose(FILE* stream) {
    int result = 0;
    std::string* bytes = nullptr;
    {
        auto lock = locked();
        auto found = state().open.find(stream);
        if (found != state().open.end()) {
            bytes = found->second;
            state().open.erase(found);
        }
    }
    result = __real_fclose(stream);
    if (bytes != nullptr) {
        fake::enter("fclose", "fclose");
        delete bytes;
    }
    return result;
}

int __wrap_close(int descriptor) {
    return fake::is_session(descriptor) ? fake::close_session(descriptor)
                                        : __real_close(descriptor);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    std::string line = std::string("pthread_create") +
                       (attributes == nullptr ? "" : " with attributes") +
                       (argument == nullptr ? "" : " with argument");
    if (long result = fake::enter("pthread_create", line))
        return static_cast<int>(result);
    *thread = pthread_self();
    auto lock = locked();
    state().held.push_back({entry, argument});
    return 0;
}

int __wrap_pthread_detach(pthread_t thread) {
    if (long result = fake::enter("pthread_detach", "pthread_detach"))
        return static_cast<int>(result);
    return __real_pthread_detach(thread);
}

// The name is recorded, not set: no test reads `comm`.
int __wrap_prctl(int option, ...) {
    va_list arguments;
    va_start(arguments, option);
    const char* name = va_arg(arguments, const char*);
    va_end(arguments);
    long result =
        fake::enter("prctl", "prctl " + std::to_string(option) + " " + fake::quoted_or_null(name));
    if (result != 0)
        errno = EFAULT;
    return static_cast<int>(result);
}

int __wrap_pthread_condattr_init(pthread_condattr_t* attributes) {
    if (long result = fake::enter("pthread_condattr_init", "pthread_condattr_init"))
        return static_cast<int>(result);
    return __real_pthread_condattr_init(attributes);
}

int __wrap_pthread_condattr_setclock(pthread_condattr_t* attributes, clockid_t clock) {
    std::string line = std::string("pthread_condattr_setclock ") +
                       (clock == CLOCK_MONOTONIC ? "monotonic" : "other");
    if (long result = fake::enter("pthread_condattr_setclock", line))
        return static_cast<int>(result);
    return __real_pthread_condattr_setclock(attributes, clock);
}

int __wrap_pthread_condattr_destroy(pthread_condattr_t* attributes) {
    fake::enter("pthread_condattr_destroy", "pthread_condattr_destroy");
    return __real_pthread_condattr_destroy(attributes);
}

int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
    clockid_t clock = CLOCK_REALTIME;
    if (attributes != nullptr)
        pthread_condattr_getclock(attributes, &clock);
    std::string line =
        std::string("pthread_cond_init ") + (clock == CLOCK_MONOTONIC ? "monotonic" : "real time");
    if (long result = fake::enter("pthread_cond_init", line))
        return static_cast<int>(result);
    return __real_pthread_cond_init(condition, attributes);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    int type = PTHREAD_MUTEX_DEFAULT;
    if (attributes != nullptr)
        pthread_mutexattr_gettype(attributes, &type);
    std::string line =
        std::string("pthread_mutex_init ") + (attributes == nullptr             ? "default"
                                              : type == PTHREAD_MUTEX_RECURSIVE ? "recursive"
                                                                                : "other type");
    if (long result = fake::enter("pthread_mutex_init", line))
        return static_cast<int>(result);
    return __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    fake::enter("pthread_mutex_destroy", "pthread_mutex_destroy");
    return __real_pthread_mutex_destroy(mutex);
}

// The state's own mutex also gets here, so only the watched address is handled.
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_lock(mutex);
    if (mutex == __atomic_load_n(&state().watched_mutex, __ATOMIC_ACQUIRE))
        state().lock_hook(true);
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (mutex == __atomic_load_n(&state().watched_mutex, __ATOMIC_ACQUIRE))
        state().lock_hook(false);
    return __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition) {
    std::function<int()> hook;
    {
        auto lock = locked();
        hook = state().signal_hook;
    }
    int result = hook ? hook() : 0;
    return result != 0 ? result : __real_pthread_cond_signal(condition);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
    {
        auto lock = locked();
        fake::State& s = state();
        s.waits++;
        s.waiting = true;
        s.time_out = false;
        s.condition = condition;
        s.waited_mutex = mutex;
        s.deadline = *deadline;
        clock_gettime(CLOCK_MONOTONIC, &s.started);
        s.wait_begun.notify_all();
    }
    pthread_cond_wait(condition, mutex);
    auto lock = locked();
    state().waiting = false;
    return state().time_out ? ETIMEDOUT : 0;
}

}  // extern "C"

void fake::start_threads() {
    auto lock = locked();
    std::vector<HeldThread> held;
    held.swap(state().held);
    lock.unlock();
    for (const HeldThread& thread : held) {
        pthread_t id;
        if (__real_pthread_create(&id, nullptr, thread.entry, thread.argument) != 0)
            std::abort();
    }
}
