// Read-out kernels of the matcher: winners with their sub-pixel fit, the
// peak-ratio confidence and the left-right check, one row (or one run of a
// row) at a time. Sgm walks the rows; these kernels do the columns x0 to
// x1 - 1 of one.
//
// Aggregated rows: pixel x's entries at x * (D + 2), slot k at entry k + 1,
// the pads (entries 0 and D + 1) mirroring the end slots; bytes (UINT8
// volume) or 16-bit words (UINT16 volume, index [1] of the tables below).
// A winner is the smallest cost, of equal costs the smallest output value v
// (k, or D - 1 - k when swapped). Byte maps hold (v << fractionBits) plus or
// minus the parabola offset through the winner's and its neighbours' costs,
// in float, truncated; float maps the same in candidate units.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

// Base view (a pixel's own entries) or match view (slot k of column x from
// the base pixel xb0 - k, xb0 = x + minDisparity + D - 1 when swapped, else
// x - minDisparity; slots whose base pixel lies outside the row take no
// part). width: the row's pixels; fractionBits 0 to 7.
using WinnerU8RowFn = void (*)(uint8_t* out, const uint8_t* row, int32_t width, int32_t D,
                               int32_t minDisparity, int32_t fractionBits, int32_t swapped, int32_t x0,
                               int32_t x1);
// subPixel zero: the winner's value, D + minDisparity - 1 - v when swapped.
using WinnerF32RowFn = void (*)(float* out, const uint8_t* row, int32_t width, int32_t D,
                                int32_t minDisparity, int32_t subPixel, int32_t swapped, int32_t x0,
                                int32_t x1);
// The base view's byte map and 255 - floor(255 * (c1 + 1) / (c2 + 1)) with
// c1, c2 the smallest and second smallest cost.
using PeakRatioRowFn = void (*)(uint8_t* out, uint8_t* confidence, const uint8_t* row, int32_t D,
                                int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);

// The left-right check's parameters (see Sgm_createConfidenceU8/F32).
struct LeftRightParams {
    int32_t width, minDisparity, fractionBits;
    uint32_t threshold;  // byte maps
    float thresholdF;    // float maps
    uint8_t failValue, passValue;
    int32_t swapped;
};
// base: the base view's map row, match: the match view's (whole rows).
using LeftRightU8RowFn = void (*)(uint8_t* out, const uint8_t* base, const uint8_t* match,
                                  const LeftRightParams* p, int32_t x0, int32_t x1);
using LeftRightF32RowFn = void (*)(uint8_t* out, const float* base, const float* match,
                                   const LeftRightParams* p, int32_t x0, int32_t x1);

struct SgmSelectKernels {
    WinnerU8RowFn baseU8[2];  // [0]: UINT8 volume, [1]: UINT16 volume
    WinnerU8RowFn matchU8[2];
    WinnerF32RowFn baseF32[2];
    WinnerF32RowFn matchF32[2];
    PeakRatioRowFn peakRatio[2];
    LeftRightU8RowFn leftRightU8;
    LeftRightF32RowFn leftRightF32;
};

void winnerBaseU8Row8_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                        int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void winnerBaseU8Row16_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                         int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void winnerMatchU8Row8_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                         int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void winnerMatchU8Row16_c(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                          int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void leftRightU8Row_c(uint8_t* out, const uint8_t* base, const uint8_t* match, const LeftRightParams* p,
                      int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void SgmSelectKernels_fill(SgmSelectKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const SgmSelectKernels* SgmSelectKernels_get();

void SgmSelectKernels_addSse41(SgmSelectKernels* table);
void SgmSelectKernels_addAvx2(SgmSelectKernels* table);
void SgmSelectKernels_addAvx512(SgmSelectKernels* table);
// The AVX2 forms of UINT8 volumes, which the AVX-512 forms take for the rows,
// candidate counts and column runs they do not cover.
void winnerBaseU8Row8_avx2(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                           int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void winnerMatchU8Row8_avx2(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                            int32_t fractionBits, int32_t swapped, int32_t x0, int32_t x1);
void SgmSelectKernels_addNeon(SgmSelectKernels* table);

}  // namespace vq_tl
