// Which process has a record lock. The kernel answers, so a holder cannot pass for another process
// or user. What /proc does not show to this user (its option "hidepid") is unknown here.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/base/lock_file.h"
#include "services/netconf/notification_log.h"

namespace netconf {

// Takes the lock on one byte of the file for this process. It ends with the process, and as soon as
// the process closes any descriptor of the file: open that once. Returns false, with errno set,
// when another process has it.
bool lock_byte(const qv::File& file, off_t at);

// The process that has the lock on this byte; nothing when nobody else has it, 0 when the kernel
// does not name the holder. Locks of this process do not count.
std::optional<pid_t> locker_of(const qv::File& file, off_t at);

// Whether the process has the file open and a lock on this byte. False, with errno EACCES, when
// this process may not look.
bool process_locks(pid_t process, const qv::File& file, off_t at);

struct ProcessInfo {
    uid_t user;
    EventTime start;
};

// Nothing when there is no such process, or when it is hidden.
std::optional<ProcessInfo> process_info(pid_t process);

// The decoders of the texts in /proc. A process chooses the name that stands in some of them.
std::optional<uint64_t> start_ticks_in(std::string_view stat);  // of /proc/PID/stat, since boot
std::optional<uid_t> user_in(std::string_view status);          // of /proc/PID/status
bool has_lock_on(std::string_view fdinfo, off_t at);            // of /proc/PID/fdinfo/N

}  // namespace netconf
