// The client's end of a Unix stream socket that carries lines of text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qv {

// One thread at a time.
class LineClient {
 public:
    // Connects to the socket. `peer` names the other end in errors. Throws std::runtime_error:
    // "cannot reach PEER at PATH: REASON".
    LineClient(const std::string& path, std::string peer);
    ~LineClient();
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;

    // Sends bytes, all of them unless the peer has closed the connection: it may have sent a reason
    // before, which can still be received.
    void send(std::string_view bytes) const;
    // Takes the next line that has been received, without its end; nothing when none is complete.
    std::optional<std::string> take_line();
    // Receives what has arrived; with `wait`, waits until something has or a signal interrupts.
    // Throws std::runtime_error when the connection is lost.
    void receive(bool wait);
    // The next line, for which it waits. Throws as receive() does.
    std::string next_line();

    // Throws std::runtime_error: "the connection to PEER is lost".
    [[noreturn]] void lost() const;

    int fd() const { return fd_; }

 private:
    const std::string peer_;
    int fd_;
    std::string input_;
};

}  // namespace qv
