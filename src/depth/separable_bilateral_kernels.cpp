// The scalar block kernels: the compiler's vector types, eight floats at a
// time, which every build compiles (as SSE2 pairs on x86-64, one float at a
// time on Arm without NEON), with AVX2 clones on x86-64 Linux.
#include "depth/separable_bilateral_kernels.h"

#include <cstring>

#include "imageproc/kernel_clones.h"
#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

// Eight floats: one AVX2 register, two SSE or NEON ones. A block is four of
// them, so that four chains of additions hide each other's latency.
constexpr int32_t kVecLanes = 8;
constexpr int32_t kBlockVecs = 4;
constexpr int32_t kLanes = kVecLanes * kBlockVecs;
static_assert(kLanes == kBilateralBlockLanes);

using Vec = float __attribute__((vector_size(kVecLanes * sizeof(float))));
using IntVec = int32_t __attribute__((vector_size(kVecLanes * sizeof(int32_t))));

// The same vector at any float's address, for unaligned loads.
using VecAt = float __attribute__((vector_size(kVecLanes * sizeof(float)), aligned(4), may_alias));

// Vectors are filled through a reference: a vector returned by value would
// change the calling convention between the clones.
inline void loadVec(Vec& v, const float* p) { v = *reinterpret_cast<const VecAt*>(p); }

// Quotients vSum / wSum of n outputs, n a multiple of kLanes; g and s must
// be readable that far. g[t * C + c] is channel c of tap t's guide, s[t] tap
// t's values, both at the first output.
template <int C, int H>
VQ_TL_KERNEL_CLONES void blockRun_c(float* q, const float* const* g, const float* const* s,
                                    const BilateralBlockParams& p, int32_t n) {
    const int32_t half = H > 0 ? H : p.half;
    if (p.range == 0) {
        // C is 0: no tap has weight, not even the centre; the values stay.
        std::memcpy(q, s[half], sizeof(float) * static_cast<size_t>(n));
        return;
    }
    const float start = static_cast<float>(p.range * 128);
    const float range = static_cast<float>(p.range);
    float sp[2 * kBilateralBlockMaxHalf + 1];
    for (int32_t t = 0; t <= 2 * half; ++t) sp[t] = static_cast<float>(p.spatial[t]);
    for (int32_t i = 0; i < n; i += kLanes) {
        Vec gc[kBlockVecs][C], ws[kBlockVecs], vs[kBlockVecs];
        for (int b = 0; b < kBlockVecs; ++b) {
            const int32_t o = i + b * kVecLanes;
            for (int c = 0; c < C; ++c) loadVec(gc[b][c], g[half * C + c] + o);
            loadVec(vs[b], s[half] + o);
            vs[b] *= start;
            ws[b] = start + Vec{};
        }
        for (int32_t t = 0; t <= 2 * half; ++t) {
            if (t == half) continue;
            const float spt = sp[t];
            for (int b = 0; b < kBlockVecs; ++b) {
                const int32_t o = i + b * kVecLanes;
                Vec e = Vec{}, gt, st;
                for (int c = 0; c < C; ++c) {
                    loadVec(gt, g[t * C + c] + o);
                    const Vec d = gc[b][c] - gt;
                    e = c == 0 ? d * d : e + d * d;
                }
                // r = C - e, clamped to 0 below by clearing the bits of a
                // float whose sign bit is set.
                IntVec r = reinterpret_cast<IntVec>(range - e);
                r &= ~(r >> 31);
                const Vec w = reinterpret_cast<Vec>(r) * spt;
                loadVec(st, s[t] + o);
                ws[b] += w;
                vs[b] += w * st;
            }
        }
        for (int b = 0; b < kBlockVecs; ++b) {
            *reinterpret_cast<VecAt*>(q + i + b * kVecLanes) = vs[b] / ws[b];
        }
    }
}

template <int C, int H>
void blockKernel_c(float* q, const float* const* g, const float* const* s, const BilateralBlockParams* p,
                   int32_t n) {
    blockRun_c<C, H>(q, g, s, *p, n);
}

template <int C>
void split_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src, int32_t n) {
    for (int32_t j = 0; j < n; ++j) {
        for (int c = 0; c < C; ++c) planes[c][j] = static_cast<float>(guide[j * C + c]);
        values[j] = static_cast<float>(src[j]);
    }
}

}  // namespace

void bilateralSplit1_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n) {
    split_c<1>(planes, values, guide, src, n);
}
void bilateralSplit2_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n) {
    split_c<2>(planes, values, guide, src, n);
}
void bilateralSplit3_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n) {
    split_c<3>(planes, values, guide, src, n);
}

void BilateralKernels_fill(BilateralKernels* table, uint32_t features) {
    static constexpr BilateralBlockFn kScalar[3][4] = {
        {blockKernel_c<1, 0>, blockKernel_c<1, 1>, blockKernel_c<1, 2>, blockKernel_c<1, 3>},
        {blockKernel_c<2, 0>, blockKernel_c<2, 1>, blockKernel_c<2, 2>, blockKernel_c<2, 3>},
        {blockKernel_c<3, 0>, blockKernel_c<3, 1>, blockKernel_c<3, 2>, blockKernel_c<3, 3>},
    };
    std::memcpy(table->bytes, kScalar, sizeof(kScalar));
    std::memcpy(table->floats, kScalar, sizeof(kScalar));
    table->split[0] = bilateralSplit1_c;
    table->split[1] = bilateralSplit2_c;
    table->split[2] = bilateralSplit3_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) BilateralKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) BilateralKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) BilateralKernels_addNeon(table);
#endif
    (void)features;
}

const BilateralKernels* BilateralKernels_get() {
    static const BilateralKernels table = [] {
        BilateralKernels t;
        BilateralKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
