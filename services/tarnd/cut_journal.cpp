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

namespace {

uint64_t content_of(const CutJournal::Note& note) {
    return uint64_t{note.value} << 32 | note.ifx;
}

CutJournal::Note note_of(uint64_t content) {
    return {.ifx = static_cast<uint32_t>(content), .value = static_cast<uint32_t>(content >> 32)};
}

}  // namespace

struct CutJournal::Content {
    std::array<char, 64> boot;
    std::array<uint64_t, kSlots> slots;  // value and interface index, 0 for a free slot
};

CutJournal::CutJournal(const std::string& path, const std::string& boot) {
    const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    void* memory = MAP_FAILED;
    // The space is reserved: on a full disk the first write to the memory would end the process.
    if (file.get() >= 0 && (errno = posix_fallocate(file.get(), 0, sizeof(Content))) == 0) {
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

bool CutJournal::note(uint32_t ifx, uint32_t value) {
    if (find(ifx)) {
        return true;
    }
    for (uint64_t& slot : content_->slots) {
        uint64_t expected = 0;
        std::atomic_ref<uint64_t> place(slot);
        if (place.compare_exchange_strong(expected, content_of({ifx, value}))) {
            return true;
        }
    }
    return false;
}

bool CutJournal::renew(uint32_t ifx) {
    for (auto present = find(ifx); present; present = find(ifx)) {
        if (replace(*present, content_of({ifx, present->value + 1}))) {
            return true;
        }
    }
    return note(ifx);
}

std::optional<CutJournal::Note> CutJournal::find(uint32_t ifx) const {
    for (uint64_t& slot : content_->slots) {
        const Note note = note_of(std::atomic_ref<uint64_t>(slot).load());
        if (note.ifx == ifx) {
            return note;
        }
    }
    return std::nullopt;
}

void CutJournal::clear(uint32_t ifx) {
    while (const auto present = find(ifx)) {
        clear(*present);
    }
}

void CutJournal::clear(const Note& note) {
    replace(note, 0);
}

// False when the note is not there.
bool CutJournal::replace(const Note& note, uint64_t by) {
    for (uint64_t& slot : content_->slots) {
        uint64_t expected = content_of(note);
        if (std::atomic_ref<uint64_t>(slot).compare_exchange_strong(expected, by)) {
            return true;
        }
    }
    return false;
}

std::vector<uint32_t> CutJournal::noted() const {
    std::vector<uint32_t> ports;
    for (const Note& note : notes()) {
        ports.push_back(note.ifx);
    }
    return ports;
}

std::vector<CutJournal::Note> CutJournal::notes() const {
    std::vector<Note> found;
    for (uint64_t& slot : content_->slots) {
        if (const uint64_t content = std::atomic_ref<uint64_t>(slot).load()) {
            found.push_back(note_of(content));
        }
    }
    return found;
}

std::string boot_name() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string name;
    std::getline(file, name);
    return name;
}

}  // namespace qv::tarnd
