// The event loop behind a thread master: timers on a Clock, descriptors through libevent, and work
// posted from any thread. Everything runs one piece at a time inside qv_thread_call.
//
// Anything may be removed from inside any callback, its own included: watches and timers are owned
// by the handles below, and a destroyed handle's callback never runs again.
#pragma once

#include <functional>
#include <memory>

#include "platform/driver/clock.h"
#include "qv/thread.h"

struct event_base;

namespace qv {

class EventLoop {
 public:
    using Task = std::function<void()>;

    struct Ready {
        bool read;
        bool write;
    };
    using WatchCallback = std::function<void(Ready)>;

    // Movable owner of a descriptor watch or of a timer. Empty after reset(). Must not outlive the
    // loop.
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
        std::shared_ptr<Entry> entry_;
    };

    explicit EventLoop(Clock& clock);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Any thread: `task` runs on the loop's thread, after what is already queued.
    void post(Task task);

    // Level-triggered watch; the descriptor stays the caller's and must outlive the handle.
    [[nodiscard]] Handle watch(int fd, bool read, bool write, WatchCallback callback);

    // One-shot timer. The handle is empty-able at any time; after firing it is inert.
    [[nodiscard]] Handle after(Duration delay, Task task);

    // Makes fetch() return null from now on. Any thread.
    void stop();

    bool on_loop_thread() const;
    Clock& clock() const;
    event_base* base() const;  // for libraries with a libevent adapter

    // The C surface (qv/thread.h) on top of this loop.
    qv_thread* fetch(qv_thread* thread);
    qv_thread* add_timer(int (*func)(qv_thread*), void* arg, Duration delay, qv_thread** slot);
    void cancel(qv_thread* timer);

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The loop of a master.
EventLoop& loop_of(qv_thread_master* master);

}  // namespace qv
