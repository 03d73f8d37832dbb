// Configuration texts and the files they are in. Loop thread only.
#pragma once

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

// The text of a file of reasonable size. An empty optional with errno set when it cannot be read.
std::optional<std::string> read_config_file(const std::string& path);

// A file is replaced in two steps, as a whole or not at all. Each answers with an empty text when
// done, else with the reason; the old file is untouched then and nothing is left beside it.
//
// Staging writes `text`, which ends with kConfigEnd, to a file beside the old one: from then on the
// end of this process cannot take it back, though a power failure can. It does not wait for the
// disk.
std::string stage_config_file(const std::string& path, std::string_view text);
// Committing syncs the staged file and renames it. Waits for the disk.
std::string commit_config_file(const std::string& path);

// The last line of a configuration that was written to its end.
inline constexpr std::string_view kConfigEnd = "end\n";

// At the start: commits what an earlier process staged, unless it did not come to its end.
void recover_config_file(const std::string& path);

}  // namespace qv::cli
