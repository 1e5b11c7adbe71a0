// Path-update kernels of SgmCostAggregator: one row of one direction at a
// time.
//
// Path costs are bytes and every step wraps at 8 bits, as in
// sgm_cost_aggregator.h: with q the previous pixel of p,
//   a = min(L'(q, k - 1), L'(q, k + 1))
//   b = min(a + P1, P2(p))
//   L(p, k) = min(b, L'(q, k)) + C(p, k)
//   L'(p, k) = L(p, k) - min over k of L(p, k)
// where L'(q, -1) and L'(q, D) are the separators (255) beside q's costs.
//
// A cross row takes its previous pixels from another row (directions with
// dy != 0), so its pixels are independent; a chain row takes them from the
// same row (dy = 0), pixel x - dx before pixel x.
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstdint>

namespace vq_tl {

enum AggregationSum : int32_t {
    AGG_SUM_NONE = 0,  // `sum` is not touched
    AGG_SUM_SET = 1,   // sum slot k = L'(p, k)
    AGG_SUM_ADD = 2,   // sum slot k += L'(p, k), wrapping at 16 bits
};

struct AggregationRow {
    // Pixel x (0 <= x < width) has its D path costs at out + x * (D + 1); the
    // byte before and the byte after them are separators.
    uint8_t* out;
    // Cross rows: the costs of pixel x's previous pixel at prev + x * (D + 1),
    // separators around them as for out. Chain rows: unused.
    const uint8_t* prev;
    const uint8_t* cost;  // pixel x's matching costs at cost + x * D
    const uint8_t* p2;    // P2 of pixel x at p2[x * p2Step]
    // AGG_SUM_SET / ADD: pixel x's slot k at sum[x * (D + 2) + k]; with pads
    // set, sum[x * (D + 2) - 1] = slot 1 and sum[x * (D + 2) + D] = slot D - 2
    // afterwards.
    uint16_t* sum;
    int32_t p2Step;  // 1, or 0 for one value for the whole row
    int32_t sumMode;
    int32_t pads;
    int32_t width;           // at least 1
    int32_t numDisparities;  // D: 8 to 248, a multiple of 8
    // Chain rows: -1 (pixel 0 first; pixel 0's previous pixel at out - (D + 1))
    // or +1 (pixel width - 1 first; its previous at out + width * (D + 1)).
    int32_t dx;
    uint8_t smallPenalty;  // P1
};

using AggregationRowFn = void (*)(const AggregationRow* row);
// Two chain rows with the same width, D, dx and P1 (other rows, costs,
// penalties and sums): the same bytes as chainRow on each.
using AggregationRows2Fn = void (*)(const AggregationRow* row0, const AggregationRow* row1);
// Four chain rows rows[0] to rows[3], alike as for AggregationRows2Fn: the
// same bytes as chainRow on each. Each pixel of a chain row waits for the
// one before, so more rows side by side hide more of that wait.
using AggregationRows4Fn = void (*)(const AggregationRow* rows);
// Eight chain rows rows[0] to rows[7], alike as for AggregationRows2Fn.
using AggregationRows8Fn = void (*)(const AggregationRow* rows);

// The guided large penalty of the pixels of one row in one direction: with g
// the guide step between pixel x and its previous pixel, |guide - guidePrev|
// for one channel and (|dU| + |dV|) >> 1 for two,
//   out[x] = max((P2 + ((1 + g) >> 1)) / (1 + g), lower) as a byte,
// lower = P1 + 1 (1 to 256; 256 gives 0, the byte of the unwrapped value).
struct AggregationPenalty {
    uint8_t* out;
    const uint8_t* guide;      // pixel x's channels from guide[x * channels]
    const uint8_t* guidePrev;  // its previous pixel's from guidePrev[x * channels]
    const uint8_t* p2;         // P2 of pixel x at p2[x * p2Step]
    int32_t p2Step;            // 1, or 0 for one value for the whole row
    int32_t lower;
    int32_t width;
};

using AggregationPenaltyFn = void (*)(const AggregationPenalty* row);

// One row of the aggregated volume from the path planes of the parallel
// shape: entry k + 1 of pixel x = the sum over the planes of slot k, wrapping
// at the entry's width (8 or 16 bits), entry 0 = entry 2 and entry D + 1 =
// entry D - 1.
struct AggregationPlaneSum {
    void* out;                 // pixel x's D + 2 entries from entry x * (D + 2)
    const uint8_t* planes[8];  // pixel x's slots at planes[i] + x * (D + 1)
    int32_t numPlanes;         // 4 or 8
    int32_t width;
    int32_t numDisparities;
};

using AggregationSumFn = void (*)(const AggregationPlaneSum* row);

struct AggregationKernels {
    AggregationRowFn crossRow;
    AggregationRowFn chainRow;
    AggregationRows2Fn chainRows2;
    AggregationRows4Fn chainRows4;
    // Null where the instruction set has no form that gains from eight rows
    // over two calls of chainRows4 (the scalar table too): the caller then
    // takes its rows four at a time.
    AggregationRows8Fn chainRows8;
    AggregationPenaltyFn penaltyU8;   // one guide channel
    AggregationPenaltyFn penaltyU88;  // two
    AggregationSumFn sumU8;
    AggregationSumFn sumU16;
};

void aggregationCrossRow_c(const AggregationRow* row);
void aggregationChainRow_c(const AggregationRow* row);
void aggregationChainRows2_c(const AggregationRow* row0, const AggregationRow* row1);
void aggregationChainRows4_c(const AggregationRow* rows);
// The reference of the eight-row forms (in no table).
void aggregationChainRows8_c(const AggregationRow* rows);
void aggregationPenaltyU8_c(const AggregationPenalty* row);
void aggregationPenaltyU88_c(const AggregationPenalty* row);
void aggregationSumU8_c(const AggregationPlaneSum* row);
void aggregationSumU16_c(const AggregationPlaneSum* row);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void AggregationKernels_fill(AggregationKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const AggregationKernels* AggregationKernels_get();

// The vector forms' dispatch over the candidate count: K<kD>::run(args...)
// for D = 8 to 64, `fallback` for any other D. Instantiated only with an
// instruction-set file's own K, so no copy compiled with one set's flags is
// shared with another (static: see SgmCost_byRows in sgm_cost.h).
template <template <int> class K, typename... Args>
static void Aggregation_byCandidates(int32_t D, void (*fallback)(Args...), Args... args) {
    switch (D) {
        case 8: return K<8>::run(args...);
        case 16: return K<16>::run(args...);
        case 24: return K<24>::run(args...);
        case 32: return K<32>::run(args...);
        case 40: return K<40>::run(args...);
        case 48: return K<48>::run(args...);
        case 56: return K<56>::run(args...);
        case 64: return K<64>::run(args...);
        default: return fallback(args...);
    }
}

void AggregationKernels_addSse41(AggregationKernels* table);
void AggregationKernels_addAvx2(AggregationKernels* table);
void AggregationKernels_addAvx512(AggregationKernels* table);
void AggregationKernels_addNeon(AggregationKernels* table);

}  // namespace vq_tl
