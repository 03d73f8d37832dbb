#include "texts.h"

#include <algorithm>

namespace tarnctl {
namespace {

// A value as text whatever its type: a service of another version must not end the program.
std::string text_of(const Json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return "-";
    }
    return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text + " ";
}

// "2026-01-31T23:59:59Z" as "2026-01-31 23:59:59".
std::string time_of(const Json& object) {
    std::string text = text_of(object, "time");
    std::replace(text.begin(), text.end(), 'T', ' ');
    std::erase(text, 'Z');
    return text;
}

std::string row(const std::string& port, const std::string& state, const std::string& role,
                const std::string& guard, const std::string& loop) {
    return padded(port, 16) + padded(state, 9) + padded(role, 7) + padded(guard, 7) + loop + "\n";
}

// "7", or "7 -> 9" when a probe comes back in another VLAN than it was sent in.
std::string vlan_text(const Json& loop) {
    const std::string vid = text_of(loop, "vid");
    const std::string src_vid = text_of(loop, "src_vid");
    return src_vid == vid || src_vid == "-" ? vid : src_vid + " -> " + vid;
}

std::string loop_text(const Json& loop) {
    return text_of(loop, "src_port") + " -> " + text_of(loop, "port") + ", VLAN " +
           vlan_text(loop) + ", " + text_of(loop, "path_us") + " us, by " +
           text_of(loop, "found_by");
}

}  // namespace

std::string ports_heading() {
    return row("Port", "State", "Role", "Guard", "Last loop (UTC)");
}

std::string port_text(const Json& port) {
    const std::string guard = text_of(port, "guard_ms");
    const auto loop = port.find("loop");
    const bool looped = loop != port.end() && loop->is_object();
    return row(text_of(port, "port"), text_of(port, "state"), text_of(port, "role"),
               guard == "-" ? guard : guard + " ms",
               looped ? time_of(*loop) + "  " + loop_text(*loop) : "-");
}

std::string counters_text(const Json& counters) {
    std::string text;
    for (const auto& [name, value] : counters.items()) {
        std::string words = name;
        std::replace(words.begin(), words.end(), '_', ' ');
        text += padded(words, 16) + value.dump() + "\n";
    }
    return text;
}

std::string event_text(const Json& event) {
    const std::string kind = text_of(event, "event");
    const std::string start = time_of(event) + "  " + padded(kind, 11);
    if (kind == "loop") {
        return start + loop_text(event) + "\n";
    }
    if (kind == "end") {
        return start + text_of(event, "src_port") + " -> " + text_of(event, "port") + ", VLAN " +
               vlan_text(event) + "\n";
    }
    const std::string reason = text_of(event, "reason");
    return start + text_of(event, "port") + (reason == "-" ? "" : ": " + reason) + "\n";
}

std::string returned_text(const Json& returned) {
    return "back on " + text_of(returned, "returned") + " after " + text_of(returned, "path_us") +
           " us\n";
}

}  // namespace tarnctl
