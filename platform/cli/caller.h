// The user who typed a line, and the files that user may read. Loop thread only.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qv::cli {

// The user at the other end of an operators' session, as the kernel knows it.
struct Caller {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
    pid_t pid = 0;          // of the process that connected; 0 when it is in a foreign name space
    std::string name = {};  // from /etc/passwd; empty when the user is not listed
};

// Returns the caller of a connected Unix stream socket. A caller that the kernel does not know has
// no rights.
Caller caller_at(int fd);

// For messages: "root (uid 0, pid 812)", "uid 1234 (pid 812)" without a name.
std::string describe(const Caller& caller);

// Opens a file for reading with the rights of `caller`, or of the process when it is null. A
// symbolic link at the end of the path is not followed. Returns -1 with errno on failure: EPERM
// also when the process cannot assume the caller's rights.
int open_as(const Caller* caller, const std::string& path);

}  // namespace qv::cli
