// Configuration texts and the files they are in. Any thread.
//
// A saved configuration ends with the line "end" and a seal of two comment lines: the number of the
// last journal record it includes, and a checksum of everything before the checksum's own line. A
// file that was cut off or damaged therefore never passes for another configuration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::cli {

struct ConfigLine {
    int number;        // in the text, from 1
    std::string text;  // without indentation and line end
};

struct ConfigSection {
    std::string port;  // of "interface NAME"; empty for global lines
    int number = 0;    // of that line
    std::vector<ConfigLine> lines;
};

// Cuts a configuration into its sections, in order. "!", "exit" and "end" end a section.
std::vector<ConfigSection> parse_config(std::string_view text);

// Returns the text of a file of reasonable size, or nothing with errno set.
std::optional<std::string> read_config_file(const std::string& path);
// The same from an open descriptor, which it closes. A negative one means that errno says why it
// could not be opened.
std::optional<std::string> read_config_from(int fd);

// The last line of a configuration that was written to its end.
inline constexpr std::string_view kConfigEnd = "end\n";

// CRC-32 (ISO 3309) as eight hexadecimal digits.
std::string checksum(std::string_view text);

// `text`, which ends with kConfigEnd, and its seal. `journal` is the number of the last journal
// record that the text includes.
std::string seal_config(std::string text, uint64_t journal);

struct UnsealedConfig {
    std::string text;      // without the seal; when not `intact`, also without its last line
    uint64_t journal = 0;  // 0 when not `intact`
    bool intact = false;   // the seal is there and fits the text
};
UnsealedConfig unseal_config(std::string_view sealed);

// Whether to wait for the disk. Without that a file survives the process, but not a power failure.
enum class Sync { kNow, kLater };

// Replaces the file as a whole or not at all. Returns an empty text on success, else the reason.
// The new file has the mode and the owner of the old one; a symbolic link stays, and the file it
// points to is replaced.
std::string replace_file(const std::string& path, std::string_view text, Sync sync = Sync::kNow);
// Removes a file, which need not exist. Returns an empty text on success, else the reason.
std::string remove_file(const std::string& path);
// Waits until a file, or its removal, is on the disk. Returns an empty text on success, else the
// reason.
std::string sync_file(const std::string& path);

}  // namespace qv::cli
