// Row kernels of the rank filters: the 3 by 3 median of byte planes, one row
// at a time. The rank filter walks the rows, keeps copies for in-place work
// and does the border pixels (partial windows); these kernels do the
// elements whose whole window lies inside the plane.
//
// A byte plane row holds `step` interleaved channels (1 to 4): element i's
// horizontal neighbours are i - step and i + step.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness). The median of
// nine is one value whatever the order of exchanges, so every exact min/max
// network gives the same bytes. No SSE4.1 form: the compiler already turns the
// scalar loop into 16-byte min/max steps, and a hand-written one was no faster.
#pragma once

#include <cstdint>

namespace vq_tl {

// Elements x0 to x1 - 1 of one row: the fifth of the nine bytes at i - step,
// i, i + step of the rows above, at and below. x0 >= step, and x1 + step is at
// most the row's element count. out overlaps none of the input rows (the
// vector forms end a row with one block backed off to end at x1).
using Median3x3U8RowFn = void (*)(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                                  int32_t step, int32_t x0, int32_t x1);

struct RankKernels {
    Median3x3U8RowFn median3x3U8;
};

void median3x3U8Row_c(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                      int32_t step, int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void RankKernels_fill(RankKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const RankKernels* RankKernels_get();

// The vector forms' row kernel, written once over V, the byte-vector
// operations of one instruction-set file (type Reg, kLanes bytes a register,
// load, store, min, max; all unsigned). Instantiated only with those files'
// own V, so no copy compiled with one set's instructions is shared with
// another. Every kLanes elements: the three columns sorted (each loaded at
// its own offset, so any channel step works), then the median of the
// columns' highest lows, middle middles and lowest highs.
template <class V>
void RankKernels_median3x3Row(uint8_t* out, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                              int32_t step, int32_t x0, int32_t x1) {
    using Reg = typename V::Reg;
    const auto median3 = [](Reg a, Reg b, Reg c) { return V::max(V::min(a, b), V::min(V::max(a, b), c)); };
    const auto block = [&](int32_t i) {
        Reg lo[3], mid[3], hi[3];
        for (int32_t c = 0; c < 3; ++c) {
            const int32_t j = i + (c - 1) * step;
            const Reg a = V::load(above + j), b = V::load(at + j), d = V::load(below + j);
            const Reg l = V::min(a, b), h = V::max(a, b);
            lo[c] = V::min(l, d);
            hi[c] = V::max(h, d);
            mid[c] = V::max(l, V::min(h, d));
        }
        const Reg l = V::max(V::max(lo[0], lo[1]), lo[2]);
        const Reg m = median3(mid[0], mid[1], mid[2]);
        const Reg h = V::min(V::min(hi[0], hi[1]), hi[2]);
        V::store(out + i, median3(l, m, h));
    };
    if (x1 - x0 < V::kLanes) return median3x3U8Row_c(out, above, at, below, step, x0, x1);
    int32_t i = x0;
    for (; i + V::kLanes <= x1; i += V::kLanes) block(i);
    // The last few elements by one more block ending at x1: cheaper than the
    // scalar network over up to kLanes - 1 of them.
    if (i < x1) block(x1 - V::kLanes);
}

void RankKernels_addAvx2(RankKernels* table);
void RankKernels_addNeon(RankKernels* table);

}  // namespace vq_tl
