// Keeps the running configuration: replays the saved one, and has every change saved.
//
// Three things stand between a change and a crash. What a line does to the admin state of a port is
// written into the journal before it happens. Everything else is in a save that follows within a
// second. And a section whose port has left is kept until the port is back.
//
// At the start the saved file is read, then the journal, whose records replace the sections that
// they describe. VLAN modes are set first, and programs are notified of them before their own
// lines are replayed: a program that judges a port by its mode must not judge it twice.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/cli/config_file.h"
#include "platform/cli/config_saver.h"
#include "platform/cli/journal.h"
#include "platform/cli/port_sections.h"
#include "platform/client/port_model.h"
#include "qv/cli.h"

namespace qv::cli {

class ConfigReplay;

class ConfigKeeper final : public PortObserver {
 public:
    // `path` is the file of the saved configuration, empty for none. Must outlive the loop.
    ConfigKeeper(EventLoop& loop, Background& background, std::string path);

    // The configuration may have changed. Any thread, any lock; never waits.
    void request_save();
    // cli_client_ready. Any thread.
    void request_replay();

    // The following belong to the loop thread.

    // Why nothing can be saved at present; empty when it can.
    std::string obstacle() const;
    ConfigSaver& saver() { return saver_; }
    const std::string& path() const { return saver_.path(); }

    // Sets the admin state of a port, on behalf of a program or an operator, so that no crash
    // leaves it without an owner. An empty text when done, else the reason.
    std::string set_admin(uint32_t ifx, bool up, bool by_program);
    // A line for a port that is not there: "no shutdown" is carried out when the port is back.
    // Returns the name of the port; empty for any other line and for an unknown port.
    std::string note_wish(uint64_t ifx, std::string_view line);
    // Who has shut the port.
    ShutBy shut_by(uint32_t ifx) const { return sections_.shut_by(ifx); }
    // Keeps a section for a port that does not exist, and replaces the one it has.
    void keep_section(ConfigSection section);
    // Forgets the section kept for a port that does not exist. False when there is none.
    bool forget_port(const std::string& name);
    // The sections kept for ports that do not exist.
    std::string absent_ports() const { return sections_.kept_text(); }

    void on_added(const Port& port) override;
    void on_removing(const Port& port) override;
    void on_removed(const Port& port) override;
    void on_changed(const Port& before, const Port& after) override;
    void on_renamed(const Port& port) override;
    void on_default(const Port&) override {}
    void on_left_bridge(const Port& port) override;
    void on_complete() override {}

 private:
    void announce();
    void end_replay();
    std::vector<ConfigSection> load();
    bool keep_damaged();
    void run(const std::shared_ptr<ConfigReplay>& replay, EventLoop::Task done);
    void release(const ConfigReplay& replay);
    void apply(ConfigSection section, bool known_first);
    std::string write_ahead(const ConfigSection& section);
    void check_journal(const std::string& trouble);
    void note_journal(const std::string& trouble);

    EventLoop& loop_;
    Journal journal_;
    PortSections sections_;
    ConfigSaver saver_;
    std::atomic<bool> pending_ = false;  // a request is on its way to the loop
    EventLoop::Handle requesting_;       // one of the loop's own thread

    bool may_be_replaced_ = false;  // the saved file, unasked
    bool replaying_ = false;
    bool replayed_ = false;
    ConfigReplay* running_ = nullptr;     // its lines run now: their effect is saved already
    std::string noted_global_;            // of the newest record of them
    std::string journal_trouble_;         // logged
    std::map<uint32_t, uint32_t> modes_;  // that ports had in the bridge which they have left
};

// The keeper of this process, null before cli_client_init. Any thread.
ConfigKeeper* config_keeper();

}  // namespace qv::cli
