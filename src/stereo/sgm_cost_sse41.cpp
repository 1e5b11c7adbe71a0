// Hamming cost rows with SSE4.1: 16 candidates per step, the popcount by a
// nibble table (pshufb).
#include <smmintrin.h>

#include "stereo/sgm_cost_x86.h"

namespace vq_tl {

namespace {

struct Popcount {
    __m128i table;  // bits set in 0 to 15
    __m128i nibble;
    Popcount()
        : table(_mm_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4)), nibble(_mm_set1_epi8(0x0F)) {}
    // Bits set per byte.
    __m128i bytes(__m128i v) const { return popcountBytes(v, table, nibble); }
};

// Distances of 16 (or, with kHalf, 8) byte candidates from match + at,
// minimised over the rows.
template <int kRows, bool kHalf>
inline __m128i bytesMin(const Popcount& pc, const uint8_t* const* match, int32_t rows, intptr_t at,
                        __m128i b) {
    const int32_t n = kRows > 0 ? kRows : rows;
    __m128i best = pc.bytes(_mm_xor_si128(b, kHalf ? load8(match[0] + at) : load(match[0] + at)));
    for (int32_t i = 1; i < n; ++i)
        best = _mm_min_epu8(best,
                            pc.bytes(_mm_xor_si128(b, kHalf ? load8(match[i] + at) : load(match[i] + at))));
    return best;
}

template <int kRows>
struct Hamming8 {
    static void run(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const Popcount pc;
        for (int32_t x = x0; x < x1; ++x) {
            const __m128i b = _mm_set1_epi8(static_cast<char>(base[x]));
            const __m128i m = _mm_set1_epi8(static_cast<char>(mask != nullptr ? mask[x] : 0xFF));
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            int32_t k = 0;
            for (; k + 16 <= D; k += 16)
                store(o + k, _mm_and_si128(bytesMin<kRows, false>(pc, match, rows, at + k, b), m));
            if (k < D) store8(o + k, _mm_and_si128(bytesMin<kRows, true>(pc, match, rows, at + k, b), m));
        }
    }
};

// Distances of 32-bit words: the bytes' counts summed per word with two
// multiply-adds by one and a pack, for 4 vectors (16 words) into 16 bytes in
// candidate order. The counts stay below 33, so no step saturates.
inline __m128i wordSums(const Popcount& pc, __m128i b, const uint32_t* m, __m128i ones) {
    const __m128i* p = reinterpret_cast<const __m128i*>(m);
    const __m128i s0 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 0))), ones);
    const __m128i s1 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 1))), ones);
    const __m128i s2 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 2))), ones);
    const __m128i s3 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 3))), ones);
    const __m128i w01 = _mm_maddubs_epi16(_mm_packus_epi16(s0, s1), ones);
    const __m128i w23 = _mm_maddubs_epi16(_mm_packus_epi16(s2, s3), ones);
    return _mm_packus_epi16(w01, w23);
}

template <int kRows>
struct Hamming32 {
    static void run(uint8_t* out, const uint8_t* baseRow, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const Popcount pc;
        const __m128i ones = _mm_set1_epi8(1);
        const int32_t n = kRows > 0 ? kRows : rows;
        const uint32_t* base = reinterpret_cast<const uint32_t*>(baseRow);
        for (int32_t x = x0; x < x1; ++x) {
            const __m128i b = _mm_set1_epi32(static_cast<int32_t>(base[x]));
            const __m128i m = _mm_set1_epi8(static_cast<char>(mask != nullptr ? mask[x] : 0xFF));
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            int32_t k = 0;
            for (; k + 16 <= D; k += 16) {
                __m128i best = wordSums(pc, b, reinterpret_cast<const uint32_t*>(match[0]) + at + k, ones);
                for (int32_t i = 1; i < n; ++i)
                    best = _mm_min_epu8(
                        best, wordSums(pc, b, reinterpret_cast<const uint32_t*>(match[i]) + at + k, ones));
                store(o + k, _mm_and_si128(best, m));
            }
            if (k < D) {
                __m128i best = wordSums8(pc, b, reinterpret_cast<const uint32_t*>(match[0]) + at + k, ones);
                for (int32_t i = 1; i < n; ++i)
                    best = _mm_min_epu8(
                        best, wordSums8(pc, b, reinterpret_cast<const uint32_t*>(match[i]) + at + k, ones));
                store8(o + k, _mm_and_si128(best, m));
            }
        }
    }
};

}  // namespace

void SgmCostKernels_addSse41(SgmCostKernels* table) { SgmCost_setByRows<Hamming8, Hamming32>(table); }

}  // namespace vq_tl
