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

void CensusKernels_addSse41(CensusKernels* table);
void CensusKernels_addAvx2(CensusKernels* table);
void CensusKernels_addNeon(CensusKernels* table);

}  // namespace vq_tl
