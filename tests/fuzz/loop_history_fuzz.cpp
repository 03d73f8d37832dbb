// The file of the history of loops, as a full disk or a stranger may have left it.
#include <string>

#include "platform/cli/loop_history_text.h"
#include "tests/fuzz/agent.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const cli::ReadHistory history = cli::read_history(fuzz::text_of(data, size));
    fuzz::require(history.events.size() <= cli::HeldPorts::kMaxEvents, "the history is bounded");
    for (const cli::LoopEvent& event : history.events) {
        fuzz::require(event.facts.vlan <= 4094, "a VLAN");
        fuzz::require(!event.duration || event.duration->count() >= 0, "a duration");
    }
    const cli::ReadHistory again = cli::read_history(cli::history_text(history.events));
    fuzz::require(again.intact && again.events.size() == history.events.size(),
                  "what was read can be written");
    return 0;
}
