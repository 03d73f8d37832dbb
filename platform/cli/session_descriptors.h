// Descriptors of the sessions that programs of the switch open inside the process. Any thread.
//
// The caller closes such a descriptor with close(2), so it must be a real one, although nothing
// passes through it. A few are kept in reserve for when the process runs out of descriptors.
#pragma once

#include <sys/types.h>

#include <vector>

#include "platform/base/mutex.h"

namespace qv::cli {

class SessionDescriptors {
 public:
    static constexpr size_t kSpares = 8;

    // Throws std::runtime_error when the system gives no descriptor.
    SessionDescriptors();
    ~SessionDescriptors();
    SessionDescriptors(const SessionDescriptors&) = delete;
    SessionDescriptors& operator=(const SessionDescriptors&) = delete;

    // A new descriptor, which belongs to the caller; -1 with errno when even the spares are used.
    int open();
    // Whether open() returned this descriptor and nobody has closed it.
    bool owns(int fd) const;
    // Replaces the spares that were handed out, as far as the system has descriptors.
    void refill();

 private:
    int duplicate() const;
    void refill_locked() REQUIRES(mutex_);

    int original_;  // all others are its duplicates; constant, like the next two
    dev_t device_;
    ino_t inode_;
    Mutex mutex_;
    std::vector<int> spares_ GUARDED_BY(mutex_);
};

}  // namespace qv::cli
