// Pyramid bokeh rows with NEON: 16 pixels per step, sums in 16-bit lanes.
// The weighted halving keeps its scalar form: 32-bit Arm has no vector
// division, and a reciprocal estimate would not give the same quotients.
#include <arm_neon.h>

#include "bokeh/bokeh_kernels.h"

namespace vq_tl {

namespace {

// (s + 2) >> 2 and (s + 8) >> 4 are the rounding narrowing shifts.
void shrinkRow_neon(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) {
        const uint16x8_t lo = vpadalq_u8(vpaddlq_u8(vld1q_u8(a + 2 * x)), vld1q_u8(b + 2 * x));
        const uint16x8_t hi = vpadalq_u8(vpaddlq_u8(vld1q_u8(a + 2 * x + 16)), vld1q_u8(b + 2 * x + 16));
        vst1q_u8(d + x, vcombine_u8(vrshrn_n_u16(lo, 2), vrshrn_n_u16(hi, 2)));
    }
    bokehShrinkRow_c(d + x, a + 2 * x, b + 2 * x, n - x);
}

// The elements of a channel are bytes 0 and 2 of every 4.
inline uint16x8_t channelPairs(uint8x16x4_t v, bool high) {
    return high ? vaddl_u8(vget_high_u8(v.val[0]), vget_high_u8(v.val[2]))
                : vaddl_u8(vget_low_u8(v.val[0]), vget_low_u8(v.val[2]));
}

void shrink2Row_neon(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    int32_t x = 0;
    // A step reads 64 bytes, one past the last element it needs: one more
    // output must follow, so the read stays inside what the scalar form reads.
    for (; x + 17 <= n; x += 16) {
        const uint8x16x4_t va = vld4q_u8(a + 4 * x), vb = vld4q_u8(b + 4 * x);
        const uint16x8_t lo = vaddq_u16(channelPairs(va, false), channelPairs(vb, false));
        const uint16x8_t hi = vaddq_u16(channelPairs(va, true), channelPairs(vb, true));
        vst1q_u8(d + x, vcombine_u8(vrshrn_n_u16(lo, 2), vrshrn_n_u16(hi, 2)));
    }
    bokehShrink2Row_c(d + x, a + 4 * x, b + 4 * x, n - x);
}

void columnSumRow_neon(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa, int32_t n) {
    const uint8x8_t w0 = vdup_n_u8(static_cast<uint8_t>(wa)), w1 = vdup_n_u8(static_cast<uint8_t>(4 - wa));
    int32_t m = 0;
    for (; m + 16 <= n; m += 16) {
        const uint8x16_t va = vld1q_u8(a + m), vc = vld1q_u8(c + m);
        vst1q_u16(v + m, vmlal_u8(vmull_u8(vget_low_u8(va), w0), vget_low_u8(vc), w1));
        vst1q_u16(v + m + 8, vmlal_u8(vmull_u8(vget_high_u8(va), w0), vget_high_u8(vc), w1));
    }
    bokehColumnSumRow_c(v + m, a + m, c + m, wa, n - m);
}

void doubleRow_neon(uint8_t* b, const uint16_t* v, int32_t pairs) {
    const uint16x8_t three = vdupq_n_u16(3);
    int32_t q = 0;
    for (; q + 8 <= pairs; q += 8) {
        const uint16x8_t v0 = vld1q_u16(v + q), v1 = vld1q_u16(v + q + 1), v2 = vld1q_u16(v + q + 2);
        uint8x8x2_t out;
        out.val[0] = vrshrn_n_u16(vmlaq_u16(v0, v1, three), 4);
        out.val[1] = vrshrn_n_u16(vmlaq_u16(v2, v1, three), 4);
        vst2_u8(b + 2 * q, out);
    }
    bokehDoubleRow_c(b + 2 * q, v + q, pairs - q);
}

struct MixConstants {
    uint8x16_t threshold;
    int16x8_t shift;
    uint16x8_t limit, one, half;
};

MixConstants mixConstants(int32_t threshold, int32_t shift) {
    return MixConstants{vdupq_n_u8(static_cast<uint8_t>(threshold)), vdupq_n_s16(static_cast<int16_t>(shift)),
                        vdupq_n_u16(255), vdupq_n_u16(1), vdupq_n_u16(128)};
}

// Alphas of 8 CoC bytes (already reduced by the threshold, saturating) as
// words: shifted (at most 255 << 8) and limited to 255.
inline uint16x8_t alphaWords(uint8x8_t a, const MixConstants& k) {
    return vminq_u16(vshlq_u16(vmovl_u8(a), k.shift), k.limit);
}

// ((255 - a) b + (a + 1) f + 128) >> 8 on words: below 2^16 (see the header).
inline uint8x8_t mixHalf(uint8x8_t f, uint8x8_t b, uint16x8_t a, const MixConstants& k) {
    const uint16x8_t t =
        vaddq_u16(vmulq_u16(vsubq_u16(k.limit, a), vmovl_u8(b)), vmulq_u16(vaddq_u16(a, k.one), vmovl_u8(f)));
    return vshrn_n_u16(vaddq_u16(t, k.half), 8);
}

inline uint8x16_t mixBytes(uint8x16_t f, uint8x16_t b, uint16x8_t aLo, uint16x8_t aHi,
                           const MixConstants& k) {
    return vcombine_u8(mixHalf(vget_low_u8(f), vget_low_u8(b), aLo, k),
                       mixHalf(vget_high_u8(f), vget_high_u8(b), aHi, k));
}

void mixRow_neon(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc, int32_t threshold,
                 int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const uint8x16_t a = vqsubq_u8(vld1q_u8(coc + i), k.threshold);
        vst1q_u8(o + i, mixBytes(vld1q_u8(f + i), vld1q_u8(b + i), alphaWords(vget_low_u8(a), k),
                                 alphaWords(vget_high_u8(a), k), k));
    }
    bokehMixRow_c(o + i, f + i, b + i, coc + i, threshold, shift, n - i);
}

void mix2Row_neon(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1, const uint8_t* coc,
                  int32_t threshold, int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const uint8x16_t a = vqsubq_u8(vld1q_u8(coc + i), k.threshold);
        const uint16x8_t aLo = alphaWords(vget_low_u8(a), k), aHi = alphaWords(vget_high_u8(a), k);
        // The pairs taken apart: channel 0 in val[0], channel 1 in val[1].
        uint8x16x2_t fv = vld2q_u8(f + 2 * i);
        fv.val[0] = mixBytes(fv.val[0], vld1q_u8(b0 + i), aLo, aHi, k);
        fv.val[1] = mixBytes(fv.val[1], vld1q_u8(b1 + i), aLo, aHi, k);
        vst2q_u8(o + 2 * i, fv);
    }
    bokehMix2Row_c(o + 2 * i, f + 2 * i, b0 + i, b1 + i, coc + i, threshold, shift, n - i);
}

}  // namespace

void BokehKernels_addNeon(BokehKernels* table) {
    table->shrink = shrinkRow_neon;
    table->shrink2 = shrink2Row_neon;
    table->columnSum = columnSumRow_neon;
    table->doubleRow = doubleRow_neon;
    table->mix = mixRow_neon;
    table->mix2 = mix2Row_neon;
}

}  // namespace vq_tl
