#include "services/tarnd/frame.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <vector>

namespace qv::tarnd {
namespace {

constexpr Mac kSource{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr Probe kProbe{.bridge = 0x0102030405060708,
                       .ifx = 0x0a0b0c0d,
                       .vid = 0x0e0f,
                       .flags = kClaims,
                       .priority = 0x80,
                       .sequence = 0x1112131415161718,
                       .time_ns = 0x2122232425262728};

struct FrameTest : testing::Test {
    FrameTest() {
        EXPECT_GE(sodium_init(), 0);
        key.fill(7);
        frame = encode(kProbe, kSource, key);
    }

    Key key{};
    Frame frame{};
    Probe read{};
};

TEST_F(FrameTest, FieldsAreWhereTheFormatSays) {
    const std::vector<uint8_t> expected{
        0x03, 0x88, 0xb5, 0x00, 0x00, 0x01,              // destination
        0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              // source
        0x88, 0xb5, 0x02, 0x01, 0x0e, 0x0f,              // type, version, flags, VLAN
        0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,  // bridge
        0x0a, 0x0b, 0x0c, 0x0d,                          // port
        0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18,  // sequence
        0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28,  // time
        0x80, 0x00,                                      // priority, reserved
    };
    EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.begin() + 48), expected);
}

TEST_F(FrameTest, ASentFrameIsDecoded) {
    EXPECT_EQ(decode(frame, key, read), FrameFault::kNone);
    EXPECT_EQ(read, kProbe);
}

TEST_F(FrameTest, EveryFlippedBitIsRefused) {
    for (size_t bit = 0; bit < kFrameBytes * 8; ++bit) {
        Frame flipped = frame;
        flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        EXPECT_NE(decode(flipped, key, read), FrameFault::kNone) << "bit " << bit;
    }
    EXPECT_EQ(read, Probe{});
}

TEST_F(FrameTest, EveryOtherLengthIsRefused) {
    std::vector<uint8_t> bytes(frame.begin(), frame.end());
    bytes.resize(1514);
    for (size_t length = 0; length <= bytes.size(); ++length) {
        const auto expected = length == 64 ? FrameFault::kNone : FrameFault::kLength;
        EXPECT_EQ(decode(std::span(bytes).first(length), key, read), expected) << length;
    }
}

TEST_F(FrameTest, AnotherKeyIsRefused) {
    Key other = key;
    other[31] ^= 1;
    EXPECT_EQ(decode(frame, other, read), FrameFault::kHash);
}

}  // namespace
}  // namespace qv::tarnd
