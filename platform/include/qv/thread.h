// Thread master: the event loop of a process, and its one-shot timers.
//
// One thread (the main thread) creates the master and runs
//     while (qv_thread_fetch(master, &thread)) qv_thread_call(&thread);
// Every callback of every client library arrives inside qv_thread_call, one at a time. A callback
// may add, cancel or remove anything, itself included. All calls here belong to the main thread.
#pragma once

extern "C" {

struct qv_thread_master;

// One unit of work. As a timer handle it is owned by the master and valid until the timer fires or
// is cancelled; as the record filled by qv_thread_fetch it belongs to the caller.
struct qv_thread {
    qv_thread_master* master;
    int (*func)(qv_thread* thread);  // its result is ignored
    void* arg;                       // user argument given when the work was added
};

// Creates the event loop. Returns null when the loop or the platform behind it cannot be set up
// (the reason is on standard error).
qv_thread_master* qv_thread_master_create(void);

// Waits for the next piece of work, fills `thread` with it and returns `thread`. Returns null when
// nothing is left that could ever fire. The timer behind the work is gone when this returns.
qv_thread* qv_thread_fetch(qv_thread_master* master, qv_thread* thread);

// Runs the work that qv_thread_fetch has filled in. An exception in the work, or a lack of memory
// in qv_thread_fetch, ends the process.
void qv_thread_call(qv_thread* thread);

// Releases the master with everything still pending in it. Null is allowed.
void qv_thread_master_finish(qv_thread_master* master);

// Arms a one-shot timer on the monotonic clock: after `seconds` `func` is called with a record,
// valid during the call, whose `arg` is `arg`. Returns the handle, or null when no timer can be
// added.
qv_thread* qv_thread_add_timer(qv_thread_master* master, int (*func)(qv_thread*), void* arg,
                               long seconds);

// The same with a handle slot kept by the platform: `*slot` is set while the timer is pending and
// becomes null before the callback runs. A timer already pending in the slot is replaced. `name` is
// for diagnostics and must outlive the timer. Returns 0 when armed, else an error number.
int qv_thread_insert_timer(qv_thread_master* master, qv_thread** slot, int (*func)(qv_thread*),
                           void* arg, long seconds, const char* name);

// Cancels a pending timer; its handle is invalid afterwards. Null is allowed.
void qv_thread_cancel(qv_thread* timer);

}  // extern "C"
