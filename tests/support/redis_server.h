// A real redis-server for one test: private Unix socket in a temporary directory, no TCP port,
// every write on disk at once so that a killed server restarts with its records.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qv::test {

class RedisServer {
 public:
    static bool installed();

    RedisServer();   // not started yet
    ~RedisServer();  // killed, and its directory removed
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    void start(unsigned databases = 32);  // returns when it answers
    void kill();
    void forget() const;  // once killed: deletes what it has written to disk
    void freeze();        // answers nothing until kill()
    const std::string& socket() const { return socket_; }

    // Runs a command in database `db` as another program would. Returns the elements of the answer;
    // a nil is an empty list. Throws std::runtime_error with the server's error.
    std::vector<std::string> run(unsigned db, const std::vector<std::string>& words) const;

 private:
    std::string directory_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace qv::test
