// Hamming cost rows with NEON: 16 candidates per step, the popcount by
// vcnt.
#include <arm_neon.h>

#include "stereo/sgm_cost.h"

namespace vq_tl {

namespace {

template <int kRows>
struct Hamming8 {
    static void run(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const int32_t n = kRows > 0 ? kRows : rows;
        for (int32_t x = x0; x < x1; ++x) {
            const uint8x16_t b = vdupq_n_u8(base[x]);
            const uint8x16_t m = vdupq_n_u8(mask != nullptr ? mask[x] : 0xFF);
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            int32_t k = 0;
            for (; k + 16 <= D; k += 16) {
                uint8x16_t best = vcntq_u8(veorq_u8(b, vld1q_u8(match[0] + at + k)));
                for (int32_t i = 1; i < n; ++i)
                    best = vminq_u8(best, vcntq_u8(veorq_u8(b, vld1q_u8(match[i] + at + k))));
                vst1q_u8(o + k, vandq_u8(best, m));
            }
            if (k < D) {
                const uint8x8_t b8 = vget_low_u8(b);
                uint8x8_t best = vcnt_u8(veor_u8(b8, vld1_u8(match[0] + at + k)));
                for (int32_t i = 1; i < n; ++i)
                    best = vmin_u8(best, vcnt_u8(veor_u8(b8, vld1_u8(match[i] + at + k))));
                vst1_u8(o + k, vand_u8(best, vget_low_u8(m)));
            }
        }
    }
};

// Bits set in 8 consecutive 32-bit words, as 8 bytes in candidate order:
// the bytes' counts added pairwise twice and narrowed (at most 32 each).
inline uint8x8_t wordCounts8(uint32x4_t b, const uint32_t* m) {
    const uint8x16_t c0 = vcntq_u8(vreinterpretq_u8_u32(veorq_u32(b, vld1q_u32(m))));
    const uint8x16_t c1 = vcntq_u8(vreinterpretq_u8_u32(veorq_u32(b, vld1q_u32(m + 4))));
    const uint32x4_t w0 = vpaddlq_u16(vpaddlq_u8(c0)), w1 = vpaddlq_u16(vpaddlq_u8(c1));
    return vmovn_u16(vcombine_u16(vmovn_u32(w0), vmovn_u32(w1)));
}

template <int kRows>
struct Hamming32 {
    static void run(uint8_t* out, const uint8_t* baseRow, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const int32_t n = kRows > 0 ? kRows : rows;
        const uint32_t* base = reinterpret_cast<const uint32_t*>(baseRow);
        for (int32_t x = x0; x < x1; ++x) {
            const uint32x4_t b = vdupq_n_u32(base[x]);
            const uint8x8_t m = vdup_n_u8(mask != nullptr ? mask[x] : 0xFF);
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            for (int32_t k = 0; k < D; k += 8) {
                uint8x8_t best = wordCounts8(b, reinterpret_cast<const uint32_t*>(match[0]) + at + k);
                for (int32_t i = 1; i < n; ++i)
                    best =
                        vmin_u8(best, wordCounts8(b, reinterpret_cast<const uint32_t*>(match[i]) + at + k));
                vst1_u8(o + k, vand_u8(best, m));
            }
        }
    }
};

}  // namespace

void SgmCostKernels_addNeon(SgmCostKernels* table) { SgmCost_setByRows<Hamming8, Hamming32>(table); }

}  // namespace vq_tl
