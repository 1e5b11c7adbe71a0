#include "imageproc/image_proc2.h"

namespace vq_tl {

int32_t ImageProc2_getBufferSize(int32_t width, int32_t height, uint32_t format) {
    if (width < 1 || height < 1 || format >= kImageFormatCount) return -1;
    const int32_t size = Image_getSize(width, height, format, IMAGE_SIZE_TOTAL);
    return size > 0 ? size : -1;
}

TLResult construct_ImageProc2(ImageProc2* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->env = env;
    self->pel = nullptr;
    return construct_Image(&self->scratch, env);
}

TLResult destruct_ImageProc2(ImageProc2* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = destruct_Image(&self->scratch);
    self->env = nullptr;
    self->pel = nullptr;
    return r;
}

TLResult ImageProc2_recycle(ImageProc2* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return Image_recycle(&self->scratch);
}

TLResult ImageProc2_init(ImageProc2* self) { return ImageProc2_recycle(self); }

TLResult ImageProc2_setPel(ImageProc2* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return TL_OK;
}

ImageStripeExec ImageProc2_getStripeExec(const ImageProc2* self) {
    return ImageStripeExec{self != nullptr ? self->pel : nullptr, nullptr};
}

}  // namespace vq_tl
