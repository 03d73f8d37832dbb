#include "platform/cli/config_log.h"

#include <cstdio>

#include "platform/cli/command_trees.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

namespace qv::cli {
namespace {

// A message has room for about 2000 bytes, and its end names the operator.
constexpr size_t kLoggedBytes = 1500;

// Quotes and backslashes too, so that a name inside the line cannot close the quotation.
std::string escaped(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f) {
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02x", byte);
            shown += code;
        } else {
            shown += c == '"' || c == '\\' ? "\\" : "";
            shown += c;
        }
    }
    return shown;
}

std::string place_of(const SessionState& session) {
    if (session.mode == kModeRange) {
        return "interface range " + session.range_as_typed + "; ";
    }
    if (session.mode == kModeInterface) {
        const Port* const port = platform().ports().find(static_cast<uint32_t>(session.ifx));
        return "interface " + (port ? port->name : std::to_string(session.ifx)) + "; ";
    }
    return {};
}

}  // namespace

std::string entered_line(const SessionState& session, std::string_view line) {
    return place_of(session).append(line);
}

void log_entered(const SessionState& session, std::string_view entered, std::string_view refusal) {
    if (!session.caller) {
        return;
    }
    std::string shown = escaped(entered);
    if (shown.size() > kLoggedBytes) {
        shown.replace(kLoggedBytes, std::string::npos, "...");
    }
    printk_syslog(SYSLOG_SEVERITY_INFO, "CLI", "CONFIG", "\"%s\" by %s%s%.*s", shown.c_str(),
                  describe(*session.caller).c_str(), refusal.empty() ? "" : ": ",
                  static_cast<int>(refusal.size()), refusal.data());
}

}  // namespace qv::cli
