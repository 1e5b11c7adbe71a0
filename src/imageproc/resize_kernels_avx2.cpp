// Area-shrink rows with AVX2: column sums 32 bytes per step; element sums of
// one and two channels 8 elements per step, each pixel's taps loaded as one
// run of columns (no gathers: they ran four times slower than the scalar
// loop), in 32 bits where the sums allow, the division in double.
#include <immintrin.h>

#include "imageproc/resize_kernels.h"

namespace vq_tl {

namespace {

void areaRow_avx2(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add) {
    const __m256i w = _mm256_set1_epi32(static_cast<int32_t>(weight));
    int32_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i* s = reinterpret_cast<__m256i*>(sums + i);
        for (int q = 0; q < 4; ++q) {
            const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + i + 8 * q));
            __m256i p = _mm256_mullo_epi32(_mm256_cvtepu8_epi32(b), w);
            if (add != 0) p = _mm256_add_epi32(p, _mm256_loadu_si256(s + q));
            _mm256_storeu_si256(s + q, p);
        }
    }
    areaRow_c(sums + i, src + i, n - i, weight, add);
}

// Eight sums plus the half (each below 2^32, unsigned) divided by total:
// the double quotient of two exact values, correctly rounded, is at most one
// above the integer one (never below, as every integer is exact), and q *
// total is exact too, so one downward correction gives the floor. The bytes
// go to out[0..7].
inline __m128i divideFour(__m128i a32, __m256d total) {
    // An unsigned value below 2^52 as a double: its bits under the exponent
    // of 2^52, less 2^52, exactly.
    const __m256i a = _mm256_cvtepu32_epi64(a32);
    const __m256i magic = _mm256_set1_epi64x(0x4330000000000000LL);
    const __m256d ad =
        _mm256_sub_pd(_mm256_castsi256_pd(_mm256_or_si256(a, magic)), _mm256_set1_pd(4503599627370496.0));
    __m256d q = _mm256_round_pd(_mm256_div_pd(ad, total), _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256d over = _mm256_cmp_pd(_mm256_mul_pd(q, total), ad, _CMP_GT_OQ);
    q = _mm256_sub_pd(q, _mm256_and_pd(over, _mm256_set1_pd(1.0)));
    return _mm256_cvttpd_epi32(q);
}

inline void storeEight(uint8_t* out, __m256i sums, __m256i half, __m256d total) {
    const __m256i a = _mm256_add_epi32(sums, half);
    const __m128i lo = divideFour(_mm256_castsi256_si128(a), total);
    const __m128i hi = divideFour(_mm256_extracti128_si256(a, 1), total);
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(lo, hi), _mm_setzero_si128());
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), bytes);
}

inline __m256i loadu(const uint32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// The eight lanes of a, b, ..., h summed: lane i of the result is the sum of
// the i-th argument.
inline __m256i sumLanes8(const __m256i p[8]) {
    const __m256i h01 = _mm256_hadd_epi32(p[0], p[1]), h23 = _mm256_hadd_epi32(p[2], p[3]);
    const __m256i h45 = _mm256_hadd_epi32(p[4], p[5]), h67 = _mm256_hadd_epi32(p[6], p[7]);
    const __m256i h0123 = _mm256_hadd_epi32(h01, h23), h4567 = _mm256_hadd_epi32(h45, h67);
    return _mm256_add_epi32(_mm256_permute2x128_si256(h0123, h4567, 0x20),
                            _mm256_permute2x128_si256(h0123, h4567, 0x31));
}

void areaColumns_avx2(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0, int32_t x1) {
    const int32_t count = taps->count, channels = taps->channels;
    // 32-bit element sums need 255.5 * total below 2^32; one load of 8 (one
    // channel) or 16 (two) columns must hold a pixel's taps.
    if (taps->total * 511 >= (uint64_t{1} << 33) || count > 8 || channels > 2) {
        areaColumns_c(out, sums, taps, x0, x1);
        return;
    }
    const __m256d total = _mm256_set1_pd(static_cast<double>(taps->total));
    const __m256i half = _mm256_set1_epi32(static_cast<int32_t>(taps->total / 2));
    const __m256i laneMask =
        _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const int32_t weightsLength = taps->width * count;
    const int32_t step = channels == 1 ? 8 : 4;  // pixels per step: eight elements
    int32_t x = x0;
    // The loads of the last pixel of a step stay inside the weights and the sums.
    for (; x + step <= x1; x += step) {
        const int32_t last = x + step - 1;
        if (last * count + 8 > weightsLength || (taps->first[last] + 8) * channels > taps->sumsLength) break;
        __m256i p[8];
        if (channels == 1) {
            for (int i = 0; i < 8; ++i) {
                const __m256i w = _mm256_and_si256(loadu(taps->weights + (x + i) * count), laneMask);
                p[i] = _mm256_mullo_epi32(loadu(sums + taps->first[x + i]), w);
            }
            storeEight(out + x, sumLanes8(p), half, total);
        } else {
            // Columns interleave the two channels: weights doubled lane by
            // lane, then the even and the odd lanes of each pixel summed.
            const __m256i lowPairs = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
            const __m256i highPairs = _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7);
            __m256i q[4];
            for (int i = 0; i < 4; ++i) {
                const __m256i w = _mm256_and_si256(loadu(taps->weights + (x + i) * count), laneMask);
                const uint32_t* s = sums + 2 * taps->first[x + i];
                const __m256i lo = _mm256_mullo_epi32(loadu(s), _mm256_permutevar8x32_epi32(w, lowPairs));
                const __m256i hi =
                    _mm256_mullo_epi32(loadu(s + 8), _mm256_permutevar8x32_epi32(w, highPairs));
                q[i] = _mm256_add_epi32(lo, hi);
            }
            // Halves added: [c0 c1 c0 c1] per pixel, pixels 0 and 1, then 2 and 3.
            __m256i u01 = _mm256_add_epi32(_mm256_permute2x128_si256(q[0], q[1], 0x20),
                                           _mm256_permute2x128_si256(q[0], q[1], 0x31));
            __m256i u23 = _mm256_add_epi32(_mm256_permute2x128_si256(q[2], q[3], 0x20),
                                           _mm256_permute2x128_si256(q[2], q[3], 0x31));
            u01 = _mm256_add_epi32(u01, _mm256_shuffle_epi32(u01, 0x4E));
            u23 = _mm256_add_epi32(u23, _mm256_shuffle_epi32(u23, 0x4E));
            // [p0 p2 | p1 p3] as 64-bit pairs, then in order.
            const __m256i mixed = _mm256_unpacklo_epi64(u01, u23);
            storeEight(out + 2 * x, _mm256_permute4x64_epi64(mixed, 0xD8), half, total);
        }
    }
    areaColumns_c(out, sums, taps, x, x1);
}

}  // namespace

void ResizeKernels_addAvx2(ResizeKernels* table) {
    table->areaRow = areaRow_avx2;
    table->areaColumns = areaColumns_avx2;
}

}  // namespace vq_tl
