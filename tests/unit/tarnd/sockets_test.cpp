// The probing thread's sockets when the kernel refuses. Every call can be made to fail; the packet
// socket is one end of a pair, so that no privilege is needed.
#include "services/tarnd/sockets.h"

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

namespace {

struct Answer {
    int error;          // 0: the call goes through, or succeeds where it is played
    uint32_t from = 0;  // recvfrom: interface index or port id of the sender
    std::string bytes{};
    uint8_t type = PACKET_MULTICAST;
};

// Answers of the next calls, by name. Without one a call is the real one.
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

ssize_t __real_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t to_size);
ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t to_size) {
    Answer answer{};
    if (!next("sendto", answer)) {
        return __real_sendto(fd, bytes, size, flags, to, to_size);
    }
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
    if (*from_size == sizeof(sockaddr_ll)) {
        sockaddr_ll link{};
        link.sll_ifindex = static_cast<int>(answer.from);
        link.sll_pkttype = answer.type;
        std::copy_n(reinterpret_cast<const char*>(&link), sizeof link,
                    reinterpret_cast<char*>(from));
    } else {
        sockaddr_nl netlink{};
        netlink.nl_pid = answer.from;
        std::copy_n(reinterpret_cast<const char*>(&netlink), sizeof netlink,
                    reinterpret_cast<char*>(from));
    }
    const size_t length = std::min(size, answer.bytes.size());
    std::copy_n(answer.bytes.data(), length, static_cast<char*>(bytes));
    return static_cast<ssize_t>(length);
}

}  // extern "C"

namespace qv::tarnd {
namespace {

using Frames = std::vector<std::string>;
const Answer kDone{.error = 0};

struct SocketsTest : testing::Test {
    SocketsTest() { script().clear(); }
    ~SocketsTest() override { script().clear(); }

    // As the constructor of a packet socket needs them.
    static void allow_packet_socket() {
        script()["socket"] = {kDone};
        script()["setsockopt"] = {kDone, kDone, kDone};
        script()["bind"] = {kDone};
    }
    static Frames received(const PacketSocket& packets, size_t most, bool& more) {
        Frames frames;
        more = packets.receive(most, [&](uint32_t ifx, std::span<const uint8_t> frame) {
            frames.push_back(std::to_string(ifx) + " " + std::string(frame.begin(), frame.end()));
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
        EXPECT_FALSE(packets.send(7, Frame{})) << error;
        EXPECT_TRUE(packets.send(7, Frame{})) << error;
    }
}

TEST_F(SocketsTest, FramesBehindAnErrorAreReceived) {
    allow_packet_socket();
    const PacketSocket packets;
    for (const int error : {ENETDOWN, ENOBUFS, EPERM, EINTR}) {
        script()["recvfrom"] = {{0, 3, "one"}, {error}, {0, 4, "two"}, {EAGAIN}};
        bool more = true;
        EXPECT_EQ(received(packets, 64, more), (Frames{"3 one", "4 two"})) << error;
        EXPECT_FALSE(more);
    }
}

TEST_F(SocketsTest, ErrorsWithoutEndEndTheTurn) {
    allow_packet_socket();
    const PacketSocket packets;
    script()["recvfrom"] = std::deque<Answer>(100, {ENETDOWN});
    bool more = false;
    EXPECT_EQ(received(packets, 64, more), Frames{});
    EXPECT_TRUE(more);
    EXPECT_EQ(script()["recvfrom"].size(), 36u);
}

TEST_F(SocketsTest, FramesOfThisMachineAndEmptyOnesAreLeftOut) {
    allow_packet_socket();
    const PacketSocket packets;
    script()["recvfrom"] = {{0, 3, "own", PACKET_OUTGOING}, {0, 3, ""}, {0, 3, "one"}, {EAGAIN}};
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
