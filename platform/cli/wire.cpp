#include "platform/cli/wire.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/cli/command_trees.h"
#include "platform/cli/config_check.h"

namespace qv::cli {
namespace {

using nlohmann::json;

// Bytes that are not UTF-8 are replaced: a name from outside must not make the reply invalid.
std::string render(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

const std::string* text_of(const json& request, const char* key) {
    const auto found = request.find(key);
    return found == request.end() ? nullptr : found->get_ptr<const std::string*>();
}

void answer_exec(const json& request, const std::string& line, SessionState& session,
                 Completion answer) {
    if (!request.contains("mode")) {
        execute(session, line, std::move(answer));
        return;
    }
    const std::string* mode = text_of(request, "mode");
    const auto ifx = request.find("ifx");
    if (!mode || (ifx != request.end() && !ifx->is_number_integer())) {
        answer(error_result("\"mode\" is a text and \"ifx\" a number."));
        return;
    }
    SessionState alone;
    alone.caller = session.caller;
    alone.number = session.number;
    alone.claim = session.claim;
    alone.mode = *mode;
    alone.ifx = ifx == request.end() ? 0 : ifx->get<uint64_t>();
    execute_alone(std::move(alone), line, std::move(answer));
}

// The name is repeated in the answer.
Result check_named(const std::string& file, const SessionState& session) {
    const bool clean = std::none_of(file.begin(), file.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
    if (!clean) {
        return error_result("The name of the file contains control characters.");
    }
    return check_file(session.caller ? &*session.caller : nullptr, file);
}

bool is_start_mode(std::string_view mode) {
    return mode == kModeExec || mode == kModeConfig || mode == kModeInterface;
}

}  // namespace

void answer_request(std::string_view text, SessionState& session, Completion answer) {
    const json request = json::parse(text, nullptr, false);
    if (!request.is_object()) {
        answer(error_result("The request is not a JSON object."));
    } else if (const std::string* line = text_of(request, "exec")) {
        answer_exec(request, *line, session, std::move(answer));
    } else if (const std::string* part = text_of(request, "complete")) {
        answer({0, completions(session, *part)});
    } else if (const std::string* asked = text_of(request, "help")) {
        answer({0, help_text(session, *asked)});
    } else if (const std::string* file = text_of(request, "check")) {
        answer(check_named(*file, session));
    } else {
        answer(
            error_result("The request has no text \"exec\", \"complete\", \"help\" or \"check\"."));
    }
}

std::string reply(const Result& result, const SessionState& session) {
    json object{{"output", result.output}, {"result", result.code}, {"prompt", prompt(session)}};
    if (result.wrong_at) {
        object["wrong_at"] = *result.wrong_at;
    }
    if (session.length) {
        object["length"] = *session.length;
    }
    if (session.leaving) {
        object["end"] = true;
    }
    return render(object);
}

std::string monitor_event(std::string_view text) {
    return render({{"monitor", std::string(text)}});
}

Result error_result(std::string_view reason) {
    return {-1, "% " + std::string(reason) + "\n"};
}

Result execute_alone(SessionState session, std::string_view line) {
    if (!is_start_mode(session.mode)) {
        return error_result("Unknown mode.");
    }
    return execute(session, line);
}

void execute_alone(SessionState session, std::string_view line, Completion answer) {
    if (!is_start_mode(session.mode)) {
        answer(error_result("Unknown mode."));
        return;
    }
    execute(session, line, std::move(answer));
}

}  // namespace qv::cli
