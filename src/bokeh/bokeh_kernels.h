// Row kernels of the pyramid bokeh: the halving of a level, the bilinear
// doubling, and the mix of a sharp row with a blurred one under the CoC.
//
// The stripe functions of defocus_face_bokeh_util.cpp walk the rows, limit
// indices at the edges and cut rows into chunks; these kernels do one run of
// a row. Every value is an integer formula that fits in 16 bits, so the
// vector forms work in 16-bit lanes.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

// d[x] = (a[2x] + a[2x + 1] + b[2x] + b[2x + 1] + 2) >> 2 for x < n; the
// elements are `Step` bytes apart (1, or 2 for one channel of interleaved
// chroma, a and b then pointing at that channel's first byte).
using BokehShrinkRowFn = void (*)(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n);
// v[m] = wa a[m] + wc c[m] for m < n, wa + wc = 4 (wa 1 or 3): at most 1020.
using BokehColumnSumRowFn = void (*)(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa, int32_t n);
// The doubling along a row from column sums v (in quarters):
// b[2q] = (v[q] + 3 v[q + 1] + 8) >> 4, b[2q + 1] = (3 v[q + 1] + v[q + 2] + 8)
// >> 4 for q < pairs; v has pairs + 2 entries.
using BokehDoubleRowFn = void (*)(uint8_t* b, const uint16_t* v, int32_t pairs);
// o[i] = ((255 - a) b[i] + a f[i] + f[i] + 128) >> 8, a = min(255, max(coc[i]
// - threshold, 0) << shift), threshold 0 to 255, shift 0 to 8; the sum stays
// below 256 * 255 + 128, 16 bits. o may be f.
using BokehMixRowFn = void (*)(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc,
                               int32_t threshold, int32_t shift, int32_t n);
// The same on interleaved pairs: o[2i] from f[2i] and b0[i], o[2i + 1] from
// f[2i + 1] and b1[i], both under the alpha of coc[i].
using BokehMix2RowFn = void (*)(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1,
                                const uint8_t* coc, int32_t threshold, int32_t shift, int32_t n);

// The halving weighted by wa, wb (the weights of rows a and b): with W the
// sum of the four weights of the 2 by 2 block, d[x] = (sum of w p + (W >> 1))
// / W as an exact integer quotient (0 for W = 0) and, where dWeight is not
// null, dWeight[x] = (W + 2) >> 2. The numerator stays below 2^18, so the
// quotient is taken exactly in floats.
using BokehWeightedShrinkRowFn = void (*)(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                                          const uint8_t* wa, const uint8_t* wb, int32_t n);

struct BokehKernels {
    BokehShrinkRowFn shrink;   // Step 1
    BokehShrinkRowFn shrink2;  // Step 2
    BokehColumnSumRowFn columnSum;
    BokehDoubleRowFn doubleRow;
    BokehMixRowFn mix;
    BokehMix2RowFn mix2;
    BokehWeightedShrinkRowFn weightedShrink;
};

void bokehShrinkRow_c(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n);
void bokehShrink2Row_c(uint8_t* d, const uint8_t* a, const uint8_t* b, int32_t n);
void bokehColumnSumRow_c(uint16_t* v, const uint8_t* a, const uint8_t* c, int32_t wa, int32_t n);
void bokehDoubleRow_c(uint8_t* b, const uint16_t* v, int32_t pairs);
void bokehMixRow_c(uint8_t* o, const uint8_t* f, const uint8_t* b, const uint8_t* coc, int32_t threshold,
                   int32_t shift, int32_t n);
void bokehMix2Row_c(uint8_t* o, const uint8_t* f, const uint8_t* b0, const uint8_t* b1, const uint8_t* coc,
                    int32_t threshold, int32_t shift, int32_t n);
void bokehWeightedShrinkRow_c(uint8_t* d, uint8_t* dWeight, const uint8_t* a, const uint8_t* b,
                              const uint8_t* wa, const uint8_t* wb, int32_t n);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void BokehKernels_fill(BokehKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const BokehKernels* BokehKernels_get();

void BokehKernels_addSse41(BokehKernels* table);
void BokehKernels_addAvx2(BokehKernels* table);
void BokehKernels_addNeon(BokehKernels* table);

}  // namespace vq_tl
