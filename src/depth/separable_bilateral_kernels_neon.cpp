// Block kernels of the separable bilateral filter with NEON: vectors of four
// floats, two or four per step, the operations of the scalar form lane by lane
// (multiplies and additions apart, never fused). For byte values only: then
// every operand and sum is 0 or an integer of at least 1, so the flush of
// subnormals in 32-bit NEON changes nothing, whereas float maps may hold
// subnormals, and keep the scalar form. 32-bit
// NEON has no division: the quotients are taken one lane at a time, the same
// IEEE division as the scalar form's.
#include <arm_neon.h>

#include "depth/separable_bilateral_kernels.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = float32x4_t;
    // Independent chains of additions per step: 32-bit NEON has 16 registers
    // of four floats, enough for two with a three-channel guide.
#if defined(__aarch64__)
    static constexpr int kVecs = 4;
#else
    static constexpr int kVecs = 2;
#endif
    static constexpr int32_t kLanes = 4;
    static Reg load(const float* p) { return vld1q_f32(p); }
    static Reg set1(float v) { return vdupq_n_f32(v); }
    static Reg zero() { return vdupq_n_f32(0.0f); }
    static Reg add(Reg a, Reg b) { return vaddq_f32(a, b); }
    static Reg sub(Reg a, Reg b) { return vsubq_f32(a, b); }
    static Reg mul(Reg a, Reg b) { return vmulq_f32(a, b); }
    static Reg positive(Reg r) {
        const int32x4_t i = vreinterpretq_s32_f32(r);
        return vreinterpretq_f32_s32(vbicq_s32(i, vshrq_n_s32(i, 31)));
    }
    static void storeQuotient(float* q, Reg v, Reg w) {
#if defined(__aarch64__)
        vst1q_f32(q, vdivq_f32(v, w));
#else
        float a[4], d[4];
        vst1q_f32(a, v);
        vst1q_f32(d, w);
        for (int k = 0; k < 4; ++k) q[k] = a[k] / d[k];
#endif
    }
};

// 16 bytes to 16 floats at d (exact).
inline void widen16(float* d, uint8x16_t b) {
    const uint16x8_t lo = vmovl_u8(vget_low_u8(b)), hi = vmovl_u8(vget_high_u8(b));
    vst1q_f32(d, vcvtq_f32_u32(vmovl_u16(vget_low_u16(lo))));
    vst1q_f32(d + 4, vcvtq_f32_u32(vmovl_u16(vget_high_u16(lo))));
    vst1q_f32(d + 8, vcvtq_f32_u32(vmovl_u16(vget_low_u16(hi))));
    vst1q_f32(d + 12, vcvtq_f32_u32(vmovl_u16(vget_high_u16(hi))));
}

// The conversions: 16 pixels per step, the channels split by vld2 / vld3.
struct S {
    template <int C>
    static void guide16(float* const* planes, int32_t j, const uint8_t* g) {
        if constexpr (C == 1) {
            widen16(planes[0] + j, vld1q_u8(g));
        } else if constexpr (C == 2) {
            const uint8x16x2_t v = vld2q_u8(g);
            widen16(planes[0] + j, v.val[0]);
            widen16(planes[1] + j, v.val[1]);
        } else {
            const uint8x16x3_t v = vld3q_u8(g);
            widen16(planes[0] + j, v.val[0]);
            widen16(planes[1] + j, v.val[1]);
            widen16(planes[2] + j, v.val[2]);
        }
    }
    static void values16(float* d, const uint8_t* p) { widen16(d, vld1q_u8(p)); }
};

}  // namespace

void BilateralKernels_addNeon(BilateralKernels* table) {
    Bilateral_blockForms<V>(table->bytes);
    table->split[0] = Bilateral_splitRun<S, 1>;
    table->split[1] = Bilateral_splitRun<S, 2>;
    table->split[2] = Bilateral_splitRun<S, 3>;
}

}  // namespace vq_tl
