// Hamming cost kernels of the matcher: one row of the cost volume at a time.
//
// Slot k of pixel x is the Hamming distance between base[x] and the match
// word at column x + dLow + k, minimised over the rows of the window, then
// ANDed with the mask byte (0xFF without a mask). Words are bytes (3x3
// census) or 32-bit words (5x5 census, any bits: distances up to 32). The
// row kernels do the columns x0 to x1 - 1, whose whole candidate range lies
// inside the match row; SgmCostMatcher fills the columns outside it.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vq_tl {

// out: the cost row (slot k of pixel x at x * D + k); base: the base row;
// match[i]: row i of the window (rows >= 1, already clamped to the view);
// mask: the mask row or null; D a multiple of 8, 8 to 248.
using HammingRowFn = void (*)(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                              const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1);

struct SgmCostKernels {
    HammingRowFn hamming8;   // byte words
    HammingRowFn hamming32;  // 32-bit words
};

void hamming8Row_c(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                   const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1);
void hamming32Row_c(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void SgmCostKernels_fill(SgmCostKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const SgmCostKernels* SgmCostKernels_get();

// The vector forms' row kernel from K<kRows>::run, K a template of each
// instruction-set file: row windows 1 to 9 unrolled, any other count in the
// loop form (kRows 0). Static, so that each file keeps its own copy: GCC
// gives an instantiation whose template template argument comes from an
// unnamed namespace vague linkage, and the linker would keep one set's copy
// for all of them.
template <template <int> class K>
static void SgmCost_byRows(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                           const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    switch (rows) {
        case 1: return K<1>::run(out, base, match, rows, mask, D, dLow, x0, x1);
        case 3: return K<3>::run(out, base, match, rows, mask, D, dLow, x0, x1);
        case 5: return K<5>::run(out, base, match, rows, mask, D, dLow, x0, x1);
        case 7: return K<7>::run(out, base, match, rows, mask, D, dLow, x0, x1);
        case 9: return K<9>::run(out, base, match, rows, mask, D, dLow, x0, x1);
        default: return K<0>::run(out, base, match, rows, mask, D, dLow, x0, x1);
    }
}

// The vector forms' entries: H8 and H32, the byte-word and 32-bit-word row
// kernel templates of one instruction-set file, through SgmCost_byRows.
template <template <int> class H8, template <int> class H32>
static void SgmCost_setByRows(SgmCostKernels* table) {
    table->hamming8 = SgmCost_byRows<H8>;
    table->hamming32 = SgmCost_byRows<H32>;
}

void SgmCostKernels_addSse41(SgmCostKernels* table);
void SgmCostKernels_addAvx2(SgmCostKernels* table);
void SgmCostKernels_addAvx512(SgmCostKernels* table);
void SgmCostKernels_addNeon(SgmCostKernels* table);

}  // namespace vq_tl
