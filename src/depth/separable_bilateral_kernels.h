// Block kernels of the separable bilateral filter's blocked passes (windows
// up to 31, weights carried in floats): one run of outputs of a horizontal
// or a vertical pass, over taps that the pass has converted to floats.
//
// For output i, with t the taps 0 to 2 half and half the centre:
//   wSum = 128 C, vSum = s[half][i] * 128 C,
//   then for every t but the centre, in order:
//     e = sum over the channels c of (g[t C + c][i] - g[half C + c][i])^2,
//         accumulated channel 0 first, as d * d with d = centre - tap,
//     r = C - e clamped to 0 below, w = r * spatial[t],
//     wSum += w, vSum += w * s[t][i];
//   q[i] = vSum / wSum,
// all in floats; C is the range constant. Every sum but vSum is an integer
// below 2^24 (the pass takes this kernel only then), so only vSum's order
// matters, and it is the same in every form. C = 0 copies s[half].
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
//
// Forms by measurement: the block kernel has no SSE4.1 form, since the
// scalar form's vector types already compile to the same SSE2 float
// operations; its AVX2 form gives builds without the compiler's AVX2 clones
// (other compilers and systems) what the clones give x86-64 Linux. The
// compiler vectorises the one- and two-channel conversions itself, so x86
// has a form of the three-channel one only. NEON has every form, the block
// kernel for byte values only.
#pragma once

#include <cstdint>

namespace vq_tl {

constexpr int32_t kBilateralBlockMaxHalf = 15;
// n of a call is a multiple of this; g and s are readable that far.
constexpr int32_t kBilateralBlockLanes = 32;

struct BilateralBlockParams {
    int32_t half;            // 0 to kBilateralBlockMaxHalf
    int32_t range;           // C, 0 or more
    const uint8_t* spatial;  // 2 half + 1 weights, 0 to 128
};

// q[0 .. n - 1]; g[t * channels + c] is channel c of tap t's guide, s[t] tap
// t's values, both at the first output.
using BilateralBlockFn = void (*)(float* q, const float* const* g, const float* const* s,
                                  const BilateralBlockParams* p, int32_t n);

// The conversion of one run of n pixels for the blocked passes, byte values
// only: channel c of the guide (channels interleaved) to planes[c][0 .. n -
// 1] and src to values[0 .. n - 1], all as floats (exact).
using BilateralSplitFn = void (*)(float* const* planes, float* values, const uint8_t* guide,
                                  const uint8_t* src, int32_t n);

// By the pass's values: bytes (UINT8 maps: every s is an integer 0 to 255)
// or floats (FLOAT maps: any value). Each [guide channels - 1][0: any half,
// 1 to 3: that half alone].
struct BilateralKernels {
    BilateralBlockFn bytes[3][4];
    BilateralBlockFn floats[3][4];
    BilateralSplitFn split[3];  // [guide channels - 1]
};

void bilateralSplit1_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);
void bilateralSplit2_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);
void bilateralSplit3_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void BilateralKernels_fill(BilateralKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const BilateralKernels* BilateralKernels_get();

void BilateralKernels_addSse41(BilateralKernels* table);  // the conversions only
void BilateralKernels_addAvx2(BilateralKernels* table);
void BilateralKernels_addNeon(BilateralKernels* table);

}  // namespace vq_tl
