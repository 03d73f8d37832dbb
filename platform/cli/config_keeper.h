// Keeps the running configuration: replays the saved one and saves every change.
//
// Three things protect changes from a crash. A line's effect on the admin state of a port is
// written into the journal before it happens. Everything else is saved within a second. And the
// section of a port that has left is kept until the port returns.
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
    // Replays the saved configuration from the loop, the first time only. Any thread.
    void request_replay();

    // The following belong to the loop thread.

    // The reason why nothing can be saved at present; empty when saving works.
    std::string obstacle() const;
    ConfigSaver& saver() { return saver_; }
    const std::string& path() const { return saver_.path(); }

    // Sets the admin state of a port, on behalf of a program or an operator, so that no crash
    // leaves it without an owner. Returns an empty text on success, else the reason.
    std::string set_admin(uint32_t ifx, bool up, bool by_program);
    // Records the line "no shutdown" for an absent port, to execute it when the port returns.
    // Returns the port's name; empty for any other line and for an unknown port.
    std::string accept_no_shutdown(uint64_t ifx, std::string_view line);
    // Returns the owner of the port's shutdown.
    ShutBy shut_by(uint32_t ifx) const { return sections_.shut_by(ifx); }
    // Keeps a section for a port that does not exist, in place of an earlier one.
    void keep_section(ConfigSection section);
    // Drops the section kept for a port that does not exist. Returns false when there is none.
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
    std::atomic<bool> pending_ = false;  // a request from any thread is posted
    EventLoop::Handle requesting_;       // a request from the loop's own thread

    bool may_be_replaced_ = false;  // whether a save that nobody asked for may replace the file
    bool replaying_ = false;
    bool replayed_ = false;
    ConfigReplay* running_ = nullptr;     // runs now; the effect of its lines is saved already
    std::string noted_global_;            // from their newest record
    std::string journal_trouble_;         // logged
    std::map<uint32_t, uint32_t> modes_;  // of ports that have left the bridge
};

// The keeper of this process, null before cli_client_init. Any thread.
ConfigKeeper* config_keeper();

}  // namespace qv::cli
