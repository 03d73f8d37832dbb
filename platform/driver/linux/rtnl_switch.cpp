#include "platform/driver/linux/rtnl_switch.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include <linux/capability.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/guarded.h"
#include "platform/base/message_log.h"
#include "platform/base/supervisor.h"
#include "platform/driver/linux/bridge_ports.h"
#include "platform/driver/linux/rtnl_counters.h"
#include "platform/driver/linux/rtnl_link.h"
#include "platform/driver/linux/rtnl_monitor.h"
#include "qv/bridge.h"

namespace qv {
namespace {

struct NlMessageFree {
    void operator()(nl_msg* message) const { nlmsg_free(message); }
};

int keep_errno(sockaddr_nl*, nlmsgerr* answer, void* kept) {
    *static_cast<int*>(kept) = -answer->error;
    return NL_STOP;
}

// Sends a request and waits until the kernel has acknowledged it. 0 or its errno: the library's own
// error numbers are coarser.
int transact(nl_sock* socket, nl_msg* request) {
    int refused = 0;
    nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, keep_errno, &refused);
    int result = nl_send_auto(socket, request);
    if (result >= 0) {
        result = nl_wait_for_ack(socket);
    }
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    if (refused != 0) {
        return refused;
    }
    return result < 0 ? EIO : 0;
}

// A request about one link; null when out of memory.
std::unique_ptr<nl_msg, NlMessageFree> link_request(int type, const ifinfomsg& link) {
    std::unique_ptr<nl_msg, NlMessageFree> request(nlmsg_alloc_simple(type, NLM_F_ACK));
    ifinfomsg copy = link;
    if (request && nlmsg_append(request.get(), &copy, sizeof copy, NLMSG_ALIGNTO) < 0) {
        request.reset();
    }
    return request;
}

// Sets or clears IFF_UP and no other flag. 0 or errno.
int change_up_flag(nl_sock* socket, uint32_t ifx, bool up) {
    ifinfomsg change{};
    change.ifi_index = static_cast<int>(ifx);
    change.ifi_flags = up ? IFF_UP : 0;
    change.ifi_change = IFF_UP;
    const auto request = link_request(RTM_SETLINK, change);
    return request ? transact(socket, request.get()) : ENOMEM;
}

// Called by the library, which no exception may cross. Without memory the link stays unknown.
int keep_link(nl_msg* answer, void* kept) {
    guarded(
        [=] { *static_cast<std::optional<LinkMessage>*>(kept) = parse_link(nlmsg_hdr(answer)); });
    return NL_OK;
}

// Asks the kernel for the state of a link; nothing when the request fails.
std::optional<LinkMessage> read_link(nl_sock* socket, uint32_t ifx) {
    ifinfomsg wanted{};
    wanted.ifi_index = static_cast<int>(ifx);
    const auto request = link_request(RTM_GETLINK, wanted);
    std::optional<LinkMessage> link;
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, keep_link, &link);
    const int error = request ? transact(socket, request.get()) : ENOMEM;
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
    return error == 0 ? link : std::nullopt;
}

// Of the calling thread.
bool has_net_admin() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capget, &header, sets) == 0 &&
           (sets[CAP_TO_INDEX(CAP_NET_ADMIN)].effective & CAP_TO_MASK(CAP_NET_ADMIN)) != 0;
}

}  // namespace

class RtnlSwitch::Impl final : public RtnlMonitor::Listener {
 public:
    Impl(EventLoop& loop, std::string bridge, int receive_buffer)
        : bridge_(std::move(bridge)),
          monitor_(loop, {.name = "links",
                          .group = RTNLGRP_LINK,
                          .list_request = RTM_GETLINK,
                          .family = AF_UNSPEC,
                          .request_bytes = sizeof(ifinfomsg),
                          .receive_buffer = receive_buffer}),
          requests_(open_rtnl_socket()) {}

    void start(PortSink& sink) {
        sink_ = &sink;
        ports_.emplace(bridge_, sink);
        monitor_.start(*this);
    }

    void on_dump_begin() override {
        dumping_ = true;
        ports_->begin_dump();
    }

    bool on_dump_end() override {
        dumping_ = false;
        ports_->end_dump();
        log_bridge();
        if (!complete_) {
            complete_ = true;
            sink_->ports_complete();
        }
        return true;
    }

    void on_message(nlmsghdr* header) override {
        if (const auto message = parse_link(header)) {
            ports_->take(*message);
            log_bridge();
        }
    }

    std::string set_admin(uint32_t ifx, bool up) {
        const Port* const port = find(ifx);
        if (port == nullptr) {
            return "no such port";
        }
        const std::string name = port->name;
        const int error = change_up_flag(requests_.get(), ifx, up);
        std::string reason = error != 0 ? std::strerror(error) : "";
        if (error == ENODEV) {
            monitor_.catch_up();  // the port was deleted: report that before we return
        } else if (error == 0) {
            reason = take_over(ifx, up);
        }
        if (reason.empty()) {
            log_success(ifx, up, name);
            return "";
        }
        const bool powerless = error == EPERM && !has_net_admin();
        log_refusal(ifx, up, name,
                    powerless ? reason + "; the process lacks CAP_NET_ADMIN" : reason);
        return "cannot set " + name + (up ? " up: " : " down: ") + reason;
    }

    std::string set_mode(uint32_t ifx, uint32_t mode) {
        if (mode != SWPORT_MODE_ACCESS && mode != SWPORT_MODE_TRUNK && mode != SWPORT_MODE_HYBRID) {
            return "no such VLAN mode";
        }
        if (find(ifx) == nullptr) {
            return "no such port";
        }
        ports_->set_mode(ifx, mode);
        return "";
    }

    std::map<uint32_t, PortCounters> counters(uint32_t ifx) const {
        std::map<uint32_t, PortCounters> counters = read_counters(ifx);
        std::erase_if(counters, [this](const auto& item) { return find(item.first) == nullptr; });
        return counters;
    }

    uint32_t bridge() const { return ports_ ? ports_->bridge() : 0; }
    unsigned resyncs() const { return monitor_.resyncs(); }

 private:
    const Port* find(uint32_t ifx) const { return ports_ ? ports_->find(ifx) : nullptr; }

    // Brings the ports up to date with an acknowledged change. When its notification cannot be read
    // now (it was lost, or this is called from inside a report), asks the kernel. Empty when the
    // port has the state or was deleted, else the reason why it has not.
    std::string take_over(uint32_t ifx, bool up) {
        monitor_.catch_up();
        const Port* const port = find(ifx);
        if (port == nullptr || port->admin_up == up) {
            return "";
        }
        const std::optional<LinkMessage> link = read_link(requests_.get(), ifx);
        const bool is_up = link ? link->admin_up : up;
        ports_->set_admin(ifx, is_up);
        return is_up == up ? "" : "another program has changed it back";
    }

    // Logs that the bridge is missing, and later that it has appeared.
    void log_bridge() {
        const bool missing = ports_->bridge() == 0;
        if (dumping_ || missing == bridge_missing_) {
            return;
        }
        bridge_missing_ = missing;
        report_bridge(bridge_, missing);
        if (missing) {
            log_message(kLogWarning, "PORT", "BRIDGE",
                        "There is no bridge %s: waiting for it, without ports until then.",
                        bridge_.c_str());
        } else {
            log_message(kLogInfo, "PORT", "BRIDGE",
                        "Bridge %s has appeared: its members are the ports.", bridge_.c_str());
        }
    }

    void log_refusal(uint32_t ifx, bool up, const std::string& name, const std::string& reason) {
        std::erase_if(refused_,
                      [&](const auto& item) { return find(item.first.first) == nullptr; });
        std::string& logged = refused_[{ifx, up}];
        if (logged != reason) {
            logged = reason;
            log_message(kLogError, "PORT", "ADMIN", "%s cannot be %s: %s.", name.c_str(),
                        up ? "brought up" : "shut", reason.c_str());
        }
    }

    void log_success(uint32_t ifx, bool up, const std::string& name) {
        if (refused_.erase({ifx, up}) != 0) {
            log_message(kLogInfo, "PORT", "ADMIN", "%s can be %s again.", name.c_str(),
                        up ? "brought up" : "shut");
        }
    }

    const std::string bridge_;
    RtnlMonitor monitor_;
    NlSocket requests_;                 // blocking: a request returns with its answer
    std::optional<BridgePorts> ports_;  // from start() on
    PortSink* sink_ = nullptr;
    bool complete_ = false;
    bool dumping_ = false;
    bool bridge_missing_ = false;  // as logged
    // Why the admin state of a port cannot be changed to "up" (true) or "down", as logged.
    std::map<std::pair<uint32_t, bool>, std::string> refused_;
};

RtnlSwitch::RtnlSwitch(EventLoop& loop, std::string bridge, int receive_buffer)
    : impl_(std::make_unique<Impl>(loop, std::move(bridge), receive_buffer)) {}

RtnlSwitch::~RtnlSwitch() = default;

void RtnlSwitch::start(PortSink& sink) {
    impl_->start(sink);
}

std::string RtnlSwitch::set_admin(uint32_t ifx, bool up) {
    return impl_->set_admin(ifx, up);
}

std::string RtnlSwitch::set_mode(uint32_t ifx, uint32_t mode) {
    return impl_->set_mode(ifx, mode);
}

std::map<uint32_t, PortCounters> RtnlSwitch::counters(uint32_t ifx) {
    return impl_->counters(ifx);
}

uint32_t RtnlSwitch::bridge() const {
    return impl_->bridge();
}

unsigned RtnlSwitch::resyncs() const {
    return impl_->resyncs();
}

}  // namespace qv
