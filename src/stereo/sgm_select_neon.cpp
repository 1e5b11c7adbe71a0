// Winner rows with NEON: the keys (cost above, output value in the low
// byte) of 8 slots (UINT8 volume) or 4 (UINT16 volume) per step and their
// minimum by pairwise minima; the match view by a sliding window of
// registers as in the SSE4.1 form. 32-bit NEON has no vector division, so
// the sub-pixel fit stays in scalar float, the same operations as the
// scalar kernels.
#include <arm_neon.h>

#include "stereo/sgm_select.h"

namespace vq_tl {

namespace {

// Largest candidate count: 32 steps of 4 keys.
constexpr int32_t kMaxSteps = 32;
constexpr int32_t kBlock = 256;

// (v << f) +- (a - b) * 2^(f - 1) / (a + b + 1e-9), truncated to a byte.
inline uint8_t byteValue(int32_t v, int32_t a, int32_t b, int32_t f, int32_t swapped) {
    if (f == 0) return static_cast<uint8_t>(v);
    const float offset = static_cast<float>((a - b) * (1 << (f - 1))) / (static_cast<float>(a + b) + 1e-9f);
    const float whole = static_cast<float>(v << f);
    const float value = swapped != 0 ? whole - offset : whole + offset;
    return static_cast<uint8_t>(static_cast<int32_t>(value));
}

// Keys of kLanes slots from `costs`, values of those slots in `values`.
template <typename TA>
struct Keys;

template <>
struct Keys<uint8_t> {
    using V = uint16x8_t;
    static constexpr int32_t kLanes = 8;
    static V make(const uint8_t* costs, V values) {
        return vorrq_u16(vshlq_n_u16(vmovl_u8(vld1_u8(costs)), 8), values);
    }
    static V min(V a, V b) { return vminq_u16(a, b); }
    static V all() { return vdupq_n_u16(0xFFFF); }
    static uint32_t smallest(V k) {
        uint16x4_t h = vmin_u16(vget_low_u16(k), vget_high_u16(k));
        h = vpmin_u16(h, h);
        h = vpmin_u16(h, h);
        return vget_lane_u16(h, 0);
    }
    static uint32_t lane0(V k) { return vgetq_lane_u16(k, 0); }
    static V slide(V a, V next) { return vextq_u16(a, next, 1); }
    static V value(int32_t first, int32_t step) {
        const uint16_t t[8] = {0, 1, 2, 3, 4, 5, 6, 7};
        const uint16x8_t i = vld1q_u16(t);
        return step > 0 ? vaddq_u16(vdupq_n_u16(static_cast<uint16_t>(first)), i)
                        : vsubq_u16(vdupq_n_u16(static_cast<uint16_t>(first)), i);
    }
};

template <>
struct Keys<uint16_t> {
    using V = uint32x4_t;
    static constexpr int32_t kLanes = 4;
    static V make(const uint16_t* costs, V values) {
        return vorrq_u32(vshlq_n_u32(vmovl_u16(vld1_u16(costs)), 8), values);
    }
    static V min(V a, V b) { return vminq_u32(a, b); }
    static V all() { return vdupq_n_u32(0xFFFFFFFFu); }
    static uint32_t smallest(V k) {
        uint32x2_t h = vmin_u32(vget_low_u32(k), vget_high_u32(k));
        h = vpmin_u32(h, h);
        return vget_lane_u32(h, 0);
    }
    static uint32_t lane0(V k) { return vgetq_lane_u32(k, 0); }
    static V slide(V a, V next) { return vextq_u32(a, next, 1); }
    static V value(int32_t first, int32_t step) {
        const uint32_t t[4] = {0, 1, 2, 3};
        const uint32x4_t i = vld1q_u32(t);
        return step > 0 ? vaddq_u32(vdupq_n_u32(static_cast<uint32_t>(first)), i)
                        : vsubq_u32(vdupq_n_u32(static_cast<uint32_t>(first)), i);
    }
};

// Key values of every step: slot k has value first + step * k.
template <typename TA>
void valuesOf(typename Keys<TA>::V* values, int32_t D, int32_t swapped) {
    constexpr int32_t kLanes = Keys<TA>::kLanes;
    for (int32_t s = 0; s < D / kLanes; ++s) {
        values[s] = swapped != 0 ? Keys<TA>::value(D - 1 - kLanes * s, -1) : Keys<TA>::value(kLanes * s, 1);
    }
}

template <typename TA>
void winnerBase(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                int32_t swapped, int32_t x0, int32_t x1) {
    (void)W;
    (void)m;
    using K = Keys<TA>;
    const TA* row = reinterpret_cast<const TA*>(bytes);
    typename K::V values[kMaxSteps];
    valuesOf<TA>(values, D, swapped);
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    for (int32_t x = x0; x < x1; ++x) {
        const TA* A = row + static_cast<intptr_t>(x) * (D + 2);
        typename K::V best = K::all();
        for (int32_t s = 0; s < D / K::kLanes; ++s)
            best = K::min(best, K::make(A + 1 + K::kLanes * s, values[s]));
        const int32_t v = static_cast<int32_t>(K::smallest(best) & 0xFF);
        const int32_t kStar = first + step * v;
        const TA c0 = A[kStar + 1];
        out[x] = byteValue(v, static_cast<TA>(A[kStar] - c0), static_cast<TA>(A[kStar + 2] - c0), f, swapped);
    }
}

// Match view: base pixel xb gives slot k to match column xb - c + k, so a
// window of registers over D columns takes each base pixel's keys and then
// slides one column on (see the SSE4.1 form).
template <typename TA>
void winnerMatch(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    using K = Keys<TA>;
    const TA* row = reinterpret_cast<const TA*>(bytes);
    const int32_t n = D / K::kLanes;
    const int32_t c = swapped != 0 ? m + D - 1 : -m;
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    typename K::V values[kMaxSteps];
    valuesOf<TA>(values, D, swapped);
    const intptr_t stride = D + 1;
    uint32_t keys[kBlock];
    for (int32_t xa = x0; xa < x1; xa += kBlock) {
        const int32_t xe = x1 - xa < kBlock ? x1 : xa + kBlock;
        typename K::V window[kMaxSteps];
        for (int32_t s = 0; s < n; ++s) window[s] = K::all();
        for (int32_t xb = xa + c - D + 1; xb < xe + c; ++xb) {
            if (xb >= 0 && xb < W) {
                const TA* A = row + static_cast<intptr_t>(xb) * (D + 2) + 1;
                for (int32_t s = 0; s < n; ++s)
                    window[s] = K::min(window[s], K::make(A + K::kLanes * s, values[s]));
            }
            const int32_t x = xb - c;
            if (x >= xa) keys[x - xa] = K::lane0(window[0]);
            for (int32_t s = 0; s + 1 < n; ++s) window[s] = K::slide(window[s], window[s + 1]);
            window[n - 1] = K::slide(window[n - 1], K::all());
        }
        for (int32_t x = xa; x < xe; ++x) {
            const int32_t xb0 = x + c;
            const int32_t kLo = xb0 - W + 1 > 0 ? xb0 - W + 1 : 0, kHi = D - 1 < xb0 ? D - 1 : xb0;
            if (kLo > kHi) {
                out[x] = 0;  // no base pixel: the value of a tie, 0
                continue;
            }
            const int32_t v = static_cast<int32_t>(keys[x - xa] & 0xFF);
            const int32_t kStar = first + step * v;
            const intptr_t origin = static_cast<intptr_t>(xb0) * (D + 2) + 1;
            const TA c0 = row[origin - kStar * stride];
            const TA below = kStar > kLo ? row[origin - (kStar - 1) * stride] : c0;
            const TA above = kStar < kHi ? row[origin - (kStar + 1) * stride] : c0;
            out[x] = byteValue(v, static_cast<TA>((kStar > kLo ? below : above) - c0),
                               static_cast<TA>((kStar < kHi ? above : below) - c0), f, swapped);
        }
    }
}

// Left-right check, 8 pixels per step in 16-bit lanes, the match map's
// samples loaded one by one (their columns depend on the values); see the
// SSE4.1 form.
constexpr int32_t kMaxLeftRight = 32000;

void leftRightU8(uint8_t* out, const uint8_t* base, const uint8_t* match, const LeftRightParams* p,
                 int32_t x0, int32_t x1) {
    const int32_t f = p->fractionBits, m = p->minDisparity, W = p->width;
    if (W >= kMaxLeftRight) return leftRightU8Row_c(out, base, match, p, x0, x1);
    const int32_t unit = 1 << f;
    const int16x8_t up = vdupq_n_s16(static_cast<int16_t>(f)), down = vdupq_n_s16(static_cast<int16_t>(-f));
    const int16_t laneIndex[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    const int16x8_t lanes = vld1q_s16(laneIndex);
    const int16x8_t width = vdupq_n_s16(static_cast<int16_t>(W));
    const int16x8_t round = vdupq_n_s16(static_cast<int16_t>(unit - 1));
    const int16x8_t unitV = vdupq_n_s16(static_cast<int16_t>(unit));
    const int16x8_t shiftM = vdupq_n_s16(static_cast<int16_t>(m));
    const uint32_t below = p->threshold < 256u ? p->threshold : 256u;
    const int16x8_t bound = vdupq_n_s16(static_cast<int16_t>(
        f == 0 ? static_cast<int32_t>(below) : static_cast<int32_t>((p->threshold << f) & 0xFF) + 1));
    const uint8x8_t passV = vdup_n_u8(p->passValue), failV = vdup_n_u8(p->failValue);
    int16_t column[8], floorColumn[8], sample[8], floorSample[8];
    int32_t x = x0;
    for (; x + 8 <= x1; x += 8) {
        const int16x8_t u = vreinterpretq_s16_u16(vmovl_u8(vld1_u8(base + x)));
        // Non-negative values: shifts by -f are logical.
        const int16x8_t cu = vshlq_s16(vaddq_s16(u, round), down);
        const int16x8_t at = vaddq_s16(vdupq_n_s16(static_cast<int16_t>(x)), lanes);
        const int16x8_t col =
            p->swapped != 0 ? vsubq_s16(vsubq_s16(at, shiftM), cu) : vaddq_s16(vaddq_s16(at, shiftM), cu);
        const uint16x8_t inside = vandq_u16(vcgeq_s16(col, vdupq_n_s16(0)), vcltq_s16(col, width));
        // Columns outside the row read column 0; their lanes fail anyway.
        vst1q_s16(column, vandq_s16(col, vreinterpretq_s16_u16(inside)));
        for (int32_t i = 0; i < 8; ++i) sample[i] = match[column[i]];
        const int16x8_t s = vld1q_s16(sample);
        int16x8_t e;
        if (p->swapped != 0) {
            e = vabsq_s16(vsubq_s16(u, s));
        } else {
            const int16x8_t fu = vshlq_s16(u, down);
            const int16x8_t w = vsubq_s16(vshlq_s16(cu, up), u);
            const int16x8_t fc = vmaxq_s16(vaddq_s16(vaddq_s16(at, shiftM), fu), vdupq_n_s16(0));
            vst1q_s16(floorColumn, vandq_s16(fc, vreinterpretq_s16_u16(inside)));
            for (int32_t i = 0; i < 8; ++i) floorSample[i] = match[floorColumn[i]];
            const int16x8_t sf = vld1q_s16(floorSample);
            const int16x8_t sum = vaddq_s16(vmulq_s16(vsubq_s16(unitV, w), s), vmulq_s16(w, sf));
            e = vabsq_s16(vsubq_s16(u, vshlq_s16(sum, down)));
        }
        const uint16x8_t pass = vandq_u16(inside, vcltq_s16(e, bound));
        vst1_u8(out + x, vbsl_u8(vmovn_u16(pass), passV, failV));
    }
    leftRightU8Row_c(out, base, match, p, x, x1);
}

}  // namespace

void SgmSelectKernels_addNeon(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBase<uint8_t>;
    table->baseU8[1] = winnerBase<uint16_t>;
    table->matchU8[0] = winnerMatch<uint8_t>;
    table->matchU8[1] = winnerMatch<uint16_t>;
    table->leftRightU8 = leftRightU8;
}

}  // namespace vq_tl
