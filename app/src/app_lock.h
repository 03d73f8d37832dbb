// Clang's thread-safety analysis for the agent's mutexes; it adds no code to the program.
//
// The mutexes are plain pthread mutexes, which the analysis does not know. So each mutex has a
// capability: the calls that lock the mutex acquire the capability, those that unlock it release
// the capability, and the fields and functions that need the mutex name the capability. Fields that
// the main thread also touches without the mutex are not annotated: their own comments say how they
// are shared.
#pragma once

#if defined(__clang__)
#define APP_LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define APP_LOCK_ATTRIBUTE(x)
#endif

#define APP_GUARDED_BY(capability) APP_LOCK_ATTRIBUTE(guarded_by(capability))
#define APP_REQUIRES(capability) APP_LOCK_ATTRIBUTE(requires_capability(capability))
#define APP_ACQUIRE(...) APP_LOCK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define APP_RELEASE(...) APP_LOCK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define APP_SCOPED_LOCK APP_LOCK_ATTRIBUTE(scoped_lockable)
// For the body of a call that takes or releases a mutex, and for the set-up before any thread.
#define APP_NOT_ANALYSED APP_LOCK_ATTRIBUTE(no_thread_safety_analysis)

struct APP_LOCK_ATTRIBUTE(capability("mutex")) app_lock_t {};
