// "show users" and "show history": the operators' sessions, and the lines of one's own.
#include <chrono>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_lock.h"
#include "platform/cli/engine.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/socket_server.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/table.h"
#include "platform/client/platform.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

// Operators live in real time, whatever the speed of a simulated switch's clock.
int64_t real_seconds(Duration time) {
    const double seconds = std::chrono::duration<double>(time).count();
    return static_cast<int64_t>(seconds / platform().config().speed);
}

// Such as "0:05:09".
std::string clock_text(int64_t seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
                  static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    return text;
}

int show_users(cli_pcdb*) {
    Table table({{"own", "", 1},
                 {"session", "Session", 7},
                 {"user", "User", 16},
                 {"uid", "UID", 6},
                 {"pid", "PID", 7},
                 {"mode", "Mode", 9},
                 {"lock", "Lock", 4},
                 {"idle", "Idle", 0}});
    const uint64_t own = current_session()->number;
    for (const SocketSession* session : socket_server()->sessions()) {
        const SessionState& state = session->state();
        const Caller& caller = *state.caller;
        const int64_t idle = real_seconds(session->silence());
        table.add({state.number == own, state.number,
                   caller.name.empty() ? Json() : Json(caller.name), caller.uid, caller.pid,
                   state.mode, holds_config_lock(state),
                   json_wanted() ? Json(idle) : Json(clock_text(idle))});
    }
    table.print();
    return 0;
}

int show_history(cli_pcdb*) {
    for (const std::string& line : current_session()->history) {
        cli_printf("%s\n", line.c_str());
    }
    return 0;
}

}  // namespace

void register_user_commands() {
    attach(CLI_CHAIN_SHOW, keyword("users", "Sessions of operators", end_of_line(show_users)),
           "show users");
    attach(CLI_CHAIN_SHOW,
           keyword("history", "Newest lines of this session", end_of_line(show_history)),
           "show history");
}

}  // namespace qv::cli
