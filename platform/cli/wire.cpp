#include "platform/cli/wire.h"

#include <nlohmann/json.hpp>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_keeper.h"

namespace qv::cli {
namespace {

using nlohmann::json;

// Bytes that are no UTF-8 are replaced: a name from outside must not spoil the reply.
std::string render(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string reply(const Result& result, const SessionState& session) {
    json object{{"output", result.output}, {"result", result.code}, {"prompt", prompt(session)}};
    if (session.leaving) {
        object["end"] = true;
    }
    return render(object);
}

const std::string* text_of(const json& request, const char* key) {
    const auto found = request.find(key);
    return found == request.end() ? nullptr : found->get_ptr<const std::string*>();
}

std::string answer_exec(const json& request, const std::string& line, SessionState& session) {
    if (!request.contains("mode")) {
        return reply(execute(session, line), session);
    }
    const std::string* mode = text_of(request, "mode");
    const auto ifx = request.find("ifx");
    if (!mode || (ifx != request.end() && !ifx->is_number_integer())) {
        return error_reply("\"mode\" is a text and \"ifx\" a number.", session);
    }
    return reply(execute_in(*mode, ifx == request.end() ? 0 : ifx->get<uint64_t>(), line), session);
}

}  // namespace

std::string answer_request(std::string_view text, SessionState& session) {
    const json request = json::parse(text, nullptr, false);
    if (!request.is_object()) {
        return error_reply("The request is no JSON object.", session);
    }
    if (const std::string* line = text_of(request, "exec")) {
        return answer_exec(request, *line, session);
    }
    if (const std::string* line = text_of(request, "complete")) {
        return reply({0, completions(session, *line)}, session);
    }
    if (const std::string* line = text_of(request, "help")) {
        return reply({0, help_text(session, *line)}, session);
    }
    return error_reply("The request has no text \"exec\", \"complete\" or \"help\".", session);
}

std::string error_reply(std::string_view reason, const SessionState& session) {
    return reply({-1, "% " + std::string(reason) + "\n"}, session);
}

std::string monitor_event(std::string_view text) {
    return render({{"monitor", std::string(text)}});
}

Result execute_in(std::string_view mode, uint64_t ifx, std::string_view line) {
    if (mode != kModeExec && mode != kModeConfig && mode != kModeInterface) {
        return {-1, "% Unknown mode.\n"};
    }
    SessionState session;
    session.mode = mode;
    session.ifx = ifx;
    Result result = execute(session, line);
    // The switch's programs change the configuration this way, and nobody types "write" for them.
    if (mode != kModeExec && result.code >= 0) {
        if (ConfigKeeper* keeper = config_keeper()) {
            keeper->request_save();
        }
    }
    return result;
}

}  // namespace qv::cli
