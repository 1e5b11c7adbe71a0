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

// The vector forms' row walkers, written once over K, one instruction-set
// file's steps of kPairs chroma pairs (2 kPairs pixels): K::Chroma holds
// kPairs chroma samples as the step takes them, K::split(p, &first,
// &second) the even and odd bytes of the 2 kPairs bytes at p, K::widen(p)
// the kPairs bytes at p, K::pixels(rgb, y, u, v) converts the step's pixels.
// The scalar forms do the pairs past the last whole step. Instantiated only
// with those files' own K, so no copy compiled with one set's instructions
// is shared with another.
template <class K>
void Conv_semiplanarRow(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pairs) {
    // The bytes of the pairs start at the lower of u and v.
    const bool vFirst = v < u;
    const uint8_t* uv = vFirst ? v : u;
    const int32_t n = pairs & ~(K::kPairs - 1);
    for (int32_t c = 0; c < n; c += K::kPairs) {
        typename K::Chroma first, second;
        K::split(uv + 2 * c, &first, &second);
        K::pixels(rgb + 6 * c, y + 2 * c, vFirst ? second : first, vFirst ? first : second);
    }
    if (n < pairs) yuvSemiplanarToRgb888Row_c(rgb + 6 * n, y + 2 * n, u + 2 * n, v + 2 * n, pairs - n);
}

template <class K>
void Conv_planarRow(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pairs) {
    const int32_t n = pairs & ~(K::kPairs - 1);
    for (int32_t c = 0; c < n; c += K::kPairs)
        K::pixels(rgb + 6 * c, y + 2 * c, K::widen(u + c), K::widen(v + c));
    if (n < pairs) yuvPlanarToRgb888Row_c(rgb + 6 * n, y + 2 * n, u + n, v + n, pairs - n);
}

template <class K>
void Conv_setRows(ConvKernels* table) {
    table->semiplanarToRgb888 = Conv_semiplanarRow<K>;
    table->planarToRgb888 = Conv_planarRow<K>;
}

void ConvKernels_addSse41(ConvKernels* table);
void ConvKernels_addAvx2(ConvKernels* table);
void ConvKernels_addNeon(ConvKernels* table);

}  // namespace vq_tl
