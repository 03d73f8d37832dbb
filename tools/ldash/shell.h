// The interactive shell: line editing, history, TAB completion, "?" help, prompts of the mode.
#pragma once

#include "connection.h"

namespace ldash {

// Runs until the operator leaves. Throws std::runtime_error when the connection is lost.
void run_shell(Connection& connection);

}  // namespace ldash
