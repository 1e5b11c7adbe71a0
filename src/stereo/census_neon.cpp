// Census rows with NEON: 16 pixels per step.
#include <arm_neon.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

// Eight neighbours into one byte per pixel, the first in bit 7: acc * 2 -
// mask adds the new bit since a set mask byte is 255.
template <int R>
inline uint8x16_t censusByte(const uint8_t* const* rows, int32_t x, int first, uint8x16_t c) {
    uint8x16_t acc = vdupq_n_u8(0);
    int n = 0;
    for (int dy = 0; dy <= 2 * R; ++dy) {
        for (int dx = -R; dx <= R; ++dx) {
            if (dy == R && dx == 0) continue;
            if (n >= first && n < first + 8)
                acc = vsubq_u8(vaddq_u8(acc, acc), vcgtq_u8(vld1q_u8(rows[dy] + x + dx), c));
            ++n;
        }
    }
    return acc;
}

void census3x3Row_neon(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    int32_t x = x0;
    for (; x + 16 <= x1; x += 16) vst1q_u8(out + x, censusByte<1>(rows, x, 0, vld1q_u8(rows[1] + x)));
    census3x3Row_c(out, rows, x, x1);
}

void census5x5Row_neon(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    int32_t x = x0;
    for (; x + 16 <= x1; x += 16) {
        const uint8x16_t c = vld1q_u8(rows[2] + x);
        // Interleaved store: bytes low, mid, high, 0 of each little-endian word.
        uint8x16x4_t words;
        words.val[0] = censusByte<2>(rows, x, 16, c);
        words.val[1] = censusByte<2>(rows, x, 8, c);
        words.val[2] = censusByte<2>(rows, x, 0, c);
        words.val[3] = vdupq_n_u8(0);
        vst4q_u8(reinterpret_cast<uint8_t*>(out + x), words);
    }
    census5x5Row_c(out, rows, x, x1);
}

}  // namespace

void CensusKernels_addNeon(CensusKernels* table) {
    table->census3x3 = census3x3Row_neon;
    table->census5x5 = census5x5Row_neon;
}

}  // namespace vq_tl
