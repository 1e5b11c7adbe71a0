#include "imageproc/plane_views.h"

#include <cstring>

namespace vq_tl {

TLResult PlaneViews_split(PlaneViews* out, const Image* image) {
    std::memset(out, 0, sizeof *out);
    if (image->plane[0] == nullptr || image->width < 1 || image->height < 1) return TL_ERROR_PARAM;
    const uint32_t f = image->format;
    const int32_t w = image->width, h = image->height;
    for (Image& view : out->plane) construct_Image(&view, image->env);
    TLResult r = TL_OK;
    switch (f) {
        case IMAGE_FORMAT_YUV422_PLANAR:
        case IMAGE_FORMAT_YUV420_PLANAR:
        case IMAGE_FORMAT_YUV444_PLANAR:
            r = Image_initSubImageY(&out->plane[0], image, 0, 0, w, h);
            if (r == TL_OK) r = Image_initSubImageU(&out->plane[1], image, 0, 0, w, h);
            if (r == TL_OK) r = Image_initSubImageV(&out->plane[2], image, 0, 0, w, h);
            out->count = 3;
            break;
        case IMAGE_FORMAT_YUV422_SEMIPLANAR:
        case IMAGE_FORMAT_YUV420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU422_SEMIPLANAR:
        case IMAGE_FORMAT_YVU420_SEMIPLANAR:
        case IMAGE_FORMAT_YUV10B420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU10B420_SEMIPLANAR:
            r = Image_initSubImageY(&out->plane[0], image, 0, 0, w, h);
            if (r == TL_OK) r = Image_initSubImageUV(&out->plane[1], image, 0, 0, w, h);
            out->count = 2;
            break;
        default:
            if (Image_getPlaneCount(f) != 1) return TL_ERROR_UNSUPPORTED;
            out->plane[0] = *image;
            out->plane[0].external = 1;
            out->count = 1;
            break;
    }
    return r;
}

}  // namespace vq_tl
