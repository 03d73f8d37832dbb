#include "platform/cli/notification_commands.h"

#include <nlohmann/json.hpp>

#include "platform/base/system_log.h"
#include "platform/cli/output_filter.h"
#include "platform/client/notification_ring.h"
#include "qv/cli.h"
#include "qv/netconf.h"

namespace qv {
namespace {

using Json = nlohmann::ordered_json;

void print_leaf(const SentLeaf& leaf) {
    if (leaf.type == NC_LIB_TYPE_INT32) {
        cli_printf("    %s = %d\n", leaf.path.c_str(), static_cast<int>(leaf.value));
    } else {
        cli_printf("    %s = %u\n", leaf.path.c_str(), leaf.value);
    }
}

// Signed leaves are kept as the bits of their value.
Json value_of(const SentLeaf& leaf) {
    return leaf.type == NC_LIB_TYPE_INT32 ? Json(static_cast<int>(leaf.value)) : Json(leaf.value);
}

void print_as_json(const std::vector<SentNotification>& notifications) {
    Json answer = Json::array();
    for (const SentNotification& notification : notifications) {
        Json leaves = Json::array();
        for (const SentLeaf& leaf : notification.leaves) {
            leaves.push_back({{"path", leaf.path}, {"value", value_of(leaf)}});
        }
        answer.push_back({{"time", wall_time_text(notification.time)}, {"leaves", leaves}});
    }
    cli::print_json(answer);
}

int show_notifications(cli_pcdb*) {
    const std::vector<SentNotification> notifications = recent_notifications();
    if (cli::json_wanted()) {
        print_as_json(notifications);
        return 0;
    }
    if (notifications.empty()) {
        cli_printf("No notification has been sent.\n");
        return 0;
    }
    for (const SentNotification& notification : notifications) {
        cli_printf("%s\n", wall_time_text(notification.time).c_str());
        for (const SentLeaf& leaf : notification.leaves) {
            print_leaf(leaf);
        }
    }
    return 0;
}

constexpr cli_keyword_arg Snotifications = {.keyword = "notifications",
                                            .help = "NETCONF notifications sent of late",
                                            .zero = 0,
                                            .attribute = {14, 14},
                                            .word = {1, 2, 0, 0, 0},
                                            .name = "notifications",
                                            .one = 1};
constexpr cli_eol_arg Snotifications_eol = {.one = 1, .handler = show_notifications};

const cli_node Tnotifications_eol = {eol_action, &Snotifications_eol, nullptr, &Tno_alt, nullptr};
const cli_node Tnotifications = {common_keyword_action, &Snotifications, &Tnotifications_eol,
                                 &Tno_alt, nullptr};
const cli_node Tshow_notifications = {append_point_action, nullptr, &Tnotifications, &Tno_alt,
                                      nullptr};

}  // namespace

void register_notification_commands() {
    cli_add_command(CLI_CHAIN_SHOW, &Tshow_notifications, "show notifications");
}

}  // namespace qv
