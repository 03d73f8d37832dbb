#include "tests/unit/tarnd/kernel_script.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/errno.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <nftables/libnftables.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace qv::tarnd::test {

KernelScript& kernel() {
    static auto& script = *new KernelScript;
    return script;
}

NftScript& nft() {
    static auto& script = *new NftScript;
    return script;
}

namespace {

// To be received next. Empty: nothing arrives.
std::string& answer() {
    static auto& bytes = *new std::string;
    return bytes;
}

void put_flags(nl_msg* message, const PortFlags& flags) {
    nla_put_u8(message, IFLA_BRPORT_LOCKED, flags.locked);
    nla_put_u8(message, IFLA_BRPORT_LEARNING, flags.learning);
    nla_put_u8(message, IFLA_BRPORT_UNICAST_FLOOD, flags.flood);
    nla_put_u8(message, IFLA_BRPORT_MCAST_FLOOD, flags.mcast_flood);
    nla_put_u8(message, IFLA_BRPORT_BCAST_FLOOD, flags.bcast_flood);
}

PortFlags take_flags(nlattr* port) {
    const auto value = [port](int type) {
        return nla_get_u8(nla_find(static_cast<nlattr*>(nla_data(port)), nla_len(port), type));
    };
    return {.locked = value(IFLA_BRPORT_LOCKED),
            .learning = value(IFLA_BRPORT_LEARNING),
            .flood = value(IFLA_BRPORT_UNICAST_FLOOD),
            .mcast_flood = value(IFLA_BRPORT_MCAST_FLOOD),
            .bcast_flood = value(IFLA_BRPORT_BCAST_FLOOD)};
}

void describe(nl_msg* message, uint32_t ifx, const KernelLink& link) {
    ifinfomsg info{};
    info.ifi_index = static_cast<int>(ifx);
    nlmsg_append(message, &info, sizeof info, NLMSG_ALIGNTO);
    if (link.is_port) {
        nlattr* const outer = nla_nest_start(message, IFLA_LINKINFO);
        nla_put_string(message, IFLA_INFO_SLAVE_KIND, "bridge");
        nlattr* const port = nla_nest_start(message, IFLA_INFO_SLAVE_DATA);
        put_flags(message, link.flags);
        nla_nest_end(message, port);
        nla_nest_end(message, outer);
    }
}

void answer_with(const nlmsghdr* request, int type, const auto& fill) {
    nl_msg* const message = nlmsg_alloc();
    nlmsg_put(message, request->nlmsg_pid, request->nlmsg_seq, type, 0, 0);
    fill(message);
    const nlmsghdr* const header = nlmsg_hdr(message);
    answer().assign(reinterpret_cast<const char*>(header), header->nlmsg_len);
    nlmsg_free(message);
}

// Executes a change. 0 or errno.
int change(KernelLink& link, nlmsghdr* request) {
    const auto* const info = static_cast<const ifinfomsg*>(nlmsg_data(request));
    nlattr* const port = nlmsg_find_attr(request, sizeof *info, IFLA_PROTINFO);
    if (port == nullptr) {
        link.up = (info->ifi_flags & IFF_UP) != 0;
        link.blocked = link.blocked && !link.up;
    } else if (!link.is_port) {
        return EINVAL;
    } else if (nla_len(port) < 2 * static_cast<int>(NLA_HDRLEN) + 2) {
        link.blocked = true;
    } else {
        link.flags = take_flags(port);
    }
    return 0;
}

std::string name_of(nlmsghdr* request) {
    const auto* const info = static_cast<const ifinfomsg*>(nlmsg_data(request));
    if (request->nlmsg_type == RTM_GETLINK) {
        return "read ";
    }
    nlattr* const port = nlmsg_find_attr(request, sizeof *info, IFLA_PROTINFO);
    if (port == nullptr) {
        return (info->ifi_flags & IFF_UP) != 0 ? "up " : "down ";
    }
    return nla_find(static_cast<nlattr*>(nla_data(port)), nla_len(port), IFLA_BRPORT_STATE)
               ? "block "
               : "flags ";
}

void serve(nlmsghdr* request, int scripted) {
    const auto* const info = static_cast<const ifinfomsg*>(nlmsg_data(request));
    const auto ifx = static_cast<uint32_t>(info->ifi_index);
    const auto link = kernel().links.find(ifx);
    int error = std::max(scripted, 0);
    if (error == 0 && link == kernel().links.end()) {
        error = ENODEV;
    }
    if (error == 0 && request->nlmsg_type == RTM_GETLINK) {
        answer_with(request, RTM_NEWLINK,
                    [&](nl_msg* message) { describe(message, ifx, link->second); });
    } else {
        error = error != 0 ? error : change(link->second, request);
        answer_with(request, NLMSG_ERROR, [&](nl_msg* message) {
            const nlmsgerr refusal{.error = -error, .msg = *request};
            nlmsg_append(message, const_cast<nlmsgerr*>(&refusal), sizeof refusal, 0);
        });
    }
    if (scripted == kUnanswered) {
        answer().clear();
    }
}

int receive(nl_sock* /*socket*/, sockaddr_nl* from, unsigned char** bytes, ucred** /*owner*/) {
    const std::string message = std::exchange(answer(), {});
    if (message.empty()) {
        return -NLE_NOMEM;  // the library's number for ENOBUFS
    }
    *from = {};
    from->nl_family = AF_NETLINK;
    *bytes = static_cast<unsigned char*>(std::malloc(message.size()));
    std::copy(message.begin(), message.end(), *bytes);
    return static_cast<int>(message.size());
}

}  // namespace
}  // namespace qv::tarnd::test

extern "C" {

int __wrap_nl_send_auto(nl_sock* socket, nl_msg* message) {
    using namespace qv::tarnd::test;
    nl_cb* const callbacks = nl_socket_get_cb(socket);
    nl_cb_overwrite_recv(callbacks, receive);
    nl_cb_put(callbacks);
    nl_complete_msg(socket, message);
    nlmsghdr* const request = nlmsg_hdr(message);
    const auto* const info = static_cast<const ifinfomsg*>(nlmsg_data(request));
    kernel().requests.push_back(name_of(request) + std::to_string(info->ifi_index));
    int scripted = 0;
    if (!kernel().answers.empty()) {
        scripted = kernel().answers.front();
        kernel().answers.pop_front();
    }
    if (scripted == kUnsent) {
        return -NLE_NOMEM;
    }
    serve(request, scripted);
    if (kernel().meanwhile && name_of(request) == "up ") {
        const std::string own = std::exchange(answer(), {});
        std::exchange(kernel().meanwhile, nullptr)();
        answer() = own;
    }
    return static_cast<int>(request->nlmsg_len);
}

int __wrap_nft_run_cmd_from_buffer(nft_ctx* /*context*/, const char* text) {
    using namespace qv::tarnd::test;
    nft().runs.emplace_back(text);
    if (nft().refusals > 0) {
        --nft().refusals;
        return -1;
    }
    nft().error.clear();
    const std::string& commands = nft().runs.back();
    if (!commands.starts_with("add table") && !nft().table) {
        return -1;
    }
    nft().table = !commands.starts_with("delete table");
    return 0;
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* /*context*/) {
    return qv::tarnd::test::nft().error.c_str();
}

const char* __wrap_nft_ctx_get_output_buffer(nft_ctx* /*context*/) {
    return "ether saddr 02:00:00:00:00:07 drop";
}

}  // extern "C"
