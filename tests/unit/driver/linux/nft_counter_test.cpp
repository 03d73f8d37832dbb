// The packet filter's list of counters, message by message, valid and damaged.
#include "platform/driver/linux/nft_counter.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/unit/driver/linux/netlink_message.h"

namespace qv {
namespace {

using namespace std::string_literals;

constexpr uint16_t kNewObject = 10 << 8 | 18;

const std::string kTable = attribute(1, "lda\0"s);
const std::string kName = attribute(2, "rule.7\0"s);
const std::string kCounterType = attribute(3, "\0\0\0\1"s);
const std::string kData = attribute(
    4 | NLA_F_NESTED, attribute(1, "\0\0\0\0\0\0\3\xe8"s) + attribute(2, "\0\0\0\0\0\0\0\7"s));
const std::string kFamily = "\5\0\0\0"s;

// The decoded message as text, "none" when there is nothing in it.
std::string decoded(const std::string& payload, uint16_t type = kNewObject) {
    const auto counter = parse_counter(NetlinkMessage(type, payload).get());
    return counter ? counter->name + " " + std::to_string(counter->counts.packets) + " " +
                         std::to_string(counter->counts.bytes)
                   : "none";
}

TEST(NftCounter, NamePacketsAndBytesAreRead) {
    EXPECT_EQ(decoded(kFamily + kTable + kName + kCounterType + kData), "rule.7 7 1000");
}

TEST(NftCounter, OtherMessagesAndOtherObjectsAreNone) {
    const std::string quota = attribute(3, "\0\0\0\2"s);
    EXPECT_EQ(decoded(kFamily + kTable + kName + kCounterType + kData, kNewObject + 1), "none");
    EXPECT_EQ(decoded(kFamily + kTable + kName + quota + kData), "none");
    EXPECT_EQ(decoded(kFamily + kTable + kCounterType + kData), "none");
    EXPECT_EQ(decoded(kFamily + kTable + kName + kData), "none");
    EXPECT_EQ(decoded(kFamily + kTable + kName + kCounterType), "none");
}

TEST(NftCounter, MessageShorterThanItsHeaderIsRejected) {
    EXPECT_EQ(decoded(""), "none");
    EXPECT_EQ(decoded("\5"), "none");
    EXPECT_EQ(decoded(kFamily), "none");
}

TEST(NftCounter, UnterminatedTextIsRejected) {
    const std::string endless = attribute(2, "rule");
    EXPECT_EQ(decoded(kFamily + kTable + kCounterType + kData + endless), "none");
}

TEST(NftCounter, NumberOfAnotherSizeCountsAsNothing) {
    const std::string data =
        attribute(4 | NLA_F_NESTED, attribute(1, "\0\0\3\xe8"s) + attribute(2, "\7"s));
    EXPECT_EQ(decoded(kFamily + kTable + kName + kCounterType + data), "rule.7 0 0");
}

TEST(NftCounter, AttributeThatReachesPastTheEndEndsTheList) {
    std::string cut = kName + kCounterType + kData;
    cut.resize(cut.size() - 8);
    EXPECT_EQ(decoded(kFamily + cut), "none");
}

}  // namespace
}  // namespace qv
