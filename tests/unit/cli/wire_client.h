// A client of the command-line socket on the loop's own thread: it never waits.
#pragma once

#include <string>

namespace qv::test {

class WireClient {
 public:
    explicit WireClient(const std::string& path);
    ~WireClient();
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;

    // Sends what fits and returns the number of bytes sent.
    size_t send(const std::string& bytes);
    // Everything that has arrived since the last call.
    std::string receive();
    // Reads at most `size` bytes and returns their number.
    size_t receive_some(char* bytes, size_t size);
    // Says that no more will be sent; replies can still be received.
    void end_output();
    bool closed_by_server();
    void close();

 private:
    int fd_;
};

}  // namespace qv::test
