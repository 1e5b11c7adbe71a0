// Block kernels of the separable bilateral filter with AVX2: four vectors of
// 8 floats per step, the operations of the scalar form lane by lane
// (multiplies and additions apart, never fused; a true division).
#include <immintrin.h>

#include <cstring>

#include "depth/separable_bilateral_kernels.h"

namespace vq_tl {

namespace {

constexpr int kVecs = 4;
constexpr int kStep = 8 * kVecs;
static_assert(kBilateralBlockLanes % kStep == 0);

inline __m256 load(const float* p) { return _mm256_loadu_ps(p); }

template <int C, int H>
void blockRun(float* q, const float* const* g, const float* const* s, const BilateralBlockParams* p,
              int32_t n) {
    const int32_t half = H > 0 ? H : p->half;
    if (p->range == 0) {
        std::memcpy(q, s[half], sizeof(float) * static_cast<size_t>(n));
        return;
    }
    const __m256 start = _mm256_set1_ps(static_cast<float>(p->range * 128));
    const __m256 range = _mm256_set1_ps(static_cast<float>(p->range));
    float sp[2 * kBilateralBlockMaxHalf + 1];
    for (int32_t t = 0; t <= 2 * half; ++t) sp[t] = static_cast<float>(p->spatial[t]);
    for (int32_t i = 0; i < n; i += kStep) {
        __m256 gc[kVecs][C], ws[kVecs], vs[kVecs];
        for (int b = 0; b < kVecs; ++b) {
            const int32_t o = i + 8 * b;
            for (int c = 0; c < C; ++c) gc[b][c] = load(g[half * C + c] + o);
            vs[b] = _mm256_mul_ps(load(s[half] + o), start);
            ws[b] = start;
        }
        for (int32_t t = 0; t <= 2 * half; ++t) {
            if (t == half) continue;
            const __m256 spt = _mm256_set1_ps(sp[t]);
            for (int b = 0; b < kVecs; ++b) {
                const int32_t o = i + 8 * b;
                __m256 e = _mm256_setzero_ps();
                for (int c = 0; c < C; ++c) {
                    const __m256 d = _mm256_sub_ps(gc[b][c], load(g[t * C + c] + o));
                    e = c == 0 ? _mm256_mul_ps(d, d) : _mm256_add_ps(e, _mm256_mul_ps(d, d));
                }
                // C - e, its bits cleared where the sign bit is set.
                const __m256 r = _mm256_sub_ps(range, e);
                const __m256 neg = _mm256_castsi256_ps(_mm256_srai_epi32(_mm256_castps_si256(r), 31));
                const __m256 w = _mm256_mul_ps(_mm256_andnot_ps(neg, r), spt);
                ws[b] = _mm256_add_ps(ws[b], w);
                vs[b] = _mm256_add_ps(vs[b], _mm256_mul_ps(w, load(s[t] + o)));
            }
        }
        for (int b = 0; b < kVecs; ++b) _mm256_storeu_ps(q + i + 8 * b, _mm256_div_ps(vs[b], ws[b]));
    }
}

}  // namespace

void BilateralKernels_addAvx2(BilateralKernels* table) {
    static constexpr BilateralBlockFn kForms[3][4] = {
        {blockRun<1, 0>, blockRun<1, 1>, blockRun<1, 2>, blockRun<1, 3>},
        {blockRun<2, 0>, blockRun<2, 1>, blockRun<2, 2>, blockRun<2, 3>},
        {blockRun<3, 0>, blockRun<3, 1>, blockRun<3, 2>, blockRun<3, 3>},
    };
    std::memcpy(table->bytes, kForms, sizeof(kForms));
    std::memcpy(table->floats, kForms, sizeof(kForms));
}

}  // namespace vq_tl
