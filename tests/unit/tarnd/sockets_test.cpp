// The probing thread's sockets when the kernel refuses. Every call can be made to fail; the packet
// socket is one end of a pair, so that no privilege is needed.
#include "services/tarnd/sockets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/tarnd/kernel_script.h"

namespace {

struct Answer {
    int error;          // 0: the call is passed on, or succeeds where it is simulated
    uint32_t from = 0;  // recvfrom: interface index or port id of the sender
    std::string bytes{};
    uint8_t type = PACKET_MULTICAST;
    int tci = -1;  // recvmsg: of the tag that was taken out of the frame; -1: there was none
};

// Answers to the next calls, by name. Without one the real call is made.
std::map<std::string, std::deque<Answer>>& script() {
    static auto& answers = *new std::map<std::string, std::deque<Answer>>;
    return answers;
}

bool next(const char* call, Answer& answer) {
    std::deque<Answer>& answers = script()[call];
    if (answers.empty()) {
        return false;
    }
    answer = answers.front();
    answers.pop_front();
    errno = answer.error;
    return true;
}

}  // namespace

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    Answer answer{};
    if (!next("socket", answer)) {
        return __real_socket(domain, type, protocol);
    }
    return answer.error != 0 ? -1 : __real_socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    Answer answer{};
    if (!next("setsockopt", answer)) {
        return __real_setsockopt(fd, level, name, value, size);
    }
    return answer.error != 0 ? -1 : 0;
}

int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
    Answer answer{};
    if (!next("bind", answer)) {
        return __real_bind(fd, address, size);
    }
    return answer.error != 0 ? -1 : 0;
}

// Of the latest frame that was sent.
std::string& sent_bytes() {
    static auto& bytes = *new std::string;
    return bytes;
}
uint16_t g_sent_protocol = 0;

ssize_t __real_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t to_size);
ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t to_size) {
    Answer answer{};
    if (!next("sendto", answer)) {
        return __real_sendto(fd, bytes, size, flags, to, to_size);
    }
    sent_bytes().assign(static_cast<const char*>(bytes), size);
    g_sent_protocol = ntohs(reinterpret_cast<const sockaddr_ll*>(to)->sll_protocol);
    return answer.error != 0 ? -1 : static_cast<ssize_t>(size);
}

ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    Answer answer{};
    if (!next("send", answer)) {
        return __real_send(fd, bytes, size, flags);
    }
    return answer.error != 0 ? -1 : static_cast<ssize_t>(size);
}

ssize_t __real_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                        socklen_t* from_size);
ssize_t __wrap_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                        socklen_t* from_size) {
    Answer answer{};
    if (!next("recvfrom", answer)) {
        return __real_recvfrom(fd, bytes, size, flags, from, from_size);
    }
    if (answer.error != 0) {
        return -1;
    }
    sockaddr_nl netlink{};
    netlink.nl_pid = answer.from;
    std::copy_n(reinterpret_cast<const char*>(&netlink), sizeof netlink,
                reinterpret_cast<char*>(from));
    const size_t length = std::min(size, answer.bytes.size());
    std::copy_n(answer.bytes.data(), length, static_cast<char*>(bytes));
    return static_cast<ssize_t>(length);
}

ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags) {
    Answer answer{};
    if (!next("recvmsg", answer)) {
        return __real_recvmsg(fd, message, flags);
    }
    if (answer.error != 0) {
        return -1;
    }
    sockaddr_ll link{};
    link.sll_ifindex = static_cast<int>(answer.from);
    link.sll_pkttype = answer.type;
    std::copy_n(reinterpret_cast<const char*>(&link), sizeof link,
                static_cast<char*>(message->msg_name));
    tpacket_auxdata extra{};
    extra.tp_status = answer.tci >= 0 ? TP_STATUS_VLAN_VALID : 0;
    extra.tp_vlan_tci = static_cast<uint16_t>(std::max(answer.tci, 0));
    cmsghdr* const part = CMSG_FIRSTHDR(message);
    part->cmsg_level = SOL_PACKET;
    part->cmsg_type = PACKET_AUXDATA;
    part->cmsg_len = CMSG_LEN(sizeof extra);
    std::copy_n(reinterpret_cast<const char*>(&extra), sizeof extra,
                reinterpret_cast<char*>(CMSG_DATA(part)));
    const size_t length = std::min(message->msg_iov->iov_len, answer.bytes.size());
    std::copy_n(answer.bytes.data(), length, static_cast<char*>(message->msg_iov->iov_base));
    return static_cast<ssize_t>(length);
}

}  // extern "C"

// As the constructor of a packet socket needs them.
void qv::tarnd::test::allow_packet_socket() {
    script()["socket"] = {{.error = 0}};
    script()["setsockopt"] = {{.error = 0}, {.error = 0}, {.error = 0}, {.error = 0}};
    script()["bind"] = {{.error = 0}};
}

namespace qv::tarnd {
namespace {

using test::allow_packet_socket;
using Frames = std::vector<std::string>;
const Answer kDone{.error = 0};

struct SocketsTest : testing::Test {
    SocketsTest() { script().clear(); }
    ~SocketsTest() override { script().clear(); }

    static Frames received(const PacketSocket& packets, size_t most, bool& more) {
        Frames frames;
        more =
            packets.receive(most, [&](uint32_t ifx, uint16_t vid, std::span<const uint8_t> frame) {
                frames.push_back(std::to_string(ifx) + (vid != 0 ? "." + std::to_string(vid) : "") +
                                 " " + std::string(frame.begin(), frame.end()));
            });
        return frames;
    }
    template <typename Open>
    static std::string refusal(Open open) {
        try {
            open();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }
};

std::string message(uint16_t type, uint32_t length = sizeof(nlmsghdr)) {
    nlmsghdr header{};
    header.nlmsg_len = length;
    header.nlmsg_type = type;
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

TEST_F(SocketsTest, PacketSocketThatIsRefusedSaysWhy) {
    const auto open = [] {
        PacketSocket();
    };
    script()["socket"] = {{EPERM}};
    EXPECT_EQ(refusal(open), "packet socket: Operation not permitted");
    allow_packet_socket();
    script()["setsockopt"] = {kDone, {ENOBUFS}};
    EXPECT_EQ(refusal(open), "packet socket: No buffer space available");
    allow_packet_socket();
    script()["setsockopt"] = {kDone, kDone, {EPERM}};
    EXPECT_EQ(refusal(open), "packet socket: Operation not permitted");
    allow_packet_socket();
    script()["setsockopt"] = {kDone, kDone, kDone, {ENOPROTOOPT}};
    EXPECT_EQ(refusal(open), "packet socket: Protocol not available");
    allow_packet_socket();
    script()["bind"] = {{ENETDOWN}};
    EXPECT_EQ(refusal(open), "packet socket: Network is down");
}

TEST_F(SocketsTest, PriorityOfFramesIsNotNeeded) {
    allow_packet_socket();
    script()["setsockopt"][0] = {EPERM};
    EXPECT_EQ(refusal([] { const PacketSocket packets; }), "none");
}

TEST_F(SocketsTest, FrameThatIsNotSentIsReportedAndTheNextOneIs) {
    allow_packet_socket();
    const PacketSocket packets;
    for (const int error : {ENOBUFS, EPERM, ENETDOWN, ENXIO, EAGAIN, EINTR}) {
        script()["sendto"] = {{error}, kDone};
        EXPECT_FALSE(packets.send(7, 0, Frame{})) << error;
        EXPECT_TRUE(packets.send(7, 0, Frame{})) << error;
    }
}

TEST_F(SocketsTest, FrameInAVlanIsSentWithATagOfTheHighestPriority) {
    allow_packet_socket();
    const PacketSocket packets;
    Frame frame{};
    for (size_t n = 0; n < frame.size(); ++n) {
        frame[n] = static_cast<uint8_t>(n);
    }
    const std::string plain(frame.begin(), frame.end());
    script()["sendto"] = {kDone, kDone};
    EXPECT_TRUE(packets.send(7, 0, frame));
    EXPECT_EQ(sent_bytes(), plain);
    EXPECT_EQ(g_sent_protocol, 0x88b5);
    EXPECT_TRUE(packets.send(7, 0x123, frame));
    EXPECT_EQ(sent_bytes(),
              plain.substr(0, 12) + "\x81" + std::string(1, '\0') + "\xe1\x23" + plain.substr(12));
    EXPECT_EQ(g_sent_protocol, 0x8100);
}

TEST_F(SocketsTest, VlanOfAFrameIsThatOfItsOuterTag) {
    const auto tagged = [](const std::string& type) {
        return "destinatsrc." + type + "\xe1\x23rest";
    };
    const std::string c_tag("\x81\0", 2);
    allow_packet_socket();
    const PacketSocket packets;
    script()["recvmsg"] = {{.error = 0, .from = 3, .bytes = "plain", .tci = 0xe007},
                           {.error = 0, .from = 3, .bytes = "priority only", .tci = 0xe000},
                           {.error = 0, .from = 3, .bytes = tagged(c_tag)},
                           {.error = 0, .from = 3, .bytes = tagged("\x88\xa8"), .tci = 9},
                           {.error = 0, .from = 3, .bytes = "destinatsrc." + c_tag + "\1"},
                           {EAGAIN}};
    bool more = true;
    EXPECT_EQ(received(packets, 64, more),
              (Frames{"3.7 plain", "3 priority only", "3.291 destinatsrc.rest",
                      "3.9 destinatsrc.rest", "3 destinatsrc." + c_tag + "\1"}));
}

TEST_F(SocketsTest, FramesBehindAnErrorAreReceived) {
    allow_packet_socket();
    const PacketSocket packets;
    for (const int error : {ENETDOWN, ENOBUFS, EPERM, EINTR}) {
        script()["recvmsg"] = {{0, 3, "one"}, {error}, {0, 4, "two"}, {EAGAIN}};
        bool more = true;
        EXPECT_EQ(received(packets, 64, more), (Frames{"3 one", "4 two"})) << error;
        EXPECT_FALSE(more);
    }
}

TEST_F(SocketsTest, ErrorsWithoutEndEndTheTurn) {
    allow_packet_socket();
    const PacketSocket packets;
    script()["recvmsg"] = std::deque<Answer>(100, {ENETDOWN});
    bool more = false;
    EXPECT_EQ(received(packets, 64, more), Frames{});
    EXPECT_TRUE(more);
    EXPECT_EQ(script()["recvmsg"].size(), 36u);
}

TEST_F(SocketsTest, FramesOfThisMachineAndEmptyOnesAreLeftOut) {
    allow_packet_socket();
    const PacketSocket packets;
    script()["recvmsg"] = {{0, 3, "own", PACKET_OUTGOING}, {0, 3, ""}, {0, 3, "one"}, {EAGAIN}};
    bool more = true;
    EXPECT_EQ(received(packets, 64, more), Frames{"3 one"});
}

TEST_F(SocketsTest, RouteSocketThatIsRefusedSaysWhy) {
    const auto open = [] {
        const RouteSocket links(RTNLGRP_LINK);
    };
    script()["socket"] = {{EPERM}};
    EXPECT_EQ(refusal(open), "rtnetlink socket: Operation not permitted");
    script()["bind"] = {{ENOBUFS}};
    EXPECT_EQ(refusal(open), "rtnetlink socket: No buffer space available");
    script()["setsockopt"] = {kDone, {EPERM}};
    EXPECT_EQ(refusal(open), "rtnetlink socket: Operation not permitted");
}

TEST_F(SocketsTest, SmallerReceiveBufferWillDo) {
    script()["setsockopt"] = {{EPERM}, {EPERM}};
    EXPECT_EQ(refusal([] { const RouteSocket links(RTNLGRP_LINK); }), "none");
    EXPECT_TRUE(script()["setsockopt"].empty());
}

TEST_F(SocketsTest, RequestForLinksThatIsNotTakenIsReported) {
    const RouteSocket links(RTNLGRP_LINK);
    for (const int error : {ENOBUFS, EPERM, ENETDOWN, EAGAIN}) {
        script()["send"] = {{error}};
        EXPECT_FALSE(links.request_links(1)) << error;
    }
    EXPECT_TRUE(links.request_links(2));
}

TEST_F(SocketsTest, LostNotificationsAreReportedAndWhatWasQueuedIsDropped) {
    RouteSocket links(RTNLGRP_LINK);
    ASSERT_TRUE(links.request_links(1));  // fills the queue
    script()["recvfrom"] = {{0, 0, message(RTM_NEWLINK)}, {ENOBUFS}};
    std::vector<uint16_t> types;
    const auto take = [&](nlmsghdr* header) {
        types.push_back(header->nlmsg_type);
    };
    EXPECT_FALSE(links.receive(64, take));
    EXPECT_EQ(types, std::vector<uint16_t>{RTM_NEWLINK});
    EXPECT_TRUE(links.receive(64, take));
    EXPECT_EQ(types.size(), 1u);
}

TEST_F(SocketsTest, MessagesOfOtherProgramsAndBrokenOnesAreLeftOut) {
    RouteSocket links(RTNLGRP_LINK);
    script()["recvfrom"] = {{0, 1234, message(RTM_NEWLINK)},
                            {EINTR},
                            {0, 0, message(RTM_NEWLINK, 1000)},
                            {0, 0, message(RTM_NEWLINK, 0)},
                            {0, 0, "short"},
                            {0, 0, message(RTM_DELLINK) + message(RTM_NEWLINK, 99)},
                            {EAGAIN}};
    std::vector<uint16_t> types;
    EXPECT_TRUE(links.receive(64, [&](nlmsghdr* header) { types.push_back(header->nlmsg_type); }));
    EXPECT_EQ(types, std::vector<uint16_t>{RTM_DELLINK});
}

}  // namespace
}  // namespace qv::tarnd
