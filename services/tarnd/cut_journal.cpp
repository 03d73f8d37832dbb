#include "services/tarnd/cut_journal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "services/tarnd/sockets.h"

namespace qv::tarnd {

struct CutJournal::Content {
    std::array<char, 64> boot;
    std::array<uint32_t, kSlots> slots;  // interface indexes, 0 for a free slot
};

CutJournal::CutJournal(const std::string& path, const std::string& boot) {
    const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    void* memory = MAP_FAILED;
    if (file.get() >= 0 && ftruncate(file.get(), sizeof(Content)) == 0) {
        memory = mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    }
    if (memory == MAP_FAILED) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    content_ = static_cast<Content*>(memory);
    std::array<char, 64> name{};
    std::copy_n(boot.begin(), std::min(boot.size(), name.size() - 1), name.begin());
    if (content_->boot != name) {
        content_->slots.fill(0);
        content_->boot = name;
    }
}

CutJournal::~CutJournal() {
    munmap(content_, sizeof(Content));
}

bool CutJournal::note(uint32_t ifx) {
    for (uint32_t& slot : content_->slots) {
        uint32_t expected = 0;
        std::atomic_ref<uint32_t> place(slot);
        if (place.load() == ifx || place.compare_exchange_strong(expected, ifx)) {
            return true;
        }
    }
    return false;
}

void CutJournal::clear(uint32_t ifx) {
    for (uint32_t& slot : content_->slots) {
        uint32_t expected = ifx;
        std::atomic_ref<uint32_t>(slot).compare_exchange_strong(expected, 0);
    }
}

std::vector<uint32_t> CutJournal::noted() const {
    std::vector<uint32_t> ports;
    for (uint32_t& slot : content_->slots) {
        if (const uint32_t ifx = std::atomic_ref<uint32_t>(slot).load()) {
            ports.push_back(ifx);
        }
    }
    return ports;
}

std::string boot_name() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string name;
    std::getline(file, name);
    return name;
}

}  // namespace qv::tarnd
