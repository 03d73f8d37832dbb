// Keeps the events of held_ports.h in a file: read at the start, written soon after each change.
// Loop thread only, except for the writing, which runs in the background.
//
// The file is written as a whole, so a crash loses at most the events of the last second. They are
// for people: no port depends on them.
#pragma once

#include <chrono>
#include <string>

#include "platform/base/background.h"
#include "platform/base/event_loop.h"

namespace qv::cli {

class LoopHistory {
 public:
    static constexpr std::chrono::seconds kGather{1};  // from a change to its write
    static constexpr std::chrono::seconds kRetryAfter{30};

    // Reads the file at `path` into held_ports() and follows its changes. A damaged file is
    // reported and kept as PATH.damaged; what precedes the damage is used. With an empty path
    // nothing is read or written. Must outlive the loop.
    LoopHistory(EventLoop& loop, Background& background, std::string path);

    // Writes what is not written yet, on this thread: at the end of the process, when the
    // background may have been destroyed.
    void save_last();

 private:
    void read();
    void request();
    void write();
    void written(const std::string& reason);

    EventLoop& loop_;
    Background& background_;
    const std::string path_;
    bool wanted_ = false;   // there are changes that no write has begun with
    bool writing_ = false;  // the background is writing
    std::string trouble_;   // reported
    EventLoop::Handle timer_;
};

// The one of this process, null before cli_client_init.
LoopHistory* loop_history();

}  // namespace qv::cli
