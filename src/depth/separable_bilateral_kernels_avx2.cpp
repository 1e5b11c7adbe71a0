// Block kernels of the separable bilateral filter with AVX2: four vectors of
// 8 floats per step (the kernel itself is Bilateral_blockRun of the family's
// header).
#include <immintrin.h>

#include "depth/separable_bilateral_kernels.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = __m256;
    static constexpr int kVecs = 4;
    static constexpr int32_t kLanes = 8;
    static Reg load(const float* p) { return _mm256_loadu_ps(p); }
    static Reg set1(float v) { return _mm256_set1_ps(v); }
    static Reg zero() { return _mm256_setzero_ps(); }
    static Reg add(Reg a, Reg b) { return _mm256_add_ps(a, b); }
    static Reg sub(Reg a, Reg b) { return _mm256_sub_ps(a, b); }
    static Reg mul(Reg a, Reg b) { return _mm256_mul_ps(a, b); }
    static Reg positive(Reg r) {
        return _mm256_andnot_ps(_mm256_castsi256_ps(_mm256_srai_epi32(_mm256_castps_si256(r), 31)), r);
    }
    static void storeQuotient(float* q, Reg v, Reg w) { _mm256_storeu_ps(q, _mm256_div_ps(v, w)); }
};

}  // namespace

void BilateralKernels_addAvx2(BilateralKernels* table) {
    Bilateral_blockForms<V>(table->bytes);
    Bilateral_blockForms<V>(table->floats);
}

}  // namespace vq_tl
