// Row stripes: the one way the image kernels divide their rows among
// workers, with a runner that takes a row function over a Pel, over a
// ParallelExecutor, or over neither (the calling thread).
//
// Threads: a runner returns once every stripe is done; stripes of one run
// must write disjoint rows and synchronise with nothing but the run's end.
#pragma once

#include <cstdint>

#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

namespace vq_tl {

// Rows [begin, end) of one stripe; empty when begin equals end.
struct StripeRows {
    int32_t begin;
    int32_t end;
};

// Stripes of Pel kernels, and 4 the usual part count for fixed work.
constexpr int32_t kStripesDefaultParts = 4;
// ImageProc over an executor never cuts more than this many stripes.
constexpr int32_t kStripesMaxExecutorParts = 16;

// Pel rule: with c = ceil(rows / parts), stripe i covers rows i * c up to the
// lesser of (i + 1) * c and rows. Trailing stripes may be empty (5 rows in 4
// parts: 2, 2, 1, 0). Index outside 0..parts-1, parts below 1 or negative
// rows give an empty stripe.
StripeRows Stripes_getPelRows(int32_t rows, int32_t parts, int32_t index);
// Executor rule: stripe j of k covers rows (j * rows + k - 1) / k up to the
// same for j + 1; the sizes differ by one at most, larger ones first.
StripeRows Stripes_getExecutorRows(int32_t rows, int32_t parts, int32_t index);
// The stripe count of ImageProc kernels: the executor's worker count when it
// has a fixed pool, else the capacity of its queue, limited to 1..16; 1 for
// a null executor.
int32_t Stripes_getExecutorParts(const ParallelExecutor* executor);

// Does rows [rowBegin, rowEnd) of the work described by arg; never called
// with an empty stripe.
using StripeRowFunction = void (*)(void* arg, int32_t rowBegin, int32_t rowEnd);

// One Pel_execute of `parts` stripes by the Pel rule (parts below 1: 4). A
// null pel runs the stripes in order on the calling thread. Returns the
// layer's failure; a row function cannot fail.
TLResult Stripes_runOnPel(Pel* pel, StripeRowFunction function, void* arg, int32_t rows, int32_t parts);
// One ParallelExecutor_fork per non-empty stripe by the executor rule, then
// the join (parts below 1: Stripes_getExecutorParts). A stripe whose fork is
// refused runs on the calling thread, so the work is always complete; the
// join's failure is returned. A null executor runs the stripes in order.
TLResult Stripes_runOnExecutor(ParallelExecutor* executor, StripeRowFunction function, void* arg,
                               int32_t rows, int32_t parts);

}  // namespace vq_tl
