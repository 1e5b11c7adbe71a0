#include "stereo/sgm_select.h"

#include "runtime/cpu_features.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

template <typename T>
inline T minOf(T a, T b) {
    return b < a ? b : a;
}
template <typename T>
inline T maxOf(T a, T b) {
    return a < b ? b : a;
}

// The winning slot's output value v (k, or D - 1 - k when swapped) and the
// differences of its neighbours' costs to its own, modulo the element width.
struct Winner {
    int32_t v;
    int32_t a;
    int32_t b;
};

// Key of slot k: cost above, output value in the low byte, so that the
// smallest key is the smallest cost and of equal costs the smaller value.
template <typename TA, typename Key>
inline Key keyOf(TA cost, int32_t value) {
    return static_cast<Key>((static_cast<Key>(cost) << 8) + static_cast<Key>(value));
}

template <typename TA>
inline Winner winnerOf(int32_t v, TA c0, TA left, TA right) {
    return Winner{v, static_cast<TA>(left - c0), static_cast<TA>(right - c0)};
}

// Base view: A points at entry 0 of the pixel, slot k is entry k + 1 and
// the pads are the mirrored neighbours of the end slots.
template <typename TA, typename Key>
inline Winner baseWinner(const TA* A, int32_t D, int32_t first, int32_t step) {
    Key best = static_cast<Key>(~Key{0});
    for (int32_t k = 0; k < D; ++k) best = minOf(best, keyOf<TA, Key>(A[k + 1], first + step * k));
    const int32_t v = best & 0xFF;
    const int32_t kStar = first + step * v;
    return winnerOf<TA>(v, A[kStar + 1], A[kStar], A[kStar + 2]);
}

// Match view: slot k of match column x is read from the base pixel that
// would match it there, xb0 - k, at its entry k + 1: along the diagonal of
// the volume, D + 1 entries back per slot. Slots whose base pixel is outside
// the row take no part; the fit mirrors the neighbours at the ends of the
// remaining run, as the pads do in the volume.
template <typename TA, typename Key>
inline Winner matchWinner(const TA* row, int32_t xb0, int32_t W, int32_t D, int32_t first, int32_t step) {
    const int32_t kLo = maxOf(0, xb0 - W + 1), kHi = minOf(D - 1, xb0);
    // No base pixel at all: the value of a tie, 0.
    if (kLo > kHi) return Winner{0, 0, 0};
    const intptr_t origin = static_cast<intptr_t>(xb0) * (D + 2) + 1;
    const intptr_t stride = D + 1;
    Key best = static_cast<Key>(~Key{0});
    for (int32_t k = kLo; k <= kHi; ++k)
        best = minOf(best, keyOf<TA, Key>(row[origin - k * stride], first + step * k));
    const int32_t v = best & 0xFF;
    const int32_t kStar = first + step * v;
    const TA c0 = row[origin - kStar * stride];
    const TA below = kStar > kLo ? row[origin - (kStar - 1) * stride] : c0;
    const TA above = kStar < kHi ? row[origin - (kStar + 1) * stride] : c0;
    return winnerOf<TA>(v, c0, kStar > kLo ? below : above, kStar < kHi ? above : below);
}

// The fixed-point output: (v << f) plus or minus the parabola's offset
// through the three costs, in float, truncated to an unsigned byte.
inline uint8_t byteValue(const Winner& w, int32_t f, int32_t swapped) {
    if (f == 0) return static_cast<uint8_t>(w.v);
    const float offset =
        static_cast<float>((w.a - w.b) * (1 << (f - 1))) / (static_cast<float>(w.a + w.b) + 1e-9f);
    const float whole = static_cast<float>(w.v << f);
    const float value = swapped != 0 ? whole - offset : whole + offset;
    return static_cast<uint8_t>(static_cast<int32_t>(value));
}

// The same in candidate units; times 2^f it is byteValue before truncation,
// bit for bit, since scaling by a power of two commutes with rounding.
inline float floatValue(const Winner& w, int32_t subPixel, int32_t swapped, int32_t D, int32_t m) {
    if (subPixel == 0) return static_cast<float>(swapped != 0 ? D + m - 1 - w.v : w.v);
    const float offset = static_cast<float>(w.a - w.b) * 0.5f / (static_cast<float>(w.a + w.b) + 1e-9f);
    const float whole = static_cast<float>(w.v);
    return swapped != 0 ? whole - offset : whole + offset;
}

// Out: uint8_t (fraction = fractionBits) or float (fraction = subPixel).
template <typename TA, typename Key, typename Out, bool kMatch>
void winnerRow(Out* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t fraction,
               int32_t swapped, int32_t x0, int32_t x1) {
    const TA* row = reinterpret_cast<const TA*>(bytes);
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    for (int32_t x = x0; x < x1; ++x) {
        Winner w;
        if (kMatch) {
            const int32_t xb0 = swapped != 0 ? x + m + D - 1 : x - m;
            w = matchWinner<TA, Key>(row, xb0, W, D, first, step);
        } else {
            w = baseWinner<TA, Key>(row + static_cast<intptr_t>(x) * (D + 2), D, first, step);
        }
        if constexpr (sizeof(Out) == 1) {
            out[x] = byteValue(w, fraction, swapped);
        } else {
            out[x] = floatValue(w, fraction, swapped, D, m);
        }
    }
}

template <typename TA, typename Key>
void peakRatioRow(uint8_t* out, uint8_t* conf, const uint8_t* bytes, int32_t D, int32_t fractionBits,
                  int32_t swapped, int32_t x0, int32_t x1) {
    const TA* row = reinterpret_cast<const TA*>(bytes);
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    for (int32_t x = x0; x < x1; ++x) {
        const TA* A = row + static_cast<intptr_t>(x) * (D + 2);
        // Keys are distinct, so the runner-up is the second smallest key
        // over all other slots, a neighbour of the winner included.
        Key best = static_cast<Key>(~Key{0}), second = best;
        for (int32_t k = 0; k < D; ++k) {
            const Key key = keyOf<TA, Key>(A[k + 1], first + step * k);
            second = minOf(second, maxOf(best, key));
            best = minOf(best, key);
        }
        const int32_t v = best & 0xFF;
        const int32_t kStar = first + step * v;
        out[x] = byteValue(winnerOf<TA>(v, A[kStar + 1], A[kStar], A[kStar + 2]), fractionBits, swapped);
        const uint32_t c1 = static_cast<uint32_t>(best >> 8), c2 = static_cast<uint32_t>(second >> 8);
        conf[x] = static_cast<uint8_t>(255u - 255u * (c1 + 1) / (c2 + 1));
    }
}

inline int32_t absOf(int32_t v) { return v < 0 ? -v : v; }

void leftRightF32Row_c(uint8_t* out, const float* base, const float* o, const LeftRightParams* p, int32_t x0,
                       int32_t x1) {
    const int32_t m = p->minDisparity, W = p->width;
    for (int32_t x = x0; x < x1; ++x) {
        const float u = base[x];
        out[x] = p->failValue;
        // Values beyond any row (and NaN) cannot match.
        if (!(u > -65536.0f && u < 65536.0f)) continue;
        const int32_t cu = static_cast<int32_t>(RawDouble_ceil(u));
        float e;
        if (p->swapped != 0) {
            const int32_t xs = x - m - cu;
            if (xs < 0 || xs >= W) continue;
            e = u - o[xs];
        } else {
            const int32_t fu = static_cast<int32_t>(RawDouble_floor(u));
            const float w = static_cast<float>(cu) - u;
            const int32_t xc = x + m + cu;
            if (xc < 0 || xc >= W) continue;
            const int32_t xf = maxOf(0, x + m + fu);
            e = u - ((1.0f - w) * o[xc] + w * o[xf]);
        }
        if ((e < 0.0f ? -e : e) < p->thresholdF) out[x] = p->passValue;
    }
}

}  // namespace

void winnerBaseU8Row8_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                        int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1) {
    winnerRow<uint8_t, uint16_t, uint8_t, false>(out, row, width, D, minDisparity, fractionBits, swapped, x0,
                                                 x1);
}
void winnerBaseU8Row16_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                         int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1) {
    winnerRow<uint16_t, uint32_t, uint8_t, false>(out, row, width, D, minDisparity, fractionBits, swapped, x0,
                                                  x1);
}
void winnerMatchU8Row8_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                         int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1) {
    winnerRow<uint8_t, uint16_t, uint8_t, true>(out, row, width, D, minDisparity, fractionBits, swapped, x0,
                                                x1);
}
void winnerMatchU8Row16_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                          int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1) {
    winnerRow<uint16_t, uint32_t, uint8_t, true>(out, row, width, D, minDisparity, fractionBits, swapped, x0,
                                                 x1);
}

void leftRightU8Row_c(uint8_t* out, const uint8_t* u8, const uint8_t* o, const LeftRightParams* p, int32_t x0,
                      int32_t x1) {
    const int32_t f = p->fractionBits, m = p->minDisparity, W = p->width;
    const int32_t unit = 1 << f;
    const int32_t limit = static_cast<uint8_t>(p->threshold << f);
    for (int32_t x = x0; x < x1; ++x) {
        const int32_t u = u8[x];
        const int32_t cu = (u + unit - 1) >> f;
        int32_t e;
        if (p->swapped != 0) {
            // The sample at ceil(u), weighted by both weights at once: as
            // it is. A match right of the row (only for a negative
            // minDisparity) fails as well, since it cannot be read.
            const int32_t xs = x - m - cu;
            if (xs < 0 || xs >= W) {
                out[x] = p->failValue;
                continue;
            }
            const int32_t r = u & (unit - 1);
            const int32_t w1 = static_cast<uint8_t>(unit - r);
            const int32_t s = o[xs];
            e = absOf(u - static_cast<uint8_t>((w1 * s + r * s) >> f));
        } else {
            const int32_t fu = u >> f;
            const int32_t w = (cu << f) - u;
            const int32_t xc = x + m + cu;
            if (xc < 0 || xc >= W) {
                out[x] = p->failValue;
                continue;
            }
            // The floor column is one left of an inside ceil column at
            // most; at the left edge it reads the edge pixel.
            const int32_t xf = maxOf(0, x + m + fu);
            e = absOf(u - (((unit - w) * o[xc] + w * o[xf]) >> f));
        }
        const bool pass = f == 0 ? static_cast<uint32_t>(e) < p->threshold : e <= limit;
        out[x] = pass ? p->passValue : p->failValue;
    }
}

void SgmSelectKernels_fill(SgmSelectKernels* table, uint32_t features) {
    table->baseU8[0] = winnerBaseU8Row8_c;
    table->baseU8[1] = winnerBaseU8Row16_c;
    table->matchU8[0] = winnerMatchU8Row8_c;
    table->matchU8[1] = winnerMatchU8Row16_c;
    table->baseF32[0] = winnerRow<uint8_t, uint16_t, float, false>;
    table->baseF32[1] = winnerRow<uint16_t, uint32_t, float, false>;
    table->matchF32[0] = winnerRow<uint8_t, uint16_t, float, true>;
    table->matchF32[1] = winnerRow<uint16_t, uint32_t, float, true>;
    table->peakRatio[0] = peakRatioRow<uint8_t, uint16_t>;
    table->peakRatio[1] = peakRatioRow<uint16_t, uint32_t>;
    table->leftRightU8 = leftRightU8Row_c;
    table->leftRightF32 = leftRightF32Row_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) SgmSelectKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) SgmSelectKernels_addAvx2(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0 && (features & kCpuAvx512) != 0)
        SgmSelectKernels_addAvx512(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) SgmSelectKernels_addNeon(table);
#endif
    (void)features;
}

const SgmSelectKernels* SgmSelectKernels_get() {
    static const SgmSelectKernels table = [] {
        SgmSelectKernels t;
        SgmSelectKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
