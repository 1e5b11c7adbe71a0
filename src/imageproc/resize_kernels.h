// Row kernels of the scaling of 8-bit planes: the area shrink
// (Resize_averageShrink) and the horizontal step of the bilinear resize
// (Resize_resizeImage).
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

// Sample position of one destination column (or row) on the source: the
// centres are aligned, pos = (x + 0.5) * src / dst - 0.5 in Q15, and the
// taps are clamped to the edge, so destination pixels outside the first and
// last source centres copy the edge pixel.
struct ResizeTap {
    int32_t i0;    // left (upper) source index
    int32_t i1;    // right (lower) source index, i0 + 1 or the edge
    int32_t frac;  // weight of i1 in Q15, 0..32767
};

// Bilinear resize along a row: element e = x * channels + c of the
// destination is a * (32768 - f) + b * f, a and b the source elements
// i0 * channels + c and i1 * channels + c of tap x, f its frac (at most
// 255 * 32768). The vector forms take the elements four at a time from a
// plan made once per plane: a window of 16 source bytes from `base` and,
// per element, the offsets of a and b in it (pick, as pshufb indices giving
// a and b as 16-bit lanes) and the weights (-f, f); base -1 marks a window
// whose elements lie farther apart or run past the row, done one by one.
struct LinearWindow {
    uint8_t pick[16];
    int16_t weights[8];
    int32_t base;
};
// Windows for elements 0 to 4 * (n / 4) - 1, n = width * channels.
void LinearWindow_fill(LinearWindow* windows, const ResizeTap* taps, int32_t width, int32_t channels,
                       int32_t srcWidth);

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

// Elements 0 to width * channels - 1 of out from one source row.
using LinearRowFn = void (*)(int32_t* out, const uint8_t* src, const ResizeTap* taps,
                             const LinearWindow* windows, int32_t width, int32_t channels);

struct ResizeKernels {
    AreaRowFn areaRow;
    AreaColumnsFn areaColumns;
    LinearRowFn linearRow;
};

void areaRow_c(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add);
void areaColumns_c(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0, int32_t x1);
// The scalar form reads the taps alone; windows may be null.
void linearRow_c(int32_t* out, const uint8_t* src, const ResizeTap* taps, const LinearWindow* windows,
                 int32_t width, int32_t channels);
// Elements e0 to e1 - 1 only, for the vector forms' leftovers.
void linearElements_c(int32_t* out, const uint8_t* src, const ResizeTap* taps, int32_t channels, int32_t e0,
                      int32_t e1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void ResizeKernels_fill(ResizeKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const ResizeKernels* ResizeKernels_get();

void ResizeKernels_addSse41(ResizeKernels* table);
void ResizeKernels_addAvx2(ResizeKernels* table);
void ResizeKernels_addNeon(ResizeKernels* table);

}  // namespace vq_tl
