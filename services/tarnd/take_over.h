// Ports that tarnd has cut, until the switch takes them over or they are given back.
//
// A port is given back when its record, read kTakeOverTime after the cut, says that the switch has
// not shut it. While the object database is away nobody can say so, and the port stays as it is: an
// operator may have shut it meanwhile. The wait begins anew when the database is back: what it has
// then may be what the switch wrote before, and only the answer after that wait counts.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/base/event_loop.h"

namespace qv::tarnd {

class TakeOverOutputs {
 public:
    virtual ~TakeOverOutputs() = default;
    // Asks for the records of all ports. False while the database is away.
    virtual bool ask() = 0;
    // Whether the port has a record, as far as is known.
    virtual bool has_record(uint32_t ifx) = 0;
    virtual void give_back(uint32_t ifx) = 0;
};

// Main thread only.
class TakeOver {
 public:
    static constexpr std::chrono::seconds kTakeOverTime{5};
    static constexpr std::chrono::seconds kAnswer{1};  // records that exist have arrived by then

    TakeOver(EventLoop& loop, TakeOverOutputs& outputs) : loop_(loop), outputs_(outputs) {}

    void cut(uint32_t ifx);
    // The port's record has arrived and says that the switch has shut it. True when the port is the
    // switch's from now on.
    bool taken(uint32_t ifx);
    // The port's record has arrived and says otherwise, or was deleted.
    void not_taken(uint32_t ifx);
    void set_database(bool up);
    // The ports that wait; they do not any more.
    std::vector<uint32_t> release();

 private:
    struct Cut {
        bool asked = false;
        bool outdated = false;  // records that arrive unasked may be older than the cut
        EventLoop::Handle timer = {};
    };

    void wait(uint32_t ifx);
    void ask(uint32_t ifx);
    void unanswered(uint32_t ifx);
    void give_back(uint32_t ifx);

    EventLoop& loop_;
    TakeOverOutputs& outputs_;
    bool database_ = false;
    std::map<uint32_t, Cut> cuts_;
};

}  // namespace qv::tarnd
