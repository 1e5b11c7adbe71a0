// 3 by 3 median rows with AVX2: 32 elements per step, the column
// sorts of the three columns each loaded at its own offset (no carried
// state, so any channel step works).
#include <immintrin.h>

#include "imageproc/rank_kernels.h"

namespace vq_tl {

namespace {

inline __m256i load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// The column of three bytes sorted: low, middle, high.
inline void sortColumn(__m256i a, __m256i b, __m256i c, __m256i* lo, __m256i* mid, __m256i* hi) {
    const __m256i l = _mm256_min_epu8(a, b), h = _mm256_max_epu8(a, b);
    *lo = _mm256_min_epu8(l, c);
    *hi = _mm256_max_epu8(h, c);
    *mid = _mm256_max_epu8(l, _mm256_min_epu8(h, c));
}

inline __m256i median3(__m256i a, __m256i b, __m256i c) {
    return _mm256_max_epu8(_mm256_min_epu8(a, b), _mm256_min_epu8(_mm256_max_epu8(a, b), c));
}

void median3x3U8Row(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below, int32_t step,
                    int32_t x0, int32_t x1) {
    int32_t i = x0;
    for (; i + 32 <= x1; i += 32) {
        __m256i lo[3], mid[3], hi[3];
        for (int32_t c = 0; c < 3; ++c) {
            const int32_t j = i + (c - 1) * step;
            sortColumn(load(above + j), load(at + j), load(below + j), &lo[c], &mid[c], &hi[c]);
        }
        const __m256i l = _mm256_max_epu8(_mm256_max_epu8(lo[0], lo[1]), lo[2]);
        const __m256i m = median3(mid[0], mid[1], mid[2]);
        const __m256i h = _mm256_min_epu8(_mm256_min_epu8(hi[0], hi[1]), hi[2]);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), median3(l, m, h));
    }
    median3x3U8Row_c(out, above, at, below, step, i, x1);
}

}  // namespace

void RankKernels_addAvx2(RankKernels* table) { table->median3x3U8 = median3x3U8Row; }

}  // namespace vq_tl
