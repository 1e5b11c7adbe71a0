// Table cosine and arcsine and the integer root.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>

#include "runtime/fixed_math.h"

using namespace vq_tl;

TEST(FixedMath, TablesAreTruncatedValues) {
    for (int k = 0; k <= 1024; ++k) {
        // k = 1024 gives 32768 cos(pi/2), a rounding error above 0 in double: truncated to 0.
        ASSERT_EQ(kCosTable[k],
                  static_cast<int>(std::floor(32768.0 * std::cos(std::numbers::pi * k / 2048.0))))
            << k;
    }
    for (int v = 0; v <= 1024; ++v) {
        // Only v = 0, 512, 1024 give whole numbers (0, 300, 900); the 1e-9 lifts the
        // last of double's rounding there, and no other value lies that close.
        const double tenths = std::asin(v / 1024.0) * 1800.0 / std::numbers::pi;
        ASSERT_EQ(kAsinTable[v], static_cast<int>(std::floor(tenths + 1e-9))) << v;
    }
}

TEST(FixedMath, CosineAndArcsineHandWorked) {
    // Q15 radians over pi is the phase at 65536 per turn; the table index is phase >> 4.
    const struct {
        int32_t angle, want;
    } cosines[] = {
        {0, 32768},           // cos 0
        {25736, 23170},       // pi/4: phase 8192.02 -> 8192, index 512, floor(32768 / sqrt 2) = 23170
        {-25736, 23170},      // the magnitude is taken first
        {34315, 16413},       // pi/3: phase 10922.8 -> 10922, index 682, floor(32768 cos(682 pi / 2048))
        {51472, 0},           // pi/2: phase 16384.05 -> 16384, index 1024
        {51471, 50},          // just under: phase 16383, index 1023, floor(32768 sin(pi / 2048)) = 50
        {77208, -23170},      // 3pi/4: phase 24576, mirrored to index (32768 - 24576) >> 4 = 512
        {102944, -32768},     // pi: phase 32768.09 -> 32768, index 0, negated
        {205887, 32768},      // 2 pi: phase 65535, folded to 1
        {INT32_MIN, -23662},  // 2^31: phase 683565275 mod 65536 = 24795, index (32768 - 24795) >> 4 = 498
    };
    for (const auto& c : cosines) EXPECT_EQ(getCOS(c.angle), c.want) << c.angle;
    // Tenths of a degree; asin(100 / 1024) = 5.604 degrees. Beyond +-1024 there is no arcsine: 0.
    const struct {
        int32_t value, want;
    } arcsines[] = {
        {0, 0},      {1, 0},    {100, 56},      {300, 170},   {512, 300},    {1000, 775}, {1023, 874},
        {1024, 900}, {1025, 0}, {INT32_MAX, 0}, {-512, -300}, {-1024, -900}, {-1025, 0},  {INT32_MIN, 0},
    };
    for (const auto& c : arcsines) EXPECT_EQ(getASIN(c.value), c.want) << c.value;
}

TEST(FixedMath, CosineFollowsTheTrueCosine) {
    // The phase keeps 12 bits per turn: an error of at most 16 phase steps of
    // 2 pi / 65536 times the slope 32768, about 50.3, plus 1 for truncation.
    std::mt19937 rng(31);
    for (int i = 0; i < 400000; ++i) {
        const int32_t angle = i < 210000 ? i - 5000 : static_cast<int32_t>(rng());
        ASSERT_LE(std::fabs(getCOS(angle) - 32768.0 * std::cos(angle / 32768.0)), 52.0) << angle;
        ASSERT_EQ(getCOS(angle), getCOS(angle == INT32_MIN ? angle : -angle)) << angle;
    }
}

TEST(FixedMath, IsqrtIsTheFloorOfTheRoot) {
    // The edges k^2 - 1, k^2 and (k + 1)^2 - 1 of every root, up to 2^32 - 1.
    for (uint32_t k = 1; k < 65536; ++k) {
        ASSERT_EQ(isqrt(k * k - 1), k - 1) << k;
        ASSERT_EQ(isqrt(k * k), k) << k;
        ASSERT_EQ(isqrt(k * k + 2 * k), k) << k;
    }
}
