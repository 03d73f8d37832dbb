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

// The last line of a configuration that was written to its end.
inline constexpr std::string_view kConfigEnd = "end\n";

// Replaces a file in two steps, as a whole or not at all. Each step answers with an empty text when
// done, else with the reason; the old file is untouched then and nothing is left beside it.
class ConfigFile {
 public:
    explicit ConfigFile(std::string path);
    ~ConfigFile();
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    const std::string& path() const { return path_; }

    // Writes `text`, which ends with kConfigEnd, to a file beside the old one: from then on the end
    // of this process cannot take it back, though a power failure can. Does not wait for the disk.
    std::string stage(std::string_view text);
    // Syncs what was staged and renames it. Waits for the disk.
    std::string commit();

    // Lays the file of the next stage() out ahead of it, with all but the last byte of `like`:
    // staging a text of about that size then only writes over it, which takes a tenth of the time.
    // Failing is no harm.
    void prepare(std::string_view like);

    // At the start: commits what an earlier process staged, unless it did not come to its end.
    void recover();

 private:
    bool open_staged();
    std::string given_up();
    int close_staged();

    const std::string path_;
    const std::string staged_;  // path
    int fd_ = -1;               // of the staged file, -1 when there is none
    size_t size_ = 0;           // of the staged file
};

}  // namespace qv::cli
