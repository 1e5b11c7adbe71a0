#include "runtime/soft_double.h"

#include <bit>

#include "runtime/real_kernels.h"

namespace vq_tl {

namespace {

using namespace realk;

constexpr uint64_t kImplicitBit = 1ull << 52;

// Shifts right and ors every bit shifted out into bit 0 (the sticky bit), so
// that rounding still sees whether anything below the guard bit was set.
inline uint64_t shiftRightJam(uint64_t v, int32_t n) {
    if (n <= 0) return v;
    if (n < 64) return (v >> n) | ((v << (64 - n)) != 0 ? 1u : 0u);
    return v != 0 ? 1u : 0u;
}

// Rounds sig * 2^(exp - 1023 - 62) to a double. sig has its leading one at
// bit 62; bits 9..0 are the rounding bits (guard at 9, sticky below). exp is the
// biased exponent and may lie outside 1..2046: at or below 0 the value becomes
// subnormal (shifted with sticky), at 2047 or above it overflows to infinity.
uint64_t roundPack(uint64_t sign, int32_t exp, uint64_t sig) {
    if (exp >= 0x7FF) return sign | kPosInf;
    if (exp <= 0) {
        sig = shiftRightJam(sig, 1 - exp);
        exp = 0;
    }
    const uint32_t rest = static_cast<uint32_t>(sig & 0x3FF);
    sig = (sig + 0x200) >> 10;
    if (rest == 0x200) sig &= ~1ull;  // a tie goes to even
    // Normal results carry their implicit bit at bit 52, which adds one to the
    // exponent field: hence exp - 1. A carry out of the mantissa lands in the
    // exponent the same way (up to infinity); a subnormal rounding up to 2^52
    // becomes the smallest normal.
    const uint64_t base = exp > 0 ? static_cast<uint64_t>(exp - 1) << 52 : 0;
    return sign | (base + sig);
}

// As roundPack, for any non-zero sig below 2^63.
uint64_t normalizeRoundPack(uint64_t sign, int32_t exp, uint64_t sig) {
    const int32_t shift = std::countl_zero(sig) - 1;
    return roundPack(sign, exp - shift, sig << shift);
}

// Mantissa with its implicit bit in [2^52, 2^53) and the biased exponent, which
// goes below 1 for subnormals. For finite non-zero patterns only.
inline void unpackNormalized(uint64_t a, int32_t* exp, uint64_t* mant) {
    const int32_t e = exponentField(a);
    const uint64_t frac = a & kFracMask;
    if (e != 0) {
        *exp = e;
        *mant = frac | kImplicitBit;
    } else {
        const int32_t shift = std::countl_zero(frac) - 11;
        *exp = 1 - shift;
        *mant = frac << shift;
    }
}

inline bool isInf(uint64_t a) { return (a & ~kSignBit) == kPosInf; }
inline bool isZero(uint64_t a) { return (a & ~kSignBit) == 0; }
inline uint64_t quiet(uint64_t a) { return a | kQuietBit; }

// Full 128-bit product of two 64-bit words from 32-bit halves (no __int128 on 32-bit Arm).
inline void mul64To128(uint64_t a, uint64_t b, uint64_t* hi, uint64_t* lo) {
    const uint64_t aL = static_cast<uint32_t>(a), aH = a >> 32;
    const uint64_t bL = static_cast<uint32_t>(b), bH = b >> 32;
    const uint64_t ll = aL * bL, lh = aL * bH, hl = aH * bL, hh = aH * bH;
    const uint64_t mid = (ll >> 32) + static_cast<uint32_t>(lh) + static_cast<uint32_t>(hl);
    *lo = (mid << 32) | static_cast<uint32_t>(ll);
    *hi = hh + (lh >> 32) + (hl >> 32) + (mid >> 32);
}

// a + b where b's sign has already been flipped for a subtraction.
uint64_t addSigned(uint64_t a, uint64_t b) {
    if (isInf(a)) return (isInf(b) && ((a ^ b) & kSignBit)) ? kDefaultNaN : a;
    if (isInf(b)) return b;
    if (isZero(a) && isZero(b)) return a & b & kSignBit;  // -0 only for -0 + -0
    if (isZero(a)) return b;
    if (isZero(b)) return a;

    uint64_t magA = a & ~kSignBit, magB = b & ~kSignBit;
    uint64_t sign = a & kSignBit;
    const bool subtract = ((a ^ b) & kSignBit) != 0;
    if (magA < magB) {
        const uint64_t t = magA;
        magA = magB;
        magB = t;
        sign = b & kSignBit;
    }
    if (subtract && magA == magB) return 0;  // x - x is +0

    // Subnormals keep exponent 1 without an implicit bit; both mantissas get 9
    // extra bits below and one bit of headroom above (bit 62) for the carry.
    const int32_t eA = exponentField(magA), eB = exponentField(magB);
    const uint64_t sigA = ((magA & kFracMask) | (eA ? kImplicitBit : 0)) << 9;
    uint64_t sigB = ((magB & kFracMask) | (eB ? kImplicitBit : 0)) << 9;
    const int32_t expA = eA ? eA : 1, expB = eB ? eB : 1;
    sigB = shiftRightJam(sigB, expA - expB);
    // sigA / 2^61 * 2^(expA - 1023) = sigA / 2^62 * 2^(expA + 1 - 1023). The
    // jammed bit stays far enough below the guard bit for a correct
    // subtraction: with an exponent difference of 2 or more the result loses at
    // most one leading bit.
    const uint64_t sum = subtract ? sigA - sigB : sigA + sigB;
    return normalizeRoundPack(sign, expA + 1, sum);
}

uint32_t roundPackF32(uint32_t sign, int32_t exp, uint64_t sig) {
    // As roundPack with 39 rounding bits below a 24-bit mantissa.
    if (exp >= 0xFF) return sign | 0x7F800000u;
    if (exp <= 0) {
        sig = shiftRightJam(sig, 1 - exp);
        exp = 0;
    }
    const uint64_t half = 1ull << 38;
    const uint64_t rest = sig & ((half << 1) - 1);
    sig = (sig + half) >> 39;
    if (rest == half) sig &= ~1ull;
    const uint32_t base = exp > 0 ? static_cast<uint32_t>(exp - 1) << 23 : 0;
    return sign | (base + static_cast<uint32_t>(sig));
}

uint64_t fromMagnitude(uint64_t sign, uint64_t mag) {
    if (mag == 0) return 0;
    if (mag >> 63) return roundPack(sign, 1023 + 63, shiftRightJam(mag, 1));
    return normalizeRoundPack(sign, 1023 + 62, mag);
}

// trunc(|d|) for finite d; *tooBig when it is 2^64 or more.
uint64_t truncatedMagnitude(uint64_t d, bool* tooBig) {
    *tooBig = false;
    const int32_t e = exponentField(d);
    if (e < 1023) return 0;
    if (e - 1023 >= 64) {
        *tooBig = true;
        return 0;
    }
    const uint64_t m = (d & kFracMask) | kImplicitBit;
    const int32_t shift = e - 1075;
    return shift >= 0 ? m << shift : m >> -shift;
}

struct SoftOps {
    using Real = uint64_t;
    static constexpr uint64_t fromDouble(double c) { return std::bit_cast<uint64_t>(c); }
    static uint64_t fromBits(uint64_t b) { return b; }
    static uint64_t toBits(uint64_t x) { return x; }
    static uint64_t add(uint64_t a, uint64_t b) { return Double_add(a, b); }
    static uint64_t sub(uint64_t a, uint64_t b) { return Double_sub(a, b); }
    static uint64_t mul(uint64_t a, uint64_t b) { return Double_mul(a, b); }
    static uint64_t div(uint64_t a, uint64_t b) { return Double_div(a, b); }
    static bool less(uint64_t a, uint64_t b) { return Double_isLessThan(a, b); }
    static uint64_t fromInt(int32_t v) { return Int32ToDouble(v); }
};

using K = Kernels<SoftOps>;

}  // namespace

uint64_t Int32ToDouble(int32_t v) {
    const uint64_t mag =
        v < 0 ? 0 - static_cast<uint64_t>(static_cast<int64_t>(v)) : static_cast<uint64_t>(v);
    return fromMagnitude(v < 0 ? kSignBit : 0, mag);
}

uint64_t Uint32ToDouble(uint32_t v) { return fromMagnitude(0, v); }

uint64_t Int64ToDouble(int64_t v) {
    const uint64_t mag = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    return fromMagnitude(v < 0 ? kSignBit : 0, mag);
}

uint64_t Uint64ToDouble(uint64_t v) { return fromMagnitude(0, v); }

uint64_t F32ToDouble(uint32_t f) {
    const uint64_t sign = static_cast<uint64_t>(f >> 31) << 63;
    int32_t e = static_cast<int32_t>((f >> 23) & 0xFF);
    uint32_t frac = f & 0x7FFFFF;
    if (e == 0xFF)
        return frac ? (sign | kPosInf | kQuietBit | (static_cast<uint64_t>(frac) << 29)) : (sign | kPosInf);
    if (e == 0) {
        if (frac == 0) return sign;
        const int32_t shift = std::countl_zero(frac) - 8;  // leading one to bit 23
        frac = (frac << shift) & 0x7FFFFF;
        e = 1 - shift;
    }
    return sign | (static_cast<uint64_t>(e - 127 + 1023) << 52) | (static_cast<uint64_t>(frac) << 29);
}

int32_t DoubleToInt32(uint64_t d) {
    if (isNaN(d)) return 0;
    bool tooBig;
    const uint64_t mag = truncatedMagnitude(d, &tooBig);
    if (d & kSignBit) return (tooBig || mag > 0x80000000u) ? INT32_MIN : static_cast<int32_t>(0 - mag);
    return (tooBig || mag > INT32_MAX) ? INT32_MAX : static_cast<int32_t>(mag);
}

uint32_t DoubleToUint32(uint64_t d) {
    if (isNaN(d) || (d & kSignBit)) return 0;  // -0.5 truncates to 0 as well
    bool tooBig;
    const uint64_t mag = truncatedMagnitude(d, &tooBig);
    return (tooBig || mag > UINT32_MAX) ? UINT32_MAX : static_cast<uint32_t>(mag);
}

int64_t DoubleToInt64(uint64_t d) {
    if (isNaN(d)) return 0;
    bool tooBig;
    const uint64_t mag = truncatedMagnitude(d, &tooBig);
    if (d & kSignBit) return (tooBig || mag > (1ull << 63)) ? INT64_MIN : static_cast<int64_t>(0 - mag);
    return (tooBig || mag > static_cast<uint64_t>(INT64_MAX)) ? INT64_MAX : static_cast<int64_t>(mag);
}

uint64_t DoubleToUint64(uint64_t d) {
    if (isNaN(d) || (d & kSignBit)) return 0;
    bool tooBig;
    const uint64_t mag = truncatedMagnitude(d, &tooBig);
    return tooBig ? UINT64_MAX : mag;
}

uint32_t DoubleToF32(uint64_t d) {
    const uint32_t sign = static_cast<uint32_t>(d >> 63) << 31;
    if (isNaN(d)) return sign | 0x7FC00000u | static_cast<uint32_t>((d & kFracMask) >> 29);
    if (isInf(d)) return sign | 0x7F800000u;
    if (isZero(d)) return sign;
    int32_t e;
    uint64_t m;
    unpackNormalized(d, &e, &m);
    return roundPackF32(sign, e - 1023 + 127, m << 10);
}

uint64_t Double_add(uint64_t a, uint64_t b) {
    if (isNaN(a)) return quiet(a);
    if (isNaN(b)) return quiet(b);
    return addSigned(a, b);
}

uint64_t Double_sub(uint64_t a, uint64_t b) {
    if (isNaN(a)) return quiet(a);
    if (isNaN(b)) return quiet(b);
    return addSigned(a, b ^ kSignBit);
}

uint64_t Double_mul(uint64_t a, uint64_t b) {
    if (isNaN(a)) return quiet(a);
    if (isNaN(b)) return quiet(b);
    const uint64_t sign = (a ^ b) & kSignBit;
    if (isInf(a)) return isZero(b) ? kDefaultNaN : (sign | kPosInf);
    if (isInf(b)) return isZero(a) ? kDefaultNaN : (sign | kPosInf);
    if (isZero(a) || isZero(b)) return sign;
    int32_t eA, eB;
    uint64_t mA, mB;
    unpackNormalized(a, &eA, &mA);
    unpackNormalized(b, &eB, &mB);
    // (mA 2^10) (mB 2^11) lies in [2^125, 2^127): the high word has its leading
    // one at bit 61 or 62, the low word only feeds the sticky bit.
    uint64_t hi, lo;
    mul64To128(mA << 10, mB << 11, &hi, &lo);
    return normalizeRoundPack(sign, eA + eB - 1022, hi | (lo != 0 ? 1u : 0u));
}

uint64_t Double_div(uint64_t a, uint64_t b) {
    if (isNaN(a)) return quiet(a);
    if (isNaN(b)) return quiet(b);
    const uint64_t sign = (a ^ b) & kSignBit;
    if (isInf(a)) return isInf(b) ? kDefaultNaN : (sign | kPosInf);
    if (isInf(b)) return sign;
    if (isZero(b)) return isZero(a) ? kDefaultNaN : (sign | kPosInf);
    if (isZero(a)) return sign;
    int32_t eA, eB;
    uint64_t mA, mB;
    unpackNormalized(a, &eA, &mA);
    unpackNormalized(b, &eB, &mB);
    if (mA < mB) {  // make the quotient of the mantissas lie in [1, 2)
        mA <<= 1;
        eA -= 1;
    }
    // Restoring division, one quotient bit per step: 63 bits with the leading
    // one at bit 62; the remainder (below 2^55) decides the sticky bit.
    // Without branches: the outcome of each step is a coin toss a predictor cannot learn.
    uint64_t q = 0, r = mA;
    for (int i = 0; i < 63; ++i) {
        const uint64_t take = 0 - static_cast<uint64_t>(r >= mB);  // all ones or zero
        r -= mB & take;
        q = (q << 1) | (take & 1);
        r <<= 1;
    }
    return roundPack(sign, eA - eB + 1023, q | (r != 0 ? 1u : 0u));
}

bool Double_isLessThan(uint64_t a, uint64_t b) {
    if (isNaN(a) || isNaN(b)) return false;
    const bool negA = (a & kSignBit) != 0, negB = (b & kSignBit) != 0;
    if (negA != negB) return negA && !(isZero(a) && isZero(b));
    return negA ? a > b : a < b;
}

uint64_t Double_mul2(uint64_t a, int32_t exponent) {
    if (isNaN(a)) return quiet(a);
    if (isInf(a) || isZero(a)) return a;
    // Beyond +-2200 every finite double overflows or underflows anyway.
    if (exponent > 2200) exponent = 2200;
    if (exponent < -2200) exponent = -2200;
    int32_t e;
    uint64_t m;
    unpackNormalized(a, &e, &m);
    return roundPack(a & kSignBit, e + exponent, m << 10);
}

uint64_t Double_sqrt(uint64_t a) {
    if (isNaN(a)) return quiet(a);
    if (isZero(a)) return a;  // sqrt(-0) is -0
    if (a & kSignBit) return kDefaultNaN;
    if (isInf(a)) return a;
    int32_t e;
    uint64_t m;
    unpackNormalized(a, &e, &m);
    int32_t u = e - 1023;
    if (u & 1) {  // an even power of two, with m in [2^52, 2^54)
        m <<= 1;
        u -= 1;
    }
    // Digit-by-digit root of m * 2^64, two radicand bits per step: 27 pairs
    // from m, 32 pairs of zeros. root = floor(sqrt(m / 2^52) * 2^58) lies in
    // [2^58, 2^59); the remainder stays below 2^61.
    uint64_t root = 0, rem = 0;
    for (int i = 0; i < 59; ++i) {
        const uint64_t pair = i < 27 ? (m >> (52 - 2 * i)) & 3 : 0;
        rem = (rem << 2) | pair;
        const uint64_t trial = (root << 2) | 1;
        const uint64_t take = 0 - static_cast<uint64_t>(rem >= trial);
        rem -= trial & take;
        root = (root << 1) | (take & 1);
    }
    return roundPack(0, u / 2 + 1023, (root << 4) | (rem != 0 ? 1u : 0u));
}

namespace {
constexpr uint64_t kMinusHalfPiBits = SoftOps::fromDouble(-kHalfPi);
constexpr uint64_t kLog2EBits = SoftOps::fromDouble(kLog2E);
constexpr uint64_t kLn2Bits = SoftOps::fromDouble(kLn2);
}  // namespace

uint64_t Double_cos(uint64_t x) { return K::cos(x); }
uint64_t Double_sin(uint64_t x) { return K::cos(Double_add(x, kMinusHalfPiBits)); }
uint64_t Double_exp(uint64_t x) { return K::exp2(Double_mul(x, kLog2EBits)); }
uint64_t Double_log(uint64_t x) { return Double_mul(K::log2(x), kLn2Bits); }
uint64_t Double_pow(uint64_t x, uint64_t y) { return K::exp2(Double_mul(K::log2(x), y)); }

}  // namespace vq_tl
