// The sockets of the probing thread. None of them waits, logs or throws after it is open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "services/tarnd/frame.h"

struct nlmsghdr;

namespace qv::tarnd {

// Owner of a descriptor.
class Descriptor {
 public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor();
    int get() const { return fd_; }

 private:
    int fd_;
};

// Sends and receives frames of kProbeEtherType, with a VLAN tag or without, on every interface of
// the network namespace. It sees a frame that arrives before the bridge and the packet filter do,
// and none that this machine sends.
class PacketSocket {
 public:
    PacketSocket();  // throws std::runtime_error

    int fd() const { return fd_.get(); }
    // Sends the frame in this VLAN, with the highest priority (IEEE 802.1Q, clause 9.6); 0:
    // untagged. False when it could not be sent: the port has gone, is down, or its queue is full.
    bool send(uint32_t ifx, uint16_t vid, const Frame& frame) const;
    // Takes up to `most` frames. True when there may be more. Frames are handed on without their
    // outer tag and one within it, and with the VLAN of the outer one; 0: untagged.
    using Receiver =
        std::function<void(uint32_t ifx, uint16_t vid, std::span<const uint8_t> frame)>;
    bool receive(size_t most, const Receiver& receiver) const;

 private:
    Descriptor fd_;
};

// Notifications of one rtnetlink group.
class RouteSocket {
 public:
    static constexpr int kReceiveBuffer = 8 << 20;

    explicit RouteSocket(int group, int receive_buffer = kReceiveBuffer);  // throws

    int fd() const { return fd_.get(); }
    // Asks for the list of all links. The end of the list, or a refusal, has the same `sequence`.
    // False when the kernel does not take the request.
    bool request_links(uint32_t sequence) const;
    // Takes up to `most` datagrams. False when notifications were lost; then everything queued so
    // far has been handed on or dropped.
    using Receiver = std::function<void(nlmsghdr* message)>;
    bool receive(size_t most, const Receiver& receiver);

 private:
    Descriptor fd_;
    std::vector<uint8_t> buffer_;
};

}  // namespace qv::tarnd
