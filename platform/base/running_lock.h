// The lock on the running configuration that NETCONF sessions (RFC 6241, section 7.5) and the
// operator's shell share: whoever has it keeps the others from changing the configuration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/base/lock_file.h"

namespace qv {

// The record lock on this file of the folder is the right to look at the lock and to act on what
// was seen. NETCONF sessions hold it during an edit.
inline constexpr char kEditLock[] = "/edit.lock";
// The one on this file is the lock itself.
inline constexpr char kRunningLock[] = "/running.lock";

struct RunningLockHolder {
    uint32_t session;   // number of the NETCONF session; 0: an operator of the shell
    std::string since;  // RFC 3339; empty when it is not known
    std::string name;   // user of the session, or the operator; without control characters
};

// The holder by the line in the lock's file, "SESSION TIME NAME". Any member of the group may have
// written anything there: a session that is no number is 0, a time of another form is empty.
RunningLockHolder holder_in(const std::string& line);

// For one thread at a time.
class RunningLock {
 public:
    // The folder is shared by all who may take the lock. The name and number are the would-be
    // holder's.
    RunningLock(std::string folder, uint32_t session, std::string name)
        : folder_(std::move(folder)), session_(session), name_(std::move(name)) {}

    // Whoever has the lock, this one included.
    std::optional<RunningLockHolder> holder() const;
    // Throws std::runtime_error when another one has it, or when the file cannot be used.
    void take();
    void release() { file_ = File(); }
    bool mine() const { return file_.open(); }

 private:
    std::string path() const { return folder_ + kRunningLock; }

    const std::string folder_;
    const uint32_t session_;
    const std::string name_;
    File file_;
};

// "2026-01-02T03:04:05Z"
std::string now_rfc3339();

}  // namespace qv
