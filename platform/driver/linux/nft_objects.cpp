#include "platform/driver/linux/nft_objects.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <libnftnl/set.h>
#include <linux/if_ether.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "platform/driver/linux/netlink_datagram.h"
#include "platform/driver/linux/nft_messages.h"

namespace qv {
namespace {

// An element takes 20 bytes of its message, whose list is at most 64 KiB long.
constexpr size_t kElementsPerMessage = 1024;
constexpr size_t kMessageBytes = 64 << 10;
constexpr int kReadingsAtMost = 4;

struct FreeSet {
    void operator()(nftnl_set* set) const { nftnl_set_free(set); }
};
using Set = std::unique_ptr<nftnl_set, FreeSet>;
using Counters = std::vector<NamedCounter>;

// The errno value in an NLMSG_ERROR or NLMSG_DONE message.
int answer_in(const nlmsghdr* header) {
    int error = 0;
    if (mnl_nlmsg_get_payload_len(header) >= sizeof error) {
        std::memcpy(&error, mnl_nlmsg_get_payload(header), sizeof error);
    }
    return -error;
}

// The attributes in `bytes`, up to the first that is malformed.
template <class Visit>
void for_each_attribute(const void* bytes, size_t size, Visit visit) {
    const auto* const end = static_cast<const char*>(bytes) + size;
    const auto* attribute = static_cast<const nlattr*>(bytes);
    while (
        mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
        visit(attribute);
        attribute = mnl_attr_next(attribute);
    }
}

template <class Visit>
void for_each_attribute(const nlmsghdr* header, Visit visit) {
    for_each_attribute(mnl_nlmsg_get_payload_offset(header, sizeof(nfgenmsg)),
                       mnl_nlmsg_get_payload_len(header) - sizeof(nfgenmsg), visit);
}

template <class Visit>
void for_each_nested(const nlattr* parent, Visit visit) {
    for_each_attribute(mnl_attr_get_payload(parent), mnl_attr_get_payload_len(parent), visit);
}

bool is_in_table(const nlmsghdr* header, const std::string& table) {
    bool found = false;
    for_each_attribute(header, [&](const nlattr* attribute) {
        found = found || (mnl_attr_get_type(attribute) == kNftTableName &&
                          mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0 &&
                          table == mnl_attr_get_str(attribute));
    });
    return found;
}

// Appends the bytes of the wanted attributes, without the header, which has the number of the
// latest change.
void append_attributes(std::string& bytes, const nlmsghdr* header, bool (*wanted)(uint16_t)) {
    for_each_attribute(header, [&](const nlattr* attribute) {
        if (wanted(mnl_attr_get_type(attribute))) {
            bytes.append(reinterpret_cast<const char*>(attribute), attribute->nla_len);
        }
    });
}

const nlattr* find_nested(const nlattr* parent, uint16_t number) {
    const nlattr* found = nullptr;
    for_each_nested(parent, [&](const nlattr* attribute) {
        found = mnl_attr_get_type(attribute) == number ? attribute : found;
    });
    return found;
}

void append_address(std::vector<uint64_t>& addresses, const nlattr* element) {
    const nlattr* const key = find_nested(element, NFTA_SET_ELEM_KEY);
    const nlattr* const value = key != nullptr ? find_nested(key, NFTA_DATA_VALUE) : nullptr;
    if (value == nullptr || mnl_attr_get_payload_len(value) < ETH_ALEN) {
        return;
    }
    const auto* const bytes = static_cast<const unsigned char*>(mnl_attr_get_payload(value));
    uint64_t address = 0;
    for (size_t n = 0; n < ETH_ALEN; ++n) {
        address = address << 8 | bytes[n];
    }
    addresses.push_back(address);
}

// Appends those in one message of a set's list of elements.
void append_addresses(std::vector<uint64_t>& addresses, const nlmsghdr* header) {
    for_each_attribute(header, [&](const nlattr* list) {
        if (mnl_attr_get_type(list) == NFTA_SET_ELEM_LIST_ELEMENTS) {
            for_each_nested(list,
                            [&](const nlattr* element) { append_address(addresses, element); });
        }
    });
}

Set new_set(const std::string& table, const std::string& name,
            std::span<const uint64_t> addresses) {
    Set set(nftnl_set_alloc());
    if (!set) {
        return nullptr;
    }
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, table.c_str());
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
    for (const uint64_t address : addresses) {
        nftnl_set_elem* const element = nftnl_set_elem_alloc();
        if (element == nullptr) {
            return nullptr;
        }
        std::array<unsigned char, ETH_ALEN> bytes;
        for (size_t n = 0; n < bytes.size(); ++n) {
            bytes[n] = static_cast<unsigned char>(address >> (8 * (ETH_ALEN - 1 - n)));
        }
        nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, bytes.data(), bytes.size());
        nftnl_set_elem_add(set.get(), element);
    }
    return set;
}

// The messages of one transaction.
class Batch {
 public:
    explicit Batch(uint32_t& sequence) : sequence_(sequence) {
        std::vector<char> bytes(kMessageBytes);
        append(bytes, nftnl_batch_begin(bytes.data(), ++sequence_));
    }

    // Adds one message for each kElementsPerMessage addresses. False when memory runs out.
    bool add(uint16_t type, uint16_t flags, const std::string& table, const std::string& set,
             std::span<const uint64_t> addresses) {
        while (!addresses.empty()) {
            const auto some = addresses.first(std::min(addresses.size(), kElementsPerMessage));
            addresses = addresses.subspan(some.size());
            const Set elements = new_set(table, set, some);
            if (!elements) {
                return false;
            }
            std::vector<char> bytes(kMessageBytes);
            nlmsghdr* const header =
                nftnl_nlmsg_build_hdr(bytes.data(), type, NFPROTO_NETDEV,
                                      static_cast<uint16_t>(flags | NLM_F_ACK), ++sequence_);
            nftnl_set_elems_nlmsg_build_payload(header, elements.get());
            append(bytes, header);
            ++messages_;
        }
        return true;
    }

    std::span<const char> end() {
        std::vector<char> bytes(kMessageBytes);
        append(bytes, nftnl_batch_end(bytes.data(), ++sequence_));
        return all_;
    }

    unsigned messages() const { return messages_; }

 private:
    void append(const std::vector<char>& bytes, const nlmsghdr* header) {
        all_.insert(all_.end(), bytes.begin(), bytes.begin() + NLMSG_ALIGN(header->nlmsg_len));
    }

    uint32_t& sequence_;
    std::vector<char> all_;
    unsigned messages_ = 0;
};

}  // namespace

uint64_t counted_since(uint64_t before, uint64_t now) {
    const uint64_t difference = now - before;
    return difference <= std::numeric_limits<uint64_t>::max() / 2 ? difference : now;
}

void NftObjects::Close::operator()(mnl_socket* socket) const {
    mnl_socket_close(socket);
}

int NftObjects::open() {
    if (socket_) {
        return 0;
    }
    std::unique_ptr<mnl_socket, Close> socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        return errno;
    }
    // A transaction with thousands of elements is sent as one datagram.
    const int bytes = 8 << 20;
    setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes);
    buffer_.resize(kNetlinkDatagramBytes);
    socket_ = std::move(socket);
    return 0;
}

int NftObjects::check_available() {
    std::array<char, 256> request;
    nlmsghdr* const header =
        nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETGEN, AF_UNSPEC, NLM_F_ACK, ++sequence_);
    if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) {
        return errno;
    }
    return read_answers(1);
}

int NftObjects::find_table(const std::string& table) {
    std::array<char, 1024> request;
    nlmsghdr* const header = nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETTABLE, NFPROTO_NETDEV,
                                                   NLM_F_ACK, ++sequence_);
    mnl_attr_put_strz(header, NFTA_TABLE_NAME, table.c_str());
    if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) {
        return errno;
    }
    return read_answers(1);
}

// Reads a list up to kReadingsAtMost times, until the table does not change meanwhile. `begin` is
// called before each reading, `take` for each message.
int NftObjects::list(uint16_t type, const std::string& table, const std::string& set,
                     const Begin& begin, const Take& take) {
    int error = EINTR;
    for (int reading = 0; reading < kReadingsAtMost && error == EINTR; ++reading) {
        if (const int failure = open(); failure != 0) {
            return failure;
        }
        begin();
        std::array<char, 1024> request;
        nlmsghdr* const header =
            nftnl_nlmsg_build_hdr(request.data(), type, NFPROTO_NETDEV, NLM_F_DUMP, ++sequence_);
        mnl_attr_put_strz(header, kNftTableName, table.c_str());
        if (!set.empty()) {
            mnl_attr_put_strz(header, NFTA_SET_ELEM_LIST_SET, set.c_str());
        }
        if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) {
            return errno;
        }
        error = read_list(take);
    }
    return error;
}

// Reads one list to its end. EINTR when something changed meanwhile.
int NftObjects::read_list(const Take& take) {
    bool interrupted = false;
    for (;;) {
        const ssize_t length = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
        if (length < 0) {
            // Closing the socket discards the rest of the list, which would mix with the next one.
            const int error = errno;
            socket_.reset();
            return error;
        }
        int left = static_cast<int>(length);
        const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
        for (; mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
            if (header->nlmsg_seq != sequence_) {
                continue;
            }
            interrupted = interrupted || (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (header->nlmsg_type == NLMSG_ERROR || header->nlmsg_type == NLMSG_DONE) {
                const int error = answer_in(header);
                return error == 0 && interrupted ? EINTR : error;
            }
            if (mnl_nlmsg_get_payload_len(header) >= sizeof(nfgenmsg)) {
                take(header);
            }
        }
    }
}

int NftObjects::read_counters(const std::string& table, Counters& counters) {
    return list(
        NFT_MSG_GETOBJ, table, "", [&] { counters.clear(); },
        [&](const nlmsghdr* header) {
            if (auto counter = parse_counter(header)) {
                counters.push_back(std::move(*counter));
            }
        });
}

// The kernel numbers the chains and rules of a table, and a rule that is replaced gets a new
// number: equal numbers mean equal rules. Comparing their text would not work: it has counters that
// change.
int NftObjects::read_layout(const std::string& table, std::string& layout) {
    std::string chains;
    // All chains of the family are listed.
    const int error = list(
        NFT_MSG_GETCHAIN, table, "", [&] { chains.clear(); },
        [&](const nlmsghdr* header) {
            if (is_in_table(header, table)) {
                append_attributes(chains, header, [](uint16_t) { return true; });
            }
        });
    if (error != 0) {
        return error;
    }
    return list(
        NFT_MSG_GETRULE, table, "", [&] { layout = chains; },
        [&](const nlmsghdr* header) {
            append_attributes(layout, header, [](uint16_t number) {
                return number == NFTA_RULE_CHAIN || number == NFTA_RULE_HANDLE;
            });
        });
}

int NftObjects::read_set(const std::string& table, const std::string& set,
                         std::vector<uint64_t>& addresses) {
    return list(
        NFT_MSG_GETSETELEM, table, set, [&] { addresses.clear(); },
        [&](const nlmsghdr* header) { append_addresses(addresses, header); });
}

int NftObjects::change_set(const std::string& table, const std::string& set,
                           std::span<const uint64_t> added, std::span<const uint64_t> gone) {
    Batch batch(sequence_);
    if (!batch.add(NFT_MSG_DELSETELEM, 0, table, set, gone) ||
        !batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE, table, set, added)) {
        return ENOMEM;
    }
    const std::span<const char> bytes = batch.end();
    if (mnl_socket_sendto(socket_.get(), bytes.data(), bytes.size()) < 0) {
        return errno;
    }
    return read_answers(batch.messages());
}

// The kernel executes a request inside send(), so all its answers have arrived.
int NftObjects::read_answers(unsigned expected) {
    int error = 0;
    unsigned answers = 0;
    const int fd = mnl_socket_get_fd(socket_.get());
    for (;;) {
        const ssize_t length = recv(fd, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (length < 0) {
            if (errno != EAGAIN) {
                socket_.reset();  // with the answers that are left
            }
            break;
        }
        int left = static_cast<int>(length);
        const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
        for (; mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
            if (header->nlmsg_type != NLMSG_ERROR) {
                continue;
            }
            error = error != 0 ? error : answer_in(header);
            ++answers;
        }
    }
    return error == 0 && answers < expected ? EIO : error;
}

}  // namespace qv
