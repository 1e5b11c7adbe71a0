// A picture taken apart into single-plane views, so that kernels see one
// plane of one element type at a time.
#pragma once

#include "image/image.h"

namespace vq_tl {

struct PlaneViews {
    Image plane[3];  // borrowed views; destructing them frees nothing
    int32_t count;
};

// Planar YUV (24, 26, 36): the Y, U and V planes as UINT8. Semi-planar YUV
// (25, 27, 28, 29): Y as UINT8 and the chroma plane as UINT88; the 10-bit forms (37,
// 38) as UINT16 and UINT1616. Any other format with one plane: one view of
// the whole picture. TL_ERROR_UNSUPPORTED for other multi-plane formats,
// TL_ERROR_PARAM for a picture without pixels.
TLResult PlaneViews_split(PlaneViews* out, const Image* image);

}  // namespace vq_tl
