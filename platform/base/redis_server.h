// Where the Redis server of the object database is, and the login there.
#pragma once

#include <string>

namespace qv {

struct RedisServer {
    std::string socket;              // path of its Unix socket
    std::string user = {};           // empty: no login
    std::string password_file = {};  // has the password on its only line
};

// Reads the password of the user, anew with each call: it may change while the program runs. Any
// thread; blocks as long as the file system does. Throws std::runtime_error with "the password file
// FILE ..." when the file cannot be read, is no regular file, has rights for users outside its
// owner and group, or is not one line of 1 to 512 bytes without control characters.
std::string read_redis_password(const RedisServer& server);

}  // namespace qv
