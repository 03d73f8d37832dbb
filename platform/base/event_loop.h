// The event loop of a process: timers on a Clock, descriptors through libevent, and work posted
// from any thread. Everything runs one piece at a time inside run().
//
// Anything may be removed from inside any callback, its own included: watches and timers are owned
// by the handles below, and a destroyed handle's callback never runs again.
//
// Each round takes a limited number of posted tasks, then the timers that are due, then the ready
// descriptors, so that none of them keeps the others waiting. Deferred tasks run in a round that
// finds nothing else, or after a few busy ones.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/base/clock.h"

namespace qv {

class EventLoop {
 public:
    using Task = std::function<void()>;

    struct Ready {
        bool read;
        bool write;
    };
    using WatchCallback = std::function<void(Ready)>;

    // Movable owner of a watch, a timer or a deferred task; destroying it removes what it owns.
    // True while the watch exists or the task is pending; false when empty, after reset(), after
    // the task was fetched, and once the loop is gone. Loop thread only.
    class Handle {
     public:
        Handle() = default;
        Handle(Handle&&) noexcept;
        Handle& operator=(Handle&&) noexcept;
        ~Handle();
        void reset();  // does nothing when there is nothing left to remove
        explicit operator bool() const;

     private:
        friend class EventLoop;
        struct Entry;
        explicit Handle(std::shared_ptr<Entry> entry);
        std::shared_ptr<Entry> entry_;
    };

    // The constructing thread is the loop's thread. Throws std::runtime_error when the system
    // gives no descriptors for it. The clock must outlive the loop.
    explicit EventLoop(Clock& clock);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Runs `task` on the loop's thread, after the tasks that are already queued. A posted task does
    // not keep fetch() waiting once it has run. Any thread.
    void post(Task task);

    // Announces that another thread is about to post. An idle loop then polls its queue for
    // kLinger before it runs deferred tasks or sleeps: waking up would take about as long. Any
    // thread.
    static constexpr std::chrono::microseconds kLinger{80};
    void expect_post();
    // True after expect_post() until that post is taken from the queue or an idle loop has polled
    // for it in vain. Any thread.
    bool expects_post() const;

    // Level-triggered watch; the descriptor stays the caller's and must outlive the handle. The
    // handle is empty when the descriptor cannot be watched (a regular file, for example).
    [[nodiscard]] Handle watch(int fd, bool read, bool write, WatchCallback callback);

    // One-shot timer. It counts as fired once fetch() has taken it: resetting the handle after that
    // does not stop `task`.
    [[nodiscard]] Handle after(Duration delay, Task task);

    // Runs `task` once, when the loop has nothing more urgent to do, or after kMaxDeferredRounds
    // busy rounds. Deferred tasks keep their order. For work that nobody waits for.
    static constexpr int kMaxDeferredRounds = 8;
    [[nodiscard]] Handle defer(Task task);

    // Makes fetch() return false from now on. Any thread, and signal handlers.
    void stop();

    bool on_loop_thread() const;  // any thread
    Clock& clock() const;
    std::optional<Time> next_timer() const;  // when the earliest pending timer is due

    // Waits for the next piece of work and takes it. False when no task, timer or watch is left, or
    // after stop().
    bool fetch();
    // Calls `check` each time fetch() has taken a piece of work, before that work runs. One check
    // at a time; a later call replaces it.
    void check_before_work(Task check);
    // Runs the work that fetch() has taken.
    void run();
    // The task that run() would call; empty when it would call back a watch. Valid until the next
    // fetch() or run().
    const Task& fetched() const;

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv
