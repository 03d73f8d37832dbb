// The main thread's side of the probe service: configuration from records, loop records and log
// messages from the prober's reports, and the ports that were cut until the switch takes them over.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "p_app.pb-c.h"
#include "p_bridge.pb-c.h"
#include "platform/base/event_loop.h"
#include "qv/mom.h"
#include "services/tarnd/cut_journal.h"
#include "services/tarnd/fabric_key.h"
#include "services/tarnd/guard_table.h"
#include "services/tarnd/link_cut.h"
#include "services/tarnd/link_guard.h"
#include "services/tarnd/loop_log.h"
#include "services/tarnd/port_control.h"
#include "services/tarnd/probe_thread.h"
#include "services/tarnd/status_board.h"
#include "services/tarnd/take_over.h"

namespace qv::tarnd {

// In which order ports of this VLAN mode are chosen.
Role role_of(uint32_t vlan_mode);

// How long a port of this record is guarded at link-up; 0: not at all, or out of range.
std::chrono::milliseconds guard_of(const PBridge__TarnPort& record);

// The VLANs of this record; what is out of range or out of order is left out.
Vlans vlans_of(const PBridge__TarnPort& record);

// Settings of a record; what is out of range is taken for the default.
Settings settings_of(const PBridge__TarnConfig& record);

// Main thread only. Lives as long as the process.
class Service final : private TakeOverOutputs {
 public:
    static constexpr std::chrono::seconds kRefresh{10};
    // After the configuration has been asked for: a record that has not arrived by then does not
    // exist. A server that answers nothing has lost its connection before.
    static constexpr std::chrono::seconds kAllArrived{15};
    // At the end: how long the object database has to confirm the last records.
    static constexpr std::chrono::milliseconds kLastWrites{500};

    // Starts the probing thread, which has `own_key`. Everything but the key must outlive the
    // service. Throws std::runtime_error.
    Service(EventLoop& loop, ProbeThread& prober, CutJournal& journal, CutJournal& guards,
            GuardTable& guard, StatusBoard& board, const Key& own_key);

    // Before the process ends: no more probes, no port stays dark that is ours, and no loop stays
    // on record that nobody would end. Runs the loop meanwhile.
    void close();

    // Records, from the object database.
    void take(const PBridge__TarnConfig& record, bool deleted);
    void take(const PBridge__TarnPort& record, bool deleted);
    void take(const PApp__LdaNcPolicy& record, bool deleted);
    void take(const PBridge__TarnLoopInfo& record, bool deleted);

 private:
    struct Port {
        bool watched = false;
        uint32_t vlan_mode = 0;
        bool shut = false;
        std::chrono::milliseconds guard{0};
        Vlans vlans;
    };
    // Records that were read before the object database was away and not since.
    struct Unconfirmed {
        bool config = false;
        bool policy = false;
        std::set<uint32_t> ports;
    };
    // A loop record that this process has set, or is to set: one for each port, as its key is. The
    // loops of a port in several VLANs share it.
    struct LoopRecord {
        struct Seen {
            uint32_t src_ifx;
            uint16_t vid;
        };
        std::map<uint16_t, Seen> loops;      // by the VLAN in which the probe was sent
        std::map<uint32_t, uint16_t> ended;  // not stored yet: port that sent the probe, VLAN
        bool stored = false;
    };

    void follow_configuration();
    void lose_configuration();
    void drop_unconfirmed();
    void follow_loops();
    void scan_loops();
    void end_records();
    void follow_key();
    void command_port(uint32_t ifx);
    void send_commands();
    void take_reports();
    void on_report(const Report& report);
    void on_loop(const Report& report, bool is_loop);
    void on_cut(uint32_t ifx, int error);
    void on_guard(uint32_t ifx, bool closed, int error);
    void open_guarded();
    bool ask() override;
    bool has_record(uint32_t ifx) override { return ports_.contains(ifx); }
    void give_back(uint32_t ifx) override;
    void store(uint32_t ifx, LoopRecord& record);
    bool set_record(uint32_t ifx, const LoopRecord::Seen& seen, bool is_loop);
    void refresh();
    void log_ignored();

    EventLoop& loop_;
    ProbeThread& prober_;
    CutJournal& journal_;
    CutJournal& guards_;
    GuardTable& guard_;
    StatusBoard& board_;
    PortControl control_;
    LinkCut link_cut_;
    LinkGuard link_guard_;  // while the probing thread does not run
    qv_mom_client* const client_;
    LoopLog loop_log_;

    uint32_t policy_ = 0;
    Settings settings_;
    bool settings_pending_ = false;
    FabricKey fabric_key_;
    std::string key_file_;
    std::string key_refusal_;  // as logged
    bool key_pending_ = false;
    std::set<uint32_t> ports_pending_;
    std::map<uint32_t, Port> ports_;
    std::map<uint32_t, LoopRecord> records_;
    std::set<uint32_t> last_writes_;  // ended records that are not read back yet
    TakeOver take_over_;
    // Why a port is not in service again, or not open, as logged.
    std::map<uint32_t, int> not_returned_;
    std::map<uint32_t, int> not_opened_;
    uint64_t ignored_logged_ = 0;

    Unconfirmed unconfirmed_;

    EventLoop::Handle reports_watch_;
    EventLoop::Handle commands_timer_;
    EventLoop::Handle refresh_timer_;
    EventLoop::Handle unconfirmed_timer_;
};

}  // namespace qv::tarnd
