// The bodies of the library's own base-2 logarithm, base-2 power and cosine,
// written once over an arithmetic policy. RawDouble_* instantiates them with
// hardware doubles, the Double_* family with its integer-only operations on bit
// patterns. Both round every add, multiply and divide to nearest even, so the
// two instantiations return the same bits for every argument.
//
// A policy provides: type Real; constexpr fromDouble(double) (compile-time
// constants only); fromBits, toBits; add, sub, mul, div; less (IEEE <);
// fromInt (exact conversion of an int32_t).
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace vq_tl::realk {

constexpr uint64_t kSignBit = 0x8000000000000000ull;
constexpr uint64_t kExpMask = 0x7FF0000000000000ull;
constexpr uint64_t kFracMask = 0x000FFFFFFFFFFFFFull;
constexpr uint64_t kPosInf = 0x7FF0000000000000ull;
constexpr uint64_t kNegInf = 0xFFF0000000000000ull;
constexpr uint64_t kDefaultNaN = 0x7FF8000000000000ull;
constexpr uint64_t kQuietBit = 0x0008000000000000ull;
constexpr uint64_t kOneBits = 0x3FF0000000000000ull;
constexpr uint64_t kMinusOneBits = 0xBFF0000000000000ull;
constexpr uint64_t kSqrt2Bits =
    0x3FF6A09E667F3BCDull;  // sqrt(2) rounded: high word 0x3FF6A09E, low 1719614413

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kHalfPi = 1.5707963267948966;
constexpr double kLog2E = 1.4426950408889634;
constexpr double kLn2 = 0.6931471805599453;

// 2^f on [0, 1), coefficients from degree 0 up.
constexpr double kExp2Poly[11] = {1.0000000000000002,     0.6931471805598729,     0.24022650696198009,
                                  0.05550410862015973,    0.00961812946262613,    0.0013333541706066724,
                                  0.00015404004101871477, 1.5243996624121435e-05, 1.3318412101751585e-06,
                                  9.433920362359275e-08,  1.0006697217452461e-08};
// log2(m) = t * P(t^2) with t = (m - 1) / (m + 1), m in [sqrt(1/2), sqrt(2)); P(0) = 2 / ln 2.
constexpr double kLog2Poly[8] = {2.8853900817779268,  0.9617966939259899, 0.5770780163454408,
                                 0.41219858585711044, 0.3205985333399848, 0.2623344309522164,
                                 0.22091114554609512, 0.2136777781712274};
// cos(x) in x^2 on [0, pi / 2].
constexpr double kCosPoly[10] = {1.0,
                                 -0.5,
                                 0.04166666666666666,
                                 -0.001388888888888853,
                                 2.4801587301492746e-05,
                                 -2.7557319209666754e-07,
                                 2.087675566742367e-09,
                                 -1.1470670199182995e-11,
                                 4.776872981008344e-14,
                                 -1.5119893746599977e-16};

inline bool isNaN(uint64_t b) { return (b & ~kSignBit) > kPosInf; }
inline int32_t exponentField(uint64_t b) { return static_cast<int32_t>((b >> 52) & 0x7FF); }

// floor, ceil and round-half-away-from-zero on the pattern: integral values,
// infinities and NaN come back unchanged; the sign of a zero result is kept.
inline uint64_t floorBits(uint64_t a) {
    const int32_t e = exponentField(a);
    if (e >= 1075) return a;
    if (e < 1023) {
        if ((a << 1) == 0) return a;
        return (a & kSignBit) ? kMinusOneBits : 0;
    }
    const uint64_t fracMask = (1ull << (1075 - e)) - 1;
    if ((a & fracMask) == 0) return a;
    if (a & kSignBit) a += fracMask + 1;  // away from zero; a carry into the exponent is right
    return a & ~fracMask;
}

inline uint64_t ceilBits(uint64_t a) {
    const int32_t e = exponentField(a);
    if (e >= 1075) return a;
    if (e < 1023) {
        if ((a << 1) == 0) return a;
        return (a & kSignBit) ? kSignBit : kOneBits;
    }
    const uint64_t fracMask = (1ull << (1075 - e)) - 1;
    if ((a & fracMask) == 0) return a;
    if (!(a & kSignBit)) a += fracMask + 1;
    return a & ~fracMask;
}

inline uint64_t roundBits(uint64_t a) {
    const int32_t e = exponentField(a);
    if (e >= 1075) return a;
    if (e < 1022) return a & kSignBit;                   // |a| < 0.5
    if (e == 1022) return (a & kSignBit) | kOneBits;     // 0.5 <= |a| < 1
    const uint64_t fracMask = (1ull << (1075 - e)) - 1;  // e >= 1023: at least one fraction bit of weight 1/2
    a += (fracMask + 1) >> 1;                            // add one half to the magnitude
    return a & ~fracMask;
}

// The value of an integral pattern with magnitude below 2^31.
inline int32_t integralToInt32(uint64_t a) {
    const int32_t e = exponentField(a);
    if (e < 1023) return 0;
    const uint64_t m = (a & kFracMask) | (1ull << 52);
    const int32_t v = static_cast<int32_t>(m >> (1075 - e));
    return (a & kSignBit) ? -v : v;
}

template <class Ops, size_t N>
constexpr std::array<typename Ops::Real, N> toReals(const double (&c)[N]) {
    std::array<typename Ops::Real, N> r{};
    for (size_t i = 0; i < N; ++i) r[i] = Ops::fromDouble(c[i]);
    return r;
}

template <class Ops, size_t N>
typename Ops::Real horner(const std::array<typename Ops::Real, N>& c, typename Ops::Real x) {
    typename Ops::Real p = c[N - 1];
    for (size_t i = N - 1; i-- > 0;) p = Ops::add(Ops::mul(p, x), c[i]);
    return p;
}

template <class Ops>
struct Kernels {
    using Real = typename Ops::Real;
    // Constants converted at compile time: the integer policy never sees a double.
    static constexpr Real kMinus1075 = Ops::fromDouble(-1075.0);
    static constexpr Real kMinus1074 = Ops::fromDouble(-1074.0);
    static constexpr Real k1024 = Ops::fromDouble(1024.0);
    static constexpr Real kOne = Ops::fromDouble(1.0);
    static constexpr Real kPiR = Ops::fromDouble(kPi);
    static constexpr Real kTwoPiR = Ops::fromDouble(kTwoPi);
    static constexpr Real kHalfPiR = Ops::fromDouble(kHalfPi);

    static Real exp2(Real x) {
        static constexpr auto poly = toReals<Ops>(kExp2Poly);
        const uint64_t xb = Ops::toBits(x);
        if (isNaN(xb)) return x;
        if (!Ops::less(kMinus1075, x)) return Ops::fromBits(0);
        if (Ops::less(x, kMinus1074)) return Ops::fromBits(1);  // the smallest subnormal
        if (!Ops::less(x, k1024)) return Ops::fromBits(kPosInf);
        const uint64_t nb = floorBits(xb);
        const int32_t n = integralToInt32(nb);  // -1074..1023
        const uint64_t power =
            n >= -1022 ? static_cast<uint64_t>(n + 1023) << 52 : 1ull << (n + 1074);  // subnormal powers too
        if (nb == xb) return Ops::fromBits(power);
        const Real f = Ops::sub(x, Ops::fromBits(nb));
        return Ops::mul(Ops::fromBits(power), horner<Ops>(poly, f));
    }

    static Real log2(Real x) {
        static constexpr auto poly = toReals<Ops>(kLog2Poly);
        const uint64_t xb = Ops::toBits(x);
        if (isNaN(xb) || xb == kPosInf) return x;
        if ((xb & ~kSignBit) == 0) return Ops::fromBits(kNegInf);  // both zeros
        if (xb & kSignBit) return Ops::fromBits(kDefaultNaN);
        int32_t e = exponentField(xb);
        uint64_t frac = xb & kFracMask;
        if (e == 0) {  // subnormal: move the highest set bit to the implicit position
            const int32_t shift = std::countl_zero(frac) - 11;
            frac = (frac << shift) & kFracMask;
            e = 1 - shift;
        }
        e -= 1023;
        uint64_t mb = frac | kOneBits;  // m in [1, 2)
        if (mb >= kSqrt2Bits) {
            mb = frac | (1022ull << 52);  // m / 2
            e += 1;
        }
        const Real m = Ops::fromBits(mb);
        const Real t = Ops::div(Ops::sub(m, kOne), Ops::add(m, kOne));
        const Real s = Ops::mul(t, t);
        return Ops::add(Ops::fromInt(e), Ops::mul(t, horner<Ops>(poly, s)));
    }

    static Real cos(Real x) {
        static constexpr auto poly = toReals<Ops>(kCosPoly);
        const uint64_t xb = Ops::toBits(x);
        if ((xb & kExpMask) == kExpMask) return Ops::fromBits(kDefaultNaN);
        Real a = Ops::fromBits(xb & ~kSignBit);
        if (Ops::less(kPiR, a)) {
            const Real k = Ops::fromBits(ceilBits(Ops::toBits(Ops::div(Ops::sub(a, kPiR), kTwoPiR))));
            a = Ops::sub(a, Ops::mul(k, kTwoPiR));
            a = Ops::fromBits(Ops::toBits(a) & ~kSignBit);
        }
        bool negate = false;
        if (Ops::less(kHalfPiR, a)) {
            a = Ops::sub(kPiR, a);
            negate = true;
        }
        const uint64_t r = Ops::toBits(horner<Ops>(poly, Ops::mul(a, a)));
        return Ops::fromBits(negate ? r ^ kSignBit : r);
    }
};

}  // namespace vq_tl::realk
