// The thread that probes. It runs before everything else on the machine (SCHED_RR) with its memory
// locked, so it must be short: it logs nothing, knows no database, and after kBusy of work without
// a pause it sleeps for kRest. The main thread hands it configuration and takes its reports through
// two rings.
//
// There is one such thread on each of the first kMostListeners processors, all on the same sockets,
// and one of them at a time has the turn. A storm keeps the processor busy on which it began, and
// a thread that last ran there is not moved away: it would wake milliseconds late, and its probes
// would queue behind the storm's frames. A thread on another processor is there in time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/mutex.h"
#include "services/tarnd/bridge_view.h"
#include "services/tarnd/cut_journal.h"
#include "services/tarnd/link_cut.h"
#include "services/tarnd/link_guard.h"
#include "services/tarnd/port_control.h"
#include "services/tarnd/prober.h"
#include "services/tarnd/ring.h"
#include "services/tarnd/sockets.h"
#include "services/tarnd/timekeeping.h"

namespace qv::tarnd {

// A message from the main thread to the probing thread.
struct Command {
    enum class Kind : uint8_t { kSettings, kKey, kPort, kAsk };
    Kind kind = Kind::kSettings;
    Settings settings{};   // kSettings
    Key key{};             // kKey
    uint32_t ifx = 0;      // kPort, kAsk
    bool watched = false;  // kPort, as the next
    bool shuts = false;
    PortOptions options{};
};

class ProbeThread final : private ProberOutputs {
 public:
    static constexpr std::chrono::milliseconds kBusy{2};
    static constexpr std::chrono::microseconds kRest{200};
    static constexpr size_t kMostListeners = 4;
    // After a trigger more addresses need not be read for this long: frames go first.
    static constexpr std::chrono::milliseconds kAddressPause{5};

    // Opens the sockets; throws std::runtime_error. The journals must outlive the thread.
    ProbeThread(const Prober::Identity& identity, const std::string& bridge, CutJournal& cuts,
                CutJournal& guards);
    ~ProbeThread() override;
    ProbeThread(const ProbeThread&) = delete;
    ProbeThread& operator=(const ProbeThread&) = delete;

    // Starts the thread, which first opens the ports that an earlier process has left closed.
    // Empty, or why it has to do without priority. Main thread, once.
    std::string start();
    // Ends it. Main thread.
    void stop();

    // Main thread. False when the ring is full: try again later.
    bool command(const Command& command);
    // Main thread: the next report. reports_fd() is readable when there is one.
    std::optional<Report> next_report();
    int reports_fd() const { return reports_ready_.get(); }
    // Before next_report() has been called until it had none left.
    void clear_reports_fd();

    uint64_t ignored(Ignored why) const { return prober_.ignored(why); }    // any thread
    uint64_t counted(Counted what) const { return prober_.counted(what); }  // any thread

 private:
    bool send(uint32_t ifx, uint16_t vid, const Frame& frame) override;
    int cut(uint32_t ifx, bool single) override;
    int guard(uint32_t ifx, bool close) override;
    bool report(const Report& report) override;

    // The descriptors that are readable: mostly none after a wake-up by the clock.
    struct Ready {
        bool frames = true;
        bool links = true;
        bool commands = true;
        bool addresses = true;
    };
    // A listener's next wake-up: by the clock, or earlier by its descriptors.
    struct Wait {
        Time until{};
        bool addresses = false;
    };

    void run(bool keeps_time);
    Ready wait(const Wait& plan, Time& busy_since) const;
    Wait take_turn(bool keeps_time, const Ready& ready) EXCLUDES(turn_);
    void take_commands() REQUIRES(turn_);
    void take_frames() REQUIRES(turn_);
    void take_links() REQUIRES(turn_);
    void take_addresses() REQUIRES(turn_);
    void read_links_again() REQUIRES(turn_);
    void end_dump(bool complete) REQUIRES(turn_);
    Time now() const;

    PacketSocket packets_;
    RouteSocket links_;
    RouteSocket addresses_;
    PortControl control_;
    LinkCut cut_;
    LinkGuard guard_;
    CutJournal& guards_;
    Descriptor wake_;
    Descriptor reports_ready_;
    Ring<Command> commands_;
    Ring<Report> reports_;
    std::atomic<bool> ending_{false};
    Prober prober_;
    BridgeView view_;
    Mutex turn_;
    // The thread that has the turn, only.
    bool dump_interrupted_ = false;  // something came or went in mid-dump
    bool dump_wanted_ = true;
    bool dumping_ = false;
    uint32_t dump_sequence_ = 0;
    Time dump_from_{};  // not before
    Time addresses_from_{};
    Timekeeping timekeeping_;
    std::vector<std::thread> listeners_;
};

}  // namespace qv::tarnd
