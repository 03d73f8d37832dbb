// Names that one process of a network namespace can hold at a time.
//
// A name is the address of an abstract Unix socket. The kernel gives it back when its holder ends,
// however it ends; no file stands for it that somebody could remove; and whoever connects to it is
// told the process id of its holder.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/client/event_loop.h"

namespace qv {

// Loop thread only.
class NameLock {
 public:
    NameLock() = default;
    ~NameLock();
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;

    // Takes the name until the end of this object. 0, EADDRINUSE when another process holds it, or
    // another errno. While the loop runs, it answers those who ask for the holder.
    int take(EventLoop& loop, const std::string& name);
    void release();

    // The process that holds the name; 0 when nobody does or it cannot be found out.
    static pid_t holder(const std::string& name);

 private:
    void answer() const;

    int fd_ = -1;
    EventLoop::Handle watch_;
};

}  // namespace qv
