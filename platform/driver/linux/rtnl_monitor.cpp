#include "platform/driver/linux/rtnl_monitor.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include "platform/base/message_log.h"
#include "platform/driver/linux/netlink_datagram.h"

namespace qv {
namespace {

constexpr int kDatagramsPerTurn = 256;
// One datagram of a list has hundreds of entries.
constexpr std::chrono::milliseconds kTimePerTurn{5};
// Turns of catch_up(): enough to empty a receive buffer of some megabytes, and a limit in case the
// kernel adds datagrams as fast as they are read.
constexpr int kCatchUpTurns = 64;
// Minimum time between two dumps that follow losses, so that a flood of changes does not cause a
// flood of dumps.
constexpr std::chrono::milliseconds kResyncPause{100};
constexpr std::chrono::seconds kReopenPause{1};

struct FreeBytes {
    void operator()(unsigned char* bytes) const { std::free(bytes); }
};

// Sets a flag for the duration of a scope.
class FlagGuard {
 public:
    explicit FlagGuard(bool& flag) : flag_(flag) { flag_ = true; }
    ~FlagGuard() { flag_ = false; }
    FlagGuard(const FlagGuard&) = delete;
    FlagGuard& operator=(const FlagGuard&) = delete;

 private:
    bool& flag_;
};

void check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string("rtnetlink: ") + what + ": " + nl_geterror(result));
    }
}

}  // namespace

void NlSocketFree::operator()(nl_sock* socket) const {
    nl_socket_free(socket);
}

NlSocket open_rtnl_socket() {
    NlSocket socket(nl_socket_alloc());
    if (!socket) {
        throw std::runtime_error("rtnetlink: out of memory");
    }
    check(nl_connect(socket.get(), NETLINK_ROUTE), "connect");
    return socket;
}

RtnlMonitor::RtnlMonitor(EventLoop& loop, const Subject& subject)
    : loop_(loop), subject_(subject), socket_(open_socket()) {}

NlSocket RtnlMonitor::open_socket() const {
    NlSocket socket = open_rtnl_socket();
    // Beyond the system's limit when privileged, else up to it.
    const int fd = nl_socket_get_fd(socket.get());
    const int bytes = subject_.receive_buffer;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    nl_socket_disable_auto_ack(socket.get());
    nl_socket_disable_msg_peek(socket.get());
    check(nl_socket_set_msg_buf_size(socket.get(), kNetlinkDatagramBytes), "buffer");
    check(nl_socket_set_nonblocking(socket.get()), "non-blocking");
    check(nl_socket_add_memberships(socket.get(), subject_.group, 0), "group");
    return socket;
}

void RtnlMonitor::start(Listener& listener) {
    listener_ = &listener;
    read_all();
}

void RtnlMonitor::read_all() {
    const int fd = nl_socket_get_fd(socket_.get());
    watch_ = loop_.watch(fd, true, false, [this](EventLoop::Ready) { drain(); });
    if (!watch_) {
        reopen_later("the socket cannot be watched");
        return;
    }
    request_dump();
}

void RtnlMonitor::request_dump() {
    dump_interrupted_ = false;
    listener_->on_dump_begin();
    std::array<unsigned char, sizeof(ifinfomsg)> all{};
    all[0] = subject_.family;
    const int sent = nl_send_simple(socket_.get(), subject_.list_request, NLM_F_DUMP, all.data(),
                                    std::min(subject_.request_bytes, all.size()));
    if (sent < 0) {
        resync(nl_geterror(sent));
    }
}

void RtnlMonitor::catch_up() {
    if (draining_) {
        return;
    }
    for (int turn = 0; turn < kCatchUpTurns && drain(); ++turn) {
    }
}

// Returns true when there may be more to read.
bool RtnlMonitor::drain() {
    const FlagGuard guard(draining_);
    // Other work of the loop gets its turn; the watch fires again for the rest.
    const Time end = loop_.clock().now() + kTimePerTurn;
    for (int datagram = 0; socket_ && datagram < kDatagramsPerTurn && loop_.clock().now() < end;
         ++datagram) {
        sockaddr_nl sender{};
        unsigned char* bytes = nullptr;
        int left = nl_recv(socket_.get(), &sender, &bytes, nullptr);
        const std::unique_ptr<unsigned char, FreeBytes> owner(bytes);
        if (left == 0 || left == -NLE_AGAIN) {
            return false;
        }
        if (left < 0) {
            // -NLE_NOMEM is ENOBUFS: the kernel had no room for a notification.
            resync(left == -NLE_NOMEM ? "notifications were lost" : nl_geterror(left));
            return false;
        }
        if (sender.nl_pid != 0) {
            continue;  // not from the kernel
        }
        nlmsghdr* header = reinterpret_cast<nlmsghdr*>(bytes);
        for (; socket_ && nlmsg_ok(header, left); header = nlmsg_next(header, &left)) {
            handle(header);
        }
    }
    return socket_ != nullptr;
}

void RtnlMonitor::handle(nlmsghdr* header) {
    if ((header->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
        dump_interrupted_ = true;
    }
    if (header->nlmsg_type == NLMSG_DONE) {
        handle_dump_done(header);
    } else if (header->nlmsg_type == NLMSG_ERROR) {
        resync("the kernel refused to list them");  // acknowledgements are not requested
    } else {
        listener_->on_message(header);
    }
}

void RtnlMonitor::handle_dump_done(nlmsghdr* header) {
    int error = 0;
    if (nlmsg_datalen(header) >= static_cast<int>(sizeof error)) {
        std::memcpy(&error, nlmsg_data(header), sizeof error);
    }
    if (error < 0) {
        resync(std::strerror(-error));
    } else if (dump_interrupted_ || !listener_->on_dump_end()) {
        request_dump();
    } else {
        logged_trouble_.clear();
    }
}

void RtnlMonitor::log_trouble(const std::string& reason) {
    if (logged_trouble_ != reason) {
        logged_trouble_ = reason;
        log_message(kLogWarning, "PORT", "RESYNC", "Reading all %s again: %s", subject_.name,
                    reason.c_str());
    }
}

// A fresh socket has neither a half-read dump nor notifications older than the loss.
void RtnlMonitor::resync(const std::string& reason) {
    log_trouble(reason);
    watch_.reset();
    socket_.reset();
    const Time due = last_resync_ + kResyncPause;
    const Time now = loop_.clock().now();
    reopening_ = loop_.after(std::max(due - now, Duration::zero()), [this] { reopen(); });
}

void RtnlMonitor::reopen() {
    last_resync_ = loop_.clock().now();
    try {
        socket_ = open_socket();
    } catch (const std::runtime_error& error) {
        reopen_later(error.what());
        return;
    }
    ++resyncs_;
    read_all();
}

void RtnlMonitor::reopen_later(const std::string& reason) {
    log_trouble(reason);
    socket_.reset();
    reopening_ = loop_.after(kReopenPause, [this] { reopen(); });
}

}  // namespace qv
