#include "tests/unit/driver/linux/nft_script.h"

#include <cstring>
#include <utility>

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <nftables/libnftables.h>

namespace qv::test {
NftScript g_nft;
}  // namespace qv::test

using qv::test::g_nft;

// The linker puts these in place of the libraries' functions.
extern "C" {

int __real_nft_run_cmd_from_buffer(nft_ctx* context, const char* text);
int __wrap_nft_run_cmd_from_buffer(nft_ctx* context, const char* text) {
    if (g_nft.meanwhile) {
        std::exchange(g_nft.meanwhile, nullptr)();
    }
    if (g_nft.refusals > 0 && std::strstr(text, g_nft.refused.c_str()) != nullptr) {
        --g_nft.refusals;
        errno = g_nft.error;
        return -1;
    }
    return __real_nft_run_cmd_from_buffer(context, text);
}

mnl_socket* __real_mnl_socket_open2(int bus, int flags);
mnl_socket* __wrap_mnl_socket_open2(int bus, int flags) {
    if (g_nft.no_socket) {
        errno = EMFILE;
        return nullptr;
    }
    return __real_mnl_socket_open2(bus, flags);
}

ssize_t __real_mnl_socket_sendto(const mnl_socket* socket, const void* bytes, size_t size);
ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* bytes, size_t size) {
    const bool unheard = static_cast<const nlmsghdr*>(bytes)->nlmsg_type == g_nft.unheard;
    return unheard ? static_cast<ssize_t>(size) : __real_mnl_socket_sendto(socket, bytes, size);
}

ssize_t __real_mnl_socket_recvfrom(const mnl_socket* socket, void* buffer, size_t size);
ssize_t __wrap_mnl_socket_recvfrom(const mnl_socket* socket, void* buffer, size_t size) {
    // Announcements, for which nobody waits, are not answers.
    const bool waits = (fcntl(mnl_socket_get_fd(socket), F_GETFL) & O_NONBLOCK) == 0;
    if (waits && g_nft.lost_answers > 0) {
        --g_nft.lost_answers;
        errno = ENOBUFS;
        return -1;
    }
    const ssize_t length = __real_mnl_socket_recvfrom(socket, buffer, size);
    int left = static_cast<int>(length);
    auto* header = static_cast<nlmsghdr*>(buffer);
    for (; g_nft.interrupted && mnl_nlmsg_ok(header, left);
         header = mnl_nlmsg_next(header, &left)) {
        header->nlmsg_flags |= NLM_F_DUMP_INTR;
    }
    return length;
}
}
