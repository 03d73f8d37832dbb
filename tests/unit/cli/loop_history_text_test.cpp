// The text of the history: what is written, and what is read of a damaged one.
#include "platform/cli/loop_history_text.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::cli {
namespace {

using namespace std::chrono_literals;

LoopEvent event(const std::string& port, LoopAction action) {
    LoopEvent made;
    made.time = WallTime(1769900400123ms);
    made.port = port;
    made.action = action;
    return made;
}

constexpr std::string_view kPlainEnd =
    R"("tarn":false,"storm":false,"other_port":"","vlan":0,"reason":""})"
    "\n";

std::string plain(const std::string& port, const std::string& action) {
    std::string line = R"({"time_ms":1769900400123,"port":")" + port;
    return line.append(R"(","action":")").append(action).append("\",").append(kPlainEnd);
}

const std::string kHead = "{\"version\":1}\n";

// The events of a text without its checksum, by port; "intact" in front when it is.
std::string ports_of(const std::string& text) {
    const ReadHistory history = read_history(text);
    std::string ports = history.intact ? "intact" : "damaged";
    for (const LoopEvent& found : history.events) {
        ports += " " + found.port;
    }
    return ports;
}

TEST(LoopHistoryText, EveryEventIsALine) {
    LoopEvent shut = event("swp1", LoopAction::kShut);
    shut.facts = {.tarn = true, .storm = true, .other_port = "swp2", .vlan = 10};
    LoopEvent back = event("swp1", LoopAction::kBroughtBack);
    back.duration = 300s;
    LoopEvent refused = event("swp2", LoopAction::kRefused);
    refused.reason = "Device or \"resource\" busy";
    const std::string text = history_text({event("swp1", LoopAction::kFound), shut, back,
                                           event("swp1", LoopAction::kRecovered), refused});
    const std::string lines =
        kHead + plain("swp1", "loop found") +
        R"({"time_ms":1769900400123,"port":"swp1","action":"shut","tarn":true,"storm":true,)"
        R"("other_port":"swp2","vlan":10,"reason":""})"
        "\n"
        R"({"time_ms":1769900400123,"port":"swp1","action":"brought back","tarn":false,)"
        R"("storm":false,"other_port":"","vlan":0,"reason":"","duration_s":300})"
        "\n" +
        plain("swp1", "recovered") +
        R"({"time_ms":1769900400123,"port":"swp2","action":"refused","tarn":false,"storm":false,)"
        R"("other_port":"","vlan":0,"reason":"Device or \"resource\" busy"})"
        "\n";
    ASSERT_EQ(text.substr(0, lines.size()), lines);
    const std::string end = text.substr(lines.size());
    EXPECT_EQ(end.size(), std::string("{\"checksum\":\"01234567\"}\n").size()) << end;
    EXPECT_TRUE(end.starts_with("{\"checksum\":\"")) << end;
}

TEST(LoopHistoryText, IsReadAsItWasWritten) {
    LoopEvent shut = event("sw\"p1", LoopAction::kShut);
    shut.facts = {.tarn = true, .storm = false, .other_port = "swp2", .vlan = 4094};
    LoopEvent ended = event("swp1", LoopAction::kRecovered);
    ended.duration = 0s;
    ended.reason = "r";
    const ReadHistory history = read_history(history_text({shut, ended}));
    EXPECT_TRUE(history.intact);
    ASSERT_EQ(history.events.size(), 2U);
    EXPECT_EQ(history.events[0].time, shut.time);
    EXPECT_EQ(history.events[0].port, "sw\"p1");
    EXPECT_EQ(history.events[0].action, LoopAction::kShut);
    EXPECT_EQ(history.events[0].facts, shut.facts);
    EXPECT_EQ(history.events[0].duration, std::nullopt);
    EXPECT_EQ(history.events[1].action, LoopAction::kRecovered);
    EXPECT_EQ(history.events[1].duration, 0s);
    EXPECT_EQ(history.events[1].reason, "r");
    EXPECT_EQ(ports_of(history_text({})), "intact");
}

TEST(LoopHistoryText, WaitHasItsNumberInARow) {
    LoopEvent waits = event("swp1", LoopAction::kWaits);
    waits.duration = 600s;
    waits.times = 3;
    const std::string text = history_text({waits});
    EXPECT_NE(text.find(R"("action":"waits",)"), std::string::npos);
    EXPECT_NE(text.find(R"("duration_s":600,"times":3})"), std::string::npos);
    const ReadHistory history = read_history(text);
    ASSERT_TRUE(history.intact);
    EXPECT_EQ(history.events[0].action, LoopAction::kWaits);
    EXPECT_EQ(history.events[0].duration, 600s);
    EXPECT_EQ(history.events[0].times, 3U);
}

TEST(LoopHistoryText, OnlyTheNewestEventsAreRead) {
    std::deque<LoopEvent> events(HeldPorts::kMaxEvents + 2, event("new", LoopAction::kShut));
    events[0].port = "oldest";
    events[1].port = "older";
    const ReadHistory history = read_history(history_text(events));
    EXPECT_TRUE(history.intact);
    ASSERT_EQ(history.events.size(), 1000U);
    EXPECT_EQ(history.events.front().port, "new");
}

TEST(LoopHistoryText, EventsBeforeTheDamageAreUsed) {
    const std::string text =
        history_text({event("a", LoopAction::kShut), event("b", LoopAction::kShut)});
    for (size_t size = 0; size < text.size(); ++size) {
        EXPECT_FALSE(read_history(text.substr(0, size)).intact) << size;
    }
    const size_t second = text.find("\"b\"");
    EXPECT_EQ(ports_of(text.substr(0, second)), "damaged a");
    std::string changed = text;
    changed[second + 1] = 'c';
    EXPECT_EQ(ports_of(changed), "damaged a c") << "it can be read, and is reported";
    EXPECT_EQ(ports_of(""), "damaged");
    EXPECT_EQ(ports_of("\n"), "damaged");
    EXPECT_EQ(ports_of("startup configuration\n"), "damaged");
}

TEST(LoopHistoryText, LinesWithOtherTypesOrValuesAreDamage) {
    const std::string good = plain("a", "shut");
    EXPECT_EQ(ports_of(kHead + good), "damaged a") << "only its checksum is missing";
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string line = good;
        line.replace(line.find(from), from.size(), to);
        return ports_of(kHead + good + line + good);
    };
    EXPECT_EQ(with("\"a\"", "\"b\""), "damaged a b a");
    const std::vector<std::pair<std::string, std::string>> damages{
        {"\"a\"", "7"},
        {"\"a\"", "\"" + std::string(1025, 'a') + "\""},
        {"\"shut\"", "\"melted\""},
        {"1769900400123", "-1"},
        {"1769900400123", "1.5"},
        {"1769900400123", "4102444800001"},
        {"\"tarn\":false", "\"tarn\":0"},
        {"\"vlan\":0", "\"vlan\":4095"},
        {"\"vlan\":0", "\"vlan\":\"1\""},
        {"\"reason\":\"\"", "\"reason\":null"},
        {"\"reason\":\"\"", "\"reason\":\"\",\"duration_s\":-1"},
        {"\"reason\":\"\"", "\"reason\":\"\",\"duration_s\":4102444801"},
        {"\"reason\":\"\"", "\"reason\":\"\",\"times\":\"2\""},
        {"\"reason\":\"\"", "\"reason\":\"\",\"times\":1000001"},
        {"\"port\":\"a\",", ""}};
    for (const auto& [from, to] : damages) {
        EXPECT_EQ(with(from, to), "damaged a") << from << " became " << to;
    }
}

}  // namespace
}  // namespace qv::cli
