// Saves the running configuration: every change within a second, without holding up the loop. Loop
// thread only, except for the writing, which runs in the background.
//
// A snapshot is taken in slices, a few ports per turn of the loop. A change in the meantime
// requests another one. Until that is written, the journal holds what must not be lost; each
// snapshot notes the last record number at its start.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/base/background.h"
#include "platform/base/event_loop.h"
#include "platform/cli/journal.h"
#include "platform/cli/port_sections.h"

namespace qv::cli {

// The content of a saved file, written or still to be written.
struct ConfigImage {
    std::string text;
    uint64_t journal = 0;             // the last record that the text includes
    std::vector<ConfigSection> held;  // sections of ports that a program holds shut
};

// A snapshot in progress.
struct ConfigSnapshot {
    ConfigImage image;
    uint32_t last_ifx = 0;     // of the ports taken so far
    std::set<uint32_t> taken;  // interface indexes
    Duration spent{};          // time that it has taken from the loop
};

class ConfigSaver {
 public:
    static constexpr std::chrono::milliseconds kGather{100};  // from a change to its snapshot
    static constexpr int kRest = 10;  // pause after a snapshot, times what it took of the loop,
    static constexpr std::chrono::milliseconds kLongestRest{500};  // and at most this
    static constexpr std::chrono::seconds kRetryAfter{30};
    static constexpr std::chrono::seconds kFileCheck{5};  // checks that the file still exists
    static constexpr int kPortsPerTurn = 64;

    using Done = std::function<void(const std::string& reason)>;

    // `path` is empty for none: then nothing is ever saved.
    ConfigSaver(EventLoop& loop, Background& background, std::string path, Journal& journal,
                const PortSections& sections);

    // Saves a change soon.
    void request();
    // Saves now; `done` gets an empty text on success, else the reason.
    void save(Done done);
    // The same for a caller that cannot wait: saves on this thread and returns the text.
    std::string save_here();
    // The same at the end of the process, when the background may have been destroyed.
    void save_last();

    // Until the saved configuration is applied, and when it could not be read, only an explicit
    // save() may replace it.
    void allow_autosave(bool allowed) { autosave_ = allowed; }
    // The text of the saved file, so that the same is not written again.
    void set_saved(std::string text) { saved_text_ = std::move(text); }
    // Whether the saved file has these global lines.
    bool saved_global(std::string_view lines) const;

    const std::string& path() const { return path_; }
    // The reason why the last attempt failed; empty when it succeeded.
    const std::string& trouble() const { return trouble_; }

 private:
    void schedule();
    void begin();
    void slice();
    bool take_ports(int limit);
    void take_port(const Port& port);
    ConfigImage end_snapshot();
    void finish();
    void written(const ConfigImage& image, const std::string& reason);
    void note(const std::string& reason);
    static void count(const std::string& reason);
    void watch_file();
    void check_file();

    EventLoop& loop_;
    Background& background_;
    const std::string path_;
    Journal& journal_;
    const PortSections& sections_;

    bool autosave_ = false;
    bool wanted_ = false;   // another snapshot must follow the current one
    bool writing_ = false;  // the background is writing
    std::optional<ConfigSnapshot> snapshot_;
    std::vector<Done> waiting_;  // for the next snapshot
    std::vector<Done> served_;   // by the current snapshot
    std::string saved_text_;
    std::string trouble_;
    Time rest_until_{};
    EventLoop::Handle timer_;
    EventLoop::Handle turn_;
    EventLoop::Handle retry_;
    EventLoop::Handle file_check_;
};

}  // namespace qv::cli
