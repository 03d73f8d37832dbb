// The lock on the configuration that "configure exclusive" takes. Loop thread only.
//
// The session that holds the lock owns its claim, so the lock ends with the session however that
// ends. It binds operators only: lines of programs and of a replay are never refused. NETCONF
// sessions share it: the shell's lock keeps them from <lock> and edits, and theirs binds operators.
#pragma once

#include <memory>
#include <string>

#include "platform/cli/engine.h"

namespace qv::cli {

// Shares the lock with the NETCONF sessions, which have their files in this folder. Call before the
// first command. Without a call, or while there is no such folder, the shell's is a lock of its
// own.
void share_config_lock(const std::string& folder);

// Gives the session the lock. Returns an empty text on success, else the reason.
std::string take_config_lock(SessionState& session);
// Does nothing when the session has no lock.
void release_config_lock(SessionState& session);
// Takes the lock from its holder on behalf of `session`. Returns false when nobody holds it.
bool clear_config_lock(const SessionState& session);

// The reason why the session may not configure now; empty when it may. A session whose lock was
// cleared must release it first, so that it notices that others may configure now.
std::string config_lock_refusal(const SessionState& session);

bool holds_config_lock(const SessionState& session);
// "root (uid 0, pid 812) since 2026-01-31 14:03:22" or "NETCONF session 7 (alice) since ...", empty
// when nobody holds the lock.
std::string config_lock_holder();

}  // namespace qv::cli
