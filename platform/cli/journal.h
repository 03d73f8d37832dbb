// The journal beside the saved configuration: the sections whose new state is not in the saved file
// yet. Loop thread only, except for read_journal().
//
// A record is one section as a whole, so that replaying it twice does no harm. A record is written
// before its change is made, and is not synced: to survive a crash of the process, the write is
// enough. Each carries its number and a checksum; reading ends at the first that is damaged or
// whose number does not grow, so a torn record or remnants of older ones are never read. The file
// keeps its size on the disk, so that a record can be written even when the disk is full.
//
// Sections of ports that a program holds shut stay in the journal when they are saved, as "saved"
// records. A replay does not need them. They say who has shut the port when the saved
// configuration was lost, damaged or replaced.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/config_file.h"

namespace qv::cli {

struct JournalRecord {
    uint64_t number = 0;    // ascending, from 1; several saved records may share one
    ConfigSection section;  // line numbers are 0
    bool saved = false;     // the saved configuration includes it
};

// The records of a journal file, oldest first; none when there is no such file. Any thread.
std::vector<JournalRecord> read_journal(const std::string& path);

class Journal {
 public:
    explicit Journal(std::string path) : path_(std::move(path)) {}
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    const std::string& path() const { return path_; }

    // Opens the file, or creates it, to continue after `last`; all records stay until forget().
    // Returns an empty text on success, else the reason.
    std::string open(uint64_t last);

    // Writes a record to the open file. Returns an empty text on success; else the reason, and
    // nothing was written.
    std::string append(const ConfigSection& section);

    // Writes all records again when the open file is no longer the one at the path: somebody may
    // have removed or replaced it. Call it after append(), which does not check this itself because
    // a port waits for it. Returns an empty text when all is well.
    std::string reopen_if_replaced();

    // The number of the record written last, 0 for none.
    uint64_t last() const { return last_; }

    // Whether there is a record of the section that is not in the saved configuration.
    bool holds(const std::string& port) const;

    // The saved configuration now includes the records up to `number`. `held` are its sections of
    // ports that a program holds shut.
    void forget(uint64_t number, const std::vector<ConfigSection>& held = {});

 private:
    struct Kept {
        uint64_t number;
        std::string port;  // of the section
        std::string bytes;
        bool saved;
        bool operator==(const Kept&) const = default;
    };

    void keep(const JournalRecord& record, std::string bytes);

    bool in_place() const;
    std::string write(std::string_view bytes);
    std::string renew();
    std::string rewrite();
    bool open_old();
    std::string overwrite();
    std::string kept_bytes() const;

    const std::string path_;
    int fd_ = -1;
    off_t size_ = 0;  // of the valid records; old bytes may follow
    off_t room_ = 0;  // beyond this size the file is rewritten
    uint64_t last_ = 0;
    std::vector<Kept> kept_;  // the newest of each section, in the order of their numbers
};

}  // namespace qv::cli
