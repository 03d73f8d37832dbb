#include "platform/driver/embedded/simulation_commands.h"

#include <cerrno>
#include <deque>
#include <string>
#include <string_view>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/driver/embedded/embedded_forwarding.h"
#include "platform/driver/embedded/embedded_switch.h"
#include "platform/driver/embedded/memory_store.h"
#include "platform/driver/embedded/scripted_faults.h"
#include "qv/cli.h"

namespace qv::cli {
namespace {

constexpr int64_t kMaxRate = 1'000'000'000;  // packets per second
constexpr int64_t kMaxDatabase = 31;
constexpr int64_t kMaxSessions = 1000;
constexpr int64_t kMaxRequests = 1000;
constexpr int64_t kMaxTicks = 3600;  // of the plane, a second each

EmbeddedSwitch* g_ports = nullptr;
EmbeddedForwarding* g_plane = nullptr;
MemoryStore* g_store = nullptr;

int answer(const std::string& fault) {
    return fault.empty() ? 0 : refuse(fault);
}

// Calls `act` with the port named in word 0.
template <typename Act>
int with_port(const cli_pcdb* pcdb, Act act) {
    const Port* port = g_ports->find_port(pcdb->word[0]);
    if (!port) {
        return refuse("no port is named " + std::string(pcdb->word[0]));
    }
    return answer(act(*port));
}

// The same with the indexes of the two ports named in words 0 and 1.
template <typename Act>
int with_two_ports(const cli_pcdb* pcdb, Act act) {
    return with_port(pcdb, [&](const Port& first) -> std::string {
        const Port* second = g_ports->find_port(pcdb->word[1]);
        return second ? act(first.ifx, second->ifx)
                      : "no port is named " + std::string(pcdb->word[1]);
    });
}

int port_add(cli_pcdb* pcdb) {
    return answer(g_ports->add_port(pcdb->word[0]));
}

int port_delete(cli_pcdb* pcdb) {
    return with_port(pcdb, [](const Port& port) { return g_ports->delete_port(port.ifx); });
}

int port_rename(cli_pcdb* pcdb) {
    return with_port(
        pcdb, [&](const Port& port) { return g_ports->rename_port(port.ifx, pcdb->word[1]); });
}

int port_leave(cli_pcdb* pcdb) {
    return with_port(pcdb, [](const Port& port) { return g_ports->leave_bridge(port.ifx); });
}

int loop_plug(cli_pcdb* pcdb) {
    return with_two_ports(pcdb, [](uint32_t a, uint32_t b) { return g_ports->plug(a, b); });
}

int loop_unplug(cli_pcdb* pcdb) {
    return with_two_ports(pcdb, [](uint32_t a, uint32_t b) { return g_ports->unplug(a, b); });
}

int storm(cli_pcdb* pcdb) {
    const auto pps = static_cast<uint64_t>(pcdb->number[0]);
    return with_port(pcdb, [pps](const Port& port) { return g_ports->set_storm(port.ifx, pps); });
}

int aggregate_create(cli_pcdb* pcdb) {
    return answer(g_ports->add_aggregate(pcdb->word[0]));
}

int aggregate_join(cli_pcdb* pcdb) {
    return with_two_ports(
        pcdb, [](uint32_t whole, uint32_t port) { return g_ports->join_aggregate(whole, port); });
}

int aggregate_leave(cli_pcdb* pcdb) {
    return with_two_ports(
        pcdb, [](uint32_t whole, uint32_t port) { return g_ports->leave_aggregate(whole, port); });
}

int vsl_create(cli_pcdb* pcdb) {
    return with_port(pcdb, [](const Port& port) { return g_ports->create_vsl(port.ifx); });
}

int vsl_remove(cli_pcdb* pcdb) {
    return with_port(pcdb, [](const Port& port) { return g_ports->remove_vsl(port.ifx); });
}

template <EmbeddedForwarding::Request Kind>
int forwarding_fail(cli_pcdb* pcdb) {
    g_plane->fail_next(Kind, ENOSPC, static_cast<unsigned>(pcdb->number[0]));
    return 0;
}

int forwarding_delay(cli_pcdb* pcdb) {
    g_plane->delay_answers(static_cast<unsigned>(pcdb->number[0]));
    return 0;
}

int forwarding_lose(cli_pcdb* pcdb) {
    return with_port(pcdb, [](const Port& port) -> std::string {
        if (!g_plane->port_rules().contains(port.phyid)) {
            return "no rule is installed on " + port.name;
        }
        g_plane->lose_rule(port.phyid, EIO);
        return "";
    });
}

int refuse_line(cli_pcdb* pcdb) {
    refuse_next_line("", pcdb->word[0]);
    return 0;
}

int fail_sessions(cli_pcdb* pcdb) {
    fail_next_sessions(static_cast<unsigned>(pcdb->number[0]));
    return 0;
}

int database_drop(cli_pcdb* pcdb) {
    const auto db = static_cast<uint32_t>(pcdb->number[0]);
    if (!g_store->up(db)) {
        return refuse("the database is away already");
    }
    g_store->drop(db);
    return 0;
}

int database_restore(cli_pcdb* pcdb) {
    const auto db = static_cast<uint32_t>(pcdb->number[0]);
    if (g_store->up(db)) {
        return refuse("the database is not away");
    }
    g_store->restore(db);
    return 0;
}

// A word slot with its number: these commands take two names.
const cli_node* name(uint32_t slot, const char* shown, const char* help, const cli_node* accept) {
    static auto& arguments = *new std::deque<cli_word_arg>;
    static auto& nodes = *new std::deque<cli_node>;
    const cli_word_arg& argument = arguments.emplace_back(cli_word_arg{shown, help, slot, false});
    return &nodes.emplace_back(cli_node{common_word_action, &argument, accept, &Tno_alt, nullptr});
}

const cli_node* one_name(const char* shown, const char* help, cli_handler handler) {
    return name(0, shown, help, end_of_line(handler));
}

const cli_node* two_names(const char* first, const char* second, const char* help,
                          cli_handler handler) {
    return name(0, first, help, name(1, second, help, end_of_line(handler)));
}

const cli_node* port_commands() {
    return keyword("add", "Add a port", one_name("NAME", "Name of the new port", port_add),
                   keyword("delete", "Delete a port", one_name("PORT", "Port", port_delete),
                           keyword("rename", "Give a port another name",
                                   two_names("PORT", "NAME", "Port and new name", port_rename),
                                   keyword("leave", "Take a port out of the bridge",
                                           one_name("PORT", "Port", port_leave)))));
}

const cli_node* loop_commands() {
    return keyword("plug", "Plug a cable between two ports",
                   two_names("PORT", "PORT", "Ends of the cable, may be the same", loop_plug),
                   keyword("unplug", "Pull the cable between two ports",
                           two_names("PORT", "PORT", "Ends of the cable", loop_unplug)));
}

const cli_node* aggregate_commands() {
    return keyword(
        "create", "Make an aggregate port",
        one_name("NAME", "Name of the new aggregate port", aggregate_create),
        keyword(
            "join", "Make a port a member of an aggregate port",
            two_names("AGGREGATE", "PORT", "Aggregate port and member", aggregate_join),
            keyword("leave", "Take a member out of an aggregate port",
                    two_names("AGGREGATE", "PORT", "Aggregate port and member", aggregate_leave))));
}

const cli_node* vsl_commands() {
    return keyword("create", "Turn a port into a virtual switch link",
                   one_name("PORT", "Port", vsl_create),
                   keyword("remove", "Turn a virtual switch link back into a port",
                           one_name("PORT", "Port", vsl_remove)));
}

const cli_node* forwarding_commands() {
    using enum EmbeddedForwarding::Request;
    const auto requests = [](cli_handler handler) {
        return number("How many", 1, kMaxRequests, end_of_line(handler));
    };
    const cli_node* kinds =
        keyword("acl", "Requests for an access control list", requests(forwarding_fail<kAcl>),
                keyword("entry", "Requests for an entry", requests(forwarding_fail<kEntry>),
                        keyword("apply", "Requests to apply a rule to a port or to the switch",
                                requests(forwarding_fail<kApply>))));
    return keyword(
        "fail", "Let the next requests fail for want of room", kinds,
        keyword(
            "delay", "Answer later requests late",
            number("Seconds, 0 ends it", 0, kMaxTicks, end_of_line(forwarding_delay)),
            keyword("lose", "Lose the rule of a port", one_name("PORT", "Port", forwarding_lose))));
}

const cli_node* database_commands() {
    const char* const help = "Number of the database";
    return keyword("drop", "Lose the sessions with a database",
                   number(help, 0, kMaxDatabase, end_of_line(database_drop)),
                   keyword("restore", "Bring the sessions with a database back",
                           number(help, 0, kMaxDatabase, end_of_line(database_restore))));
}

const cli_node* all_commands() {
    const cli_node* list = &Tno_alt;
    if (g_store) {
        list = keyword("database", "Database that goes away", database_commands(), list);
    }
    list = keyword("fail-sessions", "Let the next command sessions of the agent fail",
                   number("How many", 0, kMaxSessions, end_of_line(fail_sessions)), list);
    list = keyword("refuse", "Refuse the next configuration line",
                   rest_of_line("TEXT", "What the line prints", end_of_line(refuse_line)), list);
    list = keyword("forwarding", "Forwarding plane that fails", forwarding_commands(), list);
    list = keyword("vsl", "Virtual switch links", vsl_commands(), list);
    list = keyword("aggregate", "Aggregate ports", aggregate_commands(), list);
    list = keyword(
        "storm", "Flood a port, 0 ends it",
        name(0, "PORT", "Port", number("Packets per second", 0, kMaxRate, end_of_line(storm))),
        list);
    list = keyword("loop", "Cables that make loops", loop_commands(), list);
    return keyword("port", "Ports of the switch", port_commands(), list);
}

}  // namespace

void register_simulation_commands(EmbeddedSwitch& ports, EmbeddedForwarding& plane,
                                  MemoryStore* store) {
    g_ports = &ports;
    g_plane = &plane;
    g_store = store;
    attach(kChainExec, keyword("test", "Play what happens around the switch", all_commands()),
           "test commands of the embedded switch");
}

}  // namespace qv::cli
