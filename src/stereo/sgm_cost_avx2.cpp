// Hamming cost rows with AVX2. Byte words: two pixels per step, 16
// candidates of each in one register (the candidate counts of the modes, 24
// and 64, are not all multiples of 32); with D = 16j + 8 the last 8
// candidates of four pixels share one register. 32-bit words: 32 candidates per
// step.
#include <immintrin.h>

#include <cstring>

#include "stereo/sgm_cost_x86.h"

namespace vq_tl {

namespace {

// 16 bytes from each of p and q, p in the low half.
inline __m256i load2(const uint8_t* p, const uint8_t* q) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load(p)), load(q), 1);
}
// 8 bytes from each of p and q, p in the low half.
inline __m128i load2x8(const uint8_t* p, const uint8_t* q) { return _mm_unpacklo_epi64(load8(p), load8(q)); }
inline __m256i pair(uint8_t a, uint8_t b) {
    return _mm256_inserti128_si256(_mm256_set1_epi8(static_cast<char>(a)),
                                   _mm_set1_epi8(static_cast<char>(b)), 1);
}

struct Popcount {
    __m256i table;  // bits set in 0 to 15, in both halves
    __m256i nibble;
    Popcount()
        : table(_mm256_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4, 0, 1, 1, 2, 1, 2, 2, 3, 1, 2,
                                 2, 3, 2, 3, 3, 4)),
          nibble(_mm256_set1_epi8(0x0F)) {}
    __m256i bytes(__m256i v) const {
        const __m256i lo = _mm256_and_si256(v, nibble);
        const __m256i hi = _mm256_and_si256(_mm256_srli_epi16(v, 4), nibble);
        return _mm256_add_epi8(_mm256_shuffle_epi8(table, lo), _mm256_shuffle_epi8(table, hi));
    }
    __m128i bytes(__m128i v) const {
        return popcountBytes(v, _mm256_castsi256_si128(table), _mm256_castsi256_si128(nibble));
    }
};

template <int kRows>
struct Hamming8 {
    static void run(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const Popcount pc;
        const int32_t n = kRows > 0 ? kRows : rows;
        int32_t x = x0;
        if ((D & 15) != 0) {
            // D = 16j + 8: the 16-candidate chunks two pixels at a time, the last
            // 8 candidates of four pixels in one register (pixels x and x + 1 in
            // the low half, x + 2 and x + 3 in the high half), so that no step
            // runs half empty.
            const __m256i spread = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2,
                                                    2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
            const int32_t k = D - 8;
            for (; x + 4 <= x1; x += 4) {
                const intptr_t at = x + dLow;
                uint8_t* o = out + static_cast<size_t>(x) * D;
                for (int32_t p = 0; p < 4; p += 2) {
                    const __m256i b = pair(base[x + p], base[x + p + 1]);
                    const __m256i m =
                        mask != nullptr ? pair(mask[x + p], mask[x + p + 1]) : _mm256_set1_epi8(-1);
                    uint8_t* op = o + static_cast<size_t>(p) * D;
                    for (int32_t kk = 0; kk < k; kk += 16) {
                        const intptr_t c = at + p + kk;
                        __m256i best = pc.bytes(_mm256_xor_si256(b, load2(match[0] + c, match[0] + c + 1)));
                        for (int32_t i = 1; i < n; ++i)
                            best = _mm256_min_epu8(
                                best, pc.bytes(_mm256_xor_si256(b, load2(match[i] + c, match[i] + c + 1))));
                        best = _mm256_and_si256(best, m);
                        store(op + kk, _mm256_castsi256_si128(best));
                        store(op + D + kk, _mm256_extracti128_si256(best, 1));
                    }
                }
                int32_t word;
                std::memcpy(&word, base + x, 4);
                const __m256i b4 = _mm256_shuffle_epi8(_mm256_set1_epi32(word), spread);
                __m256i m4 = _mm256_set1_epi8(-1);
                if (mask != nullptr) {
                    std::memcpy(&word, mask + x, 4);
                    m4 = _mm256_shuffle_epi8(_mm256_set1_epi32(word), spread);
                }
                const intptr_t c = at + k;
                __m256i best = pc.bytes(
                    _mm256_xor_si256(b4, _mm256_set_m128i(load2x8(match[0] + c + 2, match[0] + c + 3),
                                                          load2x8(match[0] + c, match[0] + c + 1))));
                for (int32_t i = 1; i < n; ++i) {
                    const __m256i v = _mm256_set_m128i(load2x8(match[i] + c + 2, match[i] + c + 3),
                                                       load2x8(match[i] + c, match[i] + c + 1));
                    best = _mm256_min_epu8(best, pc.bytes(_mm256_xor_si256(b4, v)));
                }
                best = _mm256_and_si256(best, m4);
                const __m128i lo = _mm256_castsi256_si128(best), hi = _mm256_extracti128_si256(best, 1);
                store8(o + k, lo);
                store8(o + D + k, _mm_unpackhi_epi64(lo, lo));
                store8(o + 2 * D + k, hi);
                store8(o + 3 * D + k, _mm_unpackhi_epi64(hi, hi));
            }
        }
        for (; x + 2 <= x1; x += 2) {
            const __m256i b = pair(base[x], base[x + 1]);
            const __m256i m = mask != nullptr ? pair(mask[x], mask[x + 1]) : _mm256_set1_epi8(-1);
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            int32_t k = 0;
            for (; k + 16 <= D; k += 16) {
                __m256i best = pc.bytes(_mm256_xor_si256(b, load2(match[0] + at + k, match[0] + at + k + 1)));
                for (int32_t i = 1; i < n; ++i) {
                    const __m256i v = load2(match[i] + at + k, match[i] + at + k + 1);
                    best = _mm256_min_epu8(best, pc.bytes(_mm256_xor_si256(b, v)));
                }
                best = _mm256_and_si256(best, m);
                store(o + k, _mm256_castsi256_si128(best));
                store(o + D + k, _mm256_extracti128_si256(best, 1));
            }
            if (k < D) {
                // The last 8 candidates of both pixels in one 16-byte register.
                const __m128i b2 =
                    _mm_unpacklo_epi64(_mm256_castsi256_si128(b), _mm256_extracti128_si256(b, 1));
                const __m128i m2 =
                    _mm_unpacklo_epi64(_mm256_castsi256_si128(m), _mm256_extracti128_si256(m, 1));
                __m128i best = pc.bytes(_mm_xor_si128(b2, load2x8(match[0] + at + k, match[0] + at + k + 1)));
                for (int32_t i = 1; i < n; ++i) {
                    const __m128i v = load2x8(match[i] + at + k, match[i] + at + k + 1);
                    best = _mm_min_epu8(best, pc.bytes(_mm_xor_si128(b2, v)));
                }
                best = _mm_and_si128(best, m2);
                store8(o + k, best);
                store8(o + D + k, _mm_unpackhi_epi64(best, best));
            }
        }
        hamming8Row_c(out, base, match, rows, mask, D, dLow, x, x1);
    }
};

// Distances of 32-bit words: the bytes' counts summed per word with two
// multiply-adds by one and a pack. Four registers (32 words) give 32 bytes
// with the halves' words interleaved (groups of 4 in the order A0 B0 C0 D0
// A1 B1 C1 D1 for registers A to D, halves 0 and 1); the permute that puts
// them in candidate order comes after the minimum over the rows. The counts
// stay below 33, so no step saturates.
inline __m256i wordSums(const Popcount& pc, __m256i b, const uint32_t* m, __m256i ones) {
    const __m256i* p = reinterpret_cast<const __m256i*>(m);
    const __m256i s0 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 0))), ones);
    const __m256i s1 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 1))), ones);
    const __m256i s2 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 2))), ones);
    const __m256i s3 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 3))), ones);
    const __m256i w01 = _mm256_maddubs_epi16(_mm256_packus_epi16(s0, s1), ones);
    const __m256i w23 = _mm256_maddubs_epi16(_mm256_packus_epi16(s2, s3), ones);
    return _mm256_packus_epi16(w01, w23);
}

// 16 words in two registers: 16 bytes in candidate order.
inline __m128i wordSums16(const Popcount& pc, __m256i b, const uint32_t* m, __m256i ones) {
    const __m256i* p = reinterpret_cast<const __m256i*>(m);
    const __m256i s0 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 0))), ones);
    const __m256i s1 = _mm256_maddubs_epi16(pc.bytes(_mm256_xor_si256(b, _mm256_loadu_si256(p + 1))), ones);
    // Per half: words of s0, then of s1, as 16-bit counts.
    const __m256i w = _mm256_maddubs_epi16(_mm256_packus_epi16(s0, s1), ones);
    const __m128i lo = _mm256_castsi256_si128(w), hi = _mm256_extracti128_si256(w, 1);
    // lo: A0 B0, hi: A1 B1 (4 words each); candidate order is A0 A1 B0 B1.
    return _mm_packus_epi16(_mm_unpacklo_epi64(lo, hi), _mm_unpackhi_epi64(lo, hi));
}

template <int kRows>
struct Hamming32 {
    static void run(uint8_t* out, const uint8_t* baseRow, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
        const Popcount pc;
        const __m256i ones = _mm256_set1_epi8(1);
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        const int32_t n = kRows > 0 ? kRows : rows;
        const uint32_t* base = reinterpret_cast<const uint32_t*>(baseRow);
        for (int32_t x = x0; x < x1; ++x) {
            const __m256i b = _mm256_set1_epi32(static_cast<int32_t>(base[x]));
            const __m256i m = _mm256_set1_epi8(static_cast<char>(mask != nullptr ? mask[x] : 0xFF));
            const intptr_t at = x + dLow;
            uint8_t* o = out + static_cast<size_t>(x) * D;
            int32_t k = 0;
            for (; k + 32 <= D; k += 32) {
                __m256i best = wordSums(pc, b, reinterpret_cast<const uint32_t*>(match[0]) + at + k, ones);
                for (int32_t i = 1; i < n; ++i) {
                    best = _mm256_min_epu8(
                        best, wordSums(pc, b, reinterpret_cast<const uint32_t*>(match[i]) + at + k, ones));
                }
                best = _mm256_permutevar8x32_epi32(_mm256_and_si256(best, m), order);
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + k), best);
            }
            if (k + 16 <= D) {
                __m128i best = wordSums16(pc, b, reinterpret_cast<const uint32_t*>(match[0]) + at + k, ones);
                for (int32_t i = 1; i < n; ++i) {
                    best = _mm_min_epu8(
                        best, wordSums16(pc, b, reinterpret_cast<const uint32_t*>(match[i]) + at + k, ones));
                }
                store(o + k, _mm_and_si128(best, _mm256_castsi256_si128(m)));
                k += 16;
            }
            if (k < D) {
                const __m128i b1 = _mm256_castsi256_si128(b), ones1 = _mm256_castsi256_si128(ones);
                __m128i best = wordSums8(pc, b1, reinterpret_cast<const uint32_t*>(match[0]) + at + k, ones1);
                for (int32_t i = 1; i < n; ++i) {
                    best = _mm_min_epu8(
                        best, wordSums8(pc, b1, reinterpret_cast<const uint32_t*>(match[i]) + at + k, ones1));
                }
                store8(o + k, _mm_and_si128(best, _mm256_castsi256_si128(m)));
            }
        }
    }
};

}  // namespace

void SgmCostKernels_addAvx2(SgmCostKernels* table) { SgmCost_setByRows<Hamming8, Hamming32>(table); }

}  // namespace vq_tl
