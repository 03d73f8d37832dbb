// System log messages with fields: the structured data of RFC 5424, and the native protocol of
// journald. Any thread.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/system_log.h"

namespace qv {

// Names in lower case, with their values.
using LogFields = std::vector<std::pair<std::string, std::string>>;

// The fields of a message: "facility", "mnemonic", and where they are known "event" (the number of
// the message), "port", "source" and "cause".
LogFields fields_of(const SystemLogMessage& message);

// Who logs, and when.
struct LogOrigin {
    int priority;  // facility and severity, RFC 5424 section 6.2.1
    std::time_t time;
    std::string_view host;     // empty: not known
    std::string_view program;  // the name by which a daemon sorts messages
    int pid;
};

// "<28>1 2026-01-31T23:59:59Z HOST lda 4711 PORT-ADMIN [lda@32473 port="swp3" ...] TEXT". In values
// a backslash is before `"`, `\` and `]` (section 6.3.3), and control characters are as visible()
// writes them.
std::string rfc5424_datagram(const LogOrigin& origin, const LogFields& fields,
                             std::string_view text);

// MESSAGE, PRIORITY, SYSLOG_IDENTIFIER and the like, then LDA_PORT and the like.
std::string journal_datagram(const LogOrigin& origin, const LogFields& fields,
                             std::string_view text);

}  // namespace qv
