// The state that the sessions of a switch share, although each is a separate process: their
// numbers and the right to edit. They and the lock of <lock> (platform/base/running_lock.h) are
// record locks on files in one folder. Any of its users may be hostile to the others, so nothing is
// believed but the locks themselves.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/base/lock_file.h"
#include "services/netconf/notification_log.h"

namespace netconf {

struct SessionInfo {
    uint32_t id;
    int pid;
    std::string user;
    EventTime login_time;
};

enum class Kill { kDone, kNoSuchSession, kNotAllowed, kStillThere };

// Creates the folder and its files where they are missing, for all members of its group. Root also
// moves things aside that stand where a file belongs and are none, with a line in the log. Throws
// std::runtime_error when the folder could be replaced, or its files could be, by anybody but
// `user` and root, and when it cannot be used.
void prepare_folder(const std::string& folder, uid_t user);

// Reserves a session number for this process, as long as the object lives. Number N is the record
// lock on byte N of the file "sessions". A process has one such object at most: a second one would
// share its locks.
class SessionNumber {
 public:
    // Takes a free number from 1 to kSessions, the last kForRoot of them only for root; other users
    // have at most kSessionsOfAUser. A number is not reused soon. Throws std::runtime_error when
    // the folder is unusable or no number is left.
    SessionNumber(const std::string& folder, uid_t user);

    uint32_t id() const { return id_; }

    // The sessions that run now, by number, this one included. Those of which /proc does not tell
    // the user are left out.
    std::vector<SessionInfo> live_sessions() const;

    // Ends the session with this number, by force when a second was not enough for it, and waits up
    // to another second for its end. Never ends a process that does not have the number.
    Kill kill(uint32_t id) const;

    static constexpr uint32_t kSessions = 255;
    static constexpr uint32_t kForRoot = 8;
    static constexpr uint32_t kSessionsOfAUser = 16;

 private:
    bool take(uint32_t id);
    void take_any(uid_t user);
    uint32_t others_of(uid_t user) const;

    qv::File file_;
    uint32_t id_ = 0;
};

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
