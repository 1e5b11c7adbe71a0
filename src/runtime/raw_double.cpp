#include "runtime/raw_double.h"

#include <bit>
#include <cstdint>

#include "runtime/real_kernels.h"

// Every operation must round on its own; the build also passes -ffp-contract=off,
// this keeps a clang build made by other means from fusing multiply-adds.
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace vq_tl {

namespace {

using namespace realk;

struct HardwareOps {
    using Real = double;
    static constexpr double fromDouble(double c) { return c; }
    static double fromBits(uint64_t b) { return std::bit_cast<double>(b); }
    static uint64_t toBits(double x) { return std::bit_cast<uint64_t>(x); }
    static double add(double a, double b) { return a + b; }
    static double sub(double a, double b) { return a - b; }
    static double mul(double a, double b) { return a * b; }
    static double div(double a, double b) { return a / b; }
    static bool less(double a, double b) { return a < b; }
    static double fromInt(int32_t v) { return static_cast<double>(v); }
};

using K = Kernels<HardwareOps>;

inline uint64_t bits(double x) { return std::bit_cast<uint64_t>(x); }
inline double fromBits(uint64_t b) { return std::bit_cast<double>(b); }
inline double magnitude(double x) { return fromBits(bits(x) & ~kSignBit); }
inline double withSignOf(double x, double s) {
    return fromBits((bits(x) & ~kSignBit) | (bits(s) & kSignBit));
}

// pi, pi/2 and pi/4 as a double plus the rounding error of that double, so that
// "pi - a" keeps the bits below the last place of pi.
constexpr double kPiHi = 3.141592653589793;
constexpr double kPiLo = 1.2246467991473532e-16;
constexpr double kHalfPiHi = 1.5707963267948966;
constexpr double kHalfPiLo = 6.123233995736766e-17;
constexpr double kQuarterPiHi = 0.7853981633974483;
constexpr double kQuarterPiLo = 3.061616997868383e-17;
constexpr double kTanEighthPi = 0.41421356237309503;  // sqrt(2) - 1

// atan(t) = t + t^3 Q(t^2) for |t| <= sqrt(2) - 1. Q is the minimax fit (Remez,
// degree 10 in t^2 on [0, (sqrt(2) - 1)^2]) of the relative error of atan;
// the fit's own error is below 1.3e-18, 0.025 units of the last place.
constexpr double kAtanPoly[11] = {-0.333333333333332,   0.19999999999954082,  -0.14285714280248504,
                                  0.11111110786137673,  -0.09090897836447016, 0.07692061637115791,
                                  -0.06663120384187099, 0.05848008920227715,  -0.050398455374728715,
                                  0.03807832183461001,  -0.017922280494997996};

// atan on [0, 1]; above tan(pi/8) through atan(r) = pi/4 + atan((r - 1) / (r + 1)).
double atanUnit(double r) {
    static constexpr auto poly = toReals<HardwareOps>(kAtanPoly);
    if (r <= kTanEighthPi) {
        const double s = r * r;
        return r + r * s * horner<HardwareOps>(poly, s);
    }
    const double t = (r - 1.0) / (r + 1.0);
    const double s = t * t;
    return kQuarterPiHi + (t + (t * s * horner<HardwareOps>(poly, s) + kQuarterPiLo));
}

}  // namespace

double RawDouble_exp2(double x) { return K::exp2(x); }
double RawDouble_log2(double x) { return K::log2(x); }
double RawDouble_exp(double x) { return K::exp2(x * kLog2E); }
double RawDouble_log(double x) { return K::log2(x) * kLn2; }
double RawDouble_incomplete_pow(double x, double y) { return K::exp2(K::log2(x) * y); }
double RawDouble_sqrt(double x) { return K::exp2(K::log2(x) * 0.5); }

double RawDouble_cbrt(double x) {
    const uint64_t b = bits(x);
    if ((b & kSignBit) && !isNaN(b)) return -K::exp2(K::log2(-x) / 3.0);
    return K::exp2(K::log2(x) / 3.0);
}

double RawDouble_hypot(double a, double b) {
    const uint64_t ab = bits(a) & ~kSignBit;
    const uint64_t bb = bits(b) & ~kSignBit;
    if (ab == kPosInf || bb == kPosInf) return fromBits(kPosInf);
    if (ab == 0 && bb == 0) return 0.0;
    const double m = ab >= bb ? fromBits(ab) : fromBits(bb);
    const double n = ab >= bb ? fromBits(bb) : fromBits(ab);
    const double r = n / m;
    return m * K::exp2(K::log2(r * r + 1.0) * 0.5);
}

double RawDouble_cos(double x) { return K::cos(x); }
double RawDouble_sin(double x) { return K::cos(x + -kHalfPi); }
double RawDouble_tan(double x) { return RawDouble_sin(x) / K::cos(x); }

double RawDouble_atan(double x) {
    const uint64_t b = bits(x);
    if (isNaN(b)) return x;
    const double a = magnitude(x);
    // Above 1 the argument goes through -1 / x: atan(a) = pi/2 + atan(-1 / a).
    const double r = a > 1.0 ? kHalfPiHi + (kHalfPiLo - atanUnit(1.0 / a)) : atanUnit(a);
    return withSignOf(r, x);
}

double RawDouble_atan2(double y, double x) {
    const uint64_t yb = bits(y);
    const uint64_t xb = bits(x);
    if (isNaN(yb) || isNaN(xb)) return x + y;
    const double ay = magnitude(y);
    const double ax = magnitude(x);
    const bool xNegative = (xb & kSignBit) != 0;  // -0 counts as negative, as usual
    double r;
    if (ay == 0.0) {
        r = xNegative ? kPiHi : 0.0;
    } else if (ax == 0.0) {
        r = kHalfPiHi;
    } else if (ax == fromBits(kPosInf) && ay == fromBits(kPosInf)) {
        r = xNegative ? 2.356194490192345 : kQuarterPiHi;
    } else if (ax == fromBits(kPosInf)) {
        r = xNegative ? kPiHi : 0.0;
    } else if (ay == fromBits(kPosInf)) {
        r = kHalfPiHi;
    } else {
        // The ratio of the smaller to the larger magnitude lies in [0, 1].
        r = ay <= ax ? atanUnit(ay / ax) : kHalfPiHi + (kHalfPiLo - atanUnit(ax / ay));
        if (xNegative) r = kPiHi + (kPiLo - r);
    }
    return withSignOf(r, y);
}

double RawDouble_asin(double x) { return 2.0 * RawDouble_atan2(x, 1.0 + RawDouble_sqrt(1.0 - x * x)); }
double RawDouble_acos(double x) { return kHalfPi - RawDouble_asin(x); }

double RawDouble_sinh(double x) {
    const double t = x * kLog2E;
    return K::exp2(t - 1.0) - K::exp2(-1.0 - t);
}

double RawDouble_cosh(double x) {
    const double t = x * kLog2E;
    return K::exp2(t - 1.0) + K::exp2(-1.0 - t);
}

double RawDouble_tanh(double x) {
    const double e = K::exp2(x * 2.8853900817779268);  // e^(2x)
    // (inf - 1) / (inf + 1) would be NaN; the limit is 1.
    if (e == fromBits(kPosInf)) return 1.0;
    return (e - 1.0) / (e + 1.0);
}

double RawDouble_ceil(double x) { return fromBits(ceilBits(bits(x))); }
double RawDouble_floor(double x) { return fromBits(floorBits(bits(x))); }
double RawDouble_round(double x) { return fromBits(roundBits(bits(x))); }

double RawDouble_ulp(double x) {
    const uint64_t b = bits(x);
    const int32_t e = exponentField(b);
    if (e == 0) return fromBits(1);
    if (e == 0x7FF) return magnitude(x);  // infinity stays infinity, NaN stays NaN
    return fromBits(e > 52 ? static_cast<uint64_t>(e - 52) << 52 : 1ull << (e - 1));
}

}  // namespace vq_tl
