// One kind of the kernel's rtnetlink messages (links, forwarding-database entries) of one network
// namespace: one full reading, then every change.
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

    // Hears everything from the loop, but for the first on_dump_begin.
    class Listener {
     public:
        virtual ~Listener() = default;
        // All that is there follows, each at least once and mixed with changes, up to the end. A
        // beginning without an end before it starts over.
        virtual void on_dump_begin() = 0;
        // False when the list may lack something: then it is read again, with another beginning,
        // and no message of the group is lost in between.
        virtual bool on_dump_end() = 0;
        // A message of the group or of the list; valid during the call. The monitor must not be
        // destroyed from inside it.
        virtual void on_message(nlmsghdr* header) = 0;
    };

    // Opens the socket; throws std::runtime_error.
    RtnlMonitor(EventLoop& loop, const Subject& subject);

    // Once. The listener stays the caller's and must outlive the monitor.
    void start(Listener& listener);

    // Hands the listener every message that the kernel has queued so far. Does nothing when the
    // listener calls it: then the messages follow in their order after its return. While the socket
    // waits to be opened again there is nothing to hand over.
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
    EventLoop::Handle watch_;      // on the descriptor of socket_: goes before it
    EventLoop::Handle reopening_;  // pending while socket_ is null
    bool draining_ = false;        // the listener is being called
    Time last_resync_{};
    unsigned resyncs_ = 0;
    bool dump_interrupted_ = false;  // something came or went in mid-dump, one may be missing in it
    std::string logged_trouble_;     // said since the last complete dump, so said once
};

}  // namespace qv
