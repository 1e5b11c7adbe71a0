// The integer-only Double_* family against the processor's own IEEE arithmetic
// (round to nearest even, subnormals on), bit for bit. A NaN result only has
// to be a NaN: payloads differ between processors.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "runtime/raw_double.h"
#include "runtime/soft_double.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

uint64_t bits(double x) { return std::bit_cast<uint64_t>(x); }
double real(uint64_t b) { return std::bit_cast<double>(b); }
uint32_t bits(float x) { return std::bit_cast<uint32_t>(x); }
float realF(uint32_t b) { return std::bit_cast<float>(b); }

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kMinSub = std::numeric_limits<double>::denorm_min();
constexpr double kMinNormal = std::numeric_limits<double>::min();
constexpr double kMax = std::numeric_limits<double>::max();

::testing::AssertionResult sameDouble(uint64_t got, double want) {
    if (std::isnan(want) ? std::isnan(real(got)) : got == bits(want)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << std::hexfloat << "got " << real(got) << " want " << want;
}

// Sum, difference, product, quotient and root of a (r), and a < b.
::testing::AssertionResult arithmeticMatches(uint64_t a, uint64_t b) {
    const double x = real(a), y = real(b);
    const uint64_t got[] = {Double_add(a, b), Double_sub(a, b), Double_mul(a, b), Double_div(a, b),
                            Double_sqrt(a)};
    const double want[] = {x + y, x - y, x * y, x / y, std::sqrt(x)};
    for (int i = 0; i < 5; ++i) {
        ::testing::AssertionResult r = sameDouble(got[i], want[i]);
        if (!r) return r << " for " << std::hexfloat << x << ' ' << "+-*/r"[i] << ' ' << y;
    }
    if (Double_isLessThan(a, b) == (x < y)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << std::hexfloat << x << " < " << y;
}

// Values where rounding, overflow and the special cases live, with both signs.
std::vector<double> specials() {
    // clang-format off
    std::vector<double> v = {
        0.0, kMinSub, 2 * kMinSub, 3 * kMinSub, real(0x000FFFFFFFFFFFFFull) /* largest subnormal */,
        0x1p-1023, kMinNormal, real(0x0010000000000001ull), 0x1.8p-1022, 1e-300,
        0.5, 1.0, real(0x3FF0000000000001ull) /* 1 + ulp */, real(0x3FEFFFFFFFFFFFFFull) /* largest below 1 */,
        1.5, 2.0, 3.0, 0.1, 1.0 / 3.0, 0x1p-53, 0x1p-54, 0x1.8p-52, 0x1p52, 0x1p53, 0x1p53 + 2,
        1e300, 0x1p1023, 0x1p970, 0x1p969, kMax, real(0x7FEFFFFFFFFFFFFEull), kInf,
        kNaN, real(0x7FF0000000000001ull) /* signalling NaN */};
    // clang-format on
    const size_t n = v.size();
    for (size_t i = 0; i < n; ++i) v.push_back(-v[i]);
    return v;
}

// A random sign and mantissa under the given exponent field, clamped to the finite ones.
uint64_t make(std::mt19937_64& rng, int64_t exponentField) {
    static constexpr uint64_t kM = 0x000FFFFFFFFFFFFFull;
    uint64_t mantissa = rng() & kM;
    switch (rng() % 4) {
        case 1: mantissa &= 0x000FFC0000000000ull; break;  // few bits set: exact results and exact ties
        case 2: mantissa = kM ^ (rng() & 0xFF); break;     // runs of ones: carries
        case 3: mantissa |= 1; break;
        default: break;
    }
    const uint64_t e = static_cast<uint64_t>(std::clamp<int64_t>(exponentField, 0, 2046));
    return (rng() & 0x8000000000000000ull) | (e << 52) | mantissa;
}

}  // namespace

// Every pair of special values, then operand pairs of five shapes, each aimed
// at one kind of fault: any patterns, close exponents, products near the
// limits, quotients near them, subnormals.
TEST(Double, ArithmeticMatchesHardware) {
    const std::vector<double> v = specials();
    for (double x : v) {
        for (double y : v) EXPECT_TRUE(arithmeticMatches(bits(x), bits(y)));
    }
    std::mt19937_64 rng(0xD0B1Eu);
    for (int shape = 0; shape < 5; ++shape) {
        for (int i = 0; i < vq_tl_test_scaled(100000, 12500); ++i) {
            const int64_t ea = static_cast<int64_t>(rng() % 2047);
            const int64_t jitter = static_cast<int64_t>(rng() % 130) - 65;
            uint64_t a = make(rng, ea), b = 0;
            switch (shape) {
                case 0: a = rng(), b = rng(); break;
                case 1: b = make(rng, ea + jitter); break;
                case 2: b = make(rng, (rng() & 1 ? 1023 : 3070) - ea + jitter); break;
                case 3: b = make(rng, ea + (rng() & 1 ? 1023 : -1024) + jitter); break;
                default:
                    a = make(rng, static_cast<int64_t>(rng() % 4)),
                    b = make(rng, static_cast<int64_t>(rng() % 60));
            }
            if (rng() & 1) std::swap(a, b);
            ASSERT_TRUE(arithmeticMatches(a, b)) << "shape " << shape;
            // Squares of short mantissas have exact roots; their neighbours are the hard cases.
            const double r =
                std::ldexp(static_cast<double>(rng() >> 38), static_cast<int>(rng() % 400) - 200);
            for (uint64_t s : {bits(r * r) - 1, bits(r * r), bits(r * r) + 1}) {
                ASSERT_TRUE(sameDouble(Double_sqrt(s), std::sqrt(real(s))));
            }
        }
    }
}

TEST(Double, Mul2IsLdexp) {
    EXPECT_EQ(Double_mul2(bits(1.0), 1024), bits(kInf));
    EXPECT_EQ(Double_mul2(bits(1.0), -1074), bits(kMinSub));
    EXPECT_EQ(Double_mul2(bits(-3.0), INT32_MIN), bits(-0.0));
    EXPECT_EQ(Double_mul2(bits(kMinSub), INT32_MAX), bits(kInf));
    std::mt19937_64 rng(22);
    for (int i = 0; i < vq_tl_test_scaled(100000, 12500); ++i) {
        const uint64_t a = rng();
        const int32_t n = static_cast<int32_t>(rng() % 4401) - 2200;
        ASSERT_TRUE(sameDouble(Double_mul2(a, n), std::ldexp(real(a), n)))
            << std::hexfloat << real(a) << " " << n;
        // Results that land among the subnormals, where the one rounding happens.
        const uint64_t b = make(rng, static_cast<int64_t>(rng() % 60));
        const int32_t m = -static_cast<int32_t>(rng() % 60);
        ASSERT_TRUE(sameDouble(Double_mul2(b, m), std::ldexp(real(b), m)))
            << std::hexfloat << real(b) << " " << m;
    }
}

TEST(Double, IntegerConversionsMatchHardware) {
    std::mt19937_64 rng(23);
    // Ties between 2^53 and 2^53 + 2 and above go to even, up to the tie at the top, which becomes 2^64.
    // clang-format off
    const uint64_t wides[] = {0, 1, 7, 0x40000000ull, 0x7FFFFFFFull, 0x80000000ull, 0x80000001ull, 0xFEFFFFFFull,
                              (1ull << 53) + 1, (1ull << 53) + 3, (1ull << 54) + 2, (1ull << 54) + 6,
                              0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull,
                              0xFFFFFFFFFFFFFC00ull, 0xFFFFFFFFFFFFFBFFull};
    // clang-format on
    for (int i = 0; i < vq_tl_test_scaled(100000, 12500) + static_cast<int>(std::size(wides)); ++i) {
        // Then every bit length.
        const uint64_t v = i < static_cast<int>(std::size(wides)) ? wides[i] : rng() >> (rng() % 64);
        const int64_t s = static_cast<int64_t>(i & 1 ? v : 0 - v);
        const int32_t t = static_cast<int32_t>(v);
        ASSERT_EQ(Uint64ToDouble(v), bits(static_cast<double>(v))) << v;
        ASSERT_EQ(Int64ToDouble(s), bits(static_cast<double>(s))) << s;
        ASSERT_EQ(Int32ToDouble(t), bits(static_cast<double>(t))) << t;
        ASSERT_EQ(Uint32ToDouble(static_cast<uint32_t>(t)),
                  bits(static_cast<double>(static_cast<uint32_t>(t))));
        // Back to integers: truncation wherever the value fits the type.
        const double d =
            std::ldexp(static_cast<double>(static_cast<int64_t>(rng())), -static_cast<int>(rng() % 70));
        ASSERT_TRUE(std::fabs(d) >= 0x1p31 || DoubleToInt32(bits(d)) == static_cast<int32_t>(d)) << d;
        ASSERT_TRUE(d <= -1.0 || d >= 0x1p32 || DoubleToUint32(bits(d)) == static_cast<uint32_t>(d)) << d;
        ASSERT_TRUE(std::fabs(d) >= 0x1p63 || DoubleToInt64(bits(d)) == static_cast<int64_t>(d)) << d;
        ASSERT_TRUE(d <= -1.0 || d >= 0x1p64 || DoubleToUint64(bits(d)) == static_cast<uint64_t>(d)) << d;
    }
}

TEST(Double, IntegerConversionsTruncateAndSaturate) {
    const struct {
        double d;
        int32_t i32;
        uint32_t u32;
        int64_t i64;
        uint64_t u64;
    } cases[] = {
        // clang-format off
        {2.9, 2, 2, 2, 2}, {-2.9, -2, 0, -2, 0}, {-0.5, 0, 0, 0, 0}, {-0.0, 0, 0, 0, 0}, {kMinSub, 0, 0, 0, 0},
        {2147483647.9, INT32_MAX, 2147483647u, 2147483647, 2147483647u},
        {2147483648.0, INT32_MAX, 2147483648u, 2147483648ll, 2147483648ull},
        {-2147483648.9, INT32_MIN, 0, -2147483648ll, 0}, {-2147483649.0, INT32_MIN, 0, -2147483649ll, 0},
        {4294967296.0, INT32_MAX, UINT32_MAX, 4294967296ll, 4294967296ull},
        {0x1p63, INT32_MAX, UINT32_MAX, INT64_MAX, 0x8000000000000000ull}, {-0x1p63, INT32_MIN, 0, INT64_MIN, 0},
        {0x1p64, INT32_MAX, UINT32_MAX, INT64_MAX, UINT64_MAX}, {kInf, INT32_MAX, UINT32_MAX, INT64_MAX, UINT64_MAX},
        {-kInf, INT32_MIN, 0, INT64_MIN, 0}, {kNaN, 0, 0, 0, 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DoubleToInt32(bits(c.d)), c.i32) << c.d;
        EXPECT_EQ(DoubleToUint32(bits(c.d)), c.u32) << c.d;
        EXPECT_EQ(DoubleToInt64(bits(c.d)), c.i64) << c.d;
        EXPECT_EQ(DoubleToUint64(bits(c.d)), c.u64) << c.d;
    }
}

TEST(Double, FloatConversionsMatchHardware) {
    std::mt19937_64 rng(24);
    auto sameFloat = [](uint32_t got, float want) {
        return std::isnan(want) ? std::isnan(realF(got)) : got == bits(want);
    };
    const std::vector<double> v = specials();
    for (double x : v) EXPECT_TRUE(sameFloat(DoubleToF32(bits(x)), static_cast<float>(x))) << x;
    for (int i = 0; i < vq_tl_test_scaled(100000, 12500); ++i) {
        const uint32_t f = static_cast<uint32_t>(rng());
        const uint64_t widened = F32ToDouble(f);
        ASSERT_TRUE(sameDouble(widened, static_cast<double>(realF(f)))) << std::hexfloat << realF(f);
        ASSERT_TRUE(std::isnan(realF(f)) || DoubleToF32(widened) == f) << f;
        // Doubles around the float range: normal, subnormal, overflow, and ties (low 29 bits 0x10000000).
        uint64_t d = make(rng, 1023 - 160 + static_cast<int64_t>(rng() % 300));
        if (rng() & 1) d = (d & ~0x1FFFFFFFull) | 0x10000000ull;
        ASSERT_TRUE(sameFloat(DoubleToF32(d), static_cast<float>(real(d)))) << std::hexfloat << real(d);
        const uint64_t any = rng();
        ASSERT_TRUE(sameFloat(DoubleToF32(any), static_cast<float>(real(any)))) << std::hexfloat << real(any);
    }
    EXPECT_EQ(DoubleToF32(bits(0x1p-150)), 0u);    // half the smallest float subnormal: to even 0
    EXPECT_EQ(DoubleToF32(bits(0x1.8p-149)), 2u);  // 1.5 smallest: to even 2
    EXPECT_EQ(DoubleToF32(bits(0x1.ffffffp127)), 0x7F800000u);  // rounds past the largest float
    EXPECT_EQ(F32ToDouble(0x00000001u), bits(0x1p-149));
    EXPECT_EQ(F32ToDouble(0x80000000u), bits(-0.0));
}

TEST(Double, TranscendentalsEqualRawDoubleBitForBit) {
    std::mt19937_64 rng(25);
    for (int i = 0; i < vq_tl_test_scaled(20000, 2500); ++i) {
        const double angle = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())), -60);  // |x| < 8
        const double wide = real(rng());
        ASSERT_EQ(Double_cos(bits(angle)), bits(RawDouble_cos(angle))) << angle;
        ASSERT_EQ(Double_sin(bits(angle)), bits(RawDouble_sin(angle))) << angle;
        ASSERT_TRUE(sameDouble(Double_cos(bits(wide)), RawDouble_cos(wide))) << wide;
        const double e = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())), -53);  // |x| < 1024
        ASSERT_EQ(Double_exp(bits(e)), bits(RawDouble_exp(e))) << e;
        const double p = real(rng() >> 1);  // every positive pattern
        ASSERT_TRUE(sameDouble(Double_log(bits(p)), RawDouble_log(p))) << p;
        const double y = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())), -61);
        ASSERT_TRUE(sameDouble(Double_pow(bits(p), bits(y)), RawDouble_incomplete_pow(p, y)))
            << p << " " << y;
    }
    EXPECT_EQ(Double_log(bits(0.0)), bits(-kInf));
    EXPECT_EQ(Double_exp(bits(0.0)), bits(1.0));
    EXPECT_EQ(Double_cos(bits(kInf)), 0x7FF8000000000000ull);
}
