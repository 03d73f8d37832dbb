// Bytes of a client of the command-line socket: lines of JSON, one session. Every command of the
// switch and of the agent can be reached and is executed.
#include <string>

#include <nlohmann/json.hpp>

#include "platform/cli/socket_session.h"
#include "platform/cli/wire.h"
#include "tests/fuzz/agent.h"

using namespace qv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::start_agent();
    cli::SessionState session;
    std::string_view input = fuzz::text_of(data, size);
    while (!input.empty() && !session.leaving) {
        const size_t end = input.find('\n');
        const std::string_view request = input.substr(0, end);
        input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
        std::string reply;
        cli::answer_request(request, session, [&](const cli::Result& result) {
            reply = cli::reply(result, session);
        });
        fuzz::require(reply.ends_with('\n') && reply.find('\n') == reply.size() - 1,
                      "a reply is one line");
        const auto object = nlohmann::json::parse(reply, nullptr, false);
        fuzz::require(object.is_object() && object["output"].is_string() &&
                          object["prompt"].is_string() && object["result"].is_number(),
                      "a reply has its three members");
    }
    fuzz::let_agent_run();
    return 0;
}
