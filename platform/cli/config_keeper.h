// Keeps the running configuration: generates it on request, saves it, and replays the saved one.
//
// Requests come from any thread and are only noted; the work is done on the loop. The first request
// after a pause is served at once, further ones kSpacing apart, or more where that takes long, so
// that a flood of announcements costs a bounded share of the loop. What is announced is staged at
// once, so that this process may die; the disk is waited for, and the loop waits with it,
// kSettling later, when the commands that go with the announcement have been executed. Nothing is
// saved before the saved configuration was replayed: that would replace it by what is not yet in
// force.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "platform/cli/config_file.h"
#include "platform/client/event_loop.h"
#include "platform/client/port_model.h"
#include "qv/cli.h"

namespace qv::cli {

class ConfigKeeper final : public PortObserver {
 public:
    static constexpr std::chrono::milliseconds kSpacing{50};
    static constexpr int kRest = 10;  // times what was done took, where that is more
    static constexpr std::chrono::milliseconds kSettling{5};
    static constexpr std::chrono::seconds kRetryAfter{30};

    // `path` is the file of the saved configuration, empty for none. Must outlive the loop.
    ConfigKeeper(EventLoop& loop, std::string path);

    // Any thread, any lock; never wait.
    void request_reform();
    void request_save();
    void request_replay();  // cli_client_ready

    // The following belong to the loop thread.

    // Saves now. Empty when done, else the reason.
    std::string save();
    const std::string& path() const { return file_.path(); }
    const std::string& text() const { return text_; }

    void on_added(const Port& port) override;
    void on_removed(const Port& port) override;
    void on_changed(const Port& before, const Port& after) override;
    void on_default(const Port&) override {}
    void on_left_bridge(const Port&) override {}
    void on_complete() override {}

 private:
    void request(bool save);
    void work();
    void rest_after(Time start);
    void stage_announced();
    void commit_announced();
    void retry_later();
    void announce();
    void replay();
    void apply(const ConfigSection& section);
    void apply_waiting(const std::string& port);
    std::string text_to_save() const;
    std::string told(std::string trouble);

    EventLoop& loop_;
    ConfigFile file_;  // loop thread only, but for its path
    // Any thread.
    std::atomic<bool> pending_ = false;  // work() is on its way
    std::atomic<bool> save_wanted_ = false;

    // Loop thread only.
    std::string text_;          // as generated last
    std::string saved_text_;    // what was staged or read last
    std::string save_trouble_;  // why the last save failed, empty when it did not
    bool replayed_ = false;
    bool file_unreadable_ = false;  // not to be replaced unasked
    Time next_work_{};
    EventLoop::Handle timer_;
    EventLoop::Handle commit_timer_;  // pending while something is staged
    EventLoop::Handle retry_;
    std::map<std::string, ConfigSection> waiting_;  // of ports that are not there yet
};

// The keeper of this process, null before cli_client_init. Any thread.
ConfigKeeper* config_keeper();

// "configure replace": changes the running configuration into `text`, line by line. Prints what was
// refused. 0, or 1 when something was.
int replace_config(std::string_view text);

}  // namespace qv::cli
