#include "services/tarnd/ring.h"

#include <gtest/gtest.h>

namespace qv::tarnd {
namespace {

TEST(Ring, FullOneRefusesUntilAnItemIsTakenAndKeepsTheOrder) {
    Ring<int> ring(4);
    EXPECT_EQ(ring.pop(), std::nullopt);
    for (int round = 0; round < 10; ++round) {
        for (int item = 0; item < 4; ++item) {
            EXPECT_TRUE(ring.push(10 * round + item));
        }
        EXPECT_FALSE(ring.push(99));
        EXPECT_EQ(ring.pop(), 10 * round);
        EXPECT_TRUE(ring.push(10 * round + 4));
        EXPECT_FALSE(ring.push(99));
        for (int item = 1; item <= 4; ++item) {
            EXPECT_EQ(ring.pop(), 10 * round + item);
        }
        EXPECT_EQ(ring.pop(), std::nullopt);
    }
}

}  // namespace
}  // namespace qv::tarnd
