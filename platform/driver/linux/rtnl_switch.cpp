#include "platform/driver/linux/rtnl_switch.h"

#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "platform/driver/linux/bridge_ports.h"
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

// Sets or clears IFF_UP. Empty when done, else the kernel's reason.
std::string change_up_flag(nl_sock* socket, uint32_t ifx, bool up) {
    const std::unique_ptr<nl_msg, NlMessageFree> request(
        nlmsg_alloc_simple(RTM_SETLINK, NLM_F_ACK));
    ifinfomsg change{};
    change.ifi_index = static_cast<int>(ifx);
    change.ifi_flags = up ? IFF_UP : 0;
    change.ifi_change = IFF_UP;
    if (!request || nlmsg_append(request.get(), &change, sizeof change, NLMSG_ALIGNTO) < 0) {
        return std::strerror(ENOMEM);
    }
    // The library's own error numbers are coarser than the kernel's.
    int refused = 0;
    nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, keep_errno, &refused);
    int result = nl_send_auto(socket, request.get());
    if (result >= 0) {
        result = nl_wait_for_ack(socket);
    }
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    if (refused != 0) {
        return std::strerror(refused);
    }
    return result < 0 ? nl_geterror(result) : "";
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

    void on_dump_begin() override { ports_->begin_dump(); }

    bool on_dump_end() override {
        ports_->end_dump();
        if (!complete_) {
            complete_ = true;
            sink_->ports_complete();
        }
        return true;
    }

    void on_message(nlmsghdr* header) override {
        if (const auto message = parse_link(header)) {
            ports_->take(*message);
        }
    }

    std::string set_admin(uint32_t ifx, bool up) {
        const Port* const port = find(ifx);
        if (port == nullptr) {
            return "no such port";
        }
        const std::string reason = change_up_flag(requests_.get(), ifx, up);
        if (reason.empty()) {
            return "";
        }
        return "cannot set " + port->name + (up ? " up: " : " down: ") + reason;
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

    unsigned resyncs() const { return monitor_.resyncs(); }

 private:
    const Port* find(uint32_t ifx) const { return ports_ ? ports_->find(ifx) : nullptr; }

    const std::string bridge_;
    RtnlMonitor monitor_;
    NlSocket requests_;  // blocking, so that an answer is at hand when a request returns
    std::optional<BridgePorts> ports_;  // from start() on
    PortSink* sink_ = nullptr;
    bool complete_ = false;
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

unsigned RtnlSwitch::resyncs() const {
    return impl_->resyncs();
}

}  // namespace qv
