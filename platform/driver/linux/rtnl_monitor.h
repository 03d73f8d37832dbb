// Follows one kind of rtnetlink objects (links, forwarding-database entries) in one network
// namespace: reads all of them once (a dump), then receives every change.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/base/event_loop.h"

struct nl_sock;
struct nlmsghdr;

namespace qv {

struct NlSocketFree {
    void operator()(nl_sock* socket) const;
};
using NlSocket = std::unique_ptr<nl_sock, NlSocketFree>;

// A socket connected to rtnetlink; throws std::runtime_error with the reason.
NlSocket open_rtnl_socket();

// Loop thread only.
class RtnlMonitor {
 public:
    // The kind of kernel object that a monitor follows.
    struct Subject {
        const char* name;      // for the log, plural
        int group;             // RTNLGRP_* of the changes
        int list_request;      // RTM_GET*
        unsigned char family;  // AF_* of the list
        size_t request_bytes;  // of the request's header, which begins with the family
        int receive_buffer;    // bytes of unread messages that the kernel keeps for us
    };

    // Called from the loop, except for the first on_dump_begin(), which start() calls.
    class Listener {
     public:
        virtual ~Listener() = default;
        // A dump begins: until on_dump_end() a message comes for every object, at least once, mixed
        // with changes. A second beginning without an end starts the dump over.
        virtual void on_dump_begin() = 0;
        // Return false when the list may be incomplete: then it is read again, with another
        // on_dump_begin(), and no change is lost in between.
        virtual bool on_dump_end() = 0;
        // A change or an entry of the list, valid during the call. Must not destroy the monitor.
        virtual void on_message(nlmsghdr* header) = 0;
    };

    // Opens the socket; throws std::runtime_error.
    RtnlMonitor(EventLoop& loop, const Subject& subject);

    // Starts the dump and the changes. Call once. The listener must outlive the monitor.
    void start(Listener& listener);

    // Delivers the messages that the kernel has queued so far. Does nothing when called from inside
    // a callback of the listener, which gets them after its return, or while the socket waits to be
    // opened again.
    void catch_up();

    // How often everything was read again.
    unsigned resyncs() const { return resyncs_; }

 private:
    NlSocket open_socket() const;
    void read_all();
    void request_dump();
    bool drain();
    void handle(nlmsghdr* header);
    void handle_dump_done(nlmsghdr* header);
    void resync(const std::string& reason);
    void log_trouble(const std::string& reason);
    void reopen();
    void reopen_later(const std::string& reason);

    EventLoop& loop_;
    const Subject subject_;
    Listener* listener_ = nullptr;
    NlSocket socket_;              // null while waiting to be opened again
    EventLoop::Handle watch_;      // on the descriptor of socket_: destroyed before it
    EventLoop::Handle reopening_;  // pending while socket_ is null
    bool draining_ = false;        // the listener may be running
    Time last_resync_{};
    unsigned resyncs_ = 0;
    bool dump_interrupted_ =
        false;                    // the objects changed during the dump, one may be missing in it
    std::string logged_trouble_;  // the last reason logged since a complete dump
};

}  // namespace qv
