// Faults on request, for tests and for the embedded switch's "test ..." commands. Any thread.
#pragma once

#include <string>

namespace qv::cli {

// The next configuration line (modes config, interface, ifrange) that begins with `line`, after
// blanks are squeezed, is not executed: it prints `text` and returns `result`. An empty `line`
// matches every configuration line. Several requests apply in order, each once. With an empty text
// and a negative result the line fails without output.
void refuse_next_line(std::string line, std::string text, int result = 1);

// The next `count` calls of cli_sub_create_session fail with -1.
void fail_next_sessions(unsigned count);

// The functions that fault_seam.h calls. Return true when a request applies, and remove it.
bool take_refusal(const std::string& line, std::string& text, int& result);
bool take_session_failure();

}  // namespace qv::cli
