// Where the row stripes of one image operation run, and how rows are shared
// out among them: the one stripe helper of the library. Every kernel of this
// folder goes through ImageStripeExec_run.
//
// A kernel is one stripe function: it computes its rows from (index, count)
// with ImageStripe_rows (the Pel rule, ImageProc2 kernels) or
// ImageStripe_rowsEven (the executor rule, ImageProc kernels) and does them.
//
// Threads: ImageStripeExec_run returns once every stripe is done; stripes
// write disjoint rows and meet only at the end of the call.
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

struct Pel;
struct ParallelExecutor;

// The parallel layer of an operation: a Pel, a ParallelExecutor, or neither,
// in which case the stripes run on the calling thread. A null record is the
// same as neither; with both, the Pel runs the stripes.
struct ImageStripeExec {
    Pel* pel;
    ParallelExecutor* executor;
};

// Stripes of fixed work over a Pel, as a rule.
constexpr int32_t kImageStripeDefaultCount = 4;
// ImageProc over an executor never cuts more stripes than this.
constexpr int32_t kImageStripeMaxExecutorCount = 16;

// One stripe of an operation; count is the number of stripes.
using ImageStripeFn = TLResult (*)(void* arg, int32_t index, int32_t count);

// Workers behind the record: Pel_getNumberOfWorkers of the Pel; for an
// executor alone ImageStripe_getExecutorCount; 1 when the stripes run on the
// calling thread.
int32_t ImageStripeExec_getWorkerCount(const ImageStripeExec* exec);

// Runs stripes 0 to count - 1 and returns the or of their results, with the
// layer's own failure. Over a Pel: one kernel of count indices. Over an
// executor: one ParallelExecutor_fork per stripe, then the join; a stripe
// whose fork is refused runs on the calling thread, so the work is always
// complete. A Pel that is not initialised, or neither layer: the stripes run
// in order on the calling thread. A count below 1 runs nothing.
TLResult ImageStripeExec_run(const ImageStripeExec* exec, ImageStripeFn fn, void* arg, int32_t count);

// The Pel rule: stripe index of count covers rows index * ceil(rows / count)
// up to the lesser of (index + 1) * ceil(rows / count) and rows; trailing
// stripes may be empty (5 rows in 4: 2, 2, 1, 0). A count below 1 is one
// stripe of all rows.
void ImageStripe_rows(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);
// The executor rule: stripe j of k covers rows (j * rows + k - 1) / k up to
// the same for j + 1; sizes differ by one at most, larger ones first. A
// count below 1 is one stripe of all rows.
void ImageStripe_rowsEven(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);
// The stripe count of ImageProc kernels: the executor's worker count when it
// has a fixed pool (numberOfThreads above 0, plus a working caller), else
// the capacity of its queue, limited to 1..16; 1 for a null executor.
int32_t ImageStripe_getExecutorCount(const ParallelExecutor* executor);

}  // namespace vq_tl
