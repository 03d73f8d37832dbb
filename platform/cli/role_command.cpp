// "show role": who acts for the switch, and for how long that is sure.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/client/role.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;

void print_role_as_json(const RoleReport& report) {
    print_json({{"role", "master"},
                {"mode", report.leased ? "lease" : "solo"},
                {"host", report.host},
                {"pid", report.pid},
                {"fence", report.lease ? Json(report.lease->fence) : Json()},
                {"left_ms", report.lease ? Json(report.lease->left.count()) : Json()}});
}

int show_role(cli_pcdb*) {
    const RoleReport report = role_report();
    if (json_wanted()) {
        print_role_as_json(report);
        return 0;
    }
    cli_printf("Role: master\n");
    cli_printf("Mode: %s\n", report.leased ? "lease" : "solo");
    cli_printf("Holder: process %d on %s\n", static_cast<int>(report.pid), report.host.c_str());
    if (report.lease) {
        cli_printf("Fencing number: %llu\n", static_cast<unsigned long long>(report.lease->fence));
        cli_printf("Time left: %lld ms\n", static_cast<long long>(report.lease->left.count()));
    }
    return 0;
}

}  // namespace

void register_role_command() {
    attach(CLI_CHAIN_SHOW,
           keyword("role", "Whether this process acts for the switch", end_of_line(show_role)),
           "show role");
}

}  // namespace qv::cli
