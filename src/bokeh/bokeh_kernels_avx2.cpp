// Pyramid bokeh rows with AVX2: 32 pixels per step, sums in 16-bit lanes.
// Packing works within 128-bit lanes, so packed results are put back in
// order by a permutation of 64-bit quarters (0xD8: quarters 0, 2, 1, 3).
#include <immintrin.h>

#include "bokeh/bokeh_kernels.h"

namespace vq_tl {

namespace {

inline __m256i load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline __m128i load128(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline void store(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

inline __m256i packInOrder(__m256i lo, __m256i hi) {
    return _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8);
}

void shrinkRow_avx2(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    const __m256i ones = _mm256_set1_epi8(1), two = _mm256_set1_epi16(2);
    int32_t x = 0;
    for (; x + 32 <= n; x += 32) {
        const __m256i lo = _mm256_add_epi16(_mm256_maddubs_epi16(load(a + 2 * x), ones),
                                            _mm256_maddubs_epi16(load(b + 2 * x), ones));
        const __m256i hi = _mm256_add_epi16(_mm256_maddubs_epi16(load(a + 2 * x + 32), ones),
                                            _mm256_maddubs_epi16(load(b + 2 * x + 32), ones));
        store(d + x, packInOrder(_mm256_srli_epi16(_mm256_add_epi16(lo, two), 2),
                                 _mm256_srli_epi16(_mm256_add_epi16(hi, two), 2)));
    }
    bokehShrinkRow_c(d + x, a + 2 * x, b + 2 * x, n - x);
}

// 16 outputs from 64 bytes of one row: the low byte of each word is an
// element of the channel, adjacent words the pair. The in-lane pairwise
// addition leaves outputs 0-3, 8-11 | 4-7, 12-15.
inline __m256i channelPairs(const uint8_t* p, __m256i mask) {
    const __m256i s =
        _mm256_hadd_epi16(_mm256_and_si256(load(p), mask), _mm256_and_si256(load(p + 32), mask));
    return _mm256_permute4x64_epi64(s, 0xD8);
}

void shrink2Row_avx2(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    const __m256i mask = _mm256_set1_epi16(0xFF), two = _mm256_set1_epi16(2);
    int32_t x = 0;
    // A step reads 64 bytes, one past the last element it needs: one more
    // output must follow, so the read stays inside what the scalar form reads.
    for (; x + 17 <= n; x += 16) {
        const __m256i s = _mm256_add_epi16(channelPairs(a + 4 * x, mask), channelPairs(b + 4 * x, mask));
        const __m256i r = _mm256_srli_epi16(_mm256_add_epi16(s, two), 2);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x),
                         _mm_packus_epi16(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1)));
    }
    bokehShrink2Row_c(d + x, a + 4 * x, b + 4 * x, n - x);
}

void columnSumRow_avx2(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa, int32_t n) {
    // Bytes a, c interleaved against weights wa, 4 - wa: at most 1020.
    const __m256i w = _mm256_set1_epi16(static_cast<int16_t>(wa | ((4 - wa) << 8)));
    int32_t m = 0;
    for (; m + 32 <= n; m += 32) {
        const __m256i va = load(a + m), vc = load(c + m);
        const __m256i lo = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(va, vc), w);  // 0-7 | 16-23
        const __m256i hi = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(va, vc), w);  // 8-15 | 24-31
        store(v + m, _mm256_permute2x128_si256(lo, hi, 0x20));
        store(v + m + 16, _mm256_permute2x128_si256(lo, hi, 0x31));
    }
    bokehColumnSumRow_c(v + m, a + m, c + m, wa, n - m);
}

// 16 pairs of doubled pixels from v[q .. q + 17]: each word holds the even
// pixel in its low byte and the odd one in its high byte.
inline __m256i doubledPairs(const uint16_t* v, __m256i eight) {
    const __m256i v0 = load(v), v1 = load(v + 1), v2 = load(v + 2);
    const __m256i v13 = _mm256_add_epi16(_mm256_add_epi16(v1, v1), v1);
    const __m256i even = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(v0, v13), eight), 4);
    const __m256i odd = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(v13, v2), eight), 4);
    return _mm256_or_si256(even, _mm256_slli_epi16(odd, 8));
}

void doubleRow_avx2(uint8_t* b, const uint16_t* v, int32_t pairs) {
    const __m256i eight = _mm256_set1_epi16(8);
    int32_t q = 0;
    for (; q + 32 <= pairs; q += 32) {
        store(b + 2 * q, doubledPairs(v + q, eight));
        store(b + 2 * q + 32, doubledPairs(v + q + 16, eight));
    }
    for (; q + 16 <= pairs; q += 16) store(b + 2 * q, doubledPairs(v + q, eight));
    bokehDoubleRow_c(b + 2 * q, v + q, pairs - q);
}

struct MixConstants {
    __m128i threshold, shift;
    __m256i limit, one, half;
};

MixConstants mixConstants(int32_t threshold, int32_t shift) {
    return MixConstants{_mm_set1_epi8(static_cast<char>(threshold)), _mm_cvtsi32_si128(shift),
                        _mm256_set1_epi16(255), _mm256_set1_epi16(1), _mm256_set1_epi16(128)};
}

// Alphas of 16 CoC bytes as words: max(c - threshold, 0) saturating in
// bytes, then shifted in words (at most 255 << 8) and limited to 255.
inline __m256i alphaWords(const uint8_t* coc, const MixConstants& k) {
    const __m256i a = _mm256_cvtepu8_epi16(_mm_subs_epu8(load128(coc), k.threshold));
    return _mm256_min_epu16(_mm256_sll_epi16(a, k.shift), k.limit);
}

// ((255 - a) b + (a + 1) f + 128) >> 8 on words: below 2^16 (see the header).
inline __m256i mixWords(__m256i f, __m256i b, __m256i a, const MixConstants& k) {
    const __m256i t = _mm256_add_epi16(_mm256_mullo_epi16(_mm256_sub_epi16(k.limit, a), b),
                                       _mm256_mullo_epi16(_mm256_add_epi16(a, k.one), f));
    return _mm256_srli_epi16(_mm256_add_epi16(t, k.half), 8);
}

inline __m256i widen(__m128i v) { return _mm256_cvtepu8_epi16(v); }

void mixRow_avx2(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc, int32_t threshold,
                 int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i lo = mixWords(widen(load128(f + i)), widen(load128(b + i)), alphaWords(coc + i, k), k);
        const __m256i hi =
            mixWords(widen(load128(f + i + 16)), widen(load128(b + i + 16)), alphaWords(coc + i + 16, k), k);
        store(o + i, packInOrder(lo, hi));
    }
    bokehMixRow_c(o + i, f + i, b + i, coc + i, threshold, shift, n - i);
}

void mix2Row_avx2(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1, const uint8_t* coc,
                  int32_t threshold, int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        // Alphas back to bytes, each doubled for its pair; the blurred
        // planes interleaved like f.
        const __m256i aw = alphaWords(coc + i, k);
        const __m128i a = _mm_packus_epi16(_mm256_castsi256_si128(aw), _mm256_extracti128_si256(aw, 1));
        const __m128i c0 = load128(b0 + i), c1 = load128(b1 + i);
        const __m256i lo = mixWords(widen(load128(f + 2 * i)), widen(_mm_unpacklo_epi8(c0, c1)),
                                    widen(_mm_unpacklo_epi8(a, a)), k);
        const __m256i hi = mixWords(widen(load128(f + 2 * i + 16)), widen(_mm_unpackhi_epi8(c0, c1)),
                                    widen(_mm_unpackhi_epi8(a, a)), k);
        store(o + 2 * i, packInOrder(lo, hi));
    }
    bokehMix2Row_c(o + 2 * i, f + 2 * i, b0 + i, b1 + i, coc + i, threshold, shift, n - i);
}

// Eight quotients (num + (sum >> 1)) / max(sum, 1) of 32-bit lanes, in floats
// as the scalar form takes them: every operand is an integer below 2^24.
inline __m256i quotients(__m256i num, __m256i sum, __m256i one) {
    const __m256i top = _mm256_add_epi32(num, _mm256_srli_epi32(sum, 1));
    const __m256 q = _mm256_div_ps(_mm256_cvtepi32_ps(top), _mm256_cvtepi32_ps(_mm256_max_epi32(sum, one)));
    return _mm256_cvttps_epi32(q);
}

// Eight outputs from 16 bytes of each row and weight row as words: the
// weighted sums of the pairs in 32-bit lanes (products below 2^16), in order
// since the pairs of a 128-bit lane stay in it.
inline __m128i weightedEight(const uint8_t* a, const uint8_t* b, const uint8_t* wa, const uint8_t* wb,
                             __m128i sum, __m256i one) {
    const __m256i num = _mm256_add_epi32(_mm256_madd_epi16(widen(load128(wa)), widen(load128(a))),
                                         _mm256_madd_epi16(widen(load128(wb)), widen(load128(b))));
    const __m256i q = quotients(num, _mm256_cvtepu16_epi32(sum), one);
    return _mm_packs_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
}

void weightedShrinkRow_avx2(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                            const uint8_t* wa, const uint8_t* wb, int32_t n) {
    const __m256i ones = _mm256_set1_epi8(1), one = _mm256_set1_epi32(1), two = _mm256_set1_epi16(2);
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) {
        const int32_t o = 2 * x;
        // Weight sums of the 16 blocks as words, in order.
        const __m256i sum = _mm256_add_epi16(_mm256_maddubs_epi16(load(wa + o), ones),
                                             _mm256_maddubs_epi16(load(wb + o), ones));
        const __m128i sumLo = _mm256_castsi256_si128(sum), sumHi = _mm256_extracti128_si256(sum, 1);
        const __m128i lo = weightedEight(a + o, b + o, wa + o, wb + o, sumLo, one);
        const __m128i hi = weightedEight(a + o + 16, b + o + 16, wa + o + 16, wb + o + 16, sumHi, one);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(lo, hi));
        if (dWeight != nullptr) {
            const __m256i w = _mm256_srli_epi16(_mm256_add_epi16(sum, two), 2);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dWeight + x),
                             _mm_packus_epi16(_mm256_castsi256_si128(w), _mm256_extracti128_si256(w, 1)));
        }
    }
    bokehWeightedShrinkRow_c(d + x, dWeight != nullptr ? dWeight + x : nullptr, a + 2 * x, b + 2 * x,
                             wa + 2 * x, wb + 2 * x, n - x);
}

}  // namespace

void BokehKernels_addAvx2(BokehKernels* table) {
    table->shrink = shrinkRow_avx2;
    table->shrink2 = shrink2Row_avx2;
    table->columnSum = columnSumRow_avx2;
    table->doubleRow = doubleRow_avx2;
    table->mix = mixRow_avx2;
    table->mix2 = mix2Row_avx2;
    table->weightedShrink = weightedShrinkRow_avx2;
}

}  // namespace vq_tl
