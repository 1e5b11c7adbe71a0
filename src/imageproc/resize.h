// Scaling of images: bilinear resize in 1.15 fixed point with a 2 by 2 fast
// path at about one half, exact area reduction, halving, and size helpers.
//
// The operations take the parallel layer as an ImageStripeExec; they are the
// bodies of ImageProc2_resizeImage / ImageProc_resizeImage,
// ImageProc2_averageShrink / ImageProc_shrinkImage and ImageProc_shrink2.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_stripes.h"
#include "imageproc/resize_kernels.h"

namespace vq_tl {

struct ImageProc;
struct ImageProc2;

// ResizeTap (resize_kernels.h): the sample position of one destination
// column (or row) on the source.

// Fills taps for dstSize positions over srcSize source pixels (both >= 1).
void ResizeTap_fill(ResizeTap* taps, int32_t dstSize, int32_t srcSize);

// True when dst is within one pixel of half of src in both directions: such
// sizes take the 2 by 2 average, the rows and columns beyond the source's
// last repeating it.
bool Resize_isAboutHalf(int32_t dstWidth, int32_t dstHeight, int32_t srcWidth, int32_t srcHeight);

// Sizes from the images. Equal size and format: Image_copy. Formats: 26 to 29,
// 30 to 38, 60 to 62 and 64 to 69, YUV plane by plane.
// TL_ERROR_PARAM for absent images or pixels; TL_ERROR_UNSUPPORTED for
// differing formats or one outside that set; TL_ERROR_GENERAL for a plane of
// zero width or height; TL_ERROR_MEMORY when the row cache cannot be allocated.
TLResult Resize_resizeImage(const ImageStripeExec* exec, Image* dst, const Image* src);

// Each destination pixel is the rounded mean of the source area it covers,
// partly covered source pixels weighted by the part. dst must be strictly
// smaller in both directions and of the same format, else TL_ERROR_PARAM.
TLResult Resize_averageShrink(const ImageStripeExec* exec, Image* dst, const Image* src);

// (a + b + c + d + 2) >> 2 of 2 by 2 blocks; dst must be about half of src
// (see Resize_isAboutHalf) and of the same format, else TL_ERROR_PARAM.
TLResult Resize_shrink2(const ImageStripeExec* exec, Image* dst, const Image* src);

// The same operations on the kernel objects: ImageProc2 runs them over its Pel,
// ImageProc over its ParallelExecutor. A null object gives TL_ERROR_PARAM.
TLResult ImageProc2_resizeImage(ImageProc2* self, Image* dst, const Image* src);
TLResult ImageProc2_averageShrink(ImageProc2* self, Image* dst, const Image* src);
TLResult ImageProc_resizeImage(ImageProc* self, Image* dst, const Image* src);
TLResult ImageProc_shrinkImage(ImageProc* self, Image* dst, const Image* src);
TLResult ImageProc_shrink2(ImageProc* self, Image* dst, const Image* src);

// Sizes with the aspect of width by height kept, each at least 1; the
// results are truncated, so they never exceed the bound. All three give
// TL_ERROR_PARAM for null outputs or a size or bound below 1.
// The largest size that fits in maxWidth by maxHeight.
TLResult ImageProc_getSizeFit(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                              int32_t maxWidth, int32_t maxHeight);
// The size whose longer side is maxSide.
TLResult ImageProc_getSizeMax(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                              int32_t maxSide);
// A size of about, and at most, area pixels.
TLResult ImageProc_getSizeArea(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                               int32_t area);

}  // namespace vq_tl
