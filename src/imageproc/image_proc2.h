// ImageProc2: the pixel kernels that run over Pel. Like ImageProc it holds
// no pixel state; each operation divides the rows of its destination into
// stripes of the Pel rule (imageproc/image_stripes.h). Kernels join this
// object with the families that define them, each with its getBufferSizeFor
// query.
//
// Threads: one caller at a time per object; each operation returns when its
// stripes are done.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_stripes.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct ImageProc2 {
    Env* env;
    Pel* pel;       // not owned; null: kernels run on the calling thread
    Image scratch;  // a work image for operations that need one; released by init and recycle
};

// Work memory for images of this size and format, for planning: one work
// image of the same size and format, the intermediate of a two-pass filter.
// -1 for sizes below 1 or an unknown format.
int32_t ImageProc2_getBufferSize(int32_t width, int32_t height, uint32_t format);
TLResult construct_ImageProc2(ImageProc2* self, Env* env);
TLResult destruct_ImageProc2(ImageProc2* self);
TLResult ImageProc2_recycle(ImageProc2* self);
TLResult ImageProc2_init(ImageProc2* self);
TLResult ImageProc2_setPel(ImageProc2* self, Pel* pel);
// The layer record its kernels hand to ImageStripeExec_run.
ImageStripeExec ImageProc2_getStripeExec(const ImageProc2* self);

}  // namespace vq_tl
