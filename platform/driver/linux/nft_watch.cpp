#include "platform/driver/linux/nft_watch.h"

#include <cerrno>
#include <utility>

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "platform/driver/linux/netlink_datagram.h"
#include "platform/driver/linux/nft_messages.h"

namespace qv {
namespace {

// Room for the changes that other programs make within a second.
constexpr int kReceiveBuffer = 1 << 20;

int keep_table_name(const nlattr* attribute, void* name) {
    if (mnl_attr_get_type(attribute) == kNftTableName &&
        mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
        *static_cast<const char**>(name) = mnl_attr_get_str(attribute);
    }
    return MNL_CB_OK;
}

}  // namespace

bool concerns_table(const nlmsghdr* header, const std::string& table) {
    const bool about_packet_filter = header->nlmsg_type >> 8 == NFNL_SUBSYS_NFTABLES &&
                                     (header->nlmsg_type & 0xFF) != NFT_MSG_NEWGEN;
    if (!about_packet_filter || mnl_nlmsg_get_payload_len(header) < sizeof(nfgenmsg) ||
        static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(header))->nfgen_family !=
            NFPROTO_NETDEV) {
        return false;
    }
    const char* name = nullptr;
    const int parsed = mnl_attr_parse(header, sizeof(nfgenmsg), keep_table_name, &name);
    return parsed >= 0 && name != nullptr && name == table;
}

void NftWatch::Close::operator()(mnl_socket* socket) const {
    mnl_socket_close(socket);
}

int NftWatch::open() {
    if (socket_) {
        return 0;
    }
    std::unique_ptr<mnl_socket, Close> socket(
        mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK));
    int group = NFNLGRP_NFTABLES;
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
        return errno;
    }
    setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
               sizeof kReceiveBuffer);
    buffer_.resize(kNetlinkDatagramBytes);
    socket_ = std::move(socket);
    return 0;
}

NftWatch::Change NftWatch::read() {
    bool seen = false;
    bool lost = false;
    for (;;) {
        const ssize_t length = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
        if (length < 0 && errno == ENOBUFS) {
            lost = true;
            continue;
        }
        if (length <= 0) {
            return seen ? Change::kChanged : lost ? Change::kUnknown : Change::kNone;
        }
        int left = static_cast<int>(length);
        const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
        for (; !seen && mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
            seen = concerns_table(header, table_);
        }
    }
}

}  // namespace qv
