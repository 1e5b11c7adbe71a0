// Census rows with AVX2: 32 pixels per step.
#include <immintrin.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

inline __m256i greater(__m256i a, __m256i c, __m256i bias) {
    return _mm256_cmpgt_epi8(_mm256_xor_si256(a, bias), _mm256_xor_si256(c, bias));
}

inline __m256i load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

template <int R>
inline __m256i censusByte(const uint8_t* const* rows, int32_t x, int first, __m256i c, __m256i bias) {
    __m256i acc = _mm256_setzero_si256();
    int n = 0;
    for (int dy = 0; dy <= 2 * R; ++dy) {
        for (int dx = -R; dx <= R; ++dx) {
            if (dy == R && dx == 0) continue;
            if (n >= first && n < first + 8)
                acc = _mm256_sub_epi8(_mm256_add_epi8(acc, acc), greater(load(rows[dy] + x + dx), c, bias));
            ++n;
        }
    }
    return acc;
}

void census3x3Row_avx2(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const __m256i bias = _mm256_set1_epi8(static_cast<char>(0x80));
    int32_t x = x0;
    for (; x + 32 <= x1; x += 32) {
        const __m256i c = load(rows[1] + x);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), censusByte<1>(rows, x, 0, c, bias));
    }
    census3x3Row_c(out, rows, x, x1);
}

void census5x5Row_avx2(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const __m256i bias = _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i zero = _mm256_setzero_si256();
    int32_t x = x0;
    for (; x + 32 <= x1; x += 32) {
        const __m256i c = load(rows[2] + x);
        const __m256i hi = censusByte<2>(rows, x, 0, c, bias);
        const __m256i mid = censusByte<2>(rows, x, 8, c, bias);
        const __m256i low = censusByte<2>(rows, x, 16, c, bias);
        // The unpacks work within 128-bit halves: w0 holds pixels 0-3 and
        // 16-19, w1 4-7 and 20-23, w2 8-11 and 24-27, w3 12-15 and 28-31.
        const __m256i lm0 = _mm256_unpacklo_epi8(low, mid), lm1 = _mm256_unpackhi_epi8(low, mid);
        const __m256i h0 = _mm256_unpacklo_epi8(hi, zero), h1 = _mm256_unpackhi_epi8(hi, zero);
        const __m256i w0 = _mm256_unpacklo_epi16(lm0, h0), w1 = _mm256_unpackhi_epi16(lm0, h0);
        const __m256i w2 = _mm256_unpacklo_epi16(lm1, h1), w3 = _mm256_unpackhi_epi16(lm1, h1);
        __m256i* o = reinterpret_cast<__m256i*>(out + x);
        _mm256_storeu_si256(o + 0, _mm256_permute2x128_si256(w0, w1, 0x20));
        _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(w2, w3, 0x20));
        _mm256_storeu_si256(o + 2, _mm256_permute2x128_si256(w0, w1, 0x31));
        _mm256_storeu_si256(o + 3, _mm256_permute2x128_si256(w2, w3, 0x31));
    }
    census5x5Row_c(out, rows, x, x1);
}

}  // namespace

void CensusKernels_addAvx2(CensusKernels* table) {
    table->census3x3 = census3x3Row_avx2;
    table->census5x5 = census5x5Row_avx2;
}

}  // namespace vq_tl
