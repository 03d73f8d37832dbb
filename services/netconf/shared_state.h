// The state that the sessions of a switch share, although each is a separate process: their
// numbers, the lock of <lock>, and the right to edit.
//
// All of these are record locks on files in one folder. The kernel releases such a lock when its
// holder ends, however it ends, so a session that was killed or crashed leaves only the files
// behind.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace netconf {

// Owns a descriptor. Closing it releases the process's record locks on the file.
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

    File file_;
    uint32_t id_ = 0;
};

// The sessions that run now, by number.
std::vector<SessionInfo> live_sessions(const std::string& folder);

enum class Kill { kDone, kNoSuchSession, kNotAllowed, kStillThere };

// Ends the session with this number and waits up to a second for its end.
Kill kill_session(const std::string& folder, uint32_t id);

// The lock of <lock> on the running configuration.
class RunningLock {
 public:
    RunningLock(std::string folder, uint32_t id) : folder_(std::move(folder)), id_(id) {}

    // The session that holds it, this one included; 0 when none does.
    uint32_t holder() const;
    // When it was taken, RFC 3339; empty when no session holds it.
    std::string since() const;
    // Both need an EditTurn; take() also needs that no session holds the lock.
    void take();
    void release();
    bool mine() const { return file_.open(); }

 private:
    std::string line() const;

    const std::string folder_;
    const uint32_t id_;
    File file_;
};

// The right to read and change the lock and the configuration, for one session at a time. The
// constructor waits up to 900 ms for it; ours() says whether it was granted.
class EditTurn {
 public:
    explicit EditTurn(const std::string& folder);
    bool ours() const { return file_.open(); }

 private:
    File file_;
};

}  // namespace netconf
