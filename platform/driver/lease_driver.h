// The store's side of the master's lease: one text in a store that all agents of the switch reach.
// It can be read, and replaced by whoever knows what it is. client/lease.h says what it means.
//
// Loop thread only. Reports and answers arrive through the loop, never inside a request.
#pragma once

#include <functional>
#include <string>

namespace qv {

class LeaseListener {
 public:
    virtual ~LeaseListener() = default;
    // Connected, for the first time or again. Until the next loss, the server does not restart and
    // forgets nothing.
    virtual void lease_reached() = 0;
    // Not connected, or a request was refused: `reason`, for an operator. Requests without an
    // answer get none. The driver tries again by itself.
    virtual void lease_unreachable(const std::string& reason) = 0;
};

class LeaseDriver {
 public:
    // `text` is the text in the store after the request; empty: there is none. It comes from
    // outside.
    using Answer = std::function<void(const std::string& text)>;

    virtual ~LeaseDriver() = default;
    // Once. The listener must outlive the driver.
    virtual void connect(LeaseListener& listener) = 0;
    // Requests are dropped while the store is not reached.
    virtual void read(Answer answer) = 0;
    // Stores `wanted` if the present text is `expected`, in one step.
    virtual void replace(const std::string& expected, const std::string& wanted, Answer answer) = 0;
};

}  // namespace qv
