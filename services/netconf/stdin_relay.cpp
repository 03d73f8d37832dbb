#include "services/netconf/stdin_relay.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "services/netconf/framing.h"
#include "services/netconf/log.h"
#include "services/netconf/request_check.h"

namespace netconf {
namespace {

// Returns false when the other end is gone.
bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return true;
}

}  // namespace

StdinRelay::StdinRelay(std::function<void(std::string&)> adapt)
    : shared_(std::make_shared<Shared>()) {
    shared_->adapt = std::move(adapt);
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    messages_ = qv::File(ends[0]);
    shared_->messages = qv::File(ends[1]);
    // The main thread handles the signals. Crash signals stay unblocked in this thread too: a
    // blocked one would end the process without a log line.
    sigset_t others;
    sigset_t before;
    sigfillset(&others);
    for (const int crash : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        sigdelset(&others, crash);
    }
    pthread_sigmask(SIG_SETMASK, &others, &before);
    std::thread([shared = shared_] { relay(shared); }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

StdinRelay::~StdinRelay() {
    const std::lock_guard lock(shared_->mutex);
    shared_->adapt = nullptr;
}

// Returns false when the relay is destroyed.
bool StdinRelay::adapt(Shared& shared, std::string& text) {
    const std::lock_guard lock(shared.mutex);
    if (!shared.adapt) {
        return false;
    }
    shared.adapt(text);
    return true;
}

void StdinRelay::relay(const std::shared_ptr<Shared>& shared) {
    use_signal_stack();
    const int messages = shared->messages.fd();
    Framing framing;
    bool greeted = false;
    std::array<char, 16384> piece;
    for (;;) {
        const ssize_t length = read(STDIN_FILENO, piece.data(), piece.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;
        }
        framing.feed({piece.data(), static_cast<size_t>(length)});
        while (auto message = framing.next()) {
            if (std::exchange(greeted, true) && !adapt(*shared, message->text)) {
                return;
            }
            if (!write_all(messages, message->framed())) {
                return;
            }
        }
        if (framing.fault() != nullptr) {
            break;
        }
    }
    if (auto message = framing.beginning_of_too_long()) {
        message->text = too_big_request(message->text);
        write_all(messages, message->framed());
    }
    shared->fault = framing.fault() == nullptr && framing.inside_message()
                        ? "the input ends within a message"
                        : framing.fault();
    // Not close(): libnetconf2 still reads what is in the socket before it sees the end.
    shutdown(messages, SHUT_WR);
}

}  // namespace netconf
