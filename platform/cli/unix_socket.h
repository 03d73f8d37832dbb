// Unix stream sockets by path. Any thread.
#pragma once

#include <string>

namespace qv::cli {

// A descriptor that listens at `path`, mode 0660, and does not block. Missing folders are created;
// a socket that nobody listens on is replaced. Throws std::runtime_error with path and reason.
int listen_at(const std::string& path);

// A descriptor connected to `path` that does not block, or -1 with errno set. Never waits: a
// listener whose queue is full is EAGAIN.
int connect_to(const std::string& path);

}  // namespace qv::cli
