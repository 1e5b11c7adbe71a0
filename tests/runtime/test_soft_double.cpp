// The integer-only Double_* family against the processor's IEEE arithmetic
// (nearest even, subnormals on), bit for bit; any NaN for a NaN.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "runtime/soft_double.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

uint64_t bits(double x) { return std::bit_cast<uint64_t>(x); }
double real(uint64_t b) { return std::bit_cast<double>(b); }

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
