#include "platform/cli/caller.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace qv::cli {
namespace {

constexpr size_t kMaxGroups = 65536;  // the kernel's limit

// setgroups(2) for this thread alone; the C library's function changes all threads.
bool set_groups(const std::vector<gid_t>& groups) {
    return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

std::vector<gid_t> own_groups() {
    std::vector<gid_t> groups(kMaxGroups);
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return groups;
}

// While it exists, this thread opens files with the rights of a caller. The kernel checks every
// folder of a path, access control lists included.
class RightsOf {
 public:
    explicit RightsOf(const Caller& caller) : groups_(own_groups()) {
        taken_ = set_groups(caller.groups);
        if (taken_) {
            gid_ = static_cast<gid_t>(::setfsgid(caller.gid));
            uid_ = static_cast<uid_t>(::setfsuid(caller.uid));
        }
        // Both calls return the previous identity; with an invalid one they change nothing, which
        // is how to read it back.
        taken_ = taken_ && static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == caller.uid &&
                 static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == caller.gid;
    }
    ~RightsOf() {
        ::setfsuid(uid_);
        ::setfsgid(gid_);
        set_groups(groups_);
    }
    RightsOf(const RightsOf&) = delete;
    RightsOf& operator=(const RightsOf&) = delete;

    bool taken() const { return taken_; }

 private:
    const std::vector<gid_t> groups_;
    uid_t uid_ = ::geteuid();
    gid_t gid_ = ::getegid();
    bool taken_ = false;
};

// Reads only the file: a directory server that does not answer would block the loop.
std::string name_in_passwd(uid_t uid) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/etc/passwd", "re"),
                                                               std::fclose);
    passwd entry{};
    passwd* found = nullptr;
    char bytes[4096];
    while (file && ::fgetpwent_r(file.get(), &entry, bytes, sizeof bytes, &found) == 0) {
        if (entry.pw_uid == uid) {
            return entry.pw_name;
        }
    }
    return {};
}

int open_here(const std::string& path) {
    // Does not block on a pipe or device.
    return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
}

}  // namespace

Caller caller_at(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {static_cast<uid_t>(-1), static_cast<gid_t>(-1), {}};
    }
    Caller caller{peer.uid, peer.gid, {}, peer.pid, name_in_passwd(peer.uid)};
    std::vector<gid_t> groups(64);
    for (;;) {
        size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
            groups.resize(size / sizeof(gid_t));
            caller.groups = std::move(groups);
            return caller;
        }
        if (errno != ERANGE || size / sizeof(gid_t) <= groups.size()) {
            return caller;
        }
        groups.resize(size / sizeof(gid_t));
    }
}

std::string describe(const Caller& caller) {
    const std::string uid = "uid " + std::to_string(caller.uid);
    const std::string pid = "pid " + std::to_string(caller.pid);
    return caller.name.empty() ? uid + " (" + pid + ")"
                               : caller.name + " (" + uid + ", " + pid + ")";
}

int open_as(const Caller* caller, const std::string& path) {
    // Root and the user of the process have the process's own rights.
    if (!caller || caller->uid == 0 || (caller->uid == ::geteuid() && ::geteuid() != 0)) {
        return open_here(path);
    }
    int fd = -1;
    int reason = EPERM;
    {
        const RightsOf rights(*caller);
        if (rights.taken()) {
            fd = open_here(path);
            reason = errno;
        }
    }
    errno = reason;
    return fd;
}

}  // namespace qv::cli
