#include "bokeh/bokeh_kernels.h"

#include "imageproc/kernel_clones.h"
#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

template <int Step>
VQ_TL_KERNEL_CLONES void shrinkRow(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    for (int32_t x = 0; x < n; ++x) {
        const int32_t sum = a[2 * x * Step] + a[(2 * x + 1) * Step] + b[2 * x * Step] + b[(2 * x + 1) * Step];
        d[x] = static_cast<uint8_t>((sum + 2) >> 2);
    }
}

}  // namespace

void bokehShrinkRow_c(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) { shrinkRow<1>(d, a, b, n); }

void bokehShrink2Row_c(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n) {
    shrinkRow<2>(d, a, b, n);
}

VQ_TL_KERNEL_CLONES void bokehColumnSumRow_c(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa,
                                             int32_t n) {
    const uint16_t w0 = static_cast<uint16_t>(wa), w1 = static_cast<uint16_t>(4 - wa);
    for (int32_t m = 0; m < n; ++m) v[m] = static_cast<uint16_t>(w0 * a[m] + w1 * c[m]);
}

VQ_TL_KERNEL_CLONES void bokehDoubleRow_c(uint8_t* b, const uint16_t* v, int32_t pairs) {
    for (int32_t q = 0; q < pairs; ++q) {
        b[2 * q] = static_cast<uint8_t>((v[q] + 3 * v[q + 1] + 8) >> 4);
        b[2 * q + 1] = static_cast<uint8_t>((3 * v[q + 1] + v[q + 2] + 8) >> 4);
    }
}

namespace {

// The planes come as separate pointers, not an array: stores through o
// could otherwise change the array for all the compiler knows, and the loop
// would not vectorise.
template <int C>
VQ_TL_KERNEL_CLONES void mixRow(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1,
                                const uint8_t* coc, int32_t threshold, int32_t shift, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        int32_t a = coc[i] - threshold;
        a = a < 0 ? 0 : a << shift;
        a = a > 255 ? 255 : a;
        for (int c = 0; c < C; ++c) {
            const int32_t fv = f[i * C + c];
            const int32_t bv = c == 0 ? b0[i] : b1[i];
            o[i * C + c] = static_cast<uint8_t>(((255 - a) * bv + a * fv + fv + 128) >> 8);
        }
    }
}

}  // namespace

void bokehMixRow_c(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc, int32_t threshold,
                   int32_t shift, int32_t n) {
    mixRow<1>(o, f, b, b, coc, threshold, shift, n);
}

void bokehMix2Row_c(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1, const uint8_t* coc,
                    int32_t threshold, int32_t shift, int32_t n) {
    mixRow<2>(o, f, b0, b1, coc, threshold, shift, n);
}

namespace {

// The quotients are exact integer quotients taken by the floating-point
// divider, which divides whole vectors where integer division is scalar. For
// integers 0 <= n < 2^24 and d > 0 the correctly rounded n / d lies within
// (n / d) 2^-24 < 1 / d of n / d, while the next integer above n / d is at
// least 1 / d away: the rounding never reaches it, so truncation gives the
// integer quotient, bit for bit.
inline uint8_t weightedMean(int32_t weightedSum, int32_t weightSum) {
    const float den = static_cast<float>(weightSum > 0 ? weightSum : 1);
    return static_cast<uint8_t>(
        static_cast<int32_t>(static_cast<float>(weightedSum + (weightSum >> 1)) / den));
}

template <bool KeepWeight>
VQ_TL_KERNEL_CLONES void weightedShrinkRow(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                                           const uint8_t* wa, const uint8_t* wb, int32_t n) {
    for (int32_t x = 0; x < n; ++x) {
        const int32_t w0 = wa[2 * x], w1 = wa[2 * x + 1], w2 = wb[2 * x], w3 = wb[2 * x + 1];
        const int32_t sum = w0 + w1 + w2 + w3;
        d[x] = weightedMean(w0 * a[2 * x] + w1 * a[2 * x + 1] + w2 * b[2 * x] + w3 * b[2 * x + 1], sum);
        if constexpr (KeepWeight) dWeight[x] = static_cast<uint8_t>((sum + 2) >> 2);
    }
}

}  // namespace

void bokehWeightedShrinkRow_c(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                              const uint8_t* wa, const uint8_t* wb, int32_t n) {
    if (dWeight != nullptr) {
        weightedShrinkRow<true>(d, dWeight, a, b, wa, wb, n);
    } else {
        weightedShrinkRow<false>(d, dWeight, a, b, wa, wb, n);
    }
}

void BokehKernels_fill(BokehKernels* table, uint32_t features) {
    table->shrink = bokehShrinkRow_c;
    table->shrink2 = bokehShrink2Row_c;
    table->columnSum = bokehColumnSumRow_c;
    table->doubleRow = bokehDoubleRow_c;
    table->mix = bokehMixRow_c;
    table->mix2 = bokehMix2Row_c;
    table->weightedShrink = bokehWeightedShrinkRow_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) BokehKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) BokehKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) BokehKernels_addNeon(table);
#endif
    (void)features;
}

const BokehKernels* BokehKernels_get() {
    static const BokehKernels table = [] {
        BokehKernels t;
        BokehKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
