// Names that one process can hold at a time. A name has two halves:
//
// - A locked file, which decides. It is to be in a folder where strangers can neither write nor
//   read it, so that no other user of the machine can take the name first.
// - The address of an abstract Unix socket, one for each network namespace. It keeps the name when
//   somebody removes the file, and towards a process that sees another file system. Anybody can
//   take such an address, so one that is not root's or our own user's does not count.
//
// The kernel gives both back when their holder ends, however it ends.
#pragma once

#include <string>

#include <sys/types.h>

#include "platform/base/event_loop.h"

namespace qv {

// The folder of the locks on bridges: all agents of the machine must look there. Tests name another
// one before the first lock.
inline std::string g_lock_folder = "/run/lda";

// Loop thread only.
class NameLock {
 public:
    NameLock() = default;
    ~NameLock();
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;

    // Takes the name until the end of this object. 0, EADDRINUSE when another process holds it, or
    // another errno. While the loop runs, it answers those who ask for the holder. The file stays
    // where it is afterwards: removing it would let go of a later holder's lock.
    int take(EventLoop& loop, const std::string& name, const std::string& file);
    void release();

    // Whether a stranger, or nobody who answers, has the address of a name that was taken: then
    // only the file holds it.
    bool address_is_taken() const { return file_ >= 0 && socket_ < 0; }

    // The process that holds the name; 0 when nobody does or it cannot be found out.
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
