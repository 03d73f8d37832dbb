#include "services/netconf/data.h"

#include <syslog.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "services/netconf/agent.h"
#include "services/netconf/edit_plan.h"
#include "services/netconf/held_ports.h"
#include "services/netconf/log.h"
#include "services/netconf/notification_log.h"

namespace netconf {
namespace {

constexpr uint32_t kHighestPolicy = 4;
const std::string kMonitoring = "/ietf-netconf-monitoring:netconf-state";

// The path of the list entry with this key. A path has a key in one kind of quotes; no port name
// has both kinds.
std::string entry_of(const std::string& list, const std::string& name) {
    const char quote = name.find('\'') == std::string::npos ? '\'' : '"';
    return list + "[name=" + (quote + name + quote) + "]";
}

void add_looped_ports(const Session& session, Tree& tree) {
    Database database(session.options.redis);
    for (const LoopedPort& port : looped_ports(database)) {
        const std::string entry =
            entry_of("/qv-loop-detect-server:loop-detect/looped-port", port.name);
        try {
            add_node(session.context, tree, entry + "/policy", std::to_string(port.policy));
            add_node(session.context, tree, entry + "/src-port", port.src_port ? "true" : "false");
        } catch (const std::runtime_error& error) {
            log_line(LOG_WARNING, "a looped port is left out: %s", error.what());
        }
    }
}

void add_held_port(const Session& session, Tree& tree, const HeldPort& port) {
    const std::string entry = entry_of("/qv-errdisable:errdisable/port", port.name);
    const auto add = [&](const char* leaf, const std::string& value) {
        if (!value.empty()) {
            add_node(session.context, tree, entry + "/" + leaf, value);
        }
    };
    add("cause", "loop");
    for (const std::string& source : port.sources) {
        add("source", source);
    }
    add("other-port", port.other_port);
    add("vlan", port.vlan != 0 ? std::to_string(port.vlan) : "");
    add("since", port.since ? rfc3339(*port.since) : "");
    add("recovers-at", port.recovers_at ? rfc3339(*port.recovers_at) : "");
    add("shut-last-day", std::to_string(port.shut_last_day));
    add("still-looped", port.still_looped ? "true" : "false");
    add("rule", port.rule);
    add("refused", port.refused);
}

void add_held_ports(const Session& session, Tree& tree) {
    for (const HeldPort& port : held_ports(session.options.redis)) {
        try {
            add_held_port(session, tree, port);
        } catch (const std::runtime_error& error) {
            log_line(LOG_WARNING, "a port that is held shut is not shown whole: %s", error.what());
        }
    }
}

void add_streams(const Session& session, Tree& tree) {
    const std::string stream = "/nc-notifications:netconf/streams/stream[name='NETCONF']";
    add_node(session.context, tree, stream + "/description", "all notifications of the switch");
    Database database(session.options.redis);
    const auto log = log_state(database);
    add_node(session.context, tree, stream + "/replaySupport", log ? "true" : "false");
    if (log) {
        add_node(session.context, tree, stream + "/replayLogCreationTime", rfc3339(log->created));
    }
    if (log && log->aged) {
        add_node(session.context, tree, stream + "/replayLogAgedTime", rfc3339(*log->aged));
    }
}

void add_capabilities(const Session& session, Tree& tree) {
    const char** const known =
        nc_server_get_cpblts_version(const_cast<ly_ctx*>(session.context), LYS_VERSION_1_0);
    for (const char** text = known; text != nullptr && *text != nullptr; text++) {
        add_node(session.context, tree, kMonitoring + "/capabilities/capability", *text);
        lydict_remove(session.context, *text);
    }
    free(known);
}

void add_datastore(const Session& session, Tree& tree) {
    const std::string store = kMonitoring + "/datastores/datastore[name='running']";
    add_node(session.context, tree, store);
    const auto holder = session.lock.holder();
    if (holder && !holder->since.empty()) {
        add_node(session.context, tree, store + "/locks/global-lock/locked-by-session",
                 std::to_string(holder->session));
        add_node(session.context, tree, store + "/locks/global-lock/locked-time", holder->since);
    }
}

void add_schemas(const Session& session, Tree& tree) {
    uint32_t index = 0;
    while (const lys_module* const module = ly_ctx_get_module_iter(session.context, &index)) {
        const std::string schema =
            kMonitoring + "/schemas/schema[identifier='" + module->name + "'][version='" +
            (module->revision == nullptr ? "" : module->revision) + "'][format='yang']";
        add_node(session.context, tree, schema + "/namespace", module->ns);
        add_node(session.context, tree, schema + "/location", "NETCONF");
    }
}

void add_sessions(const Session& session, Tree& tree) {
    for (const SessionInfo& peer : session.number.live_sessions()) {
        const std::string entry =
            kMonitoring + "/sessions/session[session-id='" + std::to_string(peer.id) + "']";
        add_node(session.context, tree, entry + "/transport", "netconf-ssh");
        add_node(session.context, tree, entry + "/username", peer.user);
        add_node(session.context, tree, entry + "/login-time", rfc3339(peer.login_time));
    }
}

}  // namespace

uint32_t policy_in_force(Database& database) {
    const uint32_t policy = published_policy(database).value_or(kDefaultPolicy);
    if (policy > kHighestPolicy) {
        log_line(LOG_WARNING, "the agent's policy %u is not in the model", policy);
        return kDefaultPolicy;
    }
    return policy;
}

void add_configuration(const Session& session, Tree& tree, bool defaults) {
    Database database(session.options.redis);
    const uint32_t policy = policy_in_force(database);
    if (policy != kDefaultPolicy || defaults) {
        add_node(session.context, tree, "/qv-loop-detect-server:loop-detect/loop-policy",
                 std::to_string(policy));
    }
}

void add_state(const Session& session, Tree& tree) {
    add_looped_ports(session, tree);
    add_held_ports(session, tree);
    add_streams(session, tree);
    add_capabilities(session, tree);
    add_datastore(session, tree);
    add_schemas(session, tree);
    add_sessions(session, tree);
}

}  // namespace netconf
