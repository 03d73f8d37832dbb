// Configuration on trial: the switch returns to the previous configuration unless an operator
// confirms the new one in time ("configure terminal revert", "configure replace FILE confirm").
// Loop thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace qv::cli {

inline constexpr int64_t kMaxReturnMinutes = 1440;

// Saves the present configuration and returns to it after `minutes` of real time. One return at a
// time. Returns an empty text on success, else the reason.
std::string begin_timed_return(int64_t minutes);
// Cancels the return. `done` gets an empty text once that is on the disk, or the reason why a
// restart would still return.
void cancel_timed_return(std::function<void(const std::string& reason)> done);
// The same for a caller that cannot wait: on this thread.
std::string cancel_timed_return_here();
// Continues a return that was pending when the previous process ended. Call it once, after the
// replay of the saved configuration.
void resume_timed_return();

bool return_pending();
// "2026-01-31 14:30:12", when the pending return is due.
std::string return_due();

}  // namespace qv::cli
