#include "platform/driver/linux/rtnl_switch.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include <linux/capability.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/message_log.h"
#include "platform/base/supervisor.h"
#include "platform/driver/linux/bridge_ports.h"
#include "platform/driver/linux/rtnl_counters.h"
#include "platform/driver/linux/rtnl_link.h"
#include "platform/driver/linux/rtnl_monitor.h"
#include "platform/driver/linux/rtnl_requests.h"
#include "qv/bridge.h"

namespace qv {
namespace {

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
                          .receive_buffer = receive_buffer}) {}

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
        const int error = requests_.set_up(ifx, up);
        std::string reason = error != 0 ? std::strerror(error) : "";
        if (error == ENODEV) {
            monitor_.catch_up();  // the port was deleted: reports that before returning
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

    // Updates the ports after an acknowledged change. When its notification cannot be read now (it
    // was lost, or this is called from inside a report), asks the kernel. Returns an empty text
    // when the port has the new state or was deleted, else the reason. A port that tarnd cuts as
    // soon as it is up has been brought up: the switch does not shut it any more, and tarnd gives
    // it back.
    std::string take_over(uint32_t ifx, bool up) {
        monitor_.catch_up();
        const Port* const port = find(ifx);
        if (port == nullptr || port->admin_up == up) {
            return "";
        }
        std::optional<LinkMessage> link;
        const int error =
            requests_.read_link(ifx, [&](nlmsghdr* answer) { link = parse_link(answer); });
        const bool is_up = error == 0 && link ? link->admin_up : up;
        ports_->set_admin(ifx, is_up);
        if (up && !is_up) {
            const std::string name = find(ifx) != nullptr ? find(ifx)->name : "";
            const LogAbout about({.port = name});
            log_message(kLogWarning, "PORT", "SHUT",
                        "%s was brought up, and another program has shut it at once.",
                        name.empty() ? "A port" : name.c_str());
            return "";
        }
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
            const LogAbout about({.port = name, .cause = reason});
            log_message(kLogError, "PORT", "ADMIN", "%s cannot be %s: %s.", name.c_str(),
                        up ? "brought up" : "shut", reason.c_str());
        }
    }

    void log_success(uint32_t ifx, bool up, const std::string& name) {
        if (refused_.erase({ifx, up}) != 0) {
            const LogAbout about({.port = name});
            log_message(kLogInfo, "PORT", "ADMIN", "%s can be %s again.", name.c_str(),
                        up ? "brought up" : "shut");
        }
    }

    const std::string bridge_;
    RtnlMonitor monitor_;
    RtnlRequests requests_;
    std::optional<BridgePorts> ports_;  // set by start()
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
