// The shell's connection to the switch's command line.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/line_client.h"

namespace ldash {

struct Reply {
    std::string output;
    std::string prompt;
    int result = 0;    // 0: done
    bool end = false;  // the switch ends the session with this reply
    // When the line was not a command: the byte at which the wrong word begins, or the end of the
    // line when something is missing there.
    std::optional<size_t> wrong_at = {};
    // Rows of a page as set by the operator, 0 for no pages; empty for the height of the terminal.
    std::optional<int> length = {};
};

class Connection {
 public:
    // Connects to the socket. Throws std::runtime_error with path and reason.
    explicit Connection(const std::string& path);

    // Sends a request of this kind ("exec", "complete", "help") and waits for its reply; after
    // three seconds a line on standard error says so. Throws std::runtime_error when the connection
    // is lost, or with the switch's reason when the switch ends the session by itself.
    Reply ask(const char* kind, std::string_view line);

    int fd() const { return client_.fd(); }
    // Reads messages that arrive between replies. Throws as ask() does.
    void take_messages();

    // Called with each message of a session that monitors.
    std::function<void(const std::string& text)> on_message;

 private:
    void wait_for_bytes() const;

    qv::LineClient client_;
};

}  // namespace ldash
