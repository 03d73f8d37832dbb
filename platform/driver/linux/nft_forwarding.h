// The forwarding plane of a Linux bridge: a rule on a port is a chain at the ingress of its device.
//
// Frames to an address that the bridge knows leave the chain first; the others, those that the
// bridge floods, are counted and then metered. The set of known addresses mirrors the bridge's
// forwarding database. The table, the mirror and the timer are there only while there are rules.
//
// A rule belongs to a bridge port number. While no port has that number it waits without a
// chain, and returns with the port; its counter stays. When somebody else has taken the table
// away, it is put back at the next reading of the counters; only where that fails are the rules
// reported as lost.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/client/event_loop.h"
#include "platform/driver/forwarding_driver.h"
#include "platform/driver/linux/fdb_mirror.h"
#include "platform/driver/linux/nft_table.h"
#include "platform/driver/switch_driver.h"

namespace qv {

// Loop thread only.
class NftForwarding final : public ForwardingDriver {
 public:
    static constexpr const char* kTable = "lda";
    // Counters are read and reported this often.
    static constexpr std::chrono::seconds kTick{1};

    // The port of a forwarding-plane id, or null. Valid until the next change of the ports.
    using FindPort = std::function<const Port*(uint32_t phyid)>;

    struct Settings {
        std::string bridge;  // its name
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
    struct Rule {
        std::optional<uint32_t> phyid;
        ForwardingRule rule;
        std::string name;    // of its chain and its counter; empty for a rule on the whole switch
        std::string device;  // that has the chain; empty while there is no such port
        uint32_t ifx = 0;    // of the device
        PacketCounts reported;
    };

    int install_on_port(ForwardingId id, uint32_t phyid, const ForwardingRule& rule);
    int open_table();
    void tick();
    void report(const std::map<std::string, PacketCounts>& counters);
    bool has_all(const std::map<std::string, PacketCounts>& counters) const;
    void put_back();
    int run_anew();
    void move_chain(Rule& rule);
    void locate(Rule& rule) const;
    void follow_bridge();
    void take_known(const std::vector<MacAddress>& added, const std::vector<MacAddress>& gone);
    void lose(ForwardingId id, int error);
    void log_refusal(int error);

    EventLoop& loop_;
    const Settings settings_;
    ForwardingSink* sink_ = nullptr;
    NftTable table_;
    FdbMirror mirror_;
    std::map<ForwardingId, Rule> rules_;
    bool open_ = false;     // the table is in the kernel
    bool broken_ = false;   // it is not as we left it
    bool mirrored_ = true;  // as far as was said in the log
    int logged_refusal_ = 0;
    EventLoop::Handle timer_;
};

}  // namespace qv
