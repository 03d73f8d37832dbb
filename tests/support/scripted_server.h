// A server on its own Unix socket, whose every byte the test writes; it never waits, so that
// it can share a thread and a manual clock with the client.
#pragma once

#include <string>
#include <vector>

namespace qv::test {

class ScriptedServer {
 public:
    // One accepted connection.
    class Peer {
     public:
        explicit Peer(int fd) : fd_(fd) {}
        Peer(Peer&& other) noexcept;
        Peer& operator=(Peer&&) = delete;
        ~Peer();

        std::string received();                     // since the last call
        void send(const std::string& bytes) const;  // at most what fits into the socket
        bool closed() const;                        // by the client

     private:
        int fd_;
    };

    ScriptedServer();
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    const std::string& path() const { return path_; }
    // Returns those that have connected since the last call, in order.
    std::vector<Peer> accept();

 private:
    std::string directory_;
    std::string path_;
    int fd_;
};

}  // namespace qv::test
