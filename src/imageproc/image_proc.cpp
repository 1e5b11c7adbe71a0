#include "imageproc/image_proc.h"

#include "image/image.h"
#include "imageproc/rank_filter.h"

namespace vq_tl {

namespace {

// The half-size block covers at least a 1440 by 1080 frame (half of 2880 by
// 2160); larger inputs count their own halves.
constexpr int32_t kHalfMinWidth = 1440;
constexpr int32_t kHalfMinHeight = 1080;

}  // namespace

int32_t ImageProc_getBufferSize(int32_t width, int32_t height, uint32_t format) {
    if (width < 1 || height < 1 || format >= kImageFormatCount) return -1;
    const int64_t rowBuffer = int64_t{height} * (int64_t{width} + 10) * 4;
    const int64_t rank = ImageProc_filterRank_getBufferSize(width, height, format);
    const int64_t rows = rank > rowBuffer ? rank : rowBuffer;
    const int64_t halfWidth = width > 2 * kHalfMinWidth ? width / 2 : kHalfMinWidth;
    const int64_t halfHeight = height > 2 * kHalfMinHeight ? height / 2 : kHalfMinHeight;
    const int64_t total = rows + halfHeight * (halfWidth + 10) * 4;
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_ImageProc(ImageProc* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    *self = ImageProc{};
    self->env = env;
    return TL_OK;
}

TLResult destruct_ImageProc(ImageProc* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    *self = ImageProc{};
    return TL_OK;
}

TLResult ImageProc_recycle(ImageProc* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return TL_OK;
}

TLResult ImageProc_init(ImageProc* self) { return self == nullptr ? TL_ERROR_PARAM : TL_OK; }

TLResult ImageProc_setParallelExecutor(ImageProc* self, ParallelExecutor* executor) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->parallelExecutor = executor;
    return TL_OK;
}

ImageStripeExec ImageProc_getStripeExec(const ImageProc* self) {
    return ImageStripeExec{nullptr, self != nullptr ? self->parallelExecutor : nullptr};
}

}  // namespace vq_tl
