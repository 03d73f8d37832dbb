// std::mutex with Clang's thread-safety annotations: a member declared GUARDED_BY(mutex_) can only
// be touched while a MutexLock of that mutex is in scope, or clang++ refuses to compile.
#pragma once

#include <mutex>

#if defined(__clang__)
#define QV_ATTRIBUTE(x) __attribute__((x))
#else
#define QV_ATTRIBUTE(x)
#endif

#define GUARDED_BY(mutex) QV_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) QV_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QV_ATTRIBUTE(locks_excluded(__VA_ARGS__))

namespace qv {

class QV_ATTRIBUTE(capability("mutex")) Mutex {
 public:
    void lock() QV_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() QV_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

 private:
    std::mutex mutex_;
};

class QV_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
    explicit MutexLock(Mutex& mutex) QV_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() QV_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

 private:
    Mutex& mutex_;
};

}  // namespace qv
