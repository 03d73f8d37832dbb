// fetch() hands out work from `ready`, the work of the current round. When that is empty,
// find_work() starts a round: posted tasks, timers that are due, descriptors that are ready, each
// taken once. Work that this work adds waits for the next round, so nothing can starve the rest.
//
// A round that finds nothing ends in one of four ways:
//   a post is expected: linger() polls the queue for up to kLinger, then the round starts over;
//   deferred tasks wait: they become the round's work;
//   the clock is moved by hand: Clock::idle() lets the test move it, and the round starts over;
//   otherwise: wait() sleeps in libevent until a descriptor is ready. The alarm descriptor ends
//   that sleep for the earliest timer, the wake descriptor for post() and stop().
//
// No wake-up may be lost. post() raises the wake descriptor only when `asleep` is set. wait() sets
// it under the same lock under which it finds the queue empty, so a post is either seen there or
// wakes the loop. A round may read the wake-up of a stop or of a post by accident, as one of its
// ready descriptors; therefore find_work() looks at both again before it sleeps.
//
// Removal: a loop and a handle share an Entry, and `Entry::loop` says whether it is live. reset()
// clears it. Work of that entry may be in `ready` at that moment; start() then skips it. A timer is
// finished when fetch() takes it, a watch stays until its handle is destroyed, which may happen
// inside its own callback: `current` keeps the entry alive for the call. The destructor of the loop
// clears every entry first, because a task may own handles, its own included.
#include "platform/base/event_loop.h"

#include <event2/event.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/base/metrics.h"
#include "platform/base/mutex.h"

namespace qv {
namespace {

// Posted tasks taken in one round, before timers and descriptors get their turn.
constexpr size_t kPostedPerRound = 64;

// Longer delays are cut to this: about a hundred years, far from where time points overflow.
constexpr Duration kLongestDelay = std::chrono::hours(24 * 365 * 100);

struct EventFree {
    void operator()(event* watched) const { event_free(watched); }
};
using EventPtr = std::unique_ptr<event, EventFree>;

struct BaseFree {
    void operator()(event_base* base) const { event_base_free(base); }
};
using BasePtr = std::unique_ptr<event_base, BaseFree>;

// libevent only waits for descriptors: no locks, for there is one thread.
BasePtr make_base() {
    const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                             event_config_free);
    if (!config) {
        throw std::runtime_error("event loop: out of memory");
    }
    event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK);
    BasePtr base(event_base_new_with_config(config.get()));
    if (!base) {
        throw std::runtime_error("event loop: cannot be set up");
    }
    return base;
}

class WakeDescriptor {
 public:
    WakeDescriptor() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (fd_ < 0) {
            throw std::runtime_error(std::string("event loop: eventfd: ") + strerror(errno));
        }
    }
    WakeDescriptor(const WakeDescriptor&) = delete;
    WakeDescriptor& operator=(const WakeDescriptor&) = delete;
    ~WakeDescriptor() { close(fd_); }

    int fd() const { return fd_; }
    void raise() const { static_cast<void>(eventfd_write(fd_, 1)); }  // fails only when raised
    void clear() const {
        eventfd_t count = 0;
        static_cast<void>(eventfd_read(fd_, &count));
    }

 private:
    int fd_;
};

// Ends the wait for descriptors when the earliest timer is due. libevent's own timers are too
// coarse for a scaled clock, and its precise ones cost a system call in every round.
class AlarmDescriptor {
 public:
    AlarmDescriptor() : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
        if (fd_ < 0) {
            throw std::runtime_error(std::string("event loop: timerfd: ") + strerror(errno));
        }
    }
    AlarmDescriptor(const AlarmDescriptor&) = delete;
    AlarmDescriptor& operator=(const AlarmDescriptor&) = delete;
    ~AlarmDescriptor() { close(fd_); }

    int fd() const { return fd_; }
    // Replaces an earlier setting, fired or not. A delay of zero fires at once.
    void set(Duration delay) const {
        const auto ns = std::chrono::nanoseconds(std::max(delay, Duration(1))).count();
        const itimerspec due = {.it_interval = {0, 0},
                                .it_value = {ns / 1'000'000'000, ns % 1'000'000'000}};
        timerfd_settime(fd_, 0, &due, nullptr);
    }
    void clear() const {
        const itimerspec never = {};
        timerfd_settime(fd_, 0, &never, nullptr);
    }

 private:
    int fd_;
};

// The position of a timer: by time, and by order of arming among equals.
using TimerKey = std::pair<Time, uint64_t>;

}  // namespace

// Loop thread only. The loop and the handle share an entry; it is live as long as `loop` is set.
struct EventLoop::Handle::Entry {
    Entry() = default;
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    virtual ~Entry() = default;
    virtual void detach() = 0;

    Impl* loop = nullptr;
};

struct EventLoop::Impl {
    using Entry = Handle::Entry;

    // See expect_post(): nothing is expected, the post is still to come, it is in the queue.
    enum class Expected { kNothing, kPost, kPosted };

    // Also a deferred task: then `key` is in no map.
    struct Timer final : Entry {
        void detach() override;

        Task task;
        TimerKey key;
    };

    struct Watch final : Entry, std::enable_shared_from_this<Watch> {
        void detach() override;

        EventPtr watched;
        WatchCallback callback;
    };

    // One piece of work: a posted task, a timer or a watch, exactly one of the three.
    struct Work {
        Task task;
        std::shared_ptr<Timer> timer;
        std::shared_ptr<Watch> watch;
        Ready ready{};
    };

    explicit Impl(Clock& used_clock);
    ~Impl();

    bool find_work() EXCLUDES(mutex);
    void take_posted() EXCLUDES(mutex);
    void take_due_timers();
    void take_deferred();
    void wait();
    bool linger() EXCLUDES(mutex);
    bool anything_posted() EXCLUDES(mutex);
    bool has_work() const;
    bool start(Work work);
    void wake_seen() const;
    void alarm_seen();
    void set_alarm();

    // Constant after creation.
    Clock& clock;
    const pthread_t own_thread = pthread_self();
    WakeDescriptor wake;
    AlarmDescriptor alarm;

    // Loop thread only. The watches are freed before the base they are registered with.
    BasePtr base = make_base();
    EventPtr wake_event;
    EventPtr alarm_event;
    std::optional<Time> alarm_time;  // what the alarm is set to; none when it is off or has fired
    std::unordered_set<Watch*> watches;
    std::map<TimerKey, std::shared_ptr<Timer>> timers;
    uint64_t timers_armed = 0;
    std::deque<Work> ready;  // this round's work
    std::vector<std::shared_ptr<Timer>> deferred;
    int rounds_deferred = 0;  // busy rounds in a row that left `deferred` waiting
    Work current;             // taken by fetch() for run(), not a timer
    Task check;               // called before each piece of work; may be empty

    Mutex mutex;
    std::deque<Task> posted GUARDED_BY(mutex);
    bool asleep GUARDED_BY(mutex) = false;  // a post must wake the loop

    std::atomic<bool> stopped{false};
    std::atomic<Expected> expected{Expected::kNothing};
};

EventLoop::Impl::Impl(Clock& used_clock) : clock(used_clock) {
    wake_event.reset(event_new(
        base.get(), wake.fd(), EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* self) { static_cast<Impl*>(self)->wake_seen(); }, this));
    // The alarm only ends the wait; take_due_timers() then looks at the clock.
    alarm_event.reset(event_new(
        base.get(), alarm.fd(), EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* self) { static_cast<Impl*>(self)->alarm_seen(); }, this));
    if (!wake_event || !alarm_event || event_add(wake_event.get(), nullptr) != 0 ||
        event_add(alarm_event.get(), nullptr) != 0) {
        throw std::runtime_error("event loop: cannot be set up");
    }
}

// Handles keep their entries beyond the loop's life, and tasks may own handles. So all entries are
// detached before any task is destroyed.
EventLoop::Impl::~Impl() {
    for (auto& [key, timer] : timers) {
        timer->loop = nullptr;
    }
    for (Work& work : ready) {
        if (work.timer) {
            work.timer->loop = nullptr;
        }
    }
    for (const std::shared_ptr<Timer>& late : deferred) {
        late->loop = nullptr;
    }
    for (Watch* watch : watches) {
        watch->watched.reset();
        watch->loop = nullptr;
    }
    // A task that owns the handle of its own timer would keep both alive for ever.
    for (auto& [key, timer] : timers) {
        timer->task = nullptr;
    }
    for (Work& work : ready) {
        if (work.timer) {
            work.timer->task = nullptr;
        }
    }
    for (const std::shared_ptr<Timer>& late : deferred) {
        late->task = nullptr;
    }
}

void EventLoop::Impl::Timer::detach() {
    Impl* const from = std::exchange(loop, nullptr);
    from->timers.erase(key);  // not there when the timer already waits in this round's work
}

void EventLoop::Impl::Watch::detach() {
    watched.reset();
    std::exchange(loop, nullptr)->watches.erase(this);
}

void EventLoop::Impl::wake_seen() const {
    wake.clear();
}

void EventLoop::Impl::alarm_seen() {
    alarm.clear();
    alarm_time.reset();
}

void EventLoop::Impl::take_posted() {
    const MutexLock lock(mutex);
    if (expected == Expected::kPosted) {
        expected = Expected::kNothing;
    }
    for (size_t n = 0; n < kPostedPerRound && !posted.empty(); n++) {
        ready.push_back({.task = std::move(posted.front()), .timer = {}, .watch = {}});
        posted.pop_front();
    }
}

bool EventLoop::Impl::anything_posted() {
    const MutexLock lock(mutex);
    return !posted.empty();
}

// A timer armed by this round's work waits for the next round, so a chain of zero delays cannot
// hold up the rest.
void EventLoop::Impl::take_due_timers() {
    if (timers.empty()) {
        return;
    }
    const Time now = clock.now();
    while (!timers.empty() && timers.begin()->first.first <= now) {
        ready.push_back({.task = {}, .timer = std::move(timers.begin()->second), .watch = {}});
        timers.erase(timers.begin());
    }
}

void EventLoop::Impl::take_deferred() {
    if (Metrics* const figures = metrics()) {
        figures->deferred_tasks = deferred.size();
    }
    if (deferred.empty() || (!ready.empty() && ++rounds_deferred < kMaxDeferredRounds)) {
        return;
    }
    rounds_deferred = 0;
    for (std::shared_ptr<Timer>& late : deferred) {
        ready.push_back({.task = {}, .timer = std::move(late), .watch = {}});
    }
    deferred.clear();
}

bool EventLoop::Impl::has_work() const {
    return !timers.empty() || !watches.empty();
}

// Sets the alarm for the earliest timer. Most rounds find it set already. An alarm for a timer that
// was removed stays set and costs one empty round.
void EventLoop::Impl::set_alarm() {
    if (timers.empty()) {
        return;
    }
    const Time earliest = timers.begin()->first.first;
    if (alarm_time && *alarm_time <= earliest) {
        return;
    }
    const Duration limit = clock.real_time_until(earliest);
    if (limit != Duration::max()) {
        alarm.set(limit);
        alarm_time = earliest;
    }
}

// Sleeps until a descriptor is ready, a task is posted or the earliest timer is due.
void EventLoop::Impl::wait() {
    set_alarm();
    {
        const MutexLock lock(mutex);
        if (!posted.empty()) {
            return;
        }
        asleep = true;
    }
    event_base_loop(base.get(), EVLOOP_ONCE);
    const MutexLock lock(mutex);
    asleep = false;
}

// Polls the queue for an expected post. True when a task is posted. The time limit is real
// time, whatever clock the loop has: the other thread runs in real time.
bool EventLoop::Impl::linger() {
    if (expected != Expected::kPost) {
        return anything_posted();
    }
    const auto until = std::chrono::steady_clock::now() + kLinger;
    while (!anything_posted() && !stopped.load() && std::chrono::steady_clock::now() < until) {
        sched_yield();  // the other thread may be waiting for this processor
    }
    Expected still_expected = Expected::kPost;
    expected.compare_exchange_strong(still_expected, Expected::kNothing);
    return anything_posted();
}

// Fills `ready`. False when the loop is stopped or nothing is left that could ever fire.
bool EventLoop::Impl::find_work() {
    while (!stopped.load()) {
        take_posted();
        take_due_timers();
        // With EVLOOP_NONBLOCK alone libevent would repeat until no descriptor is ready any more.
        event_base_loop(base.get(), EVLOOP_NONBLOCK | EVLOOP_ONCE);
        if (ready.empty() && linger()) {
            continue;
        }
        take_deferred();
        if (!ready.empty()) {
            return true;
        }
        // The call above may have read the wake-up of a stop or a post, which then would not end
        // the wait.
        if (stopped.load() || anything_posted() || clock.idle()) {
            continue;
        }
        if (!has_work() && !anything_posted()) {
            return false;
        }
        wait();
        if (!ready.empty()) {
            return true;
        }
    }
    return false;
}

// Makes `work` the current one. False when its handle was reset in the meantime.
bool EventLoop::Impl::start(Work work) {
    if (work.timer) {
        if (std::exchange(work.timer->loop, nullptr) == nullptr) {
            return false;
        }
        work.task = std::move(work.timer->task);
        work.timer.reset();
    } else if (work.watch && work.watch->loop == nullptr) {
        return false;
    }
    current = std::move(work);
    return true;
}

EventLoop::EventLoop(Clock& clock) : impl_(std::make_unique<Impl>(clock)) {}
EventLoop::~EventLoop() = default;

void EventLoop::post(Task task) {
    const MutexLock lock(impl_->mutex);
    impl_->posted.push_back(std::move(task));
    if (on_loop_thread()) {
        return;  // the loop looks at the queue before it sleeps
    }
    auto awaited = Impl::Expected::kPost;
    impl_->expected.compare_exchange_strong(awaited, Impl::Expected::kPosted);
    if (std::exchange(impl_->asleep, false)) {
        impl_->wake.raise();
    }
}

void EventLoop::expect_post() {
    impl_->expected = Impl::Expected::kPost;
}

bool EventLoop::expects_post() const {
    return impl_->expected != Impl::Expected::kNothing;
}

EventLoop::Handle EventLoop::watch(int fd, bool read, bool write, WatchCallback callback) {
    auto entry = std::make_shared<Impl::Watch>();
    entry->callback = std::move(callback);
    const int interest = EV_PERSIST | (read ? EV_READ : 0) | (write ? EV_WRITE : 0);
    const auto on_ready = [](evutil_socket_t, short what, void* arg) {
        auto* const watch = static_cast<Impl::Watch*>(arg);
        try {
            watch->loop->ready.push_back(
                {.task = {},
                 .timer = {},
                 .watch = watch->shared_from_this(),
                 .ready = {(what & EV_READ) != 0, (what & EV_WRITE) != 0}});
        } catch (const std::bad_alloc&) {
            // An exception must not pass through libevent. The descriptor stays ready, so it is
            // reported again in the next round.
        }
    };
    entry->watched.reset(
        event_new(impl_->base.get(), fd, static_cast<short>(interest), on_ready, entry.get()));
    if (!entry->watched || event_add(entry->watched.get(), nullptr) != 0) {
        return {};
    }
    impl_->watches.insert(entry.get());
    entry->loop = impl_.get();
    return Handle(std::move(entry));
}

EventLoop::Handle EventLoop::after(Duration delay, Task task) {
    const Time due = impl_->clock.now() + std::clamp(delay, Duration::zero(), kLongestDelay);
    auto timer = std::make_shared<Impl::Timer>();
    timer->key = {due, impl_->timers_armed++};
    timer->task = std::move(task);
    impl_->timers.emplace(timer->key, timer);
    timer->loop = impl_.get();
    return Handle(std::move(timer));
}

EventLoop::Handle EventLoop::defer(Task task) {
    auto late = std::make_shared<Impl::Timer>();
    late->key = {Time::min(), impl_->timers_armed++};
    late->task = std::move(task);
    late->loop = impl_.get();
    impl_->deferred.push_back(late);
    return Handle(std::move(late));
}

void EventLoop::stop() {
    impl_->stopped.store(true);
    impl_->wake.raise();
}

bool EventLoop::on_loop_thread() const {
    return pthread_equal(impl_->own_thread, pthread_self()) != 0;
}

Clock& EventLoop::clock() const {
    return impl_->clock;
}

std::optional<Time> EventLoop::next_timer() const {
    if (impl_->timers.empty()) {
        return std::nullopt;
    }
    return impl_->timers.begin()->first.first;
}

void EventLoop::check_before_work(Task check) {
    impl_->check = std::move(check);
}

bool EventLoop::fetch() {
    while (!impl_->stopped.load()) {
        if (impl_->ready.empty() && !impl_->find_work()) {
            return false;
        }
        Impl::Work work = std::move(impl_->ready.front());
        impl_->ready.pop_front();
        if (impl_->start(std::move(work))) {
            if (impl_->check) {
                impl_->check();
            }
            return true;
        }
    }
    return false;
}

// The work is moved out of `current` first: the callback may call fetch() and run() itself, which
// must not destroy the function that is running.
void EventLoop::run() {
    const Impl::Work work = std::move(impl_->current);
    if (!work.watch) {
        work.task();
    } else if (work.watch->loop != nullptr) {
        work.watch->callback(work.ready);
    }
}

const EventLoop::Task& EventLoop::fetched() const {
    return impl_->current.task;
}

EventLoop::Handle::Handle(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
EventLoop::Handle::Handle(Handle&&) noexcept = default;

EventLoop::Handle& EventLoop::Handle::operator=(Handle&& other) noexcept {
    if (this != &other) {
        reset();
        entry_ = std::move(other.entry_);
    }
    return *this;
}

EventLoop::Handle::~Handle() {
    reset();
}

void EventLoop::Handle::reset() {
    const std::shared_ptr<Entry> entry = std::move(entry_);
    if (entry && entry->loop != nullptr) {
        entry->detach();
    }
}

EventLoop::Handle::operator bool() const {
    return entry_ && entry_->loop != nullptr;
}

}  // namespace qv
