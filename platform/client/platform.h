// The composition root's face: the one place that knows which drivers this process runs on.
//
// The client libraries ask here for what they stand on. The platform comes to life on the first
// call of any client library: the file named in LDA_PLATFORM is read then, and a bad one ends the
// process with file, line and reason on standard error. Loop thread only, once the loop exists.
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

    // Called by qv_thread_master_create with the process's loop.
    virtual void attach_loop(EventLoop& loop) = 0;
};

// The platform of this process.
Platform& platform();

// A platform as `config` describes it, on the given clock and system log.
std::unique_ptr<Platform> make_platform(PlatformConfig config, std::unique_ptr<Clock> clock,
                                        std::unique_ptr<SystemLog> log);

// Puts `platform` in place of the one that LDA_PLATFORM describes; before any other call. The owner
// keeps it alive for the life of the process. For tests and tools.
void install_platform(Platform& platform);

}  // namespace qv
