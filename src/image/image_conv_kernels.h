// Row kernels of the YUV to RGB888 conversions with chroma shared by two
// columns (4:2:0 and 4:2:2, planar and semi-planar): the hot loop of the
// depth refiner's colour guide and of Image_conv_toRgb888 from camera frames.
//
// A row kernel converts `pairs` column pairs of one image row: luma y[0 ..
// 2 pairs - 1], the chroma of pair c at u[c * step] and v[c * step] (step 2
// semi-planar, u and v one byte apart in either order; step 1 planar), and
// writes R, G, B bytes to rgb[0 .. 6 pairs - 1]. The arithmetic is the
// BT.601 full-range formula of image_conv_workers.cpp with 15 fractional
// bits; the caller does an odd last column and the other byte orders.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

using YuvToRgb888RowFn = void (*)(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                                  int32_t pairs);

struct ConvKernels {
    YuvToRgb888RowFn semiplanarToRgb888;  // u and v interleaved, either first
    YuvToRgb888RowFn planarToRgb888;      // u and v in planes of their own
};

void yuvSemiplanarToRgb888Row_c(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                                int32_t pairs);
void yuvPlanarToRgb888Row_c(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                            int32_t pairs);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void ConvKernels_fill(ConvKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const ConvKernels* ConvKernels_get();

void ConvKernels_addSse41(ConvKernels* table);
void ConvKernels_addAvx2(ConvKernels* table);
void ConvKernels_addNeon(ConvKernels* table);

}  // namespace vq_tl
