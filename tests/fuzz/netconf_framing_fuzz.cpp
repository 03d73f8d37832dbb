// Bytes of a NETCONF client in pieces of any size: the messages must not depend on where the bytes
// were cut, and each must survive being framed again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "services/netconf/framing.h"

using netconf::Framing;

namespace {

struct Outcome {
    std::vector<std::string> messages;
    std::string fault;
    bool operator==(const Outcome&) const = default;
};

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

Outcome read(std::string_view stream, size_t step) {
    Framing framing;
    Outcome outcome;
    for (; !stream.empty(); stream.remove_prefix(std::min(step, stream.size()))) {
        framing.feed(stream.substr(0, step));
        while (auto message = framing.next()) {
            require(message->text.find_first_not_of(" \t\r\n\0") != std::string::npos);
            outcome.messages.push_back(message->framed());
        }
    }
    outcome.fault = framing.fault() == nullptr ? "" : framing.fault();
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Outcome whole = read(stream, stream.size());
    require(read(stream, 1 + data[0] % 32) == whole);
    std::string again;
    for (const std::string& message : whole.messages) {
        again += message;
    }
    require(read(again, again.size()) == Outcome{whole.messages, ""});
    return 0;
}
