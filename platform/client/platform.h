// The platform of a process, as the client libraries and the command line see it: loop, clock, logs
// and drivers. Its users own the interface; platform/root implements it for the agent, a test for
// itself.
//
// The first call of any client library makes the platform. Loop thread only, once the loop exists.
#pragma once

#include <memory>

#include "platform/base/background.h"
#include "platform/base/clock.h"
#include "platform/base/config.h"
#include "platform/base/event_loop.h"
#include "platform/base/system_log.h"
#include "platform/client/port_model.h"
#include "platform/driver/switch_driver.h"

namespace qv {

class StoreDriver;
class ForwardingDriver;
class LeaseDriver;

class Platform {
 public:
    virtual ~Platform() = default;

    virtual const PlatformConfig& config() const = 0;
    virtual Clock& clock() = 0;
    virtual SystemLog& system_log() = 0;  // any thread

    // The following exist once qv_thread_master_create has made the loop.
    virtual EventLoop& loop() = 0;
    virtual StoreDriver& store() = 0;
    virtual PortModel& ports() = 0;
    virtual ForwardingDriver& forwarding() = 0;
    virtual Background& background() = 0;
    // The lease of the master role; null when the role is not leased, or by a lock file.
    virtual LeaseDriver* lease() { return nullptr; }

    // From now on the process is the master: until this call a platform whose role is a lease
    // writes nothing into the store.
    virtual void become_master() {}

    // Called by qv_thread_master_create with the process's loop.
    virtual void attach_loop(EventLoop& loop) = 0;
};

// The platform of this process: the installed one, else the one that the maker returns. Without
// either the process aborts.
Platform& platform();

// Installs `platform`; before any other call. The owner keeps it alive for the life of the process.
void install_platform(Platform& platform);

// `maker` is called by the first platform() of a process that has not installed one. It does not
// return without a platform: it ends the process.
using PlatformMaker = std::unique_ptr<Platform> (*)();
void set_platform_maker(PlatformMaker maker);

}  // namespace qv
