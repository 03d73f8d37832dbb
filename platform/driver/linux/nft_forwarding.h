// The forwarding plane of a Linux bridge: a rule on a port is a chain at the ingress of its device.
//
// Frames to an address that the bridge knows leave the chain first; the others, those that the
// bridge floods, are counted and then metered. The set of known addresses mirrors the bridge's
// forwarding database. The table, the mirror and the timer are there only while there are rules.
//
// Changes are gathered for a moment and carried out some at a time, each batch in one transaction:
// before a transaction libnftables reads all chains and counters, so that one for each of 512 ports
// takes five times as long as eight for all of them. A rule is answered when it is in the kernel.
//
// The bridge and the names of its devices come from the port model, which may be behind the kernel
// but never in doubt: a look-up at the moment of use fails when the process has no descriptor left,
// and a rule must not suffer from that. What the model has not heard of yet is tried again. While a
// socket cannot be opened nothing is changed: rules wait, and those in the kernel stay.
//
// A rule belongs to a bridge port number. While no port has that number it waits without a
// chain, and returns with the port; its counter stays. When somebody else has changed the table or
// taken it away, it is put back as a whole at the next reading of the counters; only what cannot be
// put back is reported as lost.
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
    // Counters are read and reported this often.
    static constexpr std::chrono::seconds kTick{1};
    // How long changes are gathered.
    static constexpr std::chrono::milliseconds kGather{10};
    // How long the next try waits while a socket cannot be opened.
    static constexpr std::chrono::seconds kRetry{1};
    // How often the chain of one rule is tried on a device that the kernel does not have.
    static constexpr unsigned kDeviceTries = 5;
    // Bounds of a batch. Its size follows the time that the last one took, to stay near
    // kTransactionTime: the loop does nothing else meanwhile. With many chains in the table the
    // library needs that long only to read them, hence the lower bound.
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
        int receive_buffer = FdbMirror::kReceiveBuffer;
    };

    // Nothing is opened before the first request. The loop must outlive the plane.
    NftForwarding(EventLoop& loop, Settings settings);
    ~NftForwarding() override;  // as close()

    void start(ForwardingSink& sink) override;
    void reserve(ForwardingId id, Table table) override;
    void install(ForwardingId id, std::optional<uint32_t> phyid,
                 const ForwardingRule& rule) override;
    void remove(ForwardingId id) override;
    void remove_leftovers() override;

    // A port with this id has come, gone or changed.
    void port_changed(uint32_t phyid);

    // Takes the table away, with every rule; nothing is reported of them.
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
        Place place;       // where the change under way puts its chain
        Place chain;       // where its chain is
        bool installed =
            false;  // the kernel has it: its counter, and its chain while it has a port
        bool answered = false;
        unsigned tries = 0;  // of its place, in vain and in a row
        PacketCounts reported;
    };
    using Rules = std::map<ForwardingId, Rule>;
    // The changes that one transaction makes.
    struct Batch {
        std::vector<Rule> dropped;
        std::vector<ForwardingId> changed;
    };
    using Answer = std::pair<ForwardingId, int>;  // and its error, or 0

    int check(const Rule& rule) const;
    void gather();
    void commit();
    Batch next_batch();
    std::vector<Answer> carry_out(const Batch& batch, int table_error);
    int run(const Batch& batch);
    static void drop(NftTable::Change& change, const Rule& rule);
    void bring(NftTable::Change& change, Rule& rule) const;
    bool finish(ForwardingId id, int error);
    void refuse(ForwardingId id, int error);
    int open_table();
    int make_table();
    void tick();
    bool report(const std::vector<NamedCounter>& counters);
    Rules::iterator find_counter(const std::string& name);
    void put_back();
    Place locate(uint32_t phyid) const;
    void follow_bridge();
    void take_known(const std::vector<MacAddress>& added, const std::vector<MacAddress>& gone);
    void lose_all(int error);
    void log_refusal(int error);

    EventLoop& loop_;
    const Settings settings_;
    ForwardingSink* sink_ = nullptr;
    NftTable table_;
    FdbMirror mirror_;
    Rules rules_;
    std::set<ForwardingId> changed_;  // rules that the kernel does not have as they are
    std::set<ForwardingId> late_;     // rules that wait for the port model to name their device
    std::vector<Rule> dropped_;       // rules that it has and should not have
    size_t batch_size_ = 8;
    EventLoop::Handle gathering_;
    bool open_ = false;     // the table is in the kernel
    bool broken_ = false;   // it is not as we left it
    bool mirrored_ = true;  // the mirror follows the bridge; false from its first failure on
    int logged_refusal_ = 0;
    EventLoop::Handle timer_;
};

}  // namespace qv
