// 3 by 3 median rows with AVX2: 32 elements per step (the kernel itself is
// RankKernels_median3x3Row of the family's header).
#include <immintrin.h>

#include "imageproc/rank_kernels.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = __m256i;
    static constexpr int32_t kLanes = 32;
    static Reg load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void store(uint8_t* p, Reg v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static Reg min(Reg a, Reg b) { return _mm256_min_epu8(a, b); }
    static Reg max(Reg a, Reg b) { return _mm256_max_epu8(a, b); }
};

}  // namespace

void RankKernels_addAvx2(RankKernels* table) { table->median3x3U8 = RankKernels_median3x3Row<V>; }

}  // namespace vq_tl
