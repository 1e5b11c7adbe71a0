#include "imageproc/image_stripes.h"

namespace vq_tl {

int32_t ImageStripeExec_getWorkerCount(const ImageStripeExec* exec) {
    (void)exec;
    return 1;
}

// The stripes run here one after another; a Pel or ParallelExecutor in the
// record takes them over once the parallel layers route through this call.
TLResult ImageStripeExec_run(const ImageStripeExec* exec, ImageStripeFn fn, void* arg, int32_t count) {
    (void)exec;
    TLResult result = TL_OK;
    for (int32_t i = 0; i < count; ++i) result |= fn(arg, i, count);
    return result;
}

void ImageStripe_rows(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last) {
    const int32_t run = count > 0 ? (rows + count - 1) / count : rows;
    const int64_t begin = static_cast<int64_t>(index) * run;
    const int64_t end = begin + run;
    *first = static_cast<int32_t>(begin < rows ? begin : rows);
    *last = static_cast<int32_t>(end < rows ? end : rows);
}

}  // namespace vq_tl
