// "show notifications": the recent NETCONF notifications of this process.
#include <nlohmann/json.hpp>

#include "platform/base/system_log.h"
#include "platform/cli/command_trees.h"
#include "platform/cli/output_filter.h"
#include "platform/cli/switch_commands.h"
#include "platform/client/notification_ring.h"
#include "qv/netconf.h"

namespace qv::cli {
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
    print_json(answer);
}

int show_notifications(cli_pcdb*) {
    const std::vector<SentNotification> notifications = recent_notifications();
    if (json_wanted()) {
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

}  // namespace

void register_notification_commands() {
    attach(CLI_CHAIN_SHOW,
           keyword("notifications", "NETCONF notifications sent of late",
                   end_of_line(show_notifications)),
           "show notifications");
}

}  // namespace qv::cli
