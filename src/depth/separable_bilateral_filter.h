// SeparableBilateralFilter: a cheap joint bilateral filter, a horizontal pass
// and then a vertical pass, each weighting a tap by a spatial table and by a
// range weight from a guide picture.
//
// Weights of one pass, for the pixel p and the tap q = p + k (k in -half to
// half, half = window >> 1, q clamped to the picture so that the border
// repeats):
//   spatial[k] = trunc(128 * 2^(-k^2 / (2 sigmaSpace^2))), 0 to 128. The base
//                is 2, not e, on purpose: sigmaSpace is not the usual
//                standard deviation.
//   range      = C - sum over the guide's n channels of (g(p) - g(q))^2,
//                clamped to 0 below: a clipped parabola in integers, where
//                C = trunc(2 n sigmaRange^2) in floats.
//   w          = range * spatial[k].
// The plain form starts its sums with the centre at weight 128 C, so a pixel
// whose neighbours all fall outside the parabola keeps its value; the value
// is (sum of w * src(q)) / (sum of w), in floats, + 0.5 and truncated for
// UINT8. The horizontal pass reads the guide along rows, the vertical one
// along columns.
//
// Values: UINT8 (60) or FLOAT (66); dst, src and temporary of one format.
// Guides: UINT8 (1 channel), UINT88 (2) or RGB888 (3). The weighted form
// carries a UINT8 weight with every UINT8 value (see below).
//
// Results: TL_ERROR_PARAM for absent images, sizes that differ, or a window
// outside 0 to 255; TL_ERROR_UNSUPPORTED for other formats, or a guide of
// another channel count than a _1ch, _2ch or _3ch call names. Nothing is
// written before every check has passed; nothing is allocated.
//
// In place: a horizontal pass may write dst over src when dst lies half
// columns left of src on the same rows, and a vertical pass when dst lies
// half rows above src on the same columns (the level buffers of the depth
// refiner): every read of a pixel comes before the write that covers it.
//
// Threads: each pass runs as 4 Pel tasks, bands of rows for the horizontal
// pass and bands of columns for the vertical one; a call returns when they
// are done. One caller at a time per object.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct SeparableBilateralFilter {
    Env* env;
    Pel* pel;  // not owned; null: the passes run on the calling thread
};

// The filter holds no buffers: 0, or -1 for sizes below 1.
int32_t SeparableBilateralFilter_getBufferSize(int32_t width, int32_t height);
TLResult construct_SeparableBilateralFilter(SeparableBilateralFilter* self, Env* env);
TLResult destruct_SeparableBilateralFilter(SeparableBilateralFilter* self);
TLResult SeparableBilateralFilter_init(SeparableBilateralFilter* self, int32_t width, int32_t height);
TLResult SeparableBilateralFilter_recycle(SeparableBilateralFilter* self);
TLResult SeparableBilateralFilter_setPel(SeparableBilateralFilter* self, Pel* pel);

// Horizontal pass from src into temporary, vertical pass from temporary into
// dst, dispatched on the guide's format.
TLResult SeparableBilateralFilter_crossFilter(SeparableBilateralFilter* self, Image* dst, const Image* src,
                                              const Image* guide, Image* temporary, int32_t window,
                                              float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_crossFilter1ch(SeparableBilateralFilter* self, Image* dst, const Image* src,
                                                 const Image* guide, Image* temporary, int32_t window,
                                                 float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_crossFilter2ch(SeparableBilateralFilter* self, Image* dst, const Image* src,
                                                 const Image* guide, Image* temporary, int32_t window,
                                                 float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_crossFilter3ch(SeparableBilateralFilter* self, Image* dst, const Image* src,
                                                 const Image* guide, Image* temporary, int32_t window,
                                                 float sigmaSpace, float sigmaRange);

// Single passes.
TLResult SeparableBilateralFilter_crossFilterHorizontally(SeparableBilateralFilter* self, Image* dst,
                                                          const Image* src, const Image* guide,
                                                          int32_t window, float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterHorizontally1ch(SeparableBilateralFilter* self, Image* dst,
                                                             const Image* src, const Image* guide,
                                                             int32_t window, float sigmaSpace,
                                                             float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterHorizontally2ch(SeparableBilateralFilter* self, Image* dst,
                                                             const Image* src, const Image* guide,
                                                             int32_t window, float sigmaSpace,
                                                             float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterHorizontally3ch(SeparableBilateralFilter* self, Image* dst,
                                                             const Image* src, const Image* guide,
                                                             int32_t window, float sigmaSpace,
                                                             float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterVertically(SeparableBilateralFilter* self, Image* dst,
                                                        const Image* src, const Image* guide, int32_t window,
                                                        float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterVertically1ch(SeparableBilateralFilter* self, Image* dst,
                                                           const Image* src, const Image* guide,
                                                           int32_t window, float sigmaSpace,
                                                           float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterVertically2ch(SeparableBilateralFilter* self, Image* dst,
                                                           const Image* src, const Image* guide,
                                                           int32_t window, float sigmaSpace,
                                                           float sigmaRange);
TLResult SeparableBilateralFilter_crossFilterVertically3ch(SeparableBilateralFilter* self, Image* dst,
                                                           const Image* src, const Image* guide,
                                                           int32_t window, float sigmaSpace,
                                                           float sigmaRange);

// Weighted form: every tap counts base = range * spatial[k] and masked =
// base * srcWeight(q), the centre like any other tap, C = trunc(sigmaRange^2
// * 2n). Sums S0 of base, S1 of masked, S2 of masked * src(q), in floats;
// value = S2 / S1 + 0.5 and weight = S1 / S0 + 0.5, NaN giving 0 and values
// above 255 giving 255, truncated. Pass one runs into (temporary,
// temporaryWeight), pass two from them into (dst, dstWeight). Values and
// weights are all UINT8.
TLResult SeparableBilateralFilter_weightedCrossFilter(SeparableBilateralFilter* self, Image* dst,
                                                      Image* dstWeight, const Image* src,
                                                      const Image* srcWeight, const Image* guide,
                                                      Image* temporary, Image* temporaryWeight,
                                                      int32_t window, float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_weightedCrossFilter1ch(SeparableBilateralFilter* self, Image* dst,
                                                         Image* dstWeight, const Image* src,
                                                         const Image* srcWeight, const Image* guide,
                                                         Image* temporary, Image* temporaryWeight,
                                                         int32_t window, float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_weightedCrossFilter2ch(SeparableBilateralFilter* self, Image* dst,
                                                         Image* dstWeight, const Image* src,
                                                         const Image* srcWeight, const Image* guide,
                                                         Image* temporary, Image* temporaryWeight,
                                                         int32_t window, float sigmaSpace, float sigmaRange);
TLResult SeparableBilateralFilter_weightedCrossFilter3ch(SeparableBilateralFilter* self, Image* dst,
                                                         Image* dstWeight, const Image* src,
                                                         const Image* srcWeight, const Image* guide,
                                                         Image* temporary, Image* temporaryWeight,
                                                         int32_t window, float sigmaSpace, float sigmaRange);

}  // namespace vq_tl
