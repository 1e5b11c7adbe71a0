// Pyramid bokeh rows with SSE4.1: 16 pixels per step, sums in 16-bit lanes.
#include <smmintrin.h>

#include "bokeh/bokeh_kernels.h"

namespace vq_tl {

namespace {

inline __m128i load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline void store(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

// Sums of adjacent byte pairs as words: a multiply-add by ones.
inline __m128i pairSums(__m128i v, __m128i ones) { return _mm_maddubs_epi16(v, ones); }

void shrinkRow_sse41(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    const __m128i ones = _mm_set1_epi8(1), two = _mm_set1_epi16(2);
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) {
        const __m128i lo = _mm_add_epi16(pairSums(load(a + 2 * x), ones), pairSums(load(b + 2 * x), ones));
        const __m128i hi =
            _mm_add_epi16(pairSums(load(a + 2 * x + 16), ones), pairSums(load(b + 2 * x + 16), ones));
        store(d + x, _mm_packus_epi16(_mm_srli_epi16(_mm_add_epi16(lo, two), 2),
                                      _mm_srli_epi16(_mm_add_epi16(hi, two), 2)));
    }
    bokehShrinkRow_c(d + x, a + 2 * x, b + 2 * x, n - x);
}

// Eight outputs from 32 bytes of one row: the low byte of each word is an
// element of the channel, and adjacent words are the pair.
inline __m128i channelPairs(const uint8_t* p, __m128i mask) {
    return _mm_hadd_epi16(_mm_and_si128(load(p), mask), _mm_and_si128(load(p + 16), mask));
}

void shrink2Row_sse41(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    const __m128i mask = _mm_set1_epi16(0xFF), two = _mm_set1_epi16(2);
    int32_t x = 0;
    // A step reads 64 bytes, one past the last element it needs: one more
    // output must follow, so the read stays inside what the scalar form reads.
    for (; x + 17 <= n; x += 16) {
        const uint8_t* pa = a + 4 * x;
        const uint8_t* pb = b + 4 * x;
        const __m128i lo = _mm_add_epi16(channelPairs(pa, mask), channelPairs(pb, mask));
        const __m128i hi = _mm_add_epi16(channelPairs(pa + 32, mask), channelPairs(pb + 32, mask));
        store(d + x, _mm_packus_epi16(_mm_srli_epi16(_mm_add_epi16(lo, two), 2),
                                      _mm_srli_epi16(_mm_add_epi16(hi, two), 2)));
    }
    bokehShrink2Row_c(d + x, a + 4 * x, b + 4 * x, n - x);
}

void columnSumRow_sse41(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa, int32_t n) {
    // Bytes a, c interleaved against weights wa, 4 - wa: at most 1020.
    const __m128i w = _mm_set1_epi16(static_cast<int16_t>(wa | ((4 - wa) << 8)));
    int32_t m = 0;
    for (; m + 16 <= n; m += 16) {
        const __m128i va = load(a + m), vc = load(c + m);
        store(v + m, _mm_maddubs_epi16(_mm_unpacklo_epi8(va, vc), w));
        store(v + m + 8, _mm_maddubs_epi16(_mm_unpackhi_epi8(va, vc), w));
    }
    bokehColumnSumRow_c(v + m, a + m, c + m, wa, n - m);
}

// Eight pairs of doubled pixels from v[q .. q + 9]: each word of the result
// holds the even pixel in its low byte and the odd one in its high byte.
inline __m128i doubledPairs(const uint16_t* v, __m128i eight) {
    const __m128i v0 = load(v), v1 = load(v + 1), v2 = load(v + 2);
    const __m128i v13 = _mm_add_epi16(_mm_add_epi16(v1, v1), v1);
    const __m128i even = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(v0, v13), eight), 4);
    const __m128i odd = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(v13, v2), eight), 4);
    return _mm_or_si128(even, _mm_slli_epi16(odd, 8));
}

void doubleRow_sse41(uint8_t* b, const uint16_t* v, int32_t pairs) {
    const __m128i eight = _mm_set1_epi16(8);
    int32_t q = 0;
    for (; q + 16 <= pairs; q += 16) {
        store(b + 2 * q, doubledPairs(v + q, eight));
        store(b + 2 * q + 16, doubledPairs(v + q + 8, eight));
    }
    bokehDoubleRow_c(b + 2 * q, v + q, pairs - q);
}

// Alphas of 16 CoC bytes: max(c - threshold, 0) saturating in bytes, then
// shifted in words (at most 255 << 8) and limited to 255.
inline __m128i alphas(__m128i c, __m128i threshold, __m128i shift, __m128i limit) {
    const __m128i a = _mm_subs_epu8(c, threshold);
    const __m128i lo = _mm_min_epu16(_mm_sll_epi16(_mm_cvtepu8_epi16(a), shift), limit);
    const __m128i hi = _mm_min_epu16(_mm_sll_epi16(_mm_unpackhi_epi8(a, _mm_setzero_si128()), shift), limit);
    return _mm_packus_epi16(lo, hi);
}

// ((255 - a) b + (a + 1) f + 128) >> 8 on words: below 2^16 (see the header).
inline __m128i mixWords(__m128i f, __m128i b, __m128i a, __m128i limit, __m128i one, __m128i half) {
    const __m128i t =
        _mm_add_epi16(_mm_mullo_epi16(_mm_sub_epi16(limit, a), b), _mm_mullo_epi16(_mm_add_epi16(a, one), f));
    return _mm_srli_epi16(_mm_add_epi16(t, half), 8);
}

struct MixConstants {
    __m128i threshold, shift, limit, one, half, zero;
};

MixConstants mixConstants(int32_t threshold, int32_t shift) {
    return MixConstants{_mm_set1_epi8(static_cast<char>(threshold)),
                        _mm_cvtsi32_si128(shift),
                        _mm_set1_epi16(255),
                        _mm_set1_epi16(1),
                        _mm_set1_epi16(128),
                        _mm_setzero_si128()};
}

// 16 bytes of f and b under 16 alphas.
inline __m128i mixBytes(__m128i f, __m128i b, __m128i a, const MixConstants& k) {
    const __m128i lo =
        mixWords(_mm_cvtepu8_epi16(f), _mm_cvtepu8_epi16(b), _mm_cvtepu8_epi16(a), k.limit, k.one, k.half);
    const __m128i hi = mixWords(_mm_unpackhi_epi8(f, k.zero), _mm_unpackhi_epi8(b, k.zero),
                                _mm_unpackhi_epi8(a, k.zero), k.limit, k.one, k.half);
    return _mm_packus_epi16(lo, hi);
}

void mixRow_sse41(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc, int32_t threshold,
                  int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i a = alphas(load(coc + i), k.threshold, k.shift, k.limit);
        store(o + i, mixBytes(load(f + i), load(b + i), a, k));
    }
    bokehMixRow_c(o + i, f + i, b + i, coc + i, threshold, shift, n - i);
}

void mix2Row_sse41(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1, const uint8_t* coc,
                   int32_t threshold, int32_t shift, int32_t n) {
    const MixConstants k = mixConstants(threshold, shift);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i a = alphas(load(coc + i), k.threshold, k.shift, k.limit);
        const __m128i c0 = load(b0 + i), c1 = load(b1 + i);
        store(o + 2 * i, mixBytes(load(f + 2 * i), _mm_unpacklo_epi8(c0, c1), _mm_unpacklo_epi8(a, a), k));
        store(o + 2 * i + 16,
              mixBytes(load(f + 2 * i + 16), _mm_unpackhi_epi8(c0, c1), _mm_unpackhi_epi8(a, a), k));
    }
    bokehMix2Row_c(o + 2 * i, f + 2 * i, b0 + i, b1 + i, coc + i, threshold, shift, n - i);
}

// Four quotients (num + (sum >> 1)) / max(sum, 1) of 32-bit lanes, in floats
// as the scalar form takes them: every operand is an integer below 2^24.
inline __m128i quotients(__m128i num, __m128i sum, __m128i one) {
    const __m128i top = _mm_add_epi32(num, _mm_srli_epi32(sum, 1));
    const __m128 q = _mm_div_ps(_mm_cvtepi32_ps(top), _mm_cvtepi32_ps(_mm_max_epi32(sum, one)));
    return _mm_cvttps_epi32(q);
}

// Eight outputs from 16 bytes of each row and weight row: the weighted sums
// of the pairs as 32-bit lanes (products below 2^16), the weight sums as
// words.
inline __m128i weightedEight(const uint8_t* a, const uint8_t* b, const uint8_t* wa, const uint8_t* wb,
                             __m128i sum, __m128i one) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i va = load(a), vb = load(b), vwa = load(wa), vwb = load(wb);
    const __m128i numLo = _mm_add_epi32(_mm_madd_epi16(_mm_cvtepu8_epi16(vwa), _mm_cvtepu8_epi16(va)),
                                        _mm_madd_epi16(_mm_cvtepu8_epi16(vwb), _mm_cvtepu8_epi16(vb)));
    const __m128i numHi =
        _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi8(vwa, zero), _mm_unpackhi_epi8(va, zero)),
                      _mm_madd_epi16(_mm_unpackhi_epi8(vwb, zero), _mm_unpackhi_epi8(vb, zero)));
    const __m128i qLo = quotients(numLo, _mm_cvtepu16_epi32(sum), one);
    const __m128i qHi = quotients(numHi, _mm_unpackhi_epi16(sum, zero), one);
    return _mm_packs_epi32(qLo, qHi);
}

void weightedShrinkRow_sse41(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                             const uint8_t* wa, const uint8_t* wb, int32_t n) {
    const __m128i ones = _mm_set1_epi8(1), one = _mm_set1_epi32(1), two = _mm_set1_epi16(2);
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) {
        const int32_t o = 2 * x;
        const __m128i sumLo = _mm_add_epi16(pairSums(load(wa + o), ones), pairSums(load(wb + o), ones));
        const __m128i sumHi =
            _mm_add_epi16(pairSums(load(wa + o + 16), ones), pairSums(load(wb + o + 16), ones));
        const __m128i lo = weightedEight(a + o, b + o, wa + o, wb + o, sumLo, one);
        const __m128i hi = weightedEight(a + o + 16, b + o + 16, wa + o + 16, wb + o + 16, sumHi, one);
        store(d + x, _mm_packus_epi16(lo, hi));
        if (dWeight != nullptr) {
            store(dWeight + x, _mm_packus_epi16(_mm_srli_epi16(_mm_add_epi16(sumLo, two), 2),
                                                _mm_srli_epi16(_mm_add_epi16(sumHi, two), 2)));
        }
    }
    bokehWeightedShrinkRow_c(d + x, dWeight != nullptr ? dWeight + x : nullptr, a + 2 * x, b + 2 * x,
                             wa + 2 * x, wb + 2 * x, n - x);
}

}  // namespace

void BokehKernels_addSse41(BokehKernels* table) {
    table->shrink = shrinkRow_sse41;
    table->shrink2 = shrink2Row_sse41;
    table->columnSum = columnSumRow_sse41;
    table->doubleRow = doubleRow_sse41;
    table->mix = mixRow_sse41;
    table->mix2 = mix2Row_sse41;
    table->weightedShrink = weightedShrinkRow_sse41;
}

}  // namespace vq_tl
