#include "platform/client/loop_policy.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(LoopPolicy, ShutsOnlyTheVlanModesThatItNames) {
    constexpr uint32_t access = 1, trunk = 2, hybrid = 7;
    for (const uint32_t warning : {0, 1}) {
        EXPECT_FALSE(policy_shuts(warning, access));
        EXPECT_FALSE(policy_shuts(warning, hybrid));
    }
    EXPECT_TRUE(policy_shuts(2, access));
    EXPECT_FALSE(policy_shuts(2, hybrid));
    EXPECT_FALSE(policy_shuts(3, access));
    EXPECT_TRUE(policy_shuts(3, hybrid));
    EXPECT_TRUE(policy_shuts(4, access));
    EXPECT_TRUE(policy_shuts(4, hybrid));
    for (const uint32_t policy : {0, 1, 2, 3, 4, 5}) {
        EXPECT_FALSE(policy_shuts(policy, trunk)) << policy;
    }
}

}  // namespace
}  // namespace qv
