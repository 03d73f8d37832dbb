// A session number that another process has: a child of the test, which ends with the object.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace netconf::test {

class OtherSession {
 public:
    // The child takes its number, then calls `then`, and sleeps until it is killed.
    explicit OtherSession(
        const std::string& folder, const std::function<void()>& then = [] {});
    ~OtherSession() { end(); }
    OtherSession(const OtherSession&) = delete;
    OtherSession& operator=(const OtherSession&) = delete;

    uint32_t id() const { return id_; }
    pid_t pid() const { return pid_; }
    bool alive() const;
    void end();

 private:
    pid_t pid_ = 0;
    uint32_t id_ = 0;
};

}  // namespace netconf::test
