#include "platform/cli/wire.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "platform/base/visible.h"
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

// The interface index of a request, 0 when it has none; nothing when it is not a valid one.
std::optional<uint32_t> port_of(const json& request) {
    const auto ifx = request.find("ifx");
    if (ifx == request.end()) {
        return 0;
    }
    if (!ifx->is_number_unsigned() || ifx->get<uint64_t>() > UINT32_MAX) {
        return std::nullopt;
    }
    return ifx->get<uint32_t>();
}

// Cut after the last line that fits.
std::string within_limit(std::string_view output) {
    if (output.size() <= kMaxOutputBytes) {
        return std::string(output);
    }
    const size_t end = output.rfind('\n', kMaxOutputBytes - 1);
    const size_t size = end == std::string_view::npos ? kMaxOutputBytes : end + 1;
    return std::string(output.substr(0, size)) + "% The output is cut: it is longer than 16 MiB.\n";
}

void answer_exec(const json& request, const std::string& line, SessionState& session,
                 Completion answer) {
    if (!request.contains("mode")) {
        execute(session, line, std::move(answer));
        return;
    }
    const std::string* mode = text_of(request, "mode");
    if (!mode) {
        answer(error_result("\"mode\" is not a text."));
        return;
    }
    const std::optional<uint32_t> ifx = port_of(request);
    if (!ifx) {
        answer(error_result("\"ifx\" is not a whole number from 0 to 4294967295."));
        return;
    }
    if (!session.privileged && *mode != kModeExec) {
        answer(error_result("This mode needs \"enable\" first."));
        return;
    }
    SessionState alone;
    alone.caller = session.caller;
    alone.number = session.number;
    alone.claim = session.claim;
    alone.privileged = session.privileged;
    alone.mode = *mode;
    alone.ifx = *ifx;
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
    json object{{"output", within_limit(visible(result.output, kLinesAndTabs))},
                {"result", result.code},
                {"prompt", visible(prompt(session))}};
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
    return render({{"monitor", visible(text, kLinesAndTabs)}});
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
