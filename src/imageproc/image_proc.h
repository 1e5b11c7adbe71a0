// ImageProc: the pixel kernels that run over ParallelExecutor fork and join.
// The object holds no pixel state: each operation takes its destination and
// sources and divides the rows into stripes of the executor rule
// (imageproc/image_stripes.h). Kernels join this object with the families
// that define them.
//
// Threads: one caller at a time per object; each operation returns when its
// stripes are done.
#pragma once

#include <cstdint>

#include "imageproc/image_stripes.h"
#include "runtime/env.h"
#include "runtime/parallel_executor.h"

namespace vq_tl {

struct ImageProc {
    Env* env;
    ParallelExecutor* parallelExecutor;  // not owned; null: kernels run on the calling thread
};

// Work memory of the family for images of this size, for planning: the larger
// of the rank filters' work image and a 32-bit row buffer of width + 10 per
// row, plus a block for work at half size, counted as at least 1440 by 1080.
// -1 for sizes below 1, an unknown format or a total beyond 31 bits.
int32_t ImageProc_getBufferSize(int32_t width, int32_t height, uint32_t format);
TLResult construct_ImageProc(ImageProc* self, Env* env);
TLResult destruct_ImageProc(ImageProc* self);
TLResult ImageProc_recycle(ImageProc* self);
// Nothing to set up; kept for the uniform life cycle.
TLResult ImageProc_init(ImageProc* self);
TLResult ImageProc_setParallelExecutor(ImageProc* self, ParallelExecutor* executor);
// The layer record its kernels hand to ImageStripeExec_run.
ImageStripeExec ImageProc_getStripeExec(const ImageProc* self);

}  // namespace vq_tl
