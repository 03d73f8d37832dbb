// The forwarding plane of a Linux bridge: a rule on a port is a chain at the ingress of its device.
//
// Frames to an address that the bridge knows are accepted first; the others, which the bridge
// floods, are counted and then metered. The set of known addresses mirrors the bridge's forwarding
// database. The table, the mirror and the timer exist only while there are rules.
// docs/forwarding-plane.md shows the table; the source describes how a rule gets there.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/driver/forwarding_driver.h"
#include "platform/driver/linux/fdb_mirror.h"
#include "platform/driver/linux/nft_table.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// The size of the next batch of rule changes, after one of up to `size` changes took `took` of real
// time.
size_t next_batch_size(size_t size, std::chrono::nanoseconds took);

// Loop thread only.
class NftForwarding final : public ForwardingDriver {
 public:
    static constexpr const char* kTable = "lda";
    // Period of reading and reporting the counters.
    static constexpr std::chrono::seconds kTick{1};
    // How long changes are collected before the first transaction.
    static constexpr std::chrono::milliseconds kGather{10};
    // Pause between attempts while no socket can be opened.
    static constexpr std::chrono::seconds kRetry{1};
    // Attempts, one per tick, to put the chain of one rule on a device that the kernel refuses.
    static constexpr unsigned kDeviceTries = 5;
    // Bounds of a batch. Its size is adapted to keep a transaction near kTransactionTime, because
    // the loop does nothing else meanwhile. With many chains in the table the library needs that
    // long only to read them, hence the lower bound.
    static constexpr size_t kMaxBatch = 64;
    static constexpr size_t kMinBatch = 4;
    static constexpr std::chrono::microseconds kTransactionTime{2000};

    // The port of a forwarding-plane id, or null. Valid until the next change of the ports.
    using FindPort = std::function<const Port*(uint32_t phyid)>;
    // The interface index of the bridge; 0 when there certainly is none.
    using FindBridge = std::function<uint32_t()>;

    struct Settings {
        FindBridge find_bridge;
        FindPort find_port;
        FdbMirror::Limits mirror = {};
    };

    // Nothing is opened before the first request. The loop must outlive the plane.
    NftForwarding(EventLoop& loop, Settings settings);
    ~NftForwarding() override;  // calls close()

    void start(ForwardingSink& sink) override;
    void reserve(ForwardingId id, Table table) override;
    void install(ForwardingId id, std::optional<uint32_t> phyid,
                 const ForwardingRule& rule) override;
    void remove(ForwardingId id) override;
    void remove_leftovers() override;

    // Call when the port with this id was added, removed or changed.
    void port_changed(uint32_t phyid);

    // Removes the table with every rule, without a report.
    void close();

    // How often the forwarding database was read again because messages were lost.
    unsigned resyncs() const { return mirror_.resyncs(); }

 private:
    // A device, empty for none.
    struct Place {
        std::string device;
        uint32_t ifx = 0;
        bool operator==(const Place&) const = default;
    };
    struct Rule {
        std::optional<uint32_t> phyid;
        ForwardingRule rule;
        std::string name;  // of its chain and its counter; empty for one on the whole switch
        Place place;       // of the chain in the current transaction
        Place chain;       // of the chain in the kernel
        bool installed =
            false;  // the kernel has it: its counter, and its chain while it has a port
        bool answered = false;
        unsigned tries = 0;     // failed in a row
        PacketCounts reported;  // the counter when it was last reported
    };
    using Rules = std::map<ForwardingId, Rule>;
    // The changes that one transaction makes.
    struct Batch {
        std::vector<Rule> dropped;
        std::vector<ForwardingId> changed;
    };
    using Answer = std::pair<ForwardingId, int>;  // with its error, or 0

    int check(const Rule& rule);
    void schedule_commit();
    void commit();
    Batch next_batch();
    std::vector<Answer> apply(const Batch& batch, int table_error);
    int run(const Batch& batch);
    static void add_removal(NftTable::Change& change, const Rule& rule);
    void add_update(NftTable::Change& change, Rule& rule) const;
    bool record_outcome(ForwardingId id, int error);
    void refuse(ForwardingId id, int error);
    int open_table();
    int make_table();
    void tick();
    bool report(const std::vector<NamedCounter>& counters);
    Rules::iterator find_counter(const std::string& name);
    void restore();
    Place locate(uint32_t phyid) const;
    void follow_bridge();
    void update_known(const std::vector<MacAddress>& added, const std::vector<MacAddress>& gone);
    void fail_all(int error);
    void log_refusal(int error);
    void log_bad_name(uint32_t phyid);

    EventLoop& loop_;
    const Settings settings_;
    ForwardingSink* sink_ = nullptr;
    NftTable table_;
    FdbMirror mirror_;
    Rules rules_;
    std::set<ForwardingId> changed_;         // rules to install or update in the kernel
    std::set<ForwardingId> without_device_;  // rules to try again at the next tick: no such device
    std::vector<Rule> dropped_;              // rules to remove from the kernel
    size_t batch_size_ = 8;
    EventLoop::Handle commit_timer_;
    bool open_ = false;     // the table is in the kernel
    bool broken_ = false;   // its content is not ours any more
    bool mirrored_ = true;  // the mirror follows the bridge; false from its first failure on
    int logged_refusal_ = 0;
    std::map<uint32_t, std::string> bad_names_;  // of ports, as they were logged
    EventLoop::Handle tick_timer_;
};

}  // namespace qv
