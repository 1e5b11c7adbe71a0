// RawDouble_* against the C library over wide sweeps, and its special values.
// Built from one log2, one exp2 and one cosine polynomial; exp, log, sqrt, pow
// and sin are exact compositions of those (checked bit for bit), so only the
// three and the functions of their own are swept.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "runtime/raw_double.h"

using namespace vq_tl;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kMinSub = std::numeric_limits<double>::denorm_min();
constexpr double kMaxFinite = std::numeric_limits<double>::max();
constexpr double kPi = 3.141592653589793, kHalfPi = 1.5707963267948966, kQuarterPi = 0.7853981633974483;

uint64_t bits(double x) { return std::bit_cast<uint64_t>(x); }

// Distance in representable doubles; both signs on one ordered line.
double ulpDistance(double a, double b) {
    auto ordered = [](double x) {
        const int64_t i = static_cast<int64_t>(bits(x) & 0x7FFFFFFFFFFFFFFFull);
        return std::signbit(x) ? -i : i;
    };
    const int64_t d = ordered(a) - ordered(b);
    return static_cast<double>(d < 0 ? -d : d);
}

// Within `ulps` of want with the same sign; 0: the same bits; a NaN want: any NaN.
::testing::AssertionResult near(double got, double want, double ulps) {
    if (std::isnan(want) ? std::isnan(got)
        : ulps == 0      ? bits(got) == bits(want)
                         : ulpDistance(got, want) <= ulps && std::signbit(got) == std::signbit(want)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << got << " instead of " << want;
}

enum class Metric { Ulps, Abs53 };  // Abs53: absolute error in units of 2^-53

enum class Gen {
    Uniform,       // uniform in [lo, hi]
    LogUniform,    // sign +, log2 uniform in [lo, hi]
    PositiveBits,  // every positive finite pattern equally likely, subnormals included
    AnyBits,       // every finite pattern
};

struct Sweep {
    const char* name;
    double (*tested)(double), (*reference)(double);
    Gen gen;
    double lo, hi;
    Metric metric;
    double bound;
};

// [0, 1) from the top 53 bits: the same numbers with every standard library.
double unit(std::mt19937_64& rng) { return static_cast<double>(rng() >> 11) * 0x1p-53; }

double draw(std::mt19937_64& rng, Gen gen, double lo, double hi) {
    for (;;) {
        switch (gen) {
            case Gen::Uniform: return lo + (hi - lo) * unit(rng);
            case Gen::LogUniform: return std::exp2(lo + (hi - lo) * unit(rng));
            default:  // the bit patterns: below the exponent of inf and NaN, not +0
                const uint64_t b = gen == Gen::AnyBits ? rng() : rng() >> 1;
                if ((b & 0x7FF0000000000000ull) != 0x7FF0000000000000ull && b != 0)
                    return std::bit_cast<double>(b);
        }
    }
}

#define REF(f) [](double x) { return std::f(x); }

// Bounds: measured worst cases (x86-64, glibc 2.36) in the comments, rounded
// up. "abs" rows count absolute error in units of 2^-53, where relative error
// means nothing near a zero or is lost to cancellation in the construction.
constexpr double kThirdPi = 1.0471975511965976;
using enum Gen;
using enum Metric;
// clang-format off
const Sweep kSweeps[] = {
    {"log2 all positive", RawDouble_log2, REF(log2), PositiveBits, 0, 0, Ulps, 3},  // measured 2
    {"exp2 [-1074, 1024)", RawDouble_exp2, REF(exp2), Uniform, -1074.0, 1023.999, Ulps, 4},  // measured 3
    {"cbrt [-1000, 1000]", RawDouble_cbrt, REF(cbrt), Uniform, -1000.0, 1000.0, Ulps, 9},  // measured 7
    {"cos [-pi/3, pi/3]", RawDouble_cos, REF(cos), Uniform, -kThirdPi, kThirdPi, Ulps, 2},  // measured 1
    {"cos [-10, 10] abs", RawDouble_cos, REF(cos), Uniform, -10.0, 10.0, Abs53, 6},  // measured 4.95
    {"cos [-1e4, 1e4] abs", RawDouble_cos, REF(cos), Uniform, -1e4, 1e4, Abs53, 13000},  // measured 11298
    {"tan [-1.4, 1.4] abs", RawDouble_tan, REF(tan), Uniform, -1.4, 1.4, Abs53, 56},  // measured 48
    {"atan all finite", RawDouble_atan, REF(atan), AnyBits, 0, 0, Ulps, 2},  // measured 1
    {"atan [-4, 4]", RawDouble_atan, REF(atan), Uniform, -4.0, 4.0, Ulps, 3},  // measured 2
    {"asin [-0.9, 0.9]", RawDouble_asin, REF(asin), Uniform, -0.9, 0.9, Ulps, 4},  // measured 3
    {"asin [-1, 1] abs", RawDouble_asin, REF(asin), Uniform, -1.0, 1.0, Abs53, 48},  // measured 42
    {"acos [-1, 1] abs", RawDouble_acos, REF(acos), Uniform, -1.0, 1.0, Abs53, 48},  // measured 42.1
    {"sinh [1, 700]", RawDouble_sinh, REF(sinh), Uniform, 1.0, 700.0, Ulps, 480},  // measured 437
    {"sinh [-1, 1] abs", RawDouble_sinh, REF(sinh), Uniform, -1.0, 1.0, Abs53, 10},  // measured 8
    {"cosh [-700, 700]", RawDouble_cosh, REF(cosh), Uniform, -700.0, 700.0, Ulps, 480},  // measured 430
    {"cosh [-1, 1]", RawDouble_cosh, REF(cosh), Uniform, -1.0, 1.0, Ulps, 5},  // measured 4
    {"tanh [-20, 20] abs", RawDouble_tanh, REF(tanh), Uniform, -20.0, 20.0, Abs53, 4},  // measured 3
};
// clang-format on
#undef REF

}  // namespace

TEST(RawDouble, SweepsAgainstTheCLibrary) {
    for (const Sweep& s : kSweeps) {
        std::mt19937_64 rng(0x5EEDu);
        double worst = 0.0, worstAt = 0.0;
        for (int i = 0; i < 200000; ++i) {
            const double x = draw(rng, s.gen, s.lo, s.hi);
            const double got = s.tested(x), want = s.reference(x);
            const double err = s.metric == Ulps ? ulpDistance(got, want) : std::fabs(got - want) * 0x1p53;
            if (!(err <= worst)) {  // also catches a NaN error
                worst = err;
                worstAt = x;
            }
        }
        EXPECT_LE(worst, s.bound) << s.name << ": worst at x = " << worstAt;
    }
}

// On a grid of zeros, infinities, NaN and extremes both follow the C library:
// quadrants, signs of zero, no overflow or underflow inside hypot.
TEST(RawDouble, TwoArgumentFunctions) {
    const double grid[] = {0.0,  -0.0,  1.0,  -1.0,  -5.0,   3.0,    4.0,
                           kInf, -kInf, kNaN, 1e300, -1e300, 3e-310, 4e-310};
    for (const double y : grid) {
        for (const double x : grid) {
            EXPECT_TRUE(near(RawDouble_atan2(y, x), std::atan2(y, x), 1))
                << "atan2(" << y << ", " << x << ")";
            EXPECT_TRUE(near(RawDouble_hypot(y, x), std::hypot(y, x), 2))
                << "hypot(" << y << ", " << x << ")";
        }
    }
}

TEST(RawDouble, SpecialValues) {
    struct Edge {
        const char* call;
        double got, want, ulps;  // ulps 0: the same bits; a NaN want: any NaN
    };
#define E(f, x, want, ulps) \
    Edge { #f "(" #x ")", RawDouble_##f(x), want, ulps }
    // clang-format off
    const Edge edges[] = {
        E(exp2, 1024.0, kInf, 0), E(exp2, kInf, kInf, 0), E(exp2, -1080.0, 0.0, 0), E(exp2, -kInf, 0.0, 0),
        E(exp2, -1074.5, kMinSub, 0), E(exp2, kNaN, kNaN, 0),
        E(exp2, 1023.9999999, std::exp2(1023.9999999), 4), E(log2, 0.0, -kInf, 0), E(log2, -0.0, -kInf, 0),
        E(log2, -1.0, kNaN, 0), E(log2, kNaN, kNaN, 0), E(log2, kInf, kInf, 0),
        E(log2, 1.4142135623730949, std::log2(1.4142135623730949), 2), E(log2, 1.4142135623730951, 0.5, 2),
        E(log2, kMaxFinite, 1024.0, 1), E(cbrt, -8.0, -2.0, 2), E(cos, 0.0, 1.0, 0), E(cos, kPi, -1.0, 0),
        E(cos, 2 * kPi, 1.0, 0), E(sin, kHalfPi, 1.0, 1), E(tan, kQuarterPi, 1.0, 3),
        E(tanh, 1000.0, 1.0, 0), E(tanh, -1000.0, -1.0, 0), E(asin, 1.0, kHalfPi, 1),
        E(asin, -1.0, -kHalfPi, 1), E(asin, 1.5, kNaN, 0), E(acos, 1.0, 0.0, 0), E(acos, -1.0, kPi, 1),
        E(atan, 1.0, kQuarterPi, 1), E(atan, kInf, kHalfPi, 0), E(atan, -kInf, -kHalfPi, 0),
        E(atan, -0.0, -0.0, 0), E(atan, kNaN, kNaN, 0), E(ulp, 1.0, 0x1p-52, 0), E(ulp, 0.0, kMinSub, 0),
        E(ulp, kMinSub, kMinSub, 0), E(ulp, 0x1p-1022, kMinSub, 0), E(ulp, kMaxFinite, 0x1p971, 0),
        E(ulp, -kInf, kInf, 0), E(ulp, kNaN, kNaN, 0),
    };
    // clang-format on
#undef E
    for (const Edge& e : edges) EXPECT_TRUE(near(e.got, e.want, e.ulps)) << e.call;
    // The cosine's NaN is the default quiet one; sin(0) is cos of the double
    // nearest pi/2: tiny, not zero.
    for (double x : {kInf, -kInf, kNaN}) EXPECT_EQ(bits(RawDouble_cos(x)), 0x7FF8000000000000ull) << x;
    EXPECT_LT(std::fabs(RawDouble_sin(0.0)), 1e-16);
}

TEST(RawDouble, ExactPowersAndTheDefinedCompositions) {
    // Integers give the power exactly and powers of two their exponent, subnormals included.
    for (int n = -1074; n <= 1023; ++n) {
        ASSERT_EQ(RawDouble_exp2(n), std::ldexp(1.0, n)) << n;
        ASSERT_EQ(RawDouble_log2(std::ldexp(1.0, n)), n) << n;
    }
    // The derived functions must be these compositions bit for bit, since
    // tables elsewhere were made with them; sqrt in particular is not the root.
    std::mt19937_64 rng(7);
    int sqrtDiffers = 0;
    for (int i = 0; i < 20000; ++i) {
        const double x = draw(rng, LogUniform, -30.0, 30.0);
        const double y = 4.0 * unit(rng) - 2.0;
        ASSERT_EQ(bits(RawDouble_sqrt(x)), bits(RawDouble_exp2(RawDouble_log2(x) * 0.5)));
        ASSERT_EQ(bits(RawDouble_exp(y)), bits(RawDouble_exp2(y * 1.4426950408889634)));
        ASSERT_EQ(bits(RawDouble_log(x)), bits(RawDouble_log2(x) * 0.6931471805599453));
        ASSERT_EQ(bits(RawDouble_incomplete_pow(x, y)), bits(RawDouble_exp2(RawDouble_log2(x) * y)));
        ASSERT_EQ(bits(RawDouble_sin(y)), bits(RawDouble_cos(y + -kHalfPi)));
        ASSERT_EQ(bits(RawDouble_cbrt(-x)), bits(-RawDouble_cbrt(x)));
        ASSERT_EQ(bits(RawDouble_cos(-y)), bits(RawDouble_cos(y)));
        sqrtDiffers += RawDouble_sqrt(x) != std::sqrt(x);
    }
    EXPECT_GT(sqrtDiffers, 1000);
}

TEST(RawDouble, FloorCeilRoundAndUlpAgainstTheCLibrary) {
    const double table[] = {2.5, -2.5, -0.5, 0.49999999999999994, 4503599627370495.5, -0.0, kMinSub, kInf};
    std::mt19937_64 rng(11);
    for (int i = 0; i < 100000 + static_cast<int>(std::size(table)); ++i) {
        // Magnitudes around 2^-2..2^60, where the fraction bits matter.
        const double x = i < static_cast<int>(std::size(table))
                             ? table[i]
                             : (rng() & 1 ? 1 : -1) * draw(rng, LogUniform, -2.0, 60.0);
        ASSERT_EQ(bits(RawDouble_floor(x)), bits(std::floor(x))) << x;
        ASSERT_EQ(bits(RawDouble_ceil(x)), bits(std::ceil(x))) << x;
        ASSERT_EQ(bits(RawDouble_round(x)), bits(std::round(x))) << x;  // C round: halves away from zero
        const double any = draw(rng, AnyBits, 0, 0), a = std::fabs(any);
        ASSERT_TRUE(a == kMaxFinite || RawDouble_ulp(any) == std::nextafter(a, kInf) - a) << any;
    }
    EXPECT_TRUE(std::isnan(RawDouble_floor(kNaN)));
}
