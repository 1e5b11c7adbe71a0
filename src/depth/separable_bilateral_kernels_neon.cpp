// Block kernels of the separable bilateral filter with NEON: vectors of four
// floats, two or four per step, the operations of the scalar form lane by lane
// (multiplies and additions apart, never fused). For byte values only: then
// every operand and sum is 0 or an integer of at least 1, so the flush of
// subnormals in 32-bit NEON changes nothing, whereas float maps may hold
// subnormals, and keep the scalar form. 32-bit
// NEON has no division: the quotients are taken one lane at a time, the same
// IEEE division as the scalar form's.
#include <arm_neon.h>

#include <cstring>

#include "depth/separable_bilateral_kernels.h"

namespace vq_tl {

namespace {

// Independent chains of additions per step: 32-bit NEON has 16 registers of
// four floats, enough for two with a three-channel guide.
#if defined(__aarch64__)
constexpr int kVecs = 4;
#else
constexpr int kVecs = 2;
#endif

inline float32x4_t load(const float* p) { return vld1q_f32(p); }

template <int C, int H>
void blockRun(float* q, const float* const* g, const float* const* s, const BilateralBlockParams* p,
              int32_t n) {
    const int32_t half = H > 0 ? H : p->half;
    if (p->range == 0) {
        std::memcpy(q, s[half], sizeof(float) * static_cast<size_t>(n));
        return;
    }
    const float32x4_t start = vdupq_n_f32(static_cast<float>(p->range * 128));
    const float32x4_t range = vdupq_n_f32(static_cast<float>(p->range));
    float sp[2 * kBilateralBlockMaxHalf + 1];
    for (int32_t t = 0; t <= 2 * half; ++t) sp[t] = static_cast<float>(p->spatial[t]);
    for (int32_t i = 0; i < n; i += 4 * kVecs) {
        float32x4_t gc[kVecs][C], ws[kVecs], vs[kVecs];
        for (int b = 0; b < kVecs; ++b) {
            const int32_t o = i + 4 * b;
            for (int c = 0; c < C; ++c) gc[b][c] = load(g[half * C + c] + o);
            vs[b] = vmulq_f32(load(s[half] + o), start);
            ws[b] = start;
        }
        for (int32_t t = 0; t <= 2 * half; ++t) {
            if (t == half) continue;
            const float32x4_t spt = vdupq_n_f32(sp[t]);
            for (int b = 0; b < kVecs; ++b) {
                const int32_t o = i + 4 * b;
                float32x4_t e = vdupq_n_f32(0.0f);
                for (int c = 0; c < C; ++c) {
                    const float32x4_t d = vsubq_f32(gc[b][c], load(g[t * C + c] + o));
                    e = c == 0 ? vmulq_f32(d, d) : vaddq_f32(e, vmulq_f32(d, d));
                }
                // C - e, its bits cleared where the sign bit is set.
                const int32x4_t r = vreinterpretq_s32_f32(vsubq_f32(range, e));
                const int32x4_t clamped = vbicq_s32(r, vshrq_n_s32(r, 31));
                const float32x4_t w = vmulq_f32(vreinterpretq_f32_s32(clamped), spt);
                ws[b] = vaddq_f32(ws[b], w);
                vs[b] = vaddq_f32(vs[b], vmulq_f32(w, load(s[t] + o)));
            }
        }
        for (int b = 0; b < kVecs; ++b) {
#if defined(__aarch64__)
            vst1q_f32(q + i + 4 * b, vdivq_f32(vs[b], ws[b]));
#else
            float a[4], d[4];
            vst1q_f32(a, vs[b]);
            vst1q_f32(d, ws[b]);
            for (int k = 0; k < 4; ++k) q[i + 4 * b + k] = a[k] / d[k];
#endif
        }
    }
}

// 16 bytes to 16 floats at d (exact).
inline void widen16(float* d, uint8x16_t b) {
    const uint16x8_t lo = vmovl_u8(vget_low_u8(b)), hi = vmovl_u8(vget_high_u8(b));
    vst1q_f32(d, vcvtq_f32_u32(vmovl_u16(vget_low_u16(lo))));
    vst1q_f32(d + 4, vcvtq_f32_u32(vmovl_u16(vget_high_u16(lo))));
    vst1q_f32(d + 8, vcvtq_f32_u32(vmovl_u16(vget_low_u16(hi))));
    vst1q_f32(d + 12, vcvtq_f32_u32(vmovl_u16(vget_high_u16(hi))));
}

// The conversions: 16 pixels per step, the channels split by vld2 / vld3.
template <int C>
void split(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src, int32_t n) {
    const int32_t done = n & ~15;
    for (int32_t j = 0; j < done; j += 16) {
        const uint8_t* g = guide + j * C;
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
        widen16(values + j, vld1q_u8(src + j));
    }
    if (done < n) {
        float* rest[C];
        for (int c = 0; c < C; ++c) rest[c] = planes[c] + done;
        const BilateralSplitFn tail =
            C == 1 ? bilateralSplit1_c : (C == 2 ? bilateralSplit2_c : bilateralSplit3_c);
        tail(rest, values + done, guide + done * C, src + done, n - done);
    }
}

}  // namespace

void BilateralKernels_addNeon(BilateralKernels* table) {
    static constexpr BilateralBlockFn kForms[3][4] = {
        {blockRun<1, 0>, blockRun<1, 1>, blockRun<1, 2>, blockRun<1, 3>},
        {blockRun<2, 0>, blockRun<2, 1>, blockRun<2, 2>, blockRun<2, 3>},
        {blockRun<3, 0>, blockRun<3, 1>, blockRun<3, 2>, blockRun<3, 3>},
    };
    std::memcpy(table->bytes, kForms, sizeof(kForms));
    table->split[0] = split<1>;
    table->split[1] = split<2>;
    table->split[2] = split<3>;
}

}  // namespace vq_tl
