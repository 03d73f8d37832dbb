#include "connection.h"

#include <poll.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "platform/base/visible.h"

namespace ldash {
namespace {

using nlohmann::json;

constexpr int kNoticeDelay_ms = 3000;  // then the operator is told about the delay

// A text of the switch, as a terminal may show it.
std::string shown(const json& message, const char* key) {
    return qv::visible(message.value(key, ""), qv::kLinesAndTabs);
}

// Returns the reply. Throws the switch's reason when the switch ends the session by itself.
const json& checked(const json& reply) {
    if (reply.value("end", false) && reply.value("result", -1) < 0) {
        std::string reason = reply.value("output", "");
        reason.erase(0, reason.starts_with("% ") ? 2 : 0);
        reason.erase(reason.find_last_not_of("\r\n") + 1);
        throw std::runtime_error(reason);
    }
    return reply;
}

}  // namespace

Connection::Connection(const std::string& path) : client_(path, "the switch") {}

// A switch without descriptors accepts no session, although the kernel has already connected us.
void Connection::wait_for_bytes() const {
    pollfd waiting{.fd = fd(), .events = POLLIN, .revents = 0};
    if (::poll(&waiting, 1, kNoticeDelay_ms) == 0) {
        std::fputs("ldash: the switch has not answered yet, still waiting (Ctrl-C to leave)\n",
                   stderr);
    }
}

void Connection::take_messages() {
    client_.receive(false);
    while (const std::optional<std::string> line = client_.take_line()) {
        const json message = json::parse(*line, nullptr, false);
        if (!message.is_object()) {
            continue;
        }
        if (message.contains("monitor") && on_message) {
            on_message(shown(message, "monitor"));
        }
        checked(message);
    }
}

Reply Connection::ask(const char* kind, std::string_view line) {
    const json request{{kind, std::string(line)}};
    client_.send(request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n");
    wait_for_bytes();
    for (;;) {
        const json reply = json::parse(client_.next_line(), nullptr, false);
        if (!reply.is_object()) {
            client_.lost();
        }
        if (!reply.contains("monitor")) {
            Reply taken{.output = shown(checked(reply), "output"),
                        .prompt = shown(reply, "prompt"),
                        .result = reply.value("result", -1),
                        .end = reply.value("end", false)};
            if (reply.contains("wrong_at")) {
                taken.wrong_at = reply.value("wrong_at", size_t{0});
            }
            if (reply.contains("length")) {
                taken.length = reply.value("length", 0);
            }
            return taken;
        }
        if (on_message) {
            on_message(shown(reply, "monitor"));
        }
    }
}

}  // namespace ldash
