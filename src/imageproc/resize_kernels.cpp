#include "imageproc/resize_kernels.h"

#include <cstddef>

#include "runtime/cpu_features.h"

namespace vq_tl {

void areaRow_c(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add) {
    if (add != 0) {
        for (int32_t i = 0; i < n; ++i) sums[i] += src[i] * weight;
    } else {
        for (int32_t i = 0; i < n; ++i) sums[i] = src[i] * weight;
    }
}

void areaColumns_c(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0, int32_t x1) {
    const int32_t channels = taps->channels;
    const uint64_t half = taps->total / 2;
    for (int32_t x = x0; x < x1; ++x) {
        const uint32_t* w = taps->weights + static_cast<ptrdiff_t>(x) * taps->count;
        for (int32_t c = 0; c < channels; ++c) {
            const uint32_t* s = sums + static_cast<ptrdiff_t>(taps->first[x]) * channels + c;
            uint64_t acc = 0;
            for (int32_t k = 0; k < taps->count; ++k) acc += uint64_t{s[k * channels]} * w[k];
            out[x * channels + c] = static_cast<uint8_t>((acc + half) / taps->total);
        }
    }
}

void ResizeKernels_fill(ResizeKernels* table, uint32_t features) {
    table->areaRow = areaRow_c;
    table->areaColumns = areaColumns_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) ResizeKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) ResizeKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) ResizeKernels_addNeon(table);
#endif
    (void)features;
}

const ResizeKernels* ResizeKernels_get() {
    static const ResizeKernels table = [] {
        ResizeKernels t;
        ResizeKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
