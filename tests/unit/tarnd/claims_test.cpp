#include "services/tarnd/claims.h"

#include <gtest/gtest.h>

namespace qv::tarnd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Claims::Rank kOwn{.priority = 128, .bridge = 50};

Probe probe(uint64_t bridge, uint8_t priority = 128, uint8_t flags = kClaims) {
    return {.bridge = bridge, .ifx = 2, .flags = flags, .priority = priority};
}

struct ClaimsTest : testing::Test {
    Time now{seconds(5000)};
    Claims claims;
};

TEST_F(ClaimsTest, TheLowestPriorityComesFirstAndThenTheLowestBridge) {
    claims.heard(1, probe(49), now);
    claims.heard(1, probe(51), now);
    claims.heard(2, probe(60, 127), now);
    claims.heard(2, probe(40, 129), now);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), 2u);  // 49 and 60
    EXPECT_EQ(claims.count_ahead(1, 3, kOwn, now), 1u);
    EXPECT_EQ(claims.count_ahead(3, 4, kOwn, now), 0u);
}

TEST_F(ClaimsTest, ASwitchOnBothPortsCountsOnce) {
    claims.heard(1, probe(49), now);
    claims.heard(2, probe(49), now);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), 1u);
}

TEST_F(ClaimsTest, ASwitchThatWouldNotCutClaimsNothing) {
    claims.heard(1, probe(49, 0, 0), now);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), 0u);
    EXPECT_TRUE(claims.shared(1, now));
    EXPECT_FALSE(claims.shared(2, now));
}

TEST_F(ClaimsTest, ASwitchThatIsCuttingComesFirstForAMoment) {
    claims.heard(1, probe(51, 200, kClaims | kCutting), now);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now + milliseconds(200)), 1u);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now + milliseconds(201)), 0u);
}

TEST_F(ClaimsTest, ALoopBehindOnePortIsNearerToASwitchBeyondIt) {
    claims.heard(1, probe(51, 200, 0), now);
    EXPECT_EQ(claims.count_ahead(1, 1, kOwn, now), 1u);
    EXPECT_EQ(claims.count_ahead(2, 2, kOwn, now), 0u);
}

TEST_F(ClaimsTest, ASilentSwitchIsForgotten) {
    EXPECT_TRUE(claims.heard(1, probe(49), now));
    EXPECT_FALSE(claims.heard(1, probe(49), now));
    now += seconds(15);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), 1u);
    now += seconds(1);
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), 0u);
    EXPECT_FALSE(claims.shared(1, now));
    EXPECT_TRUE(claims.heard(1, probe(49), now));
    claims.forget(1);
    EXPECT_FALSE(claims.shared(1, now));
}

TEST_F(ClaimsTest, TheMemoryIsBounded) {
    for (uint64_t bridge = 1; bridge <= Claims::kMaxClaims + 50; ++bridge) {
        claims.heard(1, probe(bridge, 0), now);
        now += std::chrono::microseconds(1);
    }
    EXPECT_EQ(claims.count_ahead(1, 2, kOwn, now), Claims::kMaxClaims);
}

}  // namespace
}  // namespace qv::tarnd
