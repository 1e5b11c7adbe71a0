// Hamming cost rows of byte words with AVX-512 (BW, BITALG, VBMI). Up to
// D = 120, eight pixels per step: their 8 * D costs, in the order of the
// cost row, fill D / 8 registers exactly. Byte t of that run is slot t % D of
// pixel t / D, whose match word is byte t / D + t % D of the window that
// starts at the group's first candidate column, at most 8 + 119 = 127 bytes:
// one byte permute from one or two registers of window per register and row,
// then xor, byte popcount and minimum. Larger D takes one pixel at a time,
// its slots straight from the window. 32-bit words keep the AVX2 form.
#include <immintrin.h>

#include <cstdint>

#include "stereo/sgm_avx512.h"
#include "stereo/sgm_cost.h"

namespace vq_tl {

namespace {

constexpr int32_t kGroup = 8;        // pixels per step of the permuting form
constexpr int32_t kMaxGroupD = 120;  // its largest D: window kGroup + D - 1 <= 128

// For each D = 8 (j + 1): the window byte (matchIndex) and the pixel of the
// group (baseIndex) of byte t of the group's costs.
struct IndexTables {
    uint8_t match[kMaxGroupD / 8][kGroup * kMaxGroupD];
    uint8_t base[kMaxGroupD / 8][kGroup * kMaxGroupD];
};

constexpr IndexTables makeIndexTables() {
    IndexTables t{};
    for (int32_t j = 0; j < kMaxGroupD / 8; ++j) {
        const int32_t D = 8 * (j + 1);
        for (int32_t i = 0; i < kGroup * D; ++i) {
            t.match[j][i] = static_cast<uint8_t>(i / D + i % D);
            t.base[j][i] = static_cast<uint8_t>(i / D);
        }
    }
    return t;
}

alignas(64) constexpr IndexTables kIndex = makeIndexTables();

inline __m512i loadIndex(const uint8_t* p) { return _mm512_load_si512(reinterpret_cast<const void*>(p)); }

// kRegs = D / 8 registers per group, the window loaded once per row and
// permuted into each; kRegs 0 for a D known only at run time.
template <int kRegs>
inline void groupRow(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t n,
                     const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    constexpr int32_t kMax = kRegs > 0 ? kRegs : kMaxGroupD / 8;
    const int32_t regs = kRegs > 0 ? kRegs : D / 8;
    const uint8_t* matchIndex = kIndex.match[regs - 1];
    const uint8_t* baseIndex = kIndex.base[regs - 1];
    const bool twoWide = kGroup + D - 1 > 64;
    __m512i mi[kMax], bi[kMax];
    for (int32_t r = 0; r < regs; ++r) {
        mi[r] = loadIndex(matchIndex + 64 * r);
        bi[r] = loadIndex(baseIndex + 64 * r);
    }
    for (int32_t x = x0; x < x1; x += kGroup) {
        const int32_t count = x1 - x < kGroup ? x1 - x : kGroup;
        // Only the bytes the scalar form reads for these pixels: the window
        // of count + D - 1 match words, count base and mask bytes.
        const int32_t window = count + D - 1;
        const __mmask64 lo = lowBits(window), hi = lowBits(window - 64);
        const __m512i b8 = _mm512_maskz_loadu_epi8(lowBits(count), base + x);
        const intptr_t at = x + dLow;
        __m512i b[kMax], best[kMax];
        for (int32_t r = 0; r < regs; ++r) {
            b[r] = permute(bi[r], b8);
            best[r] = _mm512_set1_epi8(-1);
        }
        for (int32_t i = 0; i < n; ++i) {
            const uint8_t* m = match[i] + at;
            const __m512i w0 = _mm512_maskz_loadu_epi8(lo, m);
            const __m512i w1 = twoWide ? _mm512_maskz_loadu_epi8(hi, m + 64) : w0;
            for (int32_t r = 0; r < regs; ++r) {
                const __m512i w = twoWide ? _mm512_permutex2var_epi8(w0, mi[r], w1) : permute(mi[r], w0);
                best[r] = _mm512_min_epu8(best[r], _mm512_popcnt_epi8(_mm512_xor_si512(b[r], w)));
            }
        }
        const __m512i m8 =
            mask != nullptr ? _mm512_maskz_loadu_epi8(lowBits(count), mask + x) : _mm512_set1_epi8(-1);
        uint8_t* o = out + static_cast<size_t>(x) * D;
        const int32_t bytes = count * D;
        for (int32_t r = 0; r < regs; ++r) {
            _mm512_mask_storeu_epi8(o + 64 * r, lowBits(bytes - 64 * r),
                                    _mm512_and_si512(best[r], permute(bi[r], m8)));
        }
    }
}

template <int kRows>
struct Hamming8 {
    static void run(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const int32_t n = kRows > 0 ? kRows : rows;
        switch (D) {
            case 8: return groupRow<1>(out, base, match, n, mask, D, dLow, x0, x1);
            case 16: return groupRow<2>(out, base, match, n, mask, D, dLow, x0, x1);
            case 24: return groupRow<3>(out, base, match, n, mask, D, dLow, x0, x1);
            case 32: return groupRow<4>(out, base, match, n, mask, D, dLow, x0, x1);
            case 40: return groupRow<5>(out, base, match, n, mask, D, dLow, x0, x1);
            case 48: return groupRow<6>(out, base, match, n, mask, D, dLow, x0, x1);
            case 56: return groupRow<7>(out, base, match, n, mask, D, dLow, x0, x1);
            default:
                if (D <= kMaxGroupD) return groupRow<0>(out, base, match, n, mask, D, dLow, x0, x1);
                return wide(out, base, match, n, mask, D, dLow, x0, x1);
        }
    }

    // One pixel at a time: slot k's match word is window byte k.
    static void wide(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t n,
                     const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        for (int32_t x = x0; x < x1; ++x) {
            const __m512i b = _mm512_set1_epi8(static_cast<char>(base[x]));
            const __m512i m = _mm512_set1_epi8(static_cast<char>(mask != nullptr ? mask[x] : 0xFF));
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            for (int32_t k = 0; k < D; k += 64) {
                const __mmask64 part = lowBits(D - k);
                __m512i best = _mm512_set1_epi8(-1);
                for (int32_t i = 0; i < n; ++i) {
                    const __m512i w = _mm512_maskz_loadu_epi8(part, match[i] + at + k);
                    best = _mm512_min_epu8(best, _mm512_popcnt_epi8(_mm512_xor_si512(b, w)));
                }
                _mm512_mask_storeu_epi8(o + k, part, _mm512_and_si512(best, m));
            }
        }
    }
};

}  // namespace

void SgmCostKernels_addAvx512(SgmCostKernels* table) { table->hamming8 = SgmCost_byRows<Hamming8>; }

}  // namespace vq_tl
