// One NETCONF session on standard input and output: its life from <hello> to the end.
#pragma once

#include <libnetconf2/session_server.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/base/running_lock.h"
#include "services/netconf/options.h"
#include "services/netconf/schema.h"
#include "services/netconf/shared_state.h"
#include "services/netconf/subscription.h"

namespace netconf {

// The session as the operations see it.
struct Session {
    const Options& options;
    const ly_ctx* context;
    const SessionNumber& number;
    qv::RunningLock lock;
    std::unique_ptr<Subscription> subscription;  // null: not requested
    nc_session* link = nullptr;
    bool may_change = true;  // the configuration; constant
};

// Says hello on standard input and output and serves the client until the session ends. Logs the
// beginning and the reason of the end. Returns the exit status of the process: 0 when the client
// closed or dropped the session, 1 when it was at fault. Throws std::runtime_error when the session
// cannot be started.
int run_session(const Options& options, ly_ctx* context, const SessionNumber& number,
                const std::string& user);

// "session 7", or the operator who has locked the configuration from the shell.
std::string who(const qv::RunningLockHolder& holder);

}  // namespace netconf
