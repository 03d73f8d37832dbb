#include "platform/cli/tarn_commands.h"

#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/cli/vlan_list.h"

namespace qv::cli {
namespace {

constexpr int64_t kShortestRecovery_s = 30;
constexpr int64_t kLongestRecovery_s = 86400;
constexpr int64_t kDefaultGuard_ms = 30;

TarnConfig& config() {
    static TarnConfig& instance = *new TarnConfig;
    return instance;
}

std::vector<TarnObserver>& observers() {
    static auto& instance = *new std::vector<TarnObserver>;
    return instance;
}

bool has_no(const cli_pcdb* pcdb) {
    return (pcdb->prefix & CLI_PREFIX_NO) != 0;
}

void announce(uint64_t ifx) {
    for (const auto& observer : observers()) {
        observer(ifx);
    }
}

template <typename T>
int set(T& setting, T value) {
    if (setting != value) {
        setting = std::move(value);
        announce(0);
    }
    return 0;
}

int set_enabled(cli_pcdb* pcdb) {
    return set(config().enabled, !has_no(pcdb));
}

int set_recovery(cli_pcdb* pcdb) {
    return set(config().error_recover_interval_s, has_no(pcdb) ? 0 : pcdb->number[0]);
}

int set_probe_interval(cli_pcdb* pcdb) {
    return set(config().probe_interval_ms,
               has_no(pcdb) ? kDefaultProbeInterval_ms : pcdb->number[0]);
}

int set_cut_one(cli_pcdb* pcdb) {
    return set(config().cut_one, !has_no(pcdb));
}

int set_cut_both(cli_pcdb*) {
    return set(config().cut_one, false);
}

int set_priority(cli_pcdb* pcdb) {
    return set(config().priority, has_no(pcdb) ? kDefaultTarnPriority : pcdb->number[0]);
}

// The service that runs the protocol reads the file; it need not exist yet.
int set_fabric_key(cli_pcdb* pcdb) {
    const std::string path = has_no(pcdb) ? "" : pcdb->word[0];
    if (!has_no(pcdb) && !path.starts_with('/')) {
        return refuse("Invalid key file: '" + path + "' is not an absolute path.");
    }
    return set(config().fabric_key, path);
}

int set_port(uint64_t ifx, const TarnPort& lines) {
    if (lines == tarn_port(ifx)) {
        return 0;
    }
    if (lines == TarnPort{}) {
        config().ports.erase(ifx);
    } else {
        config().ports[ifx] = lines;
    }
    announce(ifx);
    return 0;
}

int set_loop_detect(cli_pcdb* pcdb) {
    TarnPort lines = tarn_port(pcdb->ifx);
    lines.loop_detect = !has_no(pcdb);
    return set_port(pcdb->ifx, lines);
}

int set_guard(cli_pcdb* pcdb) {
    TarnPort lines = tarn_port(pcdb->ifx);
    lines.guard_ms = pcdb->number[0] != 0 ? pcdb->number[0] : kDefaultGuard_ms;
    return set_port(pcdb->ifx, lines);
}

int clear_guard(cli_pcdb* pcdb) {
    TarnPort lines = tarn_port(pcdb->ifx);
    lines.guard_ms = 0;
    return set_port(pcdb->ifx, lines);
}

int set_vlans(cli_pcdb* pcdb) {
    TarnPort lines = tarn_port(pcdb->ifx);
    const auto vlans = has_no(pcdb) ? std::vector<uint16_t>{} : parse_vlan_list(pcdb->word[0]);
    if (!vlans) {
        return refuse("Invalid VLAN list: '" + std::string(pcdb->word[0]) +
                      "' is not made of numbers and ranges from 1 to 4094, as in 10,20-30.");
    }
    lines.vlans = *vlans;
    return set_port(pcdb->ifx, lines);
}

int print_enabled(cli_pcdb* pcdb) {
    if (config().enabled) {
        c2p_printf(pcdb, 1, "tarn enable");
    }
    return 0;
}

void print_number(cli_pcdb* pcdb, const char* line, int64_t value, int64_t unprinted) {
    if (value != unprinted) {
        c2p_printf(pcdb, 1, "%s %lld", line, static_cast<long long>(value));
    }
}

int print_recovery(cli_pcdb* pcdb) {
    print_number(pcdb, "tarn error-recover interval", config().error_recover_interval_s, 0);
    return 0;
}

int print_probe_interval(cli_pcdb* pcdb) {
    print_number(pcdb, "tarn probe-interval", config().probe_interval_ms, kDefaultProbeInterval_ms);
    return 0;
}

int print_cut(cli_pcdb* pcdb) {
    if (config().cut_one) {
        c2p_printf(pcdb, 1, "tarn cut one");
    }
    return 0;
}

int print_priority(cli_pcdb* pcdb) {
    print_number(pcdb, "tarn priority", config().priority, kDefaultTarnPriority);
    return 0;
}

int print_fabric_key(cli_pcdb* pcdb) {
    if (!config().fabric_key.empty()) {
        c2p_printf(pcdb, 1, "tarn fabric-key %s", config().fabric_key.c_str());
    }
    return 0;
}

int print_loop_detect(cli_pcdb* pcdb) {
    if (tarn_port_enabled(pcdb->ifx)) {
        c2p_printf(pcdb, 1, "tarn port loop-detect warning");
    }
    return 0;
}

int print_guard(cli_pcdb* pcdb) {
    print_number(pcdb, "tarn link-up guard", tarn_port(pcdb->ifx).guard_ms, 0);
    return 0;
}

int print_vlans(cli_pcdb* pcdb) {
    const TarnPort& lines = tarn_port(pcdb->ifx);
    if (!lines.vlans.empty()) {
        c2p_printf(pcdb, 1, "tarn vlan %s", print_vlan_list(lines.vlans).c_str());
    }
    return 0;
}

// "no WORD" and "WORD ARGUMENT", printed by `print`.
const cli_node* setting(const char* word, const char* help, cli_handler print, const cli_node* undo,
                        const cli_node* argument, const cli_node* alternative = &Tno_alt) {
    return keyword(word, help, print_config(print, with_no(undo, argument)), alternative);
}

const cli_node* switch_settings() {
    const cli_node* enabled = end_of_line(set_enabled);
    const cli_node* recovery = end_of_line(set_recovery);
    const cli_node* interval = end_of_line(set_probe_interval);
    const cli_node* one = end_of_line(set_cut_one);
    const cli_node* priority = end_of_line(set_priority);
    const cli_node* key = end_of_line(set_fabric_key);

    const cli_node* settings =
        setting("fabric-key", "Key that all switches share, 32 bytes", print_fabric_key, key,
                any_word("FILE", "Absolute path", key));
    settings = setting("priority", "Which switch cuts a loop through several: the lowest number",
                       print_priority, priority,
                       number("Priority", 0, kHighestTarnPriority, priority), settings);
    settings = setting(
        "cut", "What is done to two ports of this switch that are in one loop", print_cut, one,
        keyword("both", "Report both", end_of_line(set_cut_both),
                keyword("one", "Report only one, no trunk if there is a choice", one)),
        settings);
    settings = setting(
        "probe-interval", "Time between two probes of an interface", print_probe_interval, interval,
        number("Milliseconds", kShortestProbeInterval_ms, kLongestProbeInterval_ms, interval),
        settings);
    settings =
        keyword("error-recover", "Recovery after an error",
                setting("interval", "Time until the next attempt", print_recovery, recovery,
                        number("Seconds", kShortestRecovery_s, kLongestRecovery_s, recovery)),
                settings);
    return setting("enable", "Run the protocol", print_enabled, enabled, enabled, settings);
}

const cli_node* port_settings() {
    const cli_node* loop_detect = end_of_line(set_loop_detect);
    const cli_node* vlans = end_of_line(set_vlans);
    const cli_node* guard = end_of_line(set_guard);

    const cli_node* settings =
        setting("vlan", "VLANs that are probed with tagged frames", print_vlans, vlans,
                any_word("LIST", "Such as 10,20-30", vlans));
    settings = keyword("link-up", "When the link comes up",
                       setting("guard", "Probe before the interface forwards", print_guard,
                               end_of_line(clear_guard),
                               number("Milliseconds, 30 by default", kShortestGuard_ms,
                                      kLongestGuard_ms, guard, guard)),
                       settings);
    return keyword("port", "On this interface",
                   setting("loop-detect", "Loop detection", print_loop_detect, loop_detect,
                           keyword("warning", "Report a loop and do nothing else", loop_detect)),
                   settings);
}

}  // namespace

const TarnConfig& tarn_config() {
    return config();
}

const TarnPort& tarn_port(uint64_t ifx) {
    static const TarnPort defaults;
    const auto found = config().ports.find(ifx);
    return found != config().ports.end() ? found->second : defaults;
}

bool tarn_enabled() {
    return config().enabled;
}

bool tarn_port_enabled(uint64_t ifx) {
    return tarn_port(ifx).loop_detect;
}

void add_tarn_observer(TarnObserver observer) {
    observers().push_back(std::move(observer));
}

void announce_tarn_port(uint32_t ifx) {
    announce(ifx);
}

void tarn_forget_port(uint64_t ifx) {
    set_port(ifx, {});
}

void register_tarn_commands() {
    constexpr const char* kHelp = "Peer loop detection protocol";
    attach(CLI_CHAIN_CONFIG, keyword("tarn", kHelp, switch_settings()), "tarn");
    attach(CLI_CHAIN_INTERFACE, keyword("tarn", kHelp, port_settings()), "tarn port");
}

}  // namespace qv::cli
