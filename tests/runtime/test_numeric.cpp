// Arithmetic without the floating-point unit: Double_* against the processor's IEEE arithmetic (nearest even,
// subnormals on) bit for bit; RawDouble_* against the C library, exp, log, sqrt, pow and sin checked as exact
// compositions of log2, exp2 and cos, the rest swept. The table cosine and arcsine, the integer root;
// fasthash32 and fasthash128 (MurmurHash3 x86_32, x86_128); RandomNumber against a Mersenne Twister written
// from the published algorithm; the memory pool; the log.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "runtime/fasthash.h"
#include "runtime/fixed_math.h"
#include "runtime/log.h"
#include "runtime/mem_pool.h"
#include "runtime/random_number.h"
#include "runtime/raw_double.h"
#include "runtime/soft_double.h"
#include "support/owned.h"
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

constexpr double kPi = 3.141592653589793, kHalfPi = 1.5707963267948966, kQuarterPi = 0.7853981633974483;

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

// Bounds: measured worst cases (x86-64, glibc 2.36) in the comments, rounded up. "abs" rows count absolute
// error in units of 2^-53, where relative error means nothing near a zero or is lost to cancellation.
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

uint32_t hash32(const void* data, int32_t length, uint32_t seed) {
    uint32_t state = seed;
    EXPECT_EQ(fasthash32(&state, data, length), TL_OK);
    return state;
}

void hash128(const void* data, int32_t length, uint32_t seed, uint32_t out[4]) {
    out[0] = out[1] = out[2] = out[3] = seed;
    EXPECT_EQ(fasthash128(out, data, length), TL_OK);
}

struct Params {
    int n, m;
    uint32_t a, b, c;
    int l;
};
constexpr Params kMt19937{624, 397, 0x9908B0DFu, 0x9D2C5680u, 0xEFC60000u, 18};
constexpr Params kShort{351, 175, 0xCCAB8EE7u, 834054912u, static_cast<uint32_t>(-1769472), 17};

// The textbook generator: one bit of the current word over 31 bits of the next.
struct RefTwister {
    Params p;
    std::vector<uint32_t> mt;
    int i;

    uint32_t next() {
        if (i == p.n) {
            for (int k = 0; k < p.n; ++k) {
                const uint32_t y = (mt[k] & 0x80000000u) | (mt[(k + 1) % p.n] & 0x7FFFFFFFu);
                mt[k] = mt[(k + p.m) % p.n] ^ (y >> 1) ^ (y & 1 ? p.a : 0);
            }
            i = 0;
        }
        uint32_t y = mt[i++];
        y ^= y >> 11;
        y ^= (y << 7) & p.b;
        y ^= (y << 15) & p.c;
        return y ^ (y >> p.l);
    }
};

// The library's seeding: 4096 words, two steps of x -> x (2x + 3) + 1 each; then a step per state word,
// whose top 12 bits pick its word.
RefTwister librarySeeded(const Params& p, uint32_t seed) {
    auto step = [](uint32_t x) { return x * (2 * x + 3) + 1; };
    std::vector<uint32_t> table(4096);
    uint32_t x = seed;
    for (auto& entry : table) {
        const uint32_t before = x;
        const uint32_t first = step(x);
        x = step(first);
        entry = (first & 0xFFFF0000u) | (before >> 16);
    }
    RefTwister t{p, std::vector<uint32_t>(p.n), p.n};
    for (auto& word : t.mt) {
        x = step(x);
        word = table[x >> 20];
    }
    return t;
}

struct Generator : vq_tl_test::Owned<RandomNumber, construct_RandomNumber, destruct_RandomNumber> {
    Generator(int32_t kind, uint32_t seed) {
        this->kind = kind;
        EXPECT_EQ(RandomNumber_init(this, seed), TL_OK);
    }
};

using Pool = vq_tl_test::Owned<MemPool, construct_MemPool, destruct_MemPool>;

}  // namespace

// Every pair of special values, then operand pairs of five shapes, each aimed at one kind of fault: any
// patterns, close exponents, products near the limits, quotients near them, subnormals.
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

// On a grid of zeros, infinities, NaN and extremes both follow the C library: quadrants, zero signs, hypot.
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
        E(log2, kMax, 1024.0, 1), E(cbrt, -8.0, -2.0, 2), E(cos, 0.0, 1.0, 0), E(cos, kPi, -1.0, 0),
        E(cos, 2 * kPi, 1.0, 0), E(sin, kHalfPi, 1.0, 1), E(tan, kQuarterPi, 1.0, 3),
        E(tanh, 1000.0, 1.0, 0), E(tanh, -1000.0, -1.0, 0), E(asin, 1.0, kHalfPi, 1),
        E(asin, -1.0, -kHalfPi, 1), E(asin, 1.5, kNaN, 0), E(acos, 1.0, 0.0, 0), E(acos, -1.0, kPi, 1),
        E(atan, 1.0, kQuarterPi, 1), E(atan, kInf, kHalfPi, 0), E(atan, -kInf, -kHalfPi, 0),
        E(atan, -0.0, -0.0, 0), E(atan, kNaN, kNaN, 0), E(ulp, 1.0, 0x1p-52, 0), E(ulp, 0.0, kMinSub, 0),
        E(ulp, kMinSub, kMinSub, 0), E(ulp, 0x1p-1022, kMinSub, 0), E(ulp, kMax, 0x1p971, 0),
        E(ulp, -kInf, kInf, 0), E(ulp, kNaN, kNaN, 0),
    };
    // clang-format on
#undef E
    for (const Edge& e : edges) EXPECT_TRUE(near(e.got, e.want, e.ulps)) << e.call;
    // The cosine's NaN is the default quiet one; sin(0) is cos of the double nearest pi/2: tiny, not zero.
    for (double x : {kInf, -kInf, kNaN}) EXPECT_EQ(bits(RawDouble_cos(x)), 0x7FF8000000000000ull) << x;
    EXPECT_LT(std::fabs(RawDouble_sin(0.0)), 1e-16);
}

TEST(RawDouble, ExactPowersAndTheDefinedCompositions) {
    // Integers give the power exactly and powers of two their exponent, subnormals included.
    for (int n = -1074; n <= 1023; ++n) {
        ASSERT_EQ(RawDouble_exp2(n), std::ldexp(1.0, n)) << n;
        ASSERT_EQ(RawDouble_log2(std::ldexp(1.0, n)), n) << n;
    }
    // The derived functions are these compositions bit for bit (tables were made with them; sqrt is no root).
    std::mt19937_64 rng(7);
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
    }
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
        ASSERT_TRUE(a == kMax || RawDouble_ulp(any) == std::nextafter(a, kInf) - a) << any;
    }
    EXPECT_TRUE(std::isnan(RawDouble_floor(kNaN)));
}

TEST(FixedMath, TablesAreTruncatedValues) {
    for (int k = 0; k <= 1024; ++k) {
        // k = 1024 gives 32768 cos(pi/2), a rounding error above 0 in double: truncated to 0.
        ASSERT_EQ(kCosTable[k],
                  static_cast<int>(std::floor(32768.0 * std::cos(std::numbers::pi * k / 2048.0))))
            << k;
    }
    for (int v = 0; v <= 1024; ++v) {
        // Only v = 0, 512, 1024 give whole numbers; the 1e-9 lifts double's rounding there, near no other v.
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
    // The phase keeps 12 bits per turn: 16 steps of 2 pi / 65536 times the slope 32768 (50.3), plus 1.
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

// SMHasher's check: hash the keys {}, {0}, {0, 1}, ... {0..254} with seed 256 - length, then their results
// with seed 0; the first word identifies the function. Every tail length of both functions takes part. Then a
// published value under a seed with its high bits set, refusals, and the published hash of an empty key.
TEST(Fasthash, VerificationCodesAndPublishedValues) {
    std::vector<uint32_t> results32(256), results128(256 * 4);
    for (int i = 0; i < 256; ++i) {
        // Exactly i bytes on the heap at an odd offset: the address sanitizer sees a read past the end.
        std::vector<uint8_t> storage(static_cast<size_t>(i) + 1);
        for (int k = 0; k < i; ++k) storage[static_cast<size_t>(k) + 1] = static_cast<uint8_t>(k);
        results32[i] = hash32(storage.data() + 1, i, 256 - i);
        hash128(storage.data() + 1, i, 256 - i, &results128[4 * i]);
    }
    EXPECT_EQ(hash32(results32.data(), 256 * 4, 0), 0xB0F57EE3u);
    uint32_t final128[4];
    hash128(results128.data(), 256 * 16, 0, final128);
    EXPECT_EQ(final128[0], 0xB3ECE62Au);
    EXPECT_EQ(hash32("Hello, world!", 13, 0x9747B28Cu), 0x24884CBAu);
    uint32_t s[4] = {1};
    EXPECT_EQ(fasthash128(s, nullptr, 1) & fasthash32(s, s, -1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash32(s, nullptr, 0), TL_OK);  // nothing to read, seed 1
    EXPECT_EQ(s[0], 0x514E28B7u);
}

TEST(RandomNumber, SequencesMatchTheReference) {
    for (int32_t kind : {RANDOM_NUMBER_KIND_351, RANDOM_NUMBER_KIND_MT19937}) {
        for (uint32_t seed : {0u, 1u, 5489u, 0x00010000u, 123456789u, 0xFFFFFFFFu}) {
            Generator g(kind, seed);
            RefTwister ref = librarySeeded(kind == RANDOM_NUMBER_KIND_351 ? kShort : kMt19937, seed);
            for (int i = 0; i < 3000; ++i) {  // several regenerations of the state
                ASSERT_EQ(RandomNumber_get(&g), ref.next())
                    << "kind " << kind << " seed " << seed << " #" << i;
            }
        }
    }
}

// Blocks below 4 bytes take 4, the free list's link. The largest pool takes back all its blocks by address.
TEST(MemPool, HandsOutBlocksInAddressOrderThenRunsDry) {
    const struct {
        int32_t blockSize, count;
    } cases[] = {{1, 10}, {4, 10}, {5, 10}, {24, 10}, {5, kMemPoolMaxBlocks}, {4, kMemPoolMaxBlocks}};
    for (const auto& c : cases) {
        Pool p;
        ASSERT_EQ(MemPool_init(&p, 16, 2), TL_OK);
        ASSERT_EQ(MemPool_init(&p, c.blockSize, c.count), TL_OK);  // again: replaces the blocks
        const int32_t stride = c.blockSize < 5 ? 4 : c.blockSize;
        std::vector<uint8_t*> blocks;
        while (uint8_t* b = static_cast<uint8_t*>(MemPool_pop(&p))) blocks.push_back(b);
        ASSERT_EQ(static_cast<int32_t>(blocks.size()), c.count) << c.blockSize;
        for (int32_t i = 1; i < c.count; ++i) ASSERT_EQ(blocks[i], blocks[0] + i * stride) << c.blockSize;
        for (int32_t i = c.count - 1; i >= 0; --i) ASSERT_EQ(MemPool_push(&p, blocks[i]), TL_OK) << i;
        EXPECT_EQ(MemPool_pop(&p), blocks[0]);
        EXPECT_EQ(MemPool_recycle(&p), TL_OK);
        EXPECT_EQ(MemPool_pop(&p), nullptr);
    }
}

// The sink exists on every platform but Android, where lines go to the system log.
#ifndef __ANDROID__

namespace {

void captureLine(void* user, const char* line) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

}  // namespace

// One line per call: the tag before a colon, one trailing newline dropped, nothing for a null format.
// Replacing the sink takes effect at once; a null sink turns output off even with a user word.
TEST(Log, FormatsOneLinePerCallIntoTheCurrentSink) {
    std::vector<std::string> lines, other;
    Log_setSink(captureLine, &lines);
    Log_printLine("Sgm", "cost %d ms", 17);
    Log_printLine(nullptr, "no tag %d", 3);
    Log_printLine("", "empty tag %d", 4);
    Log_printLine("T", "%d%%", 100);
    Log_printLine("T", "newline dropped %d\n", 1);
    Log_printLine("T", "only one dropped\n\n");
    Log_printLine("Timing", "%s : %f ms, %d", "Depth", 1.5, 42);
    const char* fmt = nullptr;
    Log_printLine("T", fmt);
    Log_setSink(captureLine, &other);
    Log_printLine("B", "second");
    Log_setSink(nullptr, &other);
    Log_printLine("C", "dropped");
    EXPECT_EQ(lines, (std::vector<std::string>{"Sgm: cost 17 ms", "no tag 3", "empty tag 4", "T: 100%",
                                               "T: newline dropped 1", "T: only one dropped\n",
                                               "Timing: Depth : 1.500000 ms, 42"}));
    EXPECT_EQ(other, std::vector<std::string>{"B: second"});
    Log_setSink(nullptr, nullptr);
}

#endif  // __ANDROID__
