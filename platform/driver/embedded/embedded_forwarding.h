// The forwarding plane of the embedded switch: rules on its ports, traffic at a scripted rate.
//
// Everything happens on a tick of one second, which runs while there is something to do: it reports
// the counters of installed rules, then sends the answers that are due. set_rate() sets the traffic
// that rules match, in frames of 64 bytes; a port's rule counts all of it and its meter passes some
// of it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "platform/base/event_loop.h"
#include "platform/driver/forwarding_driver.h"

namespace qv {

// Loop thread only.
class EmbeddedForwarding final : public ForwardingDriver {
 public:
    static constexpr std::chrono::seconds kTick{1};
    static constexpr uint64_t kFrameBytes = 64;

    // Kinds of requests, for scripted failures.
    enum class Request { kAcl, kEntry, kApply };

    // Counts of a port's flooded frames since its rule was installed.
    struct Traffic {
        uint64_t counted = 0;
        uint64_t passed = 0;
        uint64_t dropped = 0;
    };

    using PortExists = std::function<bool(uint32_t phyid)>;

    // The loop must outlive the plane. Rules on ports that `port_exists` denies are refused with
    // ENODEV.
    EmbeddedForwarding(EventLoop& loop, PortExists port_exists);

    void start(ForwardingSink& sink) override;
    void reserve(ForwardingId id, Table table) override;
    void install(ForwardingId id, std::optional<uint32_t> phyid,
                 const ForwardingRule& rule) override;
    void remove(ForwardingId id) override;
    void remove_leftovers() override;

    // Sets the flooded frames per second on a port.
    void set_rate(uint32_t phyid, uint64_t pps);

    // Makes the next `count` requests of this kind fail with `error`.
    void fail_next(Request request, int error, unsigned count = 1);
    // Delays the answers to later requests by `ticks` ticks.
    void delay_answers(unsigned ticks);
    // Drops the rule of a port, if there is one, and reports the loss.
    void lose_rule(uint32_t phyid, int error);

    // Rules that are installed on ports, in the order of the ports.
    std::map<uint32_t, ForwardingRule> port_rules() const;
    bool has_switch_rule() const;
    // Zero for a port without a rule.
    Traffic traffic(uint32_t phyid);

 private:
    struct Answer {
        ForwardingId id;
        int error;
        unsigned ticks;  // left to wait
    };
    struct Rule {
        std::optional<uint32_t> phyid;
        ForwardingRule rule;
        bool installed = false;
        Traffic traffic;
        uint64_t reported = 0;  // part of the counted frames that was reported
        uint64_t tokens = 0;    // frames that the meter passes at once
    };
    struct Source {
        uint64_t pps = 0;
        Time since{};
        uint64_t remainder = 0;  // billionths of a frame
    };

    void answer(ForwardingId id, Request request, int error);
    void arm();
    void tick();
    void deliver_answers();
    void report_counters();
    void settle(uint32_t phyid, Source& source);
    void settle_all();
    Rule* rule_of(uint32_t phyid);
    void forget(ForwardingId id);

    EventLoop& loop_;
    PortExists port_exists_;
    ForwardingSink* sink_ = nullptr;
    EventLoop::Handle timer_;
    unsigned delay_ = 0;
    std::map<Request, std::deque<int>> failures_;
    std::vector<Answer> answers_;
    std::map<ForwardingId, Rule> rules_;
    std::map<uint32_t, ForwardingId> port_rules_;  // the installed rule of a port
    std::map<uint32_t, Source> sources_;
};

}  // namespace qv
