// "show logging" and "clear logging": the recent messages of this process.
#include <ctime>
#include <nlohmann/json.hpp>

#include "platform/base/message_log.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/config_log.h"
#include "platform/cli/engine.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"

namespace qv::cli {
namespace {

void print_log_as_json() {
    nlohmann::ordered_json messages = nlohmann::ordered_json::array();
    for (const LoggedMessage& message : recent_log()) {
        messages.push_back({{"time", wall_time_text(message.time)}, {"message", message.text}});
    }
    print_json(messages);
}

int show_log(cli_pcdb*) {
    if (json_wanted()) {
        print_log_as_json();
        return 0;
    }
    for (const LoggedMessage& message : recent_log()) {
        const std::time_t second = std::chrono::system_clock::to_time_t(message.time);
        std::tm local{};
        localtime_r(&second, &local);
        char stamp[32] = "";
        std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
        cli_printf("%s %s\n", stamp, message.text.c_str());
    }
    return 0;
}

// The message about it goes to the system log only: the list is empty afterwards.
int clear_log(cli_pcdb*) {
    log_entered(*current_session(), "clear logging", "");
    clear_recent_log();
    return 0;
}

}  // namespace

void register_logging_commands() {
    attach(CLI_CHAIN_SHOW, keyword("logging", "Recent system log messages", end_of_line(show_log)),
           "show logging");
    attach(kChainExec,
           keyword("clear", "Reset",
                   keyword("logging", "Recent system log messages", end_of_line(clear_log))),
           "clear logging");
}

}  // namespace qv::cli
