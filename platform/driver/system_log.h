// Where system log messages go.
#pragma once

#include <string_view>

namespace qv {

struct SystemLogMessage {
    int severity;  // 0 to 7, as in RFC 5424
    std::string_view facility;
    std::string_view mnemonic;
    std::string_view text;
};

// Any thread; the message is valid during the call.
class SystemLog {
 public:
    virtual ~SystemLog() = default;
    virtual void write(const SystemLogMessage& message) = 0;
};

}  // namespace qv
