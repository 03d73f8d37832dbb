// qv/cli.h: attaching the process, announcements, and sessions of one's own.
//
// Two threads come here. What the second one needs, the loop and the path of the socket, is set
// once by cli_client_init, before that thread exists, and never changes.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/cli/config_keeper.h"
#include "platform/cli/scripted_faults.h"
#include "platform/cli/socket_server.h"
#include "platform/cli/switch_commands.h"
#include "platform/cli/unix_socket.h"
#include "platform/cli/wire.h"
#include "platform/client/log_ring.h"
#include "platform/client/platform.h"
#include "qv/cli.h"

namespace qv::cli {
namespace {

using nlohmann::json;

struct Client {
    Client(EventLoop& on, const PlatformConfig& config)
        : loop(on),
          server(on, config.cli_socket),
          keeper(on, platform().background(), config.startup_config) {}

    EventLoop& loop;
    SocketServer server;
    ConfigKeeper keeper;
};

// Lives until the process ends, as the command trees do.
std::atomic<Client*> g_client = nullptr;

void show_on_monitors(std::string_view text) {
    Client* client = g_client;
    if (client) {
        client->loop.post(
            [client, message = std::string(text)] { client->server.show_message(message); });
    }
}

bool send_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t size = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
    }
    return true;
}

// Waits for one line. False when the connection has ended before.
bool receive_line(int fd, std::string& line) {
    char bytes[4096];
    while (line.empty() || line.back() != '\n') {
        pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
        if (::poll(&waiting, 1, -1) < 0 && errno != EINTR) {
            return false;
        }
        const ssize_t size = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN)) {
            return false;
        }
        line.append(bytes, size < 0 ? 0 : static_cast<size_t>(size));
    }
    return true;
}

json make_request(const char* line, const cli_mode* mode) {
    json request{{"exec", line}};
    if (mode && mode->name[0] != '\0') {
        request["mode"] = mode->name;
        request["ifx"] = mode->ifx;
    }
    return request;
}

Result ask_server(int session, const char* line, const cli_mode* mode) {
    std::string text =
        make_request(line, mode).dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    if (!send_all(session, text)) {
        return {-1, {}};
    }
    text.clear();
    if (!receive_line(session, text)) {
        return {-1, {}};
    }
    const json reply = json::parse(text, nullptr, false);
    if (!reply.is_object() || !reply.contains("result") || !reply.contains("output")) {
        return {-1, {}};
    }
    return {reply["result"].get<int>(), reply["output"].get<std::string>()};
}

Result run_inline(const char* line, const cli_mode* mode) {
    SessionState session;
    if (mode && mode->name[0] != '\0') {
        session.mode = mode->name;
        session.ifx = static_cast<uint64_t>(mode->ifx);
    }
    return execute_alone(std::move(session), line);
}

}  // namespace

ConfigKeeper* config_keeper() {
    Client* client = g_client;
    return client ? &client->keeper : nullptr;
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
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "%s: command line: %s\n", name ? name : "", problem.what());
        return -1;
    }
    qv::cli::register_switch_commands();
    qv::set_monitor_sink(qv::cli::show_on_monitors);
    return 0;
}

void cli_client_ready(void) {
    if (qv::cli::ConfigKeeper* keeper = qv::cli::config_keeper()) {
        keeper->request_replay();
    }
}

int cli_client_c2p_reform(void) {
    if (qv::cli::ConfigKeeper* keeper = qv::cli::config_keeper()) {
        keeper->request_save();
    }
    return 0;
}

int cli_syn_config_notify(void) {
    if (qv::cli::ConfigKeeper* keeper = qv::cli::config_keeper()) {
        keeper->request_save();
    }
    return 0;
}

int cli_sub_create_session(void) {
    qv::cli::Client* client = g_client;
    if (!client || qv::cli::take_session_failure()) {
        return -1;
    }
    // The loop's own thread must not wait for room in its own queue.
    return qv::cli::connect_to(client->server.path(), !client->loop.on_loop_thread());
}

int cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                           cli_output_cb output, void* user) {
    qv::cli::Client* client = g_client;
    if (!client || session < 0 || !line) {
        return -1;
    }
    const qv::cli::Result result = client->loop.on_loop_thread()
                                       ? qv::cli::run_inline(line, mode)
                                       : qv::cli::ask_server(session, line, mode);
    if (output && !result.output.empty()) {
        output(result.output.data(), result.output.size(), user);
    }
    return result.code;
}

}  // extern "C"
