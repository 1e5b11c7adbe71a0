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

struct K {
    static constexpr int32_t kPairs = 8;
    using Chroma = uint8x8_t;
    static void split(const uint8_t* p, uint8x8_t* first, uint8x8_t* second) {
        const uint8x8x2_t both = vld2_u8(p);
        *first = both.val[0];
        *second = both.val[1];
    }
    static uint8x8_t widen(const uint8_t* p) { return vld1_u8(p); }
    static void pixels(uint8_t* rgb, const uint8_t* y, uint8x8_t u, uint8x8_t v) { pixels16(rgb, y, u, v); }
};

}  // namespace

void ConvKernels_addNeon(ConvKernels* table) { Conv_setRows<K>(table); }

}  // namespace vq_tl
