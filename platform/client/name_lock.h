// A named lock that one process of the machine can hold. It has two halves:
//
// - A locked file, which decides. Its folder must be closed to other users, so that none of them
// can
//   take the lock first.
// - The address of an abstract Unix socket, one for each network namespace. It still works when
// somebody removes the file, and against a process that sees another file system. Any user can
//   bind such an address, so one that neither root nor our own user has bound does not count.
//
// The kernel releases both when their holder ends, however it ends.
#pragma once

#include <string>

#include <sys/types.h>

#include "platform/base/event_loop.h"

namespace qv {

// The folder of the locks on bridges, the same for all agents of the machine. Tests set another one
// before the first lock.
inline std::string g_lock_folder = "/run/lda";

// Loop thread only.
class NameLock {
 public:
    NameLock() = default;
    ~NameLock();
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;

    // Takes the lock until release() or the end of this object. 0, EADDRINUSE when another process
    // holds it, or another errno. The loop, which must outlive this, answers holder() of other
    // processes. The file is never removed: that could release the lock of a later holder.
    int take(EventLoop& loop, const std::string& name, const std::string& file);
    void release();

    // True when the lock is held but its address is bound by another user, or by a process that
    // does not answer: then only the file keeps a second holder out.
    bool address_is_taken() const { return file_ >= 0 && socket_ < 0; }

    // The process that holds the lock; 0 when there is none or it is unknown.
    static pid_t holder(const std::string& name, const std::string& file);

 private:
    int take_file(const std::string& file);
    int take_address(EventLoop& loop, const std::string& name);
    void answer() const;

    int file_ = -1;
    int socket_ = -1;
    EventLoop::Handle watch_;
};

}  // namespace qv
