// Where the row stripes of one image operation run, and how rows are shared
// out among them. Every kernel of this folder goes through these two calls.
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

struct Pel;
struct ParallelExecutor;

// The parallel layer of an operation: a Pel, a ParallelExecutor, or neither,
// in which case the stripes run on the calling thread. A null record is the
// same as neither.
struct ImageStripeExec {
    Pel* pel;
    ParallelExecutor* executor;
};

// One stripe of an operation; count is the number of stripes.
using ImageStripeFn = TLResult (*)(void* arg, int32_t index, int32_t count);

// Workers behind the record; 1 when the stripes run on the calling thread.
int32_t ImageStripeExec_getWorkerCount(const ImageStripeExec* exec);

// Runs stripes 0 to count - 1 and returns the or of their results. Stripes
// write disjoint rows and meet only at the end of this call.
TLResult ImageStripeExec_run(const ImageStripeExec* exec, ImageStripeFn fn, void* arg, int32_t count);

// Stripe index of count covers rows index * ceil(rows / count) up to the lesser
// of (index + 1) * ceil(rows / count) and rows; the range may be empty.
void ImageStripe_rows(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);

}  // namespace vq_tl
