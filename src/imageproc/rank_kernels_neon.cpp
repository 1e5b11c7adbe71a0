// 3 by 3 median rows with NEON: 16 elements per step, the column
// sorts of the three columns each loaded at its own offset (no carried
// state, so any channel step works).
#include <arm_neon.h>

#include "imageproc/rank_kernels.h"

namespace vq_tl {

namespace {

inline uint8x16_t load(const uint8_t* p) { return vld1q_u8(p); }

// The column of three bytes sorted: low, middle, high.
inline void sortColumn(uint8x16_t a, uint8x16_t b, uint8x16_t c, uint8x16_t* lo, uint8x16_t* mid,
                       uint8x16_t* hi) {
    const uint8x16_t l = vminq_u8(a, b), h = vmaxq_u8(a, b);
    *lo = vminq_u8(l, c);
    *hi = vmaxq_u8(h, c);
    *mid = vmaxq_u8(l, vminq_u8(h, c));
}

inline uint8x16_t median3(uint8x16_t a, uint8x16_t b, uint8x16_t c) {
    return vmaxq_u8(vminq_u8(a, b), vminq_u8(vmaxq_u8(a, b), c));
}

void median3x3U8Row(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below, int32_t step,
                    int32_t x0, int32_t x1) {
    int32_t i = x0;
    for (; i + 16 <= x1; i += 16) {
        uint8x16_t lo[3], mid[3], hi[3];
        for (int32_t c = 0; c < 3; ++c) {
            const int32_t j = i + (c - 1) * step;
            sortColumn(load(above + j), load(at + j), load(below + j), &lo[c], &mid[c], &hi[c]);
        }
        const uint8x16_t l = vmaxq_u8(vmaxq_u8(lo[0], lo[1]), lo[2]);
        const uint8x16_t m = median3(mid[0], mid[1], mid[2]);
        const uint8x16_t h = vminq_u8(vminq_u8(hi[0], hi[1]), hi[2]);
        vst1q_u8(out + i, median3(l, m, h));
    }
    median3x3U8Row_c(out, above, at, below, step, i, x1);
}

}  // namespace

void RankKernels_addNeon(RankKernels* table) { table->median3x3U8 = median3x3U8Row; }

}  // namespace vq_tl
