// The state that the sessions of a switch share, although each is a separate process: their
// numbers and the right to edit. They and the lock of <lock> (platform/base/running_lock.h) are
// record locks on files in one folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/base/lock_file.h"

namespace netconf {

struct SessionInfo {
    uint32_t id;
    int pid;
    std::string login_time;  // RFC 3339
    std::string user;
};

// Reserves a session number for as long as the object lives.
class SessionNumber {
 public:
    // Takes a free number from 1 to kSessions and records its user. A number is not reused soon.
    // Throws std::runtime_error when the folder is unusable or all numbers are taken.
    SessionNumber(const std::string& folder, const std::string& user);

    uint32_t id() const { return id_; }

    static constexpr uint32_t kSessions = 255;

 private:
    bool take(const std::string& folder, uint32_t id);

    qv::File file_;
    uint32_t id_ = 0;
};

// The sessions that run now, by number.
std::vector<SessionInfo> live_sessions(const std::string& folder);

enum class Kill { kDone, kNoSuchSession, kNotAllowed, kStillThere };

// Ends the session with this number and waits up to a second for its end.
Kill kill_session(const std::string& folder, uint32_t id);

// The right to read and change the lock and the configuration, for one session at a time. The
// constructor waits up to 900 ms for it; ours() says whether it was granted.
class EditTurn {
 public:
    explicit EditTurn(const std::string& folder);
    bool ours() const { return file_.open(); }

 private:
    qv::File file_;
};

}  // namespace netconf
