// Commands for an operator's own session: "terminal ...".
#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/switch_commands.h"

namespace qv::cli {
namespace {

constexpr int64_t kMaxLength = 512;

int monitor_on(cli_pcdb*) {
    current_session()->monitor = true;
    return 0;
}

int monitor_off(cli_pcdb*) {
    current_session()->monitor = false;
    return 0;
}

// The switch sends every answer whole. The length is for the shell, which stops at each page.
int set_length(cli_pcdb* pcdb) {
    current_session()->length = static_cast<int>(pcdb->number[0]);
    return 0;
}

int reset_length(cli_pcdb*) {
    current_session()->length.reset();
    return 0;
}

}  // namespace

void register_terminal_commands() {
    const char* const monitor = "System log messages on this session";
    const cli_node* rows = number("Rows, 0 for no pages", 0, kMaxLength, end_of_line(set_length));
    const cli_node* defaults =
        keyword("monitor", monitor, end_of_line(monitor_off),
                keyword("length", "As high as the terminal", end_of_line(reset_length)));
    const cli_node* settings = keyword("monitor", monitor, end_of_line(monitor_on),
                                       keyword("length", "Rows of a page of output", rows,
                                               keyword("no", "Back to the default", defaults)));
    attach(kChainView, keyword("terminal", "Settings of this session", settings), "terminal");
}

}  // namespace qv::cli
