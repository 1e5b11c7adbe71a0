// RawDouble_* against the C library over wide sweeps, and its special values.
//
// The functions are built from one log2, one exp2 and one cosine polynomial, so
// their errors are those of the construction: exp(x) = exp2(x log2 e) loses
// about |x| units of the last place through the rounding of x log2 e, and
// sqrt, cbrt and pow through log2 of large exponents. The bounds below are the
// measured worst cases of each sweep (in the comment of each row) rounded up a
// little; a change of an algorithm that makes them worse must show here.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>

#include "runtime/raw_double.h"

using namespace vq_tl;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kMinSub = std::numeric_limits<double>::denorm_min();
constexpr double kMaxFinite = std::numeric_limits<double>::max();

uint64_t bits(double x) { return std::bit_cast<uint64_t>(x); }
double fromBits(uint64_t b) { return std::bit_cast<double>(b); }

// Distance in representable doubles; both signs on one ordered line.
double ulpDistance(double a, double b) {
    auto ordered = [](double x) {
        const int64_t i = static_cast<int64_t>(bits(x) & 0x7FFFFFFFFFFFFFFFull);
        return std::signbit(x) ? -i : i;
    };
    const int64_t d = ordered(a) - ordered(b);
    return static_cast<double>(d < 0 ? -d : d);
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
    double (*tested)(double);
    double (*reference)(double);
    Gen gen;
    double lo, hi;
    Metric metric;
    double bound;
};

// [0, 1) from the top 53 bits: the same numbers with every standard library.
double unit(std::mt19937_64& rng) { return static_cast<double>(rng() >> 11) * 0x1p-53; }

double draw(std::mt19937_64& rng, Gen gen, double lo, double hi) {
    switch (gen) {
        case Gen::Uniform: return lo + (hi - lo) * unit(rng);
        case Gen::LogUniform: return std::exp2(lo + (hi - lo) * unit(rng));
        case Gen::PositiveBits:
            for (;;) {
                const uint64_t b = rng() >> 1;
                if (b < 0x7FF0000000000000ull && b != 0) return fromBits(b);
            }
        case Gen::AnyBits:
            for (;;) {
                const uint64_t b = rng();
                if ((b & 0x7FF0000000000000ull) != 0x7FF0000000000000ull) return fromBits(b);
            }
    }
    return 0.0;
}

double measure(const Sweep& s, int count, double* worstAt) {
    std::mt19937_64 rng(0x5EEDu);
    double worst = 0.0;
    *worstAt = 0.0;
    for (int i = 0; i < count; ++i) {
        const double x = draw(rng, s.gen, s.lo, s.hi);
        const double got = s.tested(x);
        const double want = s.reference(x);
        const double err =
            s.metric == Metric::Ulps ? ulpDistance(got, want) : std::fabs(got - want) * 9007199254740992.0;
        if (!(err <= worst)) {  // also catches a NaN error
            worst = err;
            *worstAt = x;
        }
    }
    return worst;
}

double refCbrt(double x) { return std::cbrt(x); }
double refSqrt(double x) { return std::sqrt(x); }
double refAsin(double x) { return std::asin(x); }
double refAcos(double x) { return std::acos(x); }
double refAtan(double x) { return std::atan(x); }
double refTan(double x) { return std::tan(x); }
double refCos(double x) { return std::cos(x); }
double refSin(double x) { return std::sin(x); }
double refExp(double x) { return std::exp(x); }
double refExp2(double x) { return std::exp2(x); }
double refLog(double x) { return std::log(x); }
double refLog2(double x) { return std::log2(x); }
double refSinh(double x) { return std::sinh(x); }
double refCosh(double x) { return std::cosh(x); }
double refTanh(double x) { return std::tanh(x); }
double powHalfPi(double x) { return RawDouble_incomplete_pow(x, 1.5707963267948966); }
double refPowHalfPi(double x) { return std::pow(x, 1.5707963267948966); }

// Measured worst cases (x86-64, glibc 2.36, 200000 points per row) in the
// comments; the bounds leave a little room for another C library. Rows marked
// "abs" count the absolute error in units of 2^-53, for functions whose
// relative error is meaningless near their zeros (cos, sin, tan) or lost by
// cancellation in the defined construction (asin and acos near +-1, sinh and
// tanh near 0).
constexpr double kThirdPi = 1.0471975511965976, kSixthPi = 0.5235987755982988;
using enum Gen;
using enum Metric;
// clang-format off
const Sweep kSweeps[] = {
    {"log2 all positive", RawDouble_log2, refLog2, PositiveBits, 0, 0, Ulps, 3},  // measured 2
    {"log2 [0.5, 2]", RawDouble_log2, refLog2, Uniform, 0.5, 2.0, Ulps, 4},  // measured 3
    {"exp2 [-1074, 1024)", RawDouble_exp2, refExp2, Uniform, -1074.0, 1023.999, Ulps, 4},  // measured 3
    {"exp2 [-1, 1]", RawDouble_exp2, refExp2, Uniform, -1.0, 1.0, Ulps, 4},  // measured 3
    {"exp [-1, 1]", RawDouble_exp, refExp, Uniform, -1.0, 1.0, Ulps, 4},  // measured 3
    {"exp [-708, 709]", RawDouble_exp, refExp, Uniform, -708.0, 709.0, Ulps, 480},  // measured 437
    {"log all positive", RawDouble_log, refLog, PositiveBits, 0, 0, Ulps, 4},  // measured 3
    {"log [0.5, 2]", RawDouble_log, refLog, Uniform, 0.5, 2.0, Ulps, 4},  // measured 3
    {"sqrt [2^-10, 2^10]", RawDouble_sqrt, refSqrt, LogUniform, -10.0, 10.0, Ulps, 4},  // measured 3
    {"sqrt all positive", RawDouble_sqrt, refSqrt, PositiveBits, 0, 0, Ulps, 260},  // measured 228
    {"cbrt [-1000, 1000]", RawDouble_cbrt, refCbrt, Uniform, -1000.0, 1000.0, Ulps, 9},  // measured 7
    {"pow(x, pi/2) [2^-10, 2^10]", powHalfPi, refPowHalfPi, LogUniform, -10.0, 10.0, Ulps, 12},  // measured 9
    {"cos [-pi/3, pi/3]", RawDouble_cos, refCos, Uniform, -kThirdPi, kThirdPi, Ulps, 2},  // measured 1
    {"cos [-10, 10] abs", RawDouble_cos, refCos, Uniform, -10.0, 10.0, Abs53, 6},  // measured 4.95
    {"cos [-1e4, 1e4] abs", RawDouble_cos, refCos, Uniform, -1e4, 1e4, Abs53, 13000},  // measured 11298
    {"sin [pi/6, 5pi/6]", RawDouble_sin, refSin, Uniform, kSixthPi, 5 * kSixthPi, Ulps, 3},  // measured 2
    {"sin [-10, 10] abs", RawDouble_sin, refSin, Uniform, -10.0, 10.0, Abs53, 14},  // measured 11.75
    {"tan [-1.4, 1.4] abs", RawDouble_tan, refTan, Uniform, -1.4, 1.4, Abs53, 56},  // measured 48
    {"atan all finite", RawDouble_atan, refAtan, AnyBits, 0, 0, Ulps, 2},  // measured 1
    {"atan [-4, 4]", RawDouble_atan, refAtan, Uniform, -4.0, 4.0, Ulps, 3},  // measured 2
    {"asin [-0.9, 0.9]", RawDouble_asin, refAsin, Uniform, -0.9, 0.9, Ulps, 4},  // measured 3
    {"asin [-1, 1] abs", RawDouble_asin, refAsin, Uniform, -1.0, 1.0, Abs53, 48},  // measured 42
    {"acos [-1, 1] abs", RawDouble_acos, refAcos, Uniform, -1.0, 1.0, Abs53, 48},  // measured 42.1
    {"sinh [1, 700]", RawDouble_sinh, refSinh, Uniform, 1.0, 700.0, Ulps, 480},  // measured 437
    {"sinh [-1, 1] abs", RawDouble_sinh, refSinh, Uniform, -1.0, 1.0, Abs53, 10},  // measured 8
    {"cosh [-700, 700]", RawDouble_cosh, refCosh, Uniform, -700.0, 700.0, Ulps, 480},  // measured 430
    {"cosh [-1, 1]", RawDouble_cosh, refCosh, Uniform, -1.0, 1.0, Ulps, 5},  // measured 4
    {"tanh [-20, 20] abs", RawDouble_tanh, refTanh, Uniform, -20.0, 20.0, Abs53, 4},  // measured 3
};
// clang-format on

}  // namespace

TEST(RawDouble, SweepsAgainstTheCLibrary) {
    for (const Sweep& s : kSweeps) {
        double at;
        const double worst = measure(s, 200000, &at);
        EXPECT_LE(worst, s.bound) << s.name << ": worst at x = " << at;
    }
}

// Measured worst: atan2 2 ulps, hypot of [-1, 1]^2 5 ulps, hypot of any finite pair 4 ulps.
TEST(RawDouble, TwoArgumentSweeps) {
    std::mt19937_64 rng(0x5EEDu);
    auto signedUnit = [&] { return 2.0 * unit(rng) - 1.0; };
    double worstAtan2 = 0, worstHypot = 0, worstHypotWide = 0;
    for (int i = 0; i < 200000; ++i) {
        const double y = signedUnit() * std::exp2(40.0 * signedUnit());
        const double x = signedUnit() * std::exp2(40.0 * signedUnit());
        worstAtan2 = std::max(worstAtan2, ulpDistance(RawDouble_atan2(y, x), std::atan2(y, x)));
        const double p = signedUnit(), q = signedUnit();
        worstHypot = std::max(worstHypot, ulpDistance(RawDouble_hypot(p, q), std::hypot(p, q)));
        const double a = draw(rng, Gen::AnyBits, 0, 0), b = draw(rng, Gen::AnyBits, 0, 0);
        worstHypotWide = std::max(worstHypotWide, ulpDistance(RawDouble_hypot(a, b), std::hypot(a, b)));
    }
    EXPECT_LE(worstAtan2, 3);
    EXPECT_LE(worstHypot, 6);
    EXPECT_LE(worstHypotWide, 6);
}

TEST(RawDouble, Exp2AndLog2Edges) {
    EXPECT_EQ(RawDouble_exp2(1024.0), kInf);
    EXPECT_EQ(RawDouble_exp2(kInf), kInf);
    EXPECT_EQ(bits(RawDouble_exp2(-1080.0)), 0u);
    EXPECT_EQ(bits(RawDouble_exp2(-1075.0)), 0u);
    EXPECT_EQ(bits(RawDouble_exp2(-kInf)), 0u);
    EXPECT_EQ(RawDouble_exp2(-1074.5), kMinSub);
    EXPECT_EQ(RawDouble_exp2(-1074.0), kMinSub);
    EXPECT_EQ(RawDouble_exp2(-0.0), 1.0);
    EXPECT_TRUE(std::isnan(RawDouble_exp2(kNaN)));
    // Integers give the power exactly, subnormal powers included.
    for (int n = -1074; n <= 1023; ++n) ASSERT_EQ(RawDouble_exp2(n), std::ldexp(1.0, n)) << n;
    EXPECT_GT(RawDouble_exp2(1023.9999999), 1.7e308);

    EXPECT_EQ(bits(RawDouble_log2(0.0)), 0xFFF0000000000000ull);
    EXPECT_EQ(bits(RawDouble_log2(-0.0)), 0xFFF0000000000000ull);
    EXPECT_TRUE(std::isnan(RawDouble_log2(-1.0)));
    EXPECT_TRUE(std::isnan(RawDouble_log2(-kInf)));
    EXPECT_TRUE(std::isnan(RawDouble_log2(kNaN)));
    EXPECT_EQ(RawDouble_log2(kInf), kInf);
    // Powers of two give their exponent exactly, subnormals included.
    for (int n = -1074; n <= 1023; ++n) ASSERT_EQ(RawDouble_log2(std::ldexp(1.0, n)), n) << n;
    // Just below and at sqrt(2), where the mantissa is halved.
    EXPECT_LE(ulpDistance(RawDouble_log2(1.4142135623730949), std::log2(1.4142135623730949)), 2);
    EXPECT_LE(ulpDistance(RawDouble_log2(1.4142135623730951), 0.5), 2);
    EXPECT_LE(ulpDistance(RawDouble_log2(kMaxFinite), 1024.0), 1);
}

TEST(RawDouble, CompositionsAreTheDefinedOnes) {
    // The derived functions must be these compositions bit for bit, since
    // tables elsewhere were made with them; sqrt in particular is not the root.
    std::mt19937_64 rng(7);
    int sqrtDiffers = 0;
    for (int i = 0; i < 20000; ++i) {
        const double x = draw(rng, Gen::LogUniform, -30.0, 30.0);
        const double y = 4.0 * unit(rng) - 2.0;
        ASSERT_EQ(bits(RawDouble_sqrt(x)), bits(RawDouble_exp2(RawDouble_log2(x) * 0.5)));
        ASSERT_EQ(bits(RawDouble_exp(y)), bits(RawDouble_exp2(y * 1.4426950408889634)));
        ASSERT_EQ(bits(RawDouble_log(x)), bits(RawDouble_log2(x) * 0.6931471805599453));
        ASSERT_EQ(bits(RawDouble_incomplete_pow(x, y)), bits(RawDouble_exp2(RawDouble_log2(x) * y)));
        ASSERT_EQ(bits(RawDouble_sin(y)), bits(RawDouble_cos(y + -1.5707963267948966)));
        ASSERT_EQ(bits(RawDouble_cbrt(-x)), bits(-RawDouble_cbrt(x)));
        ASSERT_EQ(bits(RawDouble_cos(-y)), bits(RawDouble_cos(y)));
        sqrtDiffers += RawDouble_sqrt(x) != std::sqrt(x);
    }
    EXPECT_GT(sqrtDiffers, 1000);
    EXPECT_LE(ulpDistance(RawDouble_sqrt(4.0), 2.0), 2);
    EXPECT_EQ(RawDouble_sqrt(0.0), 0.0);
    EXPECT_EQ(RawDouble_sqrt(kInf), kInf);
    EXPECT_TRUE(std::isnan(RawDouble_sqrt(-1.0)));
    EXPECT_LE(ulpDistance(RawDouble_cbrt(-8.0), -2.0), 2);
}

TEST(RawDouble, CosineEdges) {
    for (double x : {kInf, -kInf, kNaN}) {
        EXPECT_EQ(bits(RawDouble_cos(x)), 0x7FF8000000000000ull);
        EXPECT_TRUE(std::isnan(RawDouble_sin(x)));
    }
    EXPECT_EQ(RawDouble_cos(0.0), 1.0);
    EXPECT_EQ(RawDouble_cos(3.141592653589793), -1.0);
    EXPECT_EQ(RawDouble_cos(6.283185307179586), 1.0);
    // sin(0) is cos of the double nearest pi/2: tiny, not zero.
    EXPECT_LT(std::fabs(RawDouble_sin(0.0)), 1e-16);
    EXPECT_LE(ulpDistance(RawDouble_sin(1.5707963267948966), 1.0), 1);
    EXPECT_LE(std::fabs(RawDouble_tan(0.7853981633974483) - 1.0), 4e-16);
}

TEST(RawDouble, HyperbolicAndInverseEdges) {
    EXPECT_EQ(RawDouble_tanh(1000.0), 1.0);  // e^(2x) overflows: the limit, not inf / inf
    EXPECT_EQ(RawDouble_tanh(-1000.0), -1.0);
    EXPECT_EQ(RawDouble_cosh(0.0), 1.0);
    EXPECT_EQ(RawDouble_sinh(0.0), 0.0);
    EXPECT_EQ(RawDouble_asin(0.0), 0.0);
    EXPECT_LE(ulpDistance(RawDouble_asin(1.0), 1.5707963267948966), 1);
    EXPECT_LE(ulpDistance(RawDouble_asin(-1.0), -1.5707963267948966), 1);
    EXPECT_EQ(RawDouble_acos(1.0), 0.0);
    EXPECT_LE(ulpDistance(RawDouble_acos(-1.0), 3.141592653589793), 1);
    EXPECT_TRUE(std::isnan(RawDouble_asin(1.5)));
    EXPECT_LE(ulpDistance(RawDouble_atan(1.0), 0.7853981633974483), 1);
    EXPECT_EQ(RawDouble_atan(kInf), 1.5707963267948966);
    EXPECT_EQ(RawDouble_atan(-kInf), -1.5707963267948966);
    EXPECT_EQ(bits(RawDouble_atan(-0.0)), bits(-0.0));
    EXPECT_EQ(RawDouble_atan(1e-300), 1e-300);
    EXPECT_TRUE(std::isnan(RawDouble_atan(kNaN)));
}

TEST(RawDouble, Atan2Quadrants) {
    const double pi = 3.141592653589793, half = 1.5707963267948966, quarter = 0.7853981633974483;
    const struct {
        double y, x, want;
    } cases[] = {
        {0.0, 0.0, 0.0},
        {-0.0, 0.0, -0.0},
        {0.0, -0.0, pi},
        {-0.0, -0.0, -pi},
        {0.0, -1.0, pi},
        {-0.0, -1.0, -pi},
        {0.0, 1.0, 0.0},
        {-0.0, 1.0, -0.0},
        {1.0, 0.0, half},
        {-1.0, -0.0, -half},
        {kInf, kInf, quarter},
        {kInf, -kInf, 3 * quarter},
        {-kInf, kInf, -quarter},
        {-kInf, -kInf, -3 * quarter},
        {1.0, kInf, 0.0},
        {-1.0, kInf, -0.0},
        {1.0, -kInf, pi},
        {-1.0, -kInf, -pi},
        {kInf, 1.0, half},
        {-kInf, -5.0, -half},
        {1.0, 1.0, quarter},
        {1.0, -1.0, 3 * quarter},
        {-1.0, -1.0, -3 * quarter},
        {1e-310, -1e300, pi},
    };
    for (const auto& c : cases) {
        const double got = RawDouble_atan2(c.y, c.x);
        EXPECT_LE(ulpDistance(got, c.want), 1) << c.y << ", " << c.x << " -> " << got;
        EXPECT_EQ(std::signbit(got), std::signbit(c.want)) << c.y << ", " << c.x;
    }
    EXPECT_TRUE(std::isnan(RawDouble_atan2(kNaN, 1.0)));
    EXPECT_TRUE(std::isnan(RawDouble_atan2(1.0, kNaN)));
}

TEST(RawDouble, HypotEdges) {
    EXPECT_EQ(RawDouble_hypot(kInf, kNaN), kInf);
    EXPECT_EQ(RawDouble_hypot(kNaN, -kInf), kInf);
    EXPECT_EQ(bits(RawDouble_hypot(-0.0, 0.0)), 0u);
    EXPECT_LE(ulpDistance(RawDouble_hypot(3.0, -4.0), 5.0), 2);
    EXPECT_EQ(RawDouble_hypot(-7.0, 0.0), 7.0);
    EXPECT_LE(ulpDistance(RawDouble_hypot(1e300, 1e300), 1.4142135623730951e300), 2);  // no overflow
    EXPECT_LE(ulpDistance(RawDouble_hypot(3e-310, 4e-310), 5e-310), 2);                // no underflow
}

TEST(RawDouble, FloorCeilRoundAgainstTheCLibrary) {
    const double table[] = {2.5,
                            -2.5,
                            0.5,
                            -0.5,
                            0.49999999999999994,
                            -0.49999999999999994,
                            1.5,
                            -1.5,
                            0.0,
                            -0.0,
                            4503599627370495.5,
                            -4503599627370495.5,
                            1e300,
                            kMinSub,
                            -kMinSub,
                            0.99999999999999989,
                            -0.99999999999999989,
                            kInf,
                            -kInf,
                            9007199254740993.0,
                            123456.75,
                            -123456.25};
    for (double x : table) {
        EXPECT_EQ(bits(RawDouble_floor(x)), bits(std::floor(x))) << x;
        EXPECT_EQ(bits(RawDouble_ceil(x)), bits(std::ceil(x))) << x;
        EXPECT_EQ(bits(RawDouble_round(x)), bits(std::round(x))) << x;  // C round: halves away from zero
    }
    EXPECT_TRUE(std::isnan(RawDouble_floor(kNaN)));
    std::mt19937_64 rng(11);
    for (int i = 0; i < 100000; ++i) {
        // Magnitudes around 2^-2..2^60, where the fraction bits matter.
        const double x = (rng() & 1 ? 1 : -1) * draw(rng, Gen::LogUniform, -2.0, 60.0);
        ASSERT_EQ(bits(RawDouble_floor(x)), bits(std::floor(x))) << x;
        ASSERT_EQ(bits(RawDouble_ceil(x)), bits(std::ceil(x))) << x;
        ASSERT_EQ(bits(RawDouble_round(x)), bits(std::round(x))) << x;
    }
}

TEST(RawDouble, UlpIsTheGapAboveTheMagnitude) {
    EXPECT_EQ(RawDouble_ulp(1.0), 0x1p-52);
    EXPECT_EQ(RawDouble_ulp(-1.5), 0x1p-52);
    EXPECT_EQ(RawDouble_ulp(0.0), kMinSub);
    EXPECT_EQ(RawDouble_ulp(-0.0), kMinSub);
    EXPECT_EQ(RawDouble_ulp(kMinSub), kMinSub);
    EXPECT_EQ(RawDouble_ulp(std::numeric_limits<double>::min()), kMinSub);
    EXPECT_EQ(RawDouble_ulp(kMaxFinite), 0x1p971);
    EXPECT_EQ(RawDouble_ulp(-kInf), kInf);
    EXPECT_TRUE(std::isnan(RawDouble_ulp(kNaN)));
    std::mt19937_64 rng(12);
    for (int i = 0; i < 100000; ++i) {
        const double x = draw(rng, Gen::AnyBits, 0, 0);
        const double a = std::fabs(x);
        if (a == kMaxFinite) continue;
        ASSERT_EQ(RawDouble_ulp(x), std::nextafter(a, kInf) - a) << x;
    }
}
