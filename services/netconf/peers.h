// State that the sessions of a switch share although each is a process of its own: their numbers,
// the lock of <lock>, and whose turn it is to edit.
//
// All of it is record locks on files in one folder. The kernel drops such a lock when its holder
// ends, however it ends, so nothing is left behind by a session that was killed or crashed. The
// files themselves stay.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace netconf {

// Closes its descriptor, which ends the record locks taken through it.
class File {
 public:
    File() = default;
    explicit File(int fd) : fd_(fd) {}
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    ~File();

    int fd() const { return fd_; }
    bool open() const { return fd_ >= 0; }

 private:
    int fd_ = -1;
};

struct SessionInfo {
    uint32_t id;
    int pid;
    std::string login_time;  // RFC 3339
    std::string user;
};

// The number of this session, its own for as long as the object lives.
class SessionNumber {
 public:
    // Takes a free number and writes down who has it. Numbers go from 1 to kSessions and are not
    // given again soon. Throws std::runtime_error when the folder is unusable or all are taken.
    SessionNumber(const std::string& folder, const std::string& user);

    uint32_t id() const { return id_; }

    static constexpr uint32_t kSessions = 255;

 private:
    bool take(const std::string& folder, uint32_t id);

    File file_;
    uint32_t id_ = 0;
};

// The sessions that live now, by number.
std::vector<SessionInfo> live_sessions(const std::string& folder);

enum class Kill { kDone, kNoSuchSession, kNotAllowed, kStillThere };

// Ends the session with this number and waits up to a second for its end.
Kill kill_session(const std::string& folder, uint32_t id);

// The lock of <lock> on the running configuration.
class RunningLock {
 public:
    RunningLock(std::string folder, uint32_t id) : folder_(std::move(folder)), id_(id) {}

    // The session that holds it now, this one included; 0: nobody.
    uint32_t holder() const;
    // When it was taken, RFC 3339; empty when nobody holds it.
    std::string since() const;
    // Both while holding an EditTurn, and take() only when nobody holds it.
    void take();
    void release();
    bool mine() const { return file_.open(); }

 private:
    std::string line() const;

    const std::string folder_;
    const uint32_t id_;
    File file_;
};

// The right to look at the lock and at the configuration and to change them, one session at a
// time. Waits a moment for its turn; ours() is false when it did not come.
class EditTurn {
 public:
    explicit EditTurn(const std::string& folder);
    bool ours() const { return file_.open(); }

 private:
    File file_;
};

}  // namespace netconf
