// The ports that tarnd has cut and nobody has taken over yet, in a file that outlives the process:
// a cut is noted before it is made, so that no port stays dark when the process dies in between.
//
// The file is mapped memory: a note costs no system call and waits for no disk. After a power cut
// the kernel's ports are up anyway; notes of another boot are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv::tarnd {

class CutJournal {
 public:
    static constexpr size_t kSlots = 4096;

    // Opens or makes the file (mode 0600); throws std::runtime_error. `boot` names this boot.
    CutJournal(const std::string& path, const std::string& boot);
    ~CutJournal();
    CutJournal(const CutJournal&) = delete;
    CutJournal& operator=(const CutJournal&) = delete;

    // A port, and what is to be remembered of it.
    struct Note {
        uint32_t ifx;
        uint32_t value;

        bool operator==(const Note&) const = default;
    };

    // Notes the port; an older note stays as it is. False when no slot is free. One thread at a
    // time for each port; never waits.
    bool note(uint32_t ifx, uint32_t value = 0);
    // The same, but an older note gets a new value.
    bool renew(uint32_t ifx);
    std::optional<Note> find(uint32_t ifx) const;
    // Removes the note, if there is one. Any thread.
    void clear(uint32_t ifx);
    // Removes this note unless it was renewed meanwhile. Any thread.
    void clear(const Note& note);
    std::vector<uint32_t> noted() const;
    std::vector<Note> notes() const;

 private:
    struct Content;

    bool replace(const Note& note, uint64_t by);

    Content* content_ = nullptr;
};

// The name of this boot of the machine; empty when the kernel does not say.
std::string boot_name();

}  // namespace qv::tarnd
