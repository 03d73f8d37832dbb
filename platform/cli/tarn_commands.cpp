#include "platform/cli/tarn_commands.h"

#include <vector>

#include "platform/cli/command_trees.h"

namespace qv::cli {
namespace {

constexpr int64_t kShortestRecovery_s = 30;
constexpr int64_t kLongestRecovery_s = 86400;
constexpr int64_t kShortestProbeInterval_ms = 100;
constexpr int64_t kLongestProbeInterval_ms = 10000;

TarnConfig& config() {
    static TarnConfig& instance = *new TarnConfig;
    return instance;
}

std::vector<std::function<void()>>& observers() {
    static auto& instance = *new std::vector<std::function<void()>>;
    return instance;
}

void announce() {
    for (const auto& observer : observers()) {
        observer();
    }
}

int set_enabled(cli_pcdb* pcdb) {
    const bool enabled = !(pcdb->prefix & CLI_PREFIX_NO);
    if (enabled != config().enabled) {
        config().enabled = enabled;
        announce();
    }
    return 0;
}

int set_interval(cli_pcdb* pcdb) {
    const int64_t interval_s = (pcdb->prefix & CLI_PREFIX_NO) ? 0 : pcdb->number[0];
    if (interval_s != config().error_recover_interval_s) {
        config().error_recover_interval_s = interval_s;
        announce();
    }
    return 0;
}

int set_probe_interval(cli_pcdb* pcdb) {
    const int64_t interval_ms =
        (pcdb->prefix & CLI_PREFIX_NO) ? kDefaultProbeInterval_ms : pcdb->number[0];
    if (interval_ms != config().probe_interval_ms) {
        config().probe_interval_ms = interval_ms;
        announce();
    }
    return 0;
}

int set_port(cli_pcdb* pcdb) {
    const bool changed = (pcdb->prefix & CLI_PREFIX_NO) ? config().ports.erase(pcdb->ifx) != 0
                                                        : config().ports.insert(pcdb->ifx).second;
    if (changed) {
        announce();
    }
    return 0;
}

int print_enabled(cli_pcdb* pcdb) {
    if (config().enabled) {
        c2p_printf(pcdb, 1, "tarn enable");
    }
    return 0;
}

int print_interval(cli_pcdb* pcdb) {
    if (config().error_recover_interval_s != 0) {
        c2p_printf(pcdb, 1, "tarn error-recover interval %lld",
                   static_cast<long long>(config().error_recover_interval_s));
    }
    return 0;
}

int print_probe_interval(cli_pcdb* pcdb) {
    if (config().probe_interval_ms != kDefaultProbeInterval_ms) {
        c2p_printf(pcdb, 1, "tarn probe-interval %lld",
                   static_cast<long long>(config().probe_interval_ms));
    }
    return 0;
}

int print_port(cli_pcdb* pcdb) {
    if (tarn_port_enabled(pcdb->ifx)) {
        c2p_printf(pcdb, 1, "tarn port loop-detect warning");
    }
    return 0;
}

}  // namespace

const TarnConfig& tarn_config() {
    return config();
}

bool tarn_enabled() {
    return config().enabled;
}

bool tarn_port_enabled(uint64_t ifx) {
    return config().ports.contains(ifx);
}

void add_tarn_observer(std::function<void()> observer) {
    observers().push_back(std::move(observer));
}

void tarn_forget_port(uint64_t ifx) {
    if (config().ports.erase(ifx) != 0) {
        announce();
    }
}

void register_tarn_commands() {
    const cli_node* enabled = end_of_line(set_enabled);
    const cli_node* interval = end_of_line(set_interval);
    const cli_node* seconds = number("Seconds", kShortestRecovery_s, kLongestRecovery_s, interval);
    const cli_node* period = end_of_line(set_probe_interval);
    const cli_node* milliseconds =
        number("Milliseconds", kShortestProbeInterval_ms, kLongestProbeInterval_ms, period);
    const cli_node* probe_interval =
        keyword("probe-interval", "Time between two probes of an interface",
                print_config(print_probe_interval, with_no(period, milliseconds)));
    const cli_node* global = keyword(
        "enable", "Run the protocol", print_config(print_enabled, with_no(enabled, enabled)),
        keyword("error-recover", "Recovery after an error",
                keyword("interval", "Time until the next attempt",
                        print_config(print_interval, with_no(interval, seconds))),
                probe_interval));
    attach(CLI_CHAIN_CONFIG, keyword("tarn", "Peer loop detection protocol", global), "tarn");

    const cli_node* port = end_of_line(set_port);
    const cli_node* warning = keyword("warning", "Report a loop and do nothing else", port);
    attach(CLI_CHAIN_INTERFACE,
           keyword("tarn", "Peer loop detection protocol",
                   keyword("port", "On this interface",
                           keyword("loop-detect", "Loop detection",
                                   print_config(print_port, with_no(port, warning))))),
           "tarn port");
}

}  // namespace qv::cli
