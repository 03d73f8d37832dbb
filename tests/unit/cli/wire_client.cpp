#include "tests/unit/cli/wire_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "platform/cli/unix_socket.h"

namespace qv::test {

WireClient::WireClient(const std::string& path) : fd_(cli::connect_to(path)) {
    if (fd_ < 0) {
        throw std::runtime_error("no connection to " + path);
    }
}

WireClient::~WireClient() {
    close();
}

void WireClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

size_t WireClient::send(const std::string& bytes) {
    const ssize_t size = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return size < 0 ? 0 : static_cast<size_t>(size);
}

std::string WireClient::receive() {
    std::string text;
    char bytes[65536];
    for (;;) {
        const ssize_t size = ::recv(fd_, bytes, sizeof bytes, 0);
        if (size <= 0) {
            return text;
        }
        text.append(bytes, static_cast<size_t>(size));
    }
}

size_t WireClient::receive_some(char* bytes, size_t size) {
    const ssize_t received = ::recv(fd_, bytes, size, 0);
    return received < 0 ? 0 : static_cast<size_t>(received);
}

void WireClient::end_output() {
    ::shutdown(fd_, SHUT_WR);
}

bool WireClient::closed_by_server() {
    char byte = 0;
    return ::recv(fd_, &byte, 1, MSG_PEEK) == 0;
}

}  // namespace qv::test
