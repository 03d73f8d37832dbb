// A session of an invented operator.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cli/engine.h"
#include "tests/support/test_platform.h"

namespace qv::test {

struct OperatorSession {
    OperatorSession(const std::string& name, uid_t uid, pid_t pid) {
        state.caller = cli::Caller{uid, uid, {}, pid, name};
    }
    // Executes a line and returns its output; `code` keeps its result.
    std::string type(std::string_view line) {
        const cli::Result result = cli::execute(state, line);
        code = result.code;
        return result.output;
    }

    cli::SessionState state;
    int code = 0;
};

// The messages so far that begin with `beginning`.
inline std::vector<std::string> logged(const RecordingLog& log, std::string_view beginning) {
    std::vector<std::string> lines = log.lines();
    std::erase_if(lines, [=](const std::string& line) { return !line.starts_with(beginning); });
    return lines;
}

}  // namespace qv::test
