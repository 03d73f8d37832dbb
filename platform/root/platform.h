// Puts platforms together. The only place that knows both driver sets.
#pragma once

#include <memory>

#include "platform/base/config.h"
#include "platform/client/platform.h"

namespace qv {

// A platform as `config` describes it, on the given clock and system log. It must live as long as
// the process once a loop is attached.
std::unique_ptr<Platform> make_platform(PlatformConfig config, std::unique_ptr<Clock> clock,
                                        std::unique_ptr<SystemLog> log);

// The platform that the file named in LDA_PLATFORM describes; the embedded switch when the variable
// is not set. A bad file ends the process with file, line and reason on standard error.
std::unique_ptr<Platform> describe_platform();

}  // namespace qv
