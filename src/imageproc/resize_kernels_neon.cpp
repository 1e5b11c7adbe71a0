// Area-shrink rows with NEON: column sums 16 bytes per step, as widening
// multiply-accumulates. The element sums keep the scalar form (no gathers,
// no double lanes in 32-bit NEON).
#include <arm_neon.h>

#include "imageproc/resize_kernels.h"

namespace vq_tl {

namespace {

void areaRow_neon(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add) {
    int32_t i = 0;
    if (weight <= 0xFFFF) {
        const uint16_t w = static_cast<uint16_t>(weight);
        for (; i + 16 <= n; i += 16) {
            const uint8x16_t b = vld1q_u8(src + i);
            const uint16x8_t lo = vmovl_u8(vget_low_u8(b)), hi = vmovl_u8(vget_high_u8(b));
            uint32x4_t s0 = add != 0 ? vld1q_u32(sums + i) : vdupq_n_u32(0);
            uint32x4_t s1 = add != 0 ? vld1q_u32(sums + i + 4) : vdupq_n_u32(0);
            uint32x4_t s2 = add != 0 ? vld1q_u32(sums + i + 8) : vdupq_n_u32(0);
            uint32x4_t s3 = add != 0 ? vld1q_u32(sums + i + 12) : vdupq_n_u32(0);
            s0 = vmlal_n_u16(s0, vget_low_u16(lo), w);
            s1 = vmlal_n_u16(s1, vget_high_u16(lo), w);
            s2 = vmlal_n_u16(s2, vget_low_u16(hi), w);
            s3 = vmlal_n_u16(s3, vget_high_u16(hi), w);
            vst1q_u32(sums + i, s0);
            vst1q_u32(sums + i + 4, s1);
            vst1q_u32(sums + i + 8, s2);
            vst1q_u32(sums + i + 12, s3);
        }
    }
    areaRow_c(sums + i, src + i, n - i, weight, add);
}

}  // namespace

void ResizeKernels_addNeon(ResizeKernels* table) { table->areaRow = areaRow_neon; }

}  // namespace vq_tl
