// Row kernels of the area shrink of 8-bit planes (Resize_averageShrink).
//
// A destination pixel is the rounded mean of the source area it covers:
// with source pixels weighted by their overlap (whole numbers, adding up to
// srcWidth across and srcHeight down), out = (S + total / 2) / total, S the
// weighted sum, total = srcWidth * srcHeight. The stripe function takes it
// in two steps per destination row: the source rows of its span are summed
// column by column into 32-bit sums (at most 255 * srcHeight), then each
// destination element adds its columns' sums in 64 bits (at most
// 255 * total) and divides. Integer sums are exact in any order, so this
// gives the bytes of the direct double loop.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

// The horizontal taps of one destination row, padded to `count` taps per
// pixel: channel c of pixel x is the sum over k in 0..count - 1 of
// sums[(first[x] + k) * channels + c] * weights[x * count + k], the padding
// taps with weight 0. The sums row holds sumsLength elements, at least
// (count - 1) * channels past the last column, so that padding never reads
// outside it.
struct AreaTaps {
    const int32_t* first;
    const uint32_t* weights;
    int32_t count;  // 1..
    int32_t channels;
    int32_t width;  // destination pixels
    int32_t sumsLength;
    uint64_t total;  // srcWidth * srcHeight, below 2^44
};

// sums[i] = src[i] * weight (add 0) or sums[i] += src[i] * weight (add 1)
// for i in [0, n); the caller keeps every sum below 2^32.
using AreaRowFn = void (*)(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add);
// Pixels x0 to x1 - 1 of the destination row: out[x * channels + c].
using AreaColumnsFn = void (*)(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0,
                               int32_t x1);

struct ResizeKernels {
    AreaRowFn areaRow;
    AreaColumnsFn areaColumns;
};

void areaRow_c(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add);
void areaColumns_c(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void ResizeKernels_fill(ResizeKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const ResizeKernels* ResizeKernels_get();

void ResizeKernels_addSse41(ResizeKernels* table);
void ResizeKernels_addAvx2(ResizeKernels* table);
void ResizeKernels_addNeon(ResizeKernels* table);

}  // namespace vq_tl
