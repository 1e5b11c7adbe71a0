// Grid-warp rows with NEON (the walkers are Warp_groups and Warp_chroma of
// the family's header). Luma: the eight lanes of a group as 16-bit lanes,
// their two columns picked by table lookups in a 16-byte load at the group's
// first column, the rows of each lane chosen from at most four loaded rows.
// Chroma: four byte pairs from one row per step, picked by a table lookup in
// a 16-byte load.
#include <arm_neon.h>

#include "rectify/warp_kernels.h"

namespace vq_tl {

namespace {

// The 16 bytes at p as a two-register lookup table.
inline uint8x8x2_t table16(const uint8_t* p) {
    const uint8x16_t b = vld1q_u8(p);
    uint8x8x2_t table;
    table.val[0] = vget_low_u8(b);
    table.val[1] = vget_high_u8(b);
    return table;
}

// (16 - wx) * row[col] + wx * row[col + 1] of each lane.
inline uint16x8_t horizontal(const uint8_t* p, uint8x8_t col, uint8x8_t col1, uint8x8_t wx, uint8x8_t wx16) {
    const uint8x8x2_t table = table16(p);
    return vmlal_u8(vmull_u8(vtbl2_u8(table, col), wx16), vtbl2_u8(table, col1), wx);
}

// ((16 - wy) * a + wy * b + 128) >> 8 in 16 bits: at most 16 * 4080 + 128.
inline uint8x8_t vertical(uint16x8_t a, uint16x8_t b, uint16x8_t wy, uint16x8_t wy16) {
    return vmovn_u16(vshrq_n_u16(vaddq_u16(vmlaq_u16(vmulq_u16(a, wy16), b, wy), vdupq_n_u16(128)), 8));
}

struct Groups {
    uint16x8_t xStep;  // (dx >> 3) * k as 16 bits, >> 8
    int16x8_t yStep;   // ((dy >> 3) * k + round) >> 8

    Groups(const WarpLumaRow* w, int32_t round) {
        static const uint16_t kLanes[8] = {0, 1, 2, 3, 4, 5, 6, 7};
        const uint16x8_t lanes = vld1q_u16(kLanes);
        xStep = vshrq_n_u16(vmulq_u16(vdupq_n_u16(static_cast<uint16_t>(w->dx >> 3)), lanes), 8);
        yStep = vshrq_n_s16(
            vaddq_s16(vmulq_s16(vdupq_n_s16(static_cast<int16_t>(w->dy >> 3)), vreinterpretq_s16_u16(lanes)),
                      vdupq_n_s16(static_cast<int16_t>(round))),
            8);
    }

    void draw(const WarpLumaRow* w, int32_t x, int32_t subX, int32_t subY, int32_t s, int32_t baseRow,
              int32_t selLow, int32_t selHigh) const {
        const uint16x8_t xPos = vaddq_u16(vdupq_n_u16(static_cast<uint16_t>(subX)), xStep);
        const uint16x8_t yPos =
            vreinterpretq_u16_s16(vaddq_s16(vdupq_n_s16(static_cast<int16_t>(32 + subY)), yStep));
        const uint16x8_t fifteen = vdupq_n_u16(15), sixteen = vdupq_n_u16(16);
        const uint8x8_t col = vmovn_u16(vshrq_n_u16(xPos, 4));
        const uint8x8_t col1 = vadd_u8(col, vdup_n_u8(1));
        const uint8x8_t wx = vmovn_u16(vandq_u16(xPos, fifteen));
        const uint8x8_t wx16 = vsub_u8(vdup_n_u8(16), wx);
        const uint16x8_t wy = vandq_u16(yPos, fifteen), wy16 = vsubq_u16(sixteen, wy);
        // Lanes one row set lower than the first.
        const uint16x8_t lower = vcgtq_u16(vshrq_n_u16(yPos, 4), vdupq_n_u16(static_cast<uint16_t>(baseRow)));
        const uint8_t* base = w->src + w->srcPitch * selLow + s;
        const ptrdiff_t p = w->srcPitch;
        const uint16x8_t h0 = horizontal(base, col, col1, wx, wx16);
        const uint16x8_t h1 = horizontal(base + p, col, col1, wx, wx16);
        const uint16x8_t h2 = horizontal(base + 2 * p, col, col1, wx, wx16);
        // The fourth row only when some lane needs it: it may lie past the source.
        const uint16x8_t h3 = selHigh > selLow ? horizontal(base + 3 * p, col, col1, wx, wx16) : h2;
        const uint16x8_t top = vbslq_u16(lower, h1, h0), mid = vbslq_u16(lower, h2, h1);
        vst1_u8(w->d1 + x, vertical(top, mid, wy, wy16));
        if (w->d2 != nullptr) vst1_u8(w->d2 + x, vertical(mid, vbslq_u16(lower, h3, h2), wy, wy16));
    }
};

struct Chroma {
    int32x4_t steps;  // lanes k = 0..3 are pairs x + 2k: 2k * dx past the first
    int32x4_t colMax;

    // The scalar positions wrap as these do (6 dx is below the cell's width
    // times dx).
    explicit Chroma(const WarpChromaRow* w) {
        static const int32_t kLanes[4] = {0, 1, 2, 3};
        steps = vmulq_n_s32(vld1q_s32(kLanes), 2 * w->dx);
        colMax = vdupq_n_s32(2 * (w->srcCw - 1));
    }

    int32x4_t columns(int32_t cx0) const {
        const int32x4_t cols =
            vandq_s32(vshrq_n_s32(vaddq_s32(vdupq_n_s32(cx0), steps), 15), vdupq_n_s32(~1));
        return vminq_s32(vmaxq_s32(cols, vdupq_n_s32(0)), colMax);
    }
    static void ends(int32x4_t cols, int32_t* c0, int32_t* c3) {
        *c0 = vgetq_lane_s32(cols, 0);
        *c3 = vgetq_lane_s32(cols, 3);
    }
    static void copy(uint8_t* dst, const uint8_t* src, int32x4_t cols, int32_t low) {
        // Byte offsets 0..14 of each pair's first byte, then (o, o + 1).
        const uint16x4_t at = vmovn_u32(vreinterpretq_u32_s32(vsubq_s32(cols, vdupq_n_s32(low))));
        const uint8x8_t pick = vreinterpret_u8_u16(vorr_u16(at, vshl_n_u16(vadd_u16(at, vdup_n_u16(1)), 8)));
        vst1_u8(dst, vtbl2_u8(table16(src), pick));
    }
};

}  // namespace

void WarpKernels_addNeon(WarpKernels* table) {
    table->groups = Warp_groups<Groups>;
    table->chroma = Warp_chroma<Chroma>;
}

}  // namespace vq_tl
