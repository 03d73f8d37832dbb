// The journal beside the saved configuration: what sections will say that the next save has yet to
// write. Loop thread only, but for read_journal().
//
// A record is one section as a whole, so that replaying it twice does no harm. Records are written
// before what they tell of happens, without waiting for the disk: a crash of the process needs the
// write alone. Each carries its number and a checksum; reading ends at the first that is damaged or
// whose number does not grow, so a torn record or remains of older ones are never taken. The file
// keeps its room: a full disk does not keep a record from being written.
//
// Sections of ports that a program holds shut stay in the journal when they are saved, as "saved"
// records. A replay does not need them. They tell whose shutdown it is when the saved configuration
// was lost, damaged or replaced.
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

    // Opens the file, made where it is missing, to continue after `last`; all records stay until
    // forget(). An empty text when done, else the reason.
    std::string open(uint64_t last);

    // Writes a record to the open file. An empty text when done, else the reason: then nothing was
    // written.
    std::string append(const ConfigSection& section);

    // Writes all records anew when the open file is not the one that the next start will read:
    // somebody may have removed it, or put another one in its place. To be called after append();
    // the look-up is no part of it since a port waits for that. An empty text when all is well.
    std::string stay_in_place();

    // The number of the record written last, 0 for none.
    uint64_t last() const { return last_; }

    // Whether there is a record of the section that is not in the saved configuration.
    bool holds(const std::string& port) const;

    // Records up to `number` are in the saved configuration by now. `held` are its sections of
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
    std::string write_over();
    std::string kept_bytes() const;

    const std::string path_;
    int fd_ = -1;
    off_t size_ = 0;  // of what is in force; old bytes may follow
    off_t room_ = 0;  // beyond this size the file is written anew
    uint64_t last_ = 0;
    std::vector<Kept> kept_;  // the newest of each section, in the order of their numbers
};

}  // namespace qv::cli
