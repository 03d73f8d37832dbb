#include "platform/base/structured_log.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

#include "platform/base/visible.h"

namespace qv {
namespace {

// 32473 is the enterprise number that RFC 5612 reserves for documentation: this program has none of
// its own.
constexpr std::string_view kDataId = "lda@32473";
constexpr std::string_view kFieldPrefix = "LDA_";
constexpr size_t kMaxHost = 255;  // bytes, RFC 5424 section 6
constexpr size_t kMaxMessageId = 32;
constexpr int kSeverities = 8;  // in a priority

// Without blanks.
bool is_printable(char c) {
    return c > 0x20 && c < 0x7f;
}

// A value of the header; "-" stands for one that is not known or not allowed.
std::string header_value(std::string_view value, size_t limit) {
    const bool fits = !value.empty() && value.size() <= limit &&
                      std::all_of(value.begin(), value.end(), is_printable);
    return fits ? std::string(value) : "-";
}

std::string parameter_value(std::string_view value) {
    std::string escaped;
    for (const char c : visible(value)) {
        if (c == '"' || c == '\\' || c == ']') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string utc(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%FT%TZ", &parts);
    return text;
}

std::string value_of(const LogFields& fields, std::string_view name) {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [name](const auto& field) { return field.first == name; });
    return found != fields.end() ? found->second : "";
}

// A value with a line end is preceded by its size in eight bytes, the lowest first.
void add_journal_field(std::string& datagram, std::string_view name, std::string_view value) {
    datagram.append(name);
    if (value.find('\n') == std::string_view::npos) {
        datagram.append("=");
    } else {
        datagram.append("\n");
        for (int byte = 0; byte < 8; ++byte) {
            datagram += static_cast<char>((uint64_t{value.size()} >> (8 * byte)) & 0xff);
        }
    }
    datagram.append(value).append("\n");
}

}  // namespace

LogFields fields_of(const SystemLogMessage& message) {
    LogFields fields{{"facility", std::string(message.facility)},
                     {"mnemonic", std::string(message.mnemonic)}};
    const auto add = [&fields](const char* name, const std::string& value) {
        if (!value.empty()) {
            fields.emplace_back(name, visible(value));
        }
    };
    add("event", message.number != 0 ? std::to_string(message.number) : "");
    if (message.subject != nullptr) {
        add("port", message.subject->port);
        add("source", message.subject->source);
        add("cause", message.subject->cause);
    }
    return fields;
}

std::string rfc5424_datagram(const LogOrigin& origin, const LogFields& fields,
                             std::string_view text) {
    const std::string id = value_of(fields, "facility") + "-" + value_of(fields, "mnemonic");
    std::string datagram = "<" + std::to_string(origin.priority) + ">1 " + utc(origin.time) + " " +
                           header_value(origin.host, kMaxHost) + " ";
    datagram.append(origin.program).append(" ").append(std::to_string(origin.pid)).append(" ");
    datagram.append(header_value(id, kMaxMessageId)).append(" [").append(kDataId);
    for (const auto& [name, value] : fields) {
        datagram += " " + name + "=\"" + parameter_value(value) + "\"";
    }
    return datagram.append("] ").append(text);
}

std::string journal_datagram(const LogOrigin& origin, const LogFields& fields,
                             std::string_view text) {
    std::string datagram;
    add_journal_field(datagram, "MESSAGE", text);
    add_journal_field(datagram, "PRIORITY", std::to_string(origin.priority % kSeverities));
    add_journal_field(datagram, "SYSLOG_FACILITY", std::to_string(origin.priority / kSeverities));
    add_journal_field(datagram, "SYSLOG_IDENTIFIER", origin.program);
    add_journal_field(datagram, "SYSLOG_PID", std::to_string(origin.pid));
    for (const auto& [name, value] : fields) {
        std::string upper(kFieldPrefix);
        std::transform(name.begin(), name.end(), std::back_inserter(upper),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        add_journal_field(datagram, upper, value);
    }
    return datagram;
}

}  // namespace qv
