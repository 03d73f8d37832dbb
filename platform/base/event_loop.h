// The event loop of a process: timers on a Clock, descriptors through libevent, and work posted
// from any thread. Everything runs one piece at a time inside run().
//
// Anything may be removed from inside any callback, its own included: watches and timers are owned
// by the handles below, and a destroyed handle's callback never runs again.
//
// Each round takes a limited number of posted tasks, then the timers that are due, then the ready
// descriptors, so that none of them keeps the others waiting. What was put off runs in a round that
// finds nothing else, or after a few that did.
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

    // Movable owner of a descriptor watch or of a timer. True while the watch stands or the timer
    // is pending; false when empty, after reset(), after the timer fired and once the loop is gone.
    class Handle {
     public:
        Handle() = default;
        Handle(Handle&&) noexcept;
        Handle& operator=(Handle&&) noexcept;
        ~Handle();
        void reset();
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

    // Any thread: `task` runs on the loop's thread, after what is already queued. A task that was
    // posted is no reason for fetch() to go on waiting once it has run.
    void post(Task task);

    // Another thread is about to post. When the loop has nothing else to do it looks out for that
    // post for kLinger before it turns to what was put off or sleeps: to be woken would take it
    // about as long. Any thread.
    static constexpr std::chrono::microseconds kLinger{80};
    void expect_post();
    // Until that post's turn has come. Any thread.
    bool expects_post() const;

    // Level-triggered watch; the descriptor stays the caller's and must outlive the handle. The
    // handle is empty when the descriptor is of a kind that cannot be watched.
    [[nodiscard]] Handle watch(int fd, bool read, bool write, WatchCallback callback);

    // One-shot timer. It has fired once fetch() has taken it: a handle that is reset later no
    // longer keeps `task` from running.
    [[nodiscard]] Handle after(Duration delay, Task task);

    // `task` runs once, when nothing more urgent is left to do, in the order given; kept waiting
    // for a few rounds at most. For the part of the work that nobody waits for.
    [[nodiscard]] Handle put_off(Task task);

    // Makes fetch() return false from now on. Any thread, and signal handlers.
    void stop();

    bool on_loop_thread() const;  // any thread
    Clock& clock() const;
    std::optional<Time> next_timer() const;  // when the earliest pending timer is due

    // Takes the next piece of work, after waiting for it if need be. False when no task, timer or
    // watch is left, or after stop().
    bool fetch();
    // Does the work that fetch() has taken.
    void run();
    // The task that run() would call; empty for the callback of a watch. Valid until either call.
    const Task& fetched() const;

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv
