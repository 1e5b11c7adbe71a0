// Census kernels of the matcher: one row of census words at a time.
//
// A word holds one bit per neighbour, set where the neighbour is strictly
// greater than the centre, neighbours in raster order from the top left, the
// first in the highest bit: 8 bits for the 3x3 window, 24 for the 5x5 one.
// The row kernels compute the columns whose whole window lies inside the row;
// SgmCostMatcher does the clamped columns at the ends with the scalar form.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

// Columns x0 to x1 - 1 of one row; rows[i] is row y - R + i of the view for
// i in 0..2R (R = 1 or 2), and x0 >= R, x1 <= width - R.
using Census3x3RowFn = void (*)(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1);
using Census5x5RowFn = void (*)(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1);
// (out never overlaps the view's rows: the vector forms end a row with one
// step backed off to end at x1, writing some pixels twice.)

struct CensusKernels {
    Census3x3RowFn census3x3;
    Census5x5RowFn census5x5;
};

void census3x3Row_c(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1);
void census5x5Row_c(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void CensusKernels_fill(CensusKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const CensusKernels* CensusKernels_get();

// The vector forms' row kernels, written once over V, the byte-vector
// operations of one instruction-set file: type Reg of kLanes bytes, load,
// store, zero, greater(a, c) (unsigned a > c as bytes of all ones), push(acc,
// g) = 2 acc - g (the new bit below the others, since g is 0 or -1), and for
// the 5x5 words storeWords(out, high, mid, low), the bytes of kLanes words
// from bits 23..16, 15..8 and 7..0. Instantiated only with those files' own
// V, so no copy compiled with one set's instructions is shared with another.

// Eight neighbours (from `first` on, in raster order) of the centres c at x
// into one byte per pixel, the first in bit 7.
template <int R, class V>
inline typename V::Reg Census_byte(const V& v, const uint8_t* const* rows, int32_t x, int first,
                                   typename V::Reg c) {
    typename V::Reg acc = v.zero();
    int n = 0;
    for (int dy = 0; dy <= 2 * R; ++dy) {
        for (int dx = -R; dx <= R; ++dx) {
            if (dy == R && dx == 0) continue;
            if (n >= first && n < first + 8) acc = v.push(acc, v.greater(v.load(rows[dy] + x + dx), c));
            ++n;
        }
    }
    return acc;
}

template <class V>
void Census_3x3Row(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const V v;
    const auto block = [&](int32_t x) {
        v.store(out + x, Census_byte<1>(v, rows, x, 0, v.load(rows[1] + x)));
    };
    if (x1 - x0 < V::kLanes) return census3x3Row_c(out, rows, x0, x1);
    int32_t x = x0;
    for (; x + V::kLanes <= x1; x += V::kLanes) block(x);
    // The last few pixels by one more block ending at x1: the scalar loop
    // over up to kLanes - 1 pixels costs about as much as a whole block of
    // the row's vector work.
    if (x < x1) block(x1 - V::kLanes);
}

template <class V>
void Census_5x5Row(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    const V v;
    const auto block = [&](int32_t x) {
        const typename V::Reg c = v.load(rows[2] + x);
        const typename V::Reg hi = Census_byte<2>(v, rows, x, 0, c);
        const typename V::Reg mid = Census_byte<2>(v, rows, x, 8, c);
        const typename V::Reg low = Census_byte<2>(v, rows, x, 16, c);
        v.storeWords(out + x, hi, mid, low);
    };
    if (x1 - x0 < V::kLanes) return census5x5Row_c(out, rows, x0, x1);
    int32_t x = x0;
    for (; x + V::kLanes <= x1; x += V::kLanes) block(x);
    if (x < x1) block(x1 - V::kLanes);
}

template <class V>
void Census_setRows(CensusKernels* table) {
    table->census3x3 = Census_3x3Row<V>;
    table->census5x5 = Census_5x5Row<V>;
}

void CensusKernels_addSse41(CensusKernels* table);
void CensusKernels_addAvx2(CensusKernels* table);
void CensusKernels_addNeon(CensusKernels* table);

}  // namespace vq_tl
