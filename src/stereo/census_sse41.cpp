// Census rows with SSE4.1: 16 pixels per step.
#include <smmintrin.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

// Unsigned "greater than" as a signed compare of both sides moved by 128.
inline __m128i greater(__m128i a, __m128i c, __m128i bias) {
    return _mm_cmpgt_epi8(_mm_xor_si128(a, bias), _mm_xor_si128(c, bias));
}

inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Eight neighbours (from `first` on, in raster order) into one byte per
// pixel, the first in bit 7: acc * 2 - mask adds the new bit since a set mask
// byte is -1.
template <int R>
inline __m128i censusByte(const uint8_t* const* rows, int32_t x, int first, __m128i c, __m128i bias) {
    __m128i acc = _mm_setzero_si128();
    int n = 0;
    for (int dy = 0; dy <= 2 * R; ++dy) {
        for (int dx = -R; dx <= R; ++dx) {
            if (dy == R && dx == 0) continue;
            if (n >= first && n < first + 8)
                acc = _mm_sub_epi8(_mm_add_epi8(acc, acc), greater(load(rows[dy] + x + dx), c, bias));
            ++n;
        }
    }
    return acc;
}

void census3x3Row_sse41(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    int32_t x = x0;
    for (; x + 16 <= x1; x += 16) {
        const __m128i c = load(rows[1] + x);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), censusByte<1>(rows, x, 0, c, bias));
    }
    census3x3Row_c(out, rows, x, x1);
}

void census5x5Row_sse41(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    const __m128i zero = _mm_setzero_si128();
    int32_t x = x0;
    for (; x + 16 <= x1; x += 16) {
        const __m128i c = load(rows[2] + x);
        const __m128i hi = censusByte<2>(rows, x, 0, c, bias);    // bits 23..16
        const __m128i mid = censusByte<2>(rows, x, 8, c, bias);   // bits 15..8
        const __m128i low = censusByte<2>(rows, x, 16, c, bias);  // bits 7..0
        const __m128i lm0 = _mm_unpacklo_epi8(low, mid), lm1 = _mm_unpackhi_epi8(low, mid);
        const __m128i h0 = _mm_unpacklo_epi8(hi, zero), h1 = _mm_unpackhi_epi8(hi, zero);
        __m128i* o = reinterpret_cast<__m128i*>(out + x);
        _mm_storeu_si128(o + 0, _mm_unpacklo_epi16(lm0, h0));
        _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(lm0, h0));
        _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(lm1, h1));
        _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(lm1, h1));
    }
    census5x5Row_c(out, rows, x, x1);
}

}  // namespace

void CensusKernels_addSse41(CensusKernels* table) {
    table->census3x3 = census3x3Row_sse41;
    table->census5x5 = census5x5Row_sse41;
}

}  // namespace vq_tl
