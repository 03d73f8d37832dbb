#include "services/tarnd/identity.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "services/tarnd/sockets.h"

namespace qv::tarnd {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error(path + ": " + reason);
}

// Complete before it has its name, so that no half-written key is ever found.
void make_key(const std::string& path) {
    const std::string fresh = path + ".new";
    Key key{};
    randombytes_buf(key.data(), key.size());
    unlink(fresh.c_str());
    const Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.get() < 0 || write(file.get(), key.data(), key.size()) != ssize_t{key.size()} ||
        fsync(file.get()) != 0 || rename(fresh.c_str(), path.c_str()) != 0) {
        fail(path, std::strerror(errno));
    }
}

}  // namespace

Key read_key(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        fail(path, std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() ||
        (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        fail(path, "must be a file of this user with mode 0600");
    }
    std::array<uint8_t, sizeof(Key) + 1> bytes{};
    if (read(file.get(), bytes.data(), bytes.size()) != ssize_t{sizeof(Key)}) {
        fail(path, "must have 32 bytes");
    }
    Key key{};
    std::copy_n(bytes.begin(), key.size(), key.begin());
    return key;
}

Prober::Identity load_identity(const std::string& folder, const std::string& bridge) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        fail(folder, std::strerror(errno));
    }
    const std::string path = folder + "/key";
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        make_key(path);
    }
    Prober::Identity identity{};
    identity.key = read_key(path);

    std::array<uint8_t, 16> names{};
    crypto_generichash(names.data(), names.size(), reinterpret_cast<const uint8_t*>(bridge.data()),
                       bridge.size(), identity.key.data(), identity.key.size());
    std::memcpy(&identity.bridge, names.data(), sizeof identity.bridge);
    std::copy_n(names.begin() + sizeof identity.bridge, identity.source.size(),
                identity.source.begin());
    identity.source[0] = static_cast<uint8_t>((identity.source[0] & 0xfc) | 0x02);

    // More numbers a second than any port uses. The wall clock may be set back: other switches
    // would take the next process's probes for old ones.
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    identity.first_sequence = static_cast<uint64_t>(since_boot / std::chrono::microseconds(1));
    return identity;
}

}  // namespace qv::tarnd
