// Standard input on its way to libnetconf2: a thread reads it, and hands on whole messages in sound
// frames only.
//
// libnetconf2 takes a message in one go: within one it looks for the next byte ten thousand times a
// second, takes a hang-up for the end although requests are left to be read, and does not survive
// every broken frame. With whole messages at hand none of this happens.
#pragma once

#include <atomic>
#include <memory>

#include "services/netconf/shared_state.h"

namespace netconf {

class Input {
 public:
    // Starts the thread, which lives until standard input ends or is broken, or the process ends.
    // Throws std::system_error.
    Input();

    // For libnetconf2 to read from. At its end when the input has ended.
    int fd() const { return messages_.fd(); }
    // Why the input ended before its time; null while it did not.
    const char* fault() const { return shared_->fault; }

 private:
    struct Shared {
        File messages;
        std::atomic<const char*> fault{nullptr};
    };
    static void pass_on(const std::shared_ptr<Shared>& shared);

    File messages_;
    std::shared_ptr<Shared> shared_;
};

}  // namespace netconf
