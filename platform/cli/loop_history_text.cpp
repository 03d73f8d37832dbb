#include "platform/cli/loop_history_text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/base/tarn_limits.h"
#include "platform/cli/config_file.h"

namespace qv::cli {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::string_view kHead = "{\"version\":1}\n";
constexpr std::string_view kChecksumKey = "checksum";
constexpr uint64_t kLatest_ms = 4102444800000;  // in 2100; the clock's range ends in 2262
constexpr uint64_t kLongest_s = 4102444800;
constexpr uint64_t kMostTimes = 1000000;
constexpr size_t kMaxTextBytes = 1024;

constexpr std::array<std::pair<LoopAction, const char*>, 7> kActions{
    {{LoopAction::kFound, "loop found"},
     {LoopAction::kShut, "shut"},
     {LoopAction::kWaits, "waits"},
     {LoopAction::kBroughtBack, "brought back"},
     {LoopAction::kProbation, "probation"},
     {LoopAction::kRecovered, "recovered"},
     {LoopAction::kRefused, "refused"}}};

std::string line_of(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string line_of(const LoopEvent& event) {
    const int64_t time_ms = event.time.time_since_epoch() / milliseconds(1);
    Json object{{"time_ms", std::max<int64_t>(time_ms, 0)},
                {"port", event.port},
                {"action", action_name(event.action)},
                {"tarn", event.facts.tarn},
                {"storm", event.facts.storm},
                {"other_port", event.facts.other_port},
                {"vlan", event.facts.vlan},
                {"reason", event.reason}};
    if (event.duration) {
        object["duration_s"] = event.duration->count();
    }
    if (event.times) {
        object["times"] = *event.times;
    }
    return line_of(object);
}

std::string last_line(const std::string& text) {
    return line_of({{kChecksumKey, checksum(text)}});
}

// ---- Reading ----

// These throw when a value is missing, has another type, or is out of range.

std::string text_in(const Json& object, const char* key) {
    const auto& text = object.at(key).get_ref<const std::string&>();
    if (text.size() > kMaxTextBytes) {
        throw std::length_error(key);
    }
    return text;
}

uint64_t number_in(const Json& object, const char* key, uint64_t most) {
    const uint64_t number = object.at(key).get_ref<const Json::number_unsigned_t&>();
    if (number > most) {
        throw std::out_of_range(key);
    }
    return number;
}

LoopAction action_in(const Json& object) {
    const std::string name = text_in(object, "action");
    const auto* const found = std::find_if(kActions.begin(), kActions.end(),
                                           [&](const auto& item) { return item.second == name; });
    if (found == kActions.end()) {
        throw std::out_of_range(name);
    }
    return found->first;
}

LoopEvent event_in(const Json& object) {
    LoopEvent event;
    event.time = WallTime(milliseconds(number_in(object, "time_ms", kLatest_ms)));
    event.port = text_in(object, "port");
    event.action = action_in(object);
    event.facts = {.tarn = object.at("tarn").get_ref<const bool&>(),
                   .storm = object.at("storm").get_ref<const bool&>(),
                   .other_port = text_in(object, "other_port"),
                   .vlan = static_cast<uint32_t>(number_in(object, "vlan", kLastVlan))};
    event.reason = text_in(object, "reason");
    if (object.contains("duration_s")) {
        event.duration = seconds(number_in(object, "duration_s", kLongest_s));
    }
    if (object.contains("times")) {
        event.times = static_cast<uint32_t>(number_in(object, "times", kMostTimes));
    }
    return event;
}

std::optional<LoopEvent> event_of(std::string_view line) {
    try {
        return event_in(Json::parse(line));
    } catch (const std::exception&) {
        return {};
    }
}

// Removes the last line when it fits the text before it.
bool take_checksum(std::string_view& text) {
    const size_t end = text.empty() ? std::string_view::npos : text.rfind('\n', text.size() - 2);
    if (end == std::string_view::npos) {
        return false;
    }
    const std::string before(text.substr(0, end + 1));
    if (text.substr(end + 1) != last_line(before)) {
        return false;
    }
    text = text.substr(0, end + 1);
    return true;
}

}  // namespace

const char* action_name(LoopAction action) {
    const auto* const found = std::find_if(kActions.begin(), kActions.end(),
                                           [&](const auto& item) { return item.first == action; });
    return found->second;
}

std::string history_text(const std::deque<LoopEvent>& events) {
    std::string text(kHead);
    for (const LoopEvent& event : events) {
        text += line_of(event);
    }
    return text + last_line(text);
}

ReadHistory read_history(std::string_view text) {
    ReadHistory history{.events = {}, .intact = take_checksum(text)};
    if (!text.starts_with(kHead)) {
        history.intact = false;
        return history;
    }
    text.remove_prefix(kHead.size());
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::optional<LoopEvent> event = event_of(text.substr(0, end));
        if (!event) {
            history.intact = false;
            break;
        }
        history.events.push_back(std::move(*event));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    const size_t size = history.events.size();
    const size_t surplus = size - std::min(size, HeldPorts::kMaxEvents);
    history.events.erase(history.events.begin(),
                         std::next(history.events.begin(), static_cast<std::ptrdiff_t>(surplus)));
    return history;
}

}  // namespace qv::cli
