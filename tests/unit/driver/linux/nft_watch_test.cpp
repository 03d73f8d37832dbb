// Messages about changes of the packet filter, valid and damaged.
#include "platform/driver/linux/nft_watch.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/unit/driver/linux/netlink_message.h"

namespace qv {
namespace {

using namespace std::string_literals;

constexpr uint16_t kNewRule = 10 << 8 | 6;
constexpr uint16_t kNewGeneration = 10 << 8 | 15;

const std::string kNetdev = "\5\0\0\0"s;
const std::string kInet = "\1\0\0\0"s;
const std::string kTable = attribute(1, "lda\0"s);
const std::string kChain = attribute(2, "port1.3\0"s);

bool concerns(const std::string& payload, uint16_t type = kNewRule) {
    return concerns_table(NetlinkMessage(type, payload).get(), "lda");
}

TEST(NftWatch, ChangeOfTheTableIsSeen) {
    EXPECT_TRUE(concerns(kNetdev + kTable + kChain));
    EXPECT_TRUE(concerns(kNetdev + kChain + kTable));
}

TEST(NftWatch, OtherTablesFamiliesAndMessagesAreNot) {
    EXPECT_FALSE(concerns(kNetdev + attribute(1, "ldas\0"s) + kChain));
    EXPECT_FALSE(concerns(kNetdev + attribute(1, "ld\0"s) + kChain));
    EXPECT_FALSE(concerns(kNetdev + kChain));
    EXPECT_FALSE(concerns(kInet + kTable + kChain));
    EXPECT_FALSE(concerns(kNetdev + kTable, kNewGeneration));
    EXPECT_FALSE(concerns(kNetdev + kTable, 1 << 8 | 6));
}

TEST(NftWatch, DamagedMessagesAreIgnored) {
    EXPECT_FALSE(concerns(""));
    EXPECT_FALSE(concerns("\5"));
    EXPECT_FALSE(concerns(kNetdev));
    EXPECT_FALSE(concerns(kNetdev + attribute(1, "lda"s))) << "a text without an end";
    std::string cut = kChain + kTable;
    cut.resize(cut.size() - 4);
    EXPECT_FALSE(concerns(kNetdev + cut));
}

}  // namespace
}  // namespace qv
