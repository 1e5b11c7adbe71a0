// YUV to RGB888 rows with NEON: 16 pixels (8 chroma pairs) per step.
//
// The chroma terms of image_conv_workers.cpp in 16-bit lanes, exactly:
// with u, v in -128 to 127,
//   (45941 v) >> 15 = v + ((13173 v) >> 15) = v + vqdmulh(v, 13173),
//   (58065 u) >> 15 = u + ((25297 u) >> 15) = u + vqdmulh(u, 25297),
// since 45941 = 32768 + 13173, 58065 = 32768 + 25297 and vqdmulh(a, b) =
// (2 a b) >> 16 floors like the shift (it saturates only for -32768 times
// -32768); (11272 u + 23396 v) >> 15 is a 32-bit sum narrowed by vshrn.
// The clamps are the unsigned saturation of vqmovun; vst3 interleaves.
#include <arm_neon.h>

#include "image/image_conv_kernels.h"

namespace vq_tl {

namespace {

// 16 pixels from luma at y and 8 chroma pairs (u, v as bytes).
inline void pixels16(uint8_t* rgb, const uint8_t* y, uint8x8_t u8, uint8x8_t v8) {
    const int16x8_t bias = vdupq_n_s16(128);
    const int16x8_t u = vsubq_s16(vreinterpretq_s16_u16(vmovl_u8(u8)), bias);
    const int16x8_t v = vsubq_s16(vreinterpretq_s16_u16(vmovl_u8(v8)), bias);
    const int16x8_t tr = vaddq_s16(v, vqdmulhq_n_s16(v, 13173));
    const int16x8_t tb = vaddq_s16(u, vqdmulhq_n_s16(u, 25297));
    const int32x4_t gLo = vmlal_n_s16(vmull_n_s16(vget_low_s16(u), 11272), vget_low_s16(v), 23396);
    const int32x4_t gHi = vmlal_n_s16(vmull_n_s16(vget_high_s16(u), 11272), vget_high_s16(v), 23396);
    const int16x8_t tg = vcombine_s16(vshrn_n_s32(gLo, 15), vshrn_n_s32(gHi, 15));
    // Each term for both pixels of its pair.
    const int16x8x2_t r2 = vzipq_s16(tr, tr), g2 = vzipq_s16(tg, tg), b2 = vzipq_s16(tb, tb);
    const uint8x16_t yy = vld1q_u8(y);
    const int16x8_t ylo = vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(yy)));
    const int16x8_t yhi = vreinterpretq_s16_u16(vmovl_u8(vget_high_u8(yy)));
    uint8x16x3_t o;
    o.val[0] = vcombine_u8(vqmovun_s16(vaddq_s16(ylo, r2.val[0])), vqmovun_s16(vaddq_s16(yhi, r2.val[1])));
    o.val[1] = vcombine_u8(vqmovun_s16(vsubq_s16(ylo, g2.val[0])), vqmovun_s16(vsubq_s16(yhi, g2.val[1])));
    o.val[2] = vcombine_u8(vqmovun_s16(vaddq_s16(ylo, b2.val[0])), vqmovun_s16(vaddq_s16(yhi, b2.val[1])));
    vst3q_u8(rgb, o);
}

void semiplanarToRgb888Row(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                           int32_t pairs) {
    // The 16 bytes of 8 pairs start at the lower of u and v.
    const bool vFirst = v < u;
    const uint8_t* uv = vFirst ? v : u;
    const int32_t n = pairs & ~7;
    for (int32_t c = 0; c < n; c += 8) {
        const uint8x8x2_t both = vld2_u8(uv + 2 * c);
        pixels16(rgb + 6 * c, y + 2 * c, vFirst ? both.val[1] : both.val[0],
                 vFirst ? both.val[0] : both.val[1]);
    }
    if (n < pairs) yuvSemiplanarToRgb888Row_c(rgb + 6 * n, y + 2 * n, u + 2 * n, v + 2 * n, pairs - n);
}

void planarToRgb888Row(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pairs) {
    const int32_t n = pairs & ~7;
    for (int32_t c = 0; c < n; c += 8) pixels16(rgb + 6 * c, y + 2 * c, vld1_u8(u + c), vld1_u8(v + c));
    if (n < pairs) yuvPlanarToRgb888Row_c(rgb + 6 * n, y + 2 * n, u + n, v + n, pairs - n);
}

}  // namespace

void ConvKernels_addNeon(ConvKernels* table) {
    table->semiplanarToRgb888 = semiplanarToRgb888Row;
    table->planarToRgb888 = planarToRgb888Row;
}

}  // namespace vq_tl
