#include "imageproc/rank_kernels.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

inline uint8_t maxOf(uint8_t a, uint8_t b) { return a < b ? b : a; }
inline uint8_t minOf(uint8_t a, uint8_t b) { return b < a ? b : a; }
inline uint8_t median3(uint8_t a, uint8_t b, uint8_t c) { return maxOf(minOf(a, b), minOf(maxOf(a, b), c)); }

}  // namespace

// Median of nine by the exchange network on sorted columns: with every column
// sorted into low, middle and high, the median is the median of the largest
// low, the median middle and the smallest high.
void median3x3U8Row_c(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                      int32_t step, int32_t x0, int32_t x1) {
    for (int32_t i = x0; i < x1; ++i) {
        uint8_t lo[3], mid[3], hi[3];
        for (int32_t c = 0; c < 3; ++c) {
            const int32_t j = i + (c - 1) * step;
            const uint8_t a = above[j], b = at[j], e = below[j];
            const uint8_t l = minOf(a, b), h = maxOf(a, b);
            lo[c] = minOf(l, e);
            hi[c] = maxOf(h, e);
            mid[c] = maxOf(l, minOf(h, e));
        }
        const uint8_t l = maxOf(maxOf(lo[0], lo[1]), lo[2]);
        const uint8_t m = median3(mid[0], mid[1], mid[2]);
        const uint8_t h = minOf(minOf(hi[0], hi[1]), hi[2]);
        out[i] = median3(l, m, h);
    }
}

void RankKernels_fill(RankKernels* table, uint32_t features) {
    table->median3x3U8 = median3x3U8Row_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) RankKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) RankKernels_addNeon(table);
#endif
    (void)features;
}

const RankKernels* RankKernels_get() {
    static const RankKernels table = [] {
        RankKernels t;
        RankKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
