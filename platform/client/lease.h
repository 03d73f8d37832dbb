// The master role by a lease in a store that all agents of a switch reach.
//
// The lease is one text, which its holder replaces by the next one while it lives: each renewal
// changes it. Nothing in it is a point in time, and the store measures none, so neither a wall
// clock nor the server's own clock matters:
//
// - An agent that stands by reads the text regularly. When it has seen the same text for the whole
//   time of the lease, on its own monotonic clock and over one connection, it replaces the text by
//   one of its own. Of several that try, the store lets one succeed, because each names the text
//   that it replaces.
// - The master counts from the moment *before* it sent a renewal that succeeded, and stops a tenth
//   of the time earlier. Whoever has watched the text has seen that renewal later than that. So the
//   old master has ended when the new one begins.
// - A new connection starts the watch again: a server that has restarted may show an older text, or
//   none, while the master still holds the lease. The master writes a text that was lost again.
//
// docs/roles.md has the reasoning, and lists what this cannot promise.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/base/event_loop.h"
#include "platform/driver/lease_driver.h"

namespace qv {

// The text of a lease: "<fence> <count> <ms> <token> <host> <pid>", separated by single spaces.
struct LeaseText {
    uint64_t fence = 0;    // fencing number: one more with each new holder
    uint64_t count = 0;    // renewals by this holder
    uint64_t time_ms = 0;  // time of the lease
    std::string token;     // random, one for each process
    std::string host;
    uint64_t pid = 0;

    bool operator==(const LeaseText&) const = default;
};

std::string lease_text(const LeaseText& lease);
// Nothing when `text`, which comes from outside, is no lease: too long, a part is missing, or a
// number is out of range.
std::optional<LeaseText> parse_lease(const std::string& text);

// Loop thread only.
class Lease final : public LeaseListener {
 public:
    static constexpr std::chrono::milliseconds kShortest{1000};
    static constexpr std::chrono::milliseconds kLongest{60000};

    struct Settings {
        Duration time;   // on the loop's clock, above zero
        LeaseText mine;  // token, host, pid and time_ms of this process, all set
    };
    struct Events {
        // This process is the master. `before` is the lease that it replaced, if that was one.
        std::function<void(const std::optional<LeaseText>& before)> granted;
        // This process is the master no more, for this reason. It must end at once; if this
        // returns, nothing more happens.
        std::function<void(const std::string& reason)> lost;
        // The store is not reached or refuses, logged once for each reason in a row.
        std::function<void(const std::string& reason)> trouble;
    };
    struct State {
        bool master;
        uint64_t fence;  // of the master
        Duration left;   // until the master must end, unless it renews the lease before
    };

    // The loop and the driver must outlive it.
    Lease(EventLoop& loop, LeaseDriver& driver, Settings settings, Events events);

    void start();
    // Call before each piece of work: after a pause of the process it ends the role before that
    // work is done.
    void check();
    State state() const;

    void lease_reached() override;
    void lease_unreachable(const std::string& reason) override;

 private:
    enum class Role { kStandby, kMaster, kEnded };

    // A text, and since when it has not changed.
    struct Seen {
        std::string text;
        Time since;
    };

    void poll();
    void observed(const std::string& text);
    Duration patience(const std::string& text) const;
    void take();
    void taken(const LeaseText& wanted, Time asked, const std::string& replaced,
               const std::string& text);
    void renew();
    void renewed(const LeaseText& wanted, Time asked, const std::string& text);
    Time end_of(Time asked) const;
    void prove(const LeaseText& lease, Time asked);
    void end(const std::string& reason);

    EventLoop& loop_;
    LeaseDriver& driver_;
    const Settings settings_;
    const Events events_;
    Role role_ = Role::kStandby;
    std::string trouble_;         // the reason of the last loss; empty: the store answers
    std::optional<Seen> seen_;    // standby: over this connection
    uint64_t highest_fence_ = 0;  // seen by this process
    LeaseText mine_;              // master: as last proved
    std::string stored_;          // master: the text that it expects in the store
    Time valid_until_{};          // master
    EventLoop::Handle next_;      // poll or renewal
    EventLoop::Handle expiry_;
};

}  // namespace qv
