// Filters standard input for libnetconf2: a thread reads the input and passes on only whole
// messages in valid frames.
//
// libnetconf2 misbehaves when a message arrives in pieces: it polls for the next byte ten thousand
// times a second, it takes a hang-up for the end although requests are left to read, and some
// broken frames crash it. With whole messages none of this happens.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/base/lock_file.h"

namespace netconf {

class StdinRelay {
 public:
    // Starts the thread, which lives until standard input ends or is broken, or the process ends.
    // `adapt` may change each request before it is passed on, but not the hello; the thread calls
    // it, never after the destructor has returned. Throws std::system_error.
    explicit StdinRelay(std::function<void(std::string& text)> adapt);
    ~StdinRelay();
    StdinRelay(const StdinRelay&) = delete;
    StdinRelay& operator=(const StdinRelay&) = delete;

    // The socket that libnetconf2 reads. It ends when the input has ended.
    int fd() const { return messages_.fd(); }
    // The reason why reading was abandoned; null while the input is valid, and after a regular end.
    // Any thread.
    const char* fault() const { return shared_->fault; }

 private:
    struct Shared {
        qv::File messages;
        std::atomic<const char*> fault{nullptr};
        std::mutex mutex;                         // guards `adapt`; held while it runs
        std::function<void(std::string&)> adapt;  // empty once the relay is destroyed
    };
    static bool adapt(Shared& shared, std::string& text);
    static void relay(const std::shared_ptr<Shared>& shared);

    qv::File messages_;
    std::shared_ptr<Shared> shared_;
};

}  // namespace netconf
