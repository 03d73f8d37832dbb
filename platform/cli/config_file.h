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

// Puts `text` in place of the file, as a whole or not at all: a file beside it is written, synced
// and renamed. An empty text when done, else the reason; the old file is untouched then.
std::string write_config_file(const std::string& path, std::string_view text);

}  // namespace qv::cli
