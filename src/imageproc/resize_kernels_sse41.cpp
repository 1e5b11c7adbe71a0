// Scaling rows with SSE4.1. Area shrink: column sums 16 bytes per step (the
// element sums gather their columns one by one and gain nothing here; they
// keep the scalar form). Bilinear rows: four elements per window of the
// plan, a (32768 - f) + b f as (a << 15) + pmaddwd of (a, b) with (-f, f).
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

void linearRow_sse41(int32_t* out, const uint8_t* src, const ResizeTap* taps, const LinearWindow* windows,
                     int32_t width, int32_t channels) {
    const int32_t n = width * channels;
    const __m128i low16 = _mm_set1_epi32(0xFFFF);
    int32_t e = 0;
    for (; e + 4 <= n; e += 4) {
        const LinearWindow& w = windows[e / 4];
        if (w.base < 0) {
            linearElements_c(out, src, taps, channels, e, e + 4);
            continue;
        }
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + w.base));
        const __m128i ab = _mm_shuffle_epi8(bytes, _mm_loadu_si128(reinterpret_cast<const __m128i*>(w.pick)));
        // (b - a) f fits 32 bits, a << 15 at most 255 * 32768.
        const __m128i diff = _mm_madd_epi16(ab, _mm_loadu_si128(reinterpret_cast<const __m128i*>(w.weights)));
        const __m128i a = _mm_slli_epi32(_mm_and_si128(ab, low16), 15);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + e), _mm_add_epi32(a, diff));
    }
    linearElements_c(out, src, taps, channels, e, n);
}

}  // namespace

void ResizeKernels_addSse41(ResizeKernels* table) {
    table->areaRow = areaRow_sse41;
    table->linearRow = linearRow_sse41;
}

}  // namespace vq_tl
