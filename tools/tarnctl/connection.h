// The connection to the control socket of tarnd.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace tarnctl {

using Json = nlohmann::ordered_json;

class Connection {
 public:
    // Connects to the socket. Throws std::runtime_error with path and reason.
    explicit Connection(const std::string& path);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Sends one request. Throws std::runtime_error when the connection is lost.
    void send(const Json& request) const;
    // Waits for the next line, an object. Throws std::runtime_error when the connection is lost or
    // the line is no object.
    Json next();

 private:
    int fd_;
    std::string input_;
};

}  // namespace tarnctl
