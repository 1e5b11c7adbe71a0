#include "image/image_conv_kernels.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

// The scalar kernels live in image_conv_workers.cpp beside the formulas.

void ConvKernels_fill(ConvKernels* table, uint32_t features) {
    table->semiplanarToRgb888 = yuvSemiplanarToRgb888Row_c;
    table->planarToRgb888 = yuvPlanarToRgb888Row_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) ConvKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) ConvKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) ConvKernels_addNeon(table);
#endif
    (void)features;
}

const ConvKernels* ConvKernels_get() {
    static const ConvKernels table = [] {
        ConvKernels t;
        ConvKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
