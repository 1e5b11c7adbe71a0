// Gaussian and box smoothing.
//
// The Gaussian is separable: a row pass into an intermediate picture of the
// source's size and type, then a column pass into dst, each pass rounding
// (sum of Q15 tap times pixel + 16384) >> 15 and clamping to the type's range;
// indices are clamped at the edges, so the edge pixel repeats. pgaussBlur does
// a large sigma by halving the picture, blurring the half with a smaller sigma,
// enlarging and smoothing the enlargement with a final direct pass of 1.8.
//
// Element layouts with a kernel: UINT8 (60), UINT88 (67), the 3-byte pixels
// (2, 3, 30 to 35, 62), the 4-byte pixels (4 to 15), UINT16 (64), UINT1616
// (69) and FLOAT (66), channel by channel. YUV pictures (24 to 29, 36 to 38)
// go plane by plane; a chroma plane narrower than the luma takes half the
// sigma, so that the blur covers the same part of the picture.
//
// The operations take the parallel layer as an ImageStripeExec: with a Pel
// the rows are cut by the Pel rule into 4 stripes, with an executor alone by
// the executor rule. Results do not depend on the layer. Every pass reads
// only its own source and writes a separate picture, so dst may be src.
//
// Results: TL_ERROR_PARAM for absent images or pixels, sizes or formats that
// differ, a sigma below 1e-16 or a radius out of range; TL_ERROR_UNSUPPORTED
// for a format without a kernel; TL_ERROR_MEMORY when a work buffer cannot be
// had. Every check runs before the first write.
//
// Threads: each call returns when its stripes are done.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/image_stripes.h"

namespace vq_tl {

// The Gaussian tap table: 201 entries centred on index 100.
constexpr int32_t kBlurTapCenter = 100;
constexpr int32_t kBlurTapCount = 2 * kBlurTapCenter + 1;
// Up to this sigma the direct path runs the 7-tap kernels.
constexpr double kBlurDirectSigma = 1.8;
// Box windows reach at most this far: a window of 181 by 181 keeps the sums
// of UINT16 values and of squared UINT8 values within 31 bits.
constexpr int32_t kBlurMaxBoxRadius = 90;

// Fills taps[0..200] with the Q15 Gaussian of sigma for a plane of this size
// and returns the radius r: entries are exp(-i^2 / (2 sigma^2)) as floats,
// normalised, cut where they fall to 1/4096 or below, at 100, at half the
// lesser side and at maxRadius, normalised again and rounded to Q15. Entries
// beyond r are 0. The rounded taps need not add up to exactly 32768.
int32_t Blur_makeGaussTaps(int32_t taps[kBlurTapCount], double sigma, int32_t width, int32_t height,
                           int32_t maxRadius);

// Direct separable Gaussian. planeMask: bit k selects plane k of a YUV picture,
// 0 selects all; a plane not selected is copied when dst is another picture.
// Sigma up to 1.8 runs the 7-tap kernels, larger ones the general kernels.
TLResult Blur_gaussBlur(const ImageStripeExec* exec, Image* dst, const Image* src, uint32_t planeMask,
                        double sigma);
// Pyramid Gaussian: up to 1.8, or on a plane below 33 pixels in either
// direction, the direct one; otherwise q = sqrt(sigma^2 - 1.8^2), the plane
// resized to half (both sides truncated to even), blurred in place with q / 2
// by the same rule, resized back into dst and blurred there with 1.8. Work
// memory: one half-size plane per level.
TLResult Blur_pgaussBlur(const ImageStripeExec* exec, Image* dst, const Image* src, uint32_t planeMask,
                         double sigma);

enum BlurBoxForm : int32_t {
    BLUR_BOX_MEAN = 0,          // rounded mean; dst in src's format, YUV plane by plane
    BLUR_BOX_SUM = 1,           // INT32 from UINT8 or UINT16, FLOAT from FLOAT
    BLUR_BOX_MEAN_SQUARES = 2,  // rounded mean of squares: UINT16 from UINT8, FLOAT from FLOAT
    BLUR_BOX_SUM_SQUARES = 3,   // INT32 from UINT8, FLOAT from FLOAT
};
// Square window of 2 radius + 1 pixels a side, the edge pixel repeated.
// Integer means round half up. Radius 0 to kBlurMaxBoxRadius.
TLResult Blur_boxFilter(const ImageStripeExec* exec, Image* dst, const Image* src, int32_t radius,
                        BlurBoxForm form);

// Fixed separable kernel of size 3, 5 or 7: taps[0..size - 1] in Q15 (any
// sign, magnitudes adding up to 65536 at most) applied along rows and then along columns, with
// the rounding and clamping of the Gaussian. dst and src of one format.
TLResult Blur_separable(const ImageStripeExec* exec, Image* dst, const Image* src, const int32_t* taps,
                        int32_t size);

// ---- Kernel objects ---------------------------------------------------------
// option: the plane mask of Blur_gaussBlur.
TLResult ImageProc2_gaussBlur(ImageProc2* self, Image* dst, const Image* src, uint32_t option, double sigma);
TLResult ImageProc_gaussBlur2(ImageProc* self, Image* dst, const Image* src, uint32_t option, double sigma);
TLResult ImageProc2_pgaussBlur(ImageProc2* self, Image* dst, const Image* src, uint32_t option, double sigma);
TLResult ImageProc_pgaussBlur(ImageProc* self, Image* dst, const Image* src, uint32_t option, double sigma);

// Box mean on either object; the executor object also has the sum and the
// second-moment forms (the local statistics of guided filtering).
TLResult ImageProc2_boxBlur(ImageProc2* self, Image* dst, const Image* src, int32_t radius);
TLResult ImageProc_boxBlur(ImageProc* self, Image* dst, const Image* src, int32_t radius);
TLResult ImageProc_boxSum(ImageProc* self, Image* dst, const Image* src, int32_t radius);
TLResult ImageProc_boxBlur2(ImageProc* self, Image* dst, const Image* src,
                            int32_t radius);                                                // mean of squares
TLResult ImageProc_boxSum2(ImageProc* self, Image* dst, const Image* src, int32_t radius);  // sum of squares
// Rounded 3 by 3 mean: the box mean of radius 1.
TLResult ImageProc_filterAveraging3x3(ImageProc* self, Image* dst, const Image* src);

// Fixed kernels by element layout: uint8 is UINT8, uint16 UINT16, uint88
// UINT88 and uint1616 UINT1616; taps as in Blur_separable.
TLResult ImageProc2_filterGaussianBlur7x7_uint8(ImageProc2* self, Image* dst, const Image* src,
                                                const int32_t taps[7]);
TLResult ImageProc2_filterGaussianBlur7x7_uint16(ImageProc2* self, Image* dst, const Image* src,
                                                 const int32_t taps[7]);
TLResult ImageProc2_filterGaussianBlur7x7_uint88(ImageProc2* self, Image* dst, const Image* src,
                                                 const int32_t taps[7]);
TLResult ImageProc2_filterGaussianBlur7x7_uint1616(ImageProc2* self, Image* dst, const Image* src,
                                                   const int32_t taps[7]);
TLResult ImageProc_filterGaussianBlur7x7_uint8(ImageProc* self, Image* dst, const Image* src,
                                               const int32_t taps[7]);
TLResult ImageProc_filterGaussianBlur7x7_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[7]);
TLResult ImageProc_filterGaussianBlur7x7_uint88(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[7]);
TLResult ImageProc_filterGaussianBlur5x5_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[5]);
TLResult ImageProc_filterGaussianBlur3x3_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[3]);

// Work memory of one call for a picture of this size and format, for
// planning; -1 for sizes below 1 or a format without a kernel.
int32_t ImageProc2_getBufferSizeForGaussBlur(int32_t width, int32_t height, uint32_t format);
int32_t ImageProc2_getBufferSizeForPgaussBlur(int32_t width, int32_t height, uint32_t format);
int32_t ImageProc2_getBufferSizeForBoxBlur(int32_t width, int32_t height, uint32_t format);
int32_t ImageProc2_getBufferSizeForConvolution(int32_t width, int32_t height, uint32_t format);

}  // namespace vq_tl
