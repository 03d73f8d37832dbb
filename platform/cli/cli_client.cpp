// qv/cli.h: attaching the process, announcements, and the sessions of programs.
//
// A program's line never leaves the process: another thread posts it to the loop and waits for its
// result, the loop's own thread executes it at once. So neither many operators nor a missing
// socket file nor a lack of descriptors can keep a loop from being cut.
//
// The second thread needs the loop and the session descriptors: cli_client_init sets them once,
// before that thread exists, and they live until the process ends.
#include <atomic>
#include <cstdio>
#include <future>
#include <memory>
#include <utility>

#include "platform/base/guarded.h"
#include "platform/base/message_log.h"
#include "platform/base/visible.h"
#include "platform/cli/config_keeper.h"
#include "platform/cli/fault_seam.h"
#include "platform/cli/loop_history.h"
#include "platform/cli/session_descriptors.h"
#include "platform/cli/socket_server.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/wire.h"
#include "platform/client/platform.h"
#include "platform/client/thread_master.h"
#include "qv/cli.h"

namespace qv::cli {
namespace {

// The idle limit is in real time, whatever the speed of a simulated switch's clock.
SocketServer::Limits limits_of(const PlatformConfig& config) {
    const std::chrono::duration<double> idle(config.cli_idle_timeout_s * config.speed);
    return {.sessions = config.cli_max_sessions,
            .idle = std::chrono::duration_cast<Duration>(idle)};
}

struct Client {
    Client(EventLoop& on, const PlatformConfig& config)
        : loop(on),
          server(on, config.cli_socket, limits_of(config)),
          keeper(on, platform().background(), config.startup_config),
          history(on, platform().background(),
                  config.startup_config.empty() ? "" : config.startup_config + ".history") {}

    EventLoop& loop;
    SessionDescriptors descriptors;
    SocketServer server;
    ConfigKeeper keeper;
    LoopHistory history;
};

// Lives until the process ends, as the command trees do.
std::atomic<Client*> g_client = nullptr;

void show_on_monitors(std::string_view text) {
    Client* client = g_client;
    if (!client || (client->loop.on_loop_thread() && client->server.session_count() == 0)) {
        return;
    }
    client->loop.post(
        [client, message = std::string(text)] { client->server.show_message(message); });
}

SessionState session_for(const cli_mode* mode) {
    SessionState session;
    session.program = true;
    if (mode && mode->name[0] != '\0') {
        session.mode = mode->name;
        session.ifx = static_cast<uint64_t>(mode->ifx);
    }
    return session;
}

// Has the loop execute the line and waits for the result. A loop that ends before it has done so
// drops the promise, which fails the line.
Result execute_on(EventLoop& loop, SessionState session, std::string line) {
    auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> result = promise->get_future();
    loop.post([session = std::move(session), line = std::move(line),
               promise = std::move(promise)]() mutable {
        execute_alone(std::move(session), line, [promise = std::move(promise)](Result done) {
            promise->set_value(std::move(done));
        });
    });
    try {
        return result.get();
    } catch (const std::future_error&) {
        return {-1, {}};
    }
}

}  // namespace

ConfigKeeper* config_keeper() {
    Client* client = g_client;
    return client ? &client->keeper : nullptr;
}

LoopHistory* loop_history() {
    Client* client = g_client;
    return client ? &client->history : nullptr;
}

const SocketServer* socket_server() {
    Client* client = g_client;
    return client ? &client->server : nullptr;
}

}  // namespace qv::cli

using qv::cli::g_client;

extern "C" {

int cli_client_init(const char* name, qv_thread_master* master) {
    if (g_client || !master) {
        return -1;
    }
    try {
        g_client = new qv::cli::Client(qv::loop_of(master), qv::platform().config());
        qv::cli::register_switch_commands();
        qv::set_monitor_sink(qv::cli::show_on_monitors);
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "%s: command line: %s\n", name ? name : "",
                     qv::visible(problem.what()).c_str());
        return -1;
    }
}

// The switch must not run without its configuration: lack of memory ends the process.
void cli_client_ready(void) {
    if (qv::cli::ConfigKeeper* keeper = qv::cli::config_keeper()) {
        [=]() noexcept {
            keeper->request_replay();
        }();
    }
}

int cli_client_c2p_reform(void) {
    qv::cli::Client* client = g_client;
    if (!client) {
        return 0;
    }
    return qv::guarded(-1, [client] {
        client->keeper.request_save();
        client->loop.expect_post();  // programs announce a change before they send its line
        return 0;
    });
}

int cli_syn_config_notify(void) {
    return cli_client_c2p_reform();
}

int cli_sub_create_session(void) {
    qv::cli::Client* client = g_client;
    const qv::cli::SessionFault fault = qv::cli::g_session_fault;
    if (!client || (fault && fault())) {
        return -1;
    }
    client->loop.expect_post();  // a session is opened for one line, which follows
    return client->descriptors.open();
}

int cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                           cli_output_cb output, void* user) {
    qv::cli::Client* client = g_client;
    if (!client || !line || !client->descriptors.owns(session)) {
        return -1;
    }
    return qv::guarded(-1, [&] {
        qv::cli::SessionState state = qv::cli::session_for(mode);
        const qv::cli::Result result =
            client->loop.on_loop_thread()
                ? qv::cli::execute_alone(std::move(state), line)
                : qv::cli::execute_on(client->loop, std::move(state), line);
        if (output && !result.output.empty()) {
            output(result.output.data(), result.output.size(), user);
        }
        return result.code;
    });
}

}  // extern "C"
