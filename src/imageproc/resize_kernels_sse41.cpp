// Area-shrink rows with SSE4.1: column sums 16 bytes per step. The element
// sums gather their columns one by one and gain nothing here; they keep the
// scalar form.
#include <smmintrin.h>

#include "imageproc/resize_kernels.h"

namespace vq_tl {

namespace {

void areaRow_sse41(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add) {
    const __m128i w = _mm_set1_epi32(static_cast<int32_t>(weight));
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        __m128i p[4] = {_mm_mullo_epi32(_mm_cvtepu8_epi32(b), w),
                        _mm_mullo_epi32(_mm_cvtepu8_epi32(_mm_srli_si128(b, 4)), w),
                        _mm_mullo_epi32(_mm_cvtepu8_epi32(_mm_srli_si128(b, 8)), w),
                        _mm_mullo_epi32(_mm_cvtepu8_epi32(_mm_srli_si128(b, 12)), w)};
        __m128i* s = reinterpret_cast<__m128i*>(sums + i);
        for (int q = 0; q < 4; ++q) {
            if (add != 0) p[q] = _mm_add_epi32(p[q], _mm_loadu_si128(s + q));
            _mm_storeu_si128(s + q, p[q]);
        }
    }
    areaRow_c(sums + i, src + i, n - i, weight, add);
}

}  // namespace

void ResizeKernels_addSse41(ResizeKernels* table) { table->areaRow = areaRow_sse41; }

}  // namespace vq_tl
