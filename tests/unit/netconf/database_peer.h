// The other end of the object database: a server on a Unix socket that speaks Redis' protocol,
// keeps records in memory, and misbehaves on request. It runs on its own thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace netconf::test {

// Parts of Redis' protocol.
std::string bulk(const std::string& text);
std::string integer(long long value);
std::string array(const std::vector<std::string>& parts);
inline const std::string kNil = "$-1\r\n";

// A folder for one test, removed at the end.
class Folder {
 public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string path(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

 private:
    std::string path_;
};

class DatabasePeer {
 public:
    // Listens on `socket` before it returns.
    explicit DatabasePeer(const std::string& socket);
    // Closes all connections and removes the socket.
    ~DatabasePeer();

    const std::string& socket() const { return socket_; }
    void store(unsigned database, const std::string& key, const std::string& value);
    // Sets the raw answer to every command of this name; empty: no answer.
    void answer(const std::string& command, const std::string& raw);
    // Sets how many others listen on each channel, besides those connected here.
    void set_other_listeners(int count);
    // Called on the peer's thread when a client has published something.
    void on_publish(
        std::function<void(const std::string& channel, const std::string& payload)> hook);

    // Sends a change notice, or raw bytes, to everyone who listens. Any thread.
    void publish(const std::string& channel, const std::string& payload);
    void send_to_listeners(const std::string& raw);
    void hang_up();

    // The commands so far, their words joined with blanks. SELECT is left out: each
    // command begins with its database's number.
    std::vector<std::string> commands() const;
    int connections() const;  // accepted so far

 private:
    struct Server;
    const std::string socket_;
    std::unique_ptr<Server> server_;
};

}  // namespace netconf::test
