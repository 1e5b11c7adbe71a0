// Scaling rows with NEON. Area shrink: column sums 16 bytes per step, as
// widening multiply-accumulates (the element sums keep the scalar form: no
// gathers, no double lanes in 32-bit NEON). Bilinear rows: four elements per
// window of the plan, a (32768 - f) + b f as (a << 15) + a (-f) + b f.
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

void linearRow_neon(int32_t* out, const uint8_t* src, const ResizeTap* taps, const LinearWindow* windows,
                    int32_t width, int32_t channels) {
    const int32_t n = width * channels;
    int32_t e = 0;
    for (; e + 4 <= n; e += 4) {
        const LinearWindow& w = windows[e / 4];
        if (w.base < 0) {
            linearElements_c(out, src, taps, channels, e, e + 4);
            continue;
        }
        const uint8x16_t bytes = vld1q_u8(src + w.base);
        uint8x8x2_t table;
        table.val[0] = vget_low_u8(bytes);
        table.val[1] = vget_high_u8(bytes);
        // Indices of 0x80 give zero bytes: (a, b) of each element as 16-bit lanes.
        const int16x8_t ab = vreinterpretq_s16_u8(
            vcombine_u8(vtbl2_u8(table, vld1_u8(w.pick)), vtbl2_u8(table, vld1_u8(w.pick + 8))));
        const int16x8_t weights = vld1q_s16(w.weights);
        const int32x4_t low = vmull_s16(vget_low_s16(ab), vget_low_s16(weights));
        const int32x4_t high = vmull_s16(vget_high_s16(ab), vget_high_s16(weights));
        // (b - a) f fits 32 bits, a << 15 at most 255 * 32768.
        const int32x4_t diff = vcombine_s32(vpadd_s32(vget_low_s32(low), vget_high_s32(low)),
                                            vpadd_s32(vget_low_s32(high), vget_high_s32(high)));
        const int32x4_t a = vshlq_n_s32(vmovl_s16(vget_low_s16(vuzpq_s16(ab, ab).val[0])), 15);
        vst1q_s32(out + e, vaddq_s32(a, diff));
    }
    linearElements_c(out, src, taps, channels, e, n);
}

}  // namespace

void ResizeKernels_addNeon(ResizeKernels* table) {
    table->areaRow = areaRow_neon;
    table->linearRow = linearRow_neon;
}

}  // namespace vq_tl
