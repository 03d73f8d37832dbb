// A line walks through the command trees in every mode, without being executed: parsing, help and
// completion.
#include <algorithm>
#include <sstream>
#include <string>

#include "platform/cli/engine.h"
#include "qv/cli.h"
#include "tests/fuzz/agent.h"

using namespace qv;

namespace {

// Every completion on offer must continue the line's last word.
void check_completions(cli::SessionState& session, std::string_view line) {
    const size_t blank = line.find_last_of(" \t");
    const std::string_view last =
        blank == std::string_view::npos ? line : line.substr(std::min(blank + 1, line.size()));
    std::istringstream offered(cli::completions(session, line));
    for (std::string word; std::getline(offered, word);) {
        fuzz::require(word.starts_with(last), "a completion begins with the word at hand");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::start_agent();
    const std::string line(fuzz::text_of(data, size));
    for (const char* const mode : {"exec", "config", "interface", "ifrange"}) {
        for (const bool privileged : {true, false}) {
            cli::SessionState session;
            session.mode = mode;
            session.ifx = 1;
            session.range = {1, 2};
            session.privileged = privileged;
            cli::parses(session, line);
            cli::help_text(session, line);
            check_completions(session, line);
            fuzz::require(session.mode == mode, "asking changes no mode");
        }
    }
    return 0;
}
