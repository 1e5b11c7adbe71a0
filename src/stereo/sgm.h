// Sgm: semi-global matching of a rectified pair at one resolution. It owns
// the path work image, picks the census width and the aggregation shape from
// one mode, runs SgmCostMatcher and SgmCostAggregator, and reads disparity
// maps of both views out of the aggregated volume, then a left-right
// confidence map from the two maps.
//
// Modes of Sgm_init:
//   0: 3x3 census, parallel aggregation (one Pel task per direction), 4
//      paths, aggregated volume UINT8; penalties are halved, because a 3x3
//      census word has a third of the bits of a 5x5 one.
//   1: 5x5 census, serial aggregation, 8 paths, aggregated volume UINT16, and
//      a large penalty that grows towards the image corners.
//
// Views, mask and guide are of the size given to Sgm_init. The base view is
// view1 when `swapped` is non-zero, else view2; disparity1 is the map of
// view1 and disparity2 that of view2. A byte map holds
// (disparity - minDisparity) << fractionBits with a parabola fit below the
// integer step; the disparity of the base view is its shift towards the
// match view, with the sign that `swapped` implies.
//
// Memory: the cost volume (W * D by H bytes), the aggregated volume
// (W * (D + 2) by H, 1 or 2 bytes), the census images and the guide and
// penalty scratch are allocated per call and released on every path;
// Sgm_getBufferSize counts them with the path work image that init keeps.
//
// Threads: one caller at a time; every call blocks until its Pel tasks and
// executor stripes are done.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_proc.h"
#include "runtime/env.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "stereo/sgm_cost_aggregator.h"
#include "stereo/sgm_cost_matcher.h"

namespace vq_tl {

enum SgmAggregationShape : uint32_t {
    SGM_SHAPE_SERIAL = 0,
    SGM_SHAPE_TWO_WAY = 1,
    SGM_SHAPE_PARALLEL = 2,
};

constexpr int32_t kSgmMaxDisparities = 128;

struct Sgm {
    Env* env;
    Pel* pel;
    ParallelExecutor* parallelExecutor;  // for imageProc
    uint32_t censusMode;                 // 0: 3x3 census; 1: 5x5 census, radial penalty
    uint32_t aggregationShape;           // SgmAggregationShape
    uint8_t numPaths;                    // 4 or 8
    uint8_t maxDisparities;              // candidates of init, rounded up to a multiple of 8
    SgmCostMatcher matcher;
    SgmCostAggregator aggregator;
    ImageProc imageProc;  // for the medians
    Image pathCosts;      // the path work image, UINT8
    // The D whose separators the parallel planes of pathCosts hold; 0: none.
    // A call with another D lays them out again.
    uint8_t pathCostsLayout;
};

// n + (-n & 7), as an unsigned byte: 24 stays 24, 125 becomes 128.
uint8_t Sgm_round8(uint32_t n);

// Work memory of init and of one call, for planning; -1 for bad arguments.
int32_t Sgm_getBufferSize(int32_t width, int32_t height, uint32_t format, uint32_t numDisparities,
                          uint32_t mode);
TLResult construct_Sgm(Sgm* sgm, Env* env);
TLResult destruct_Sgm(Sgm* sgm);
TLResult Sgm_recycle(Sgm* sgm);
TLResult Sgm_setPel(Sgm* sgm, Pel* pel);
TLResult Sgm_setParallelExecutor(Sgm* sgm, ParallelExecutor* executor);
// mode 0 or 1 (see above); numDisparities 1 to 128 before rounding.
// TL_ERROR_PARAM for other values or sizes below 1; TL_ERROR_MEMORY.
TLResult Sgm_init(Sgm* sgm, int32_t width, int32_t height, uint32_t numDisparities, uint32_t mode);

// Disparity maps (UINT8) of both views; either may be null. The map of the
// base view is written first, then that of the match view, each followed by
// a 3x3 median in place (where the two maps are apart, the volume's rows are
// summed and both maps' winners found in one pass before the medians: the
// same bytes, one read of the volume). fractionBits 0 to 7. Penalties in units of a 5x5
// census bit. TL_ERROR_PARAM for round8(numDisparities) above 128 or above
// the candidates of init, a bad row window, absent or mis-sized images;
// TL_ERROR_UNSUPPORTED for maps that are not UINT8, views that are not UINT8,
// a guide that is neither UINT8 nor UINT88; TL_ERROR_STATE before init.
TLResult Sgm_createDisparityU8(Sgm* sgm, Image* disparity1, Image* disparity2, const Image* view1,
                               const Image* view2, const Image* mask, const Image* guide,
                               uint32_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                               int32_t fractionBits, uint32_t smallPenalty, uint32_t largePenalty,
                               int32_t useGuide, int32_t swapped);
// The same into FLOAT maps. subPixel non-zero: the winner's value plus the
// parabola fit, in candidate units; zero: the winner's value, which when
// `swapped` is set is D + minDisparity - 1 - v.
TLResult Sgm_createDisparityF32(Sgm* sgm, Image* disparity1, Image* disparity2, const Image* view1,
                                const Image* view2, const Image* mask, const Image* guide,
                                uint32_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                                uint32_t smallPenalty, uint32_t largePenalty, int32_t useGuide,
                                int32_t swapped, int32_t subPixel);

// Left-right check of two byte maps into `confidence` (UINT8, the size of the
// maps): passValue where the base map's value u and the match map's value at
// the matched column agree within threshold << fractionBits (strictly within
// threshold when fractionBits is 0), failValue elsewhere and where the match
// falls outside the row. With `swapped` set the match map is sampled at the
// column of ceil(u) without interpolation; without it, between the columns of
// floor(u) and ceil(u). TL_ERROR_PARAM for an absent image, differing sizes or
// fractionBits above 7; TL_ERROR_UNSUPPORTED for maps that are not UINT8.
TLResult Sgm_createConfidenceU8(Sgm* sgm, Image* confidence, const Image* disparity1, const Image* disparity2,
                                uint32_t numDisparities, int8_t minDisparity, int32_t fractionBits,
                                uint32_t threshold, uint8_t failValue, uint8_t passValue, int32_t swapped);
// The same test on FLOAT maps, in candidate units; passes when the error is
// strictly below threshold.
TLResult Sgm_createConfidenceF32(Sgm* sgm, Image* confidence, const Image* disparity1,
                                 const Image* disparity2, uint32_t numDisparities, int8_t minDisparity,
                                 float threshold, uint8_t failValue, uint8_t passValue, int32_t swapped);

// The base view's map (UINT8, with subPixel fraction bits, then a 3x3
// median) and a peak-ratio confidence: 255 - floor(255 * (c1 + 1) /
// (c2 + 1)) with c1, c2 the smallest and second smallest aggregated cost
// over all candidates. Both images required.
TLResult Sgm_createDisparityAndConfidenceByPKRN(Sgm* sgm, Image* disparity, Image* confidence,
                                                const Image* view1, const Image* view2, const Image* mask,
                                                const Image* guide, uint32_t numDisparities,
                                                int8_t minDisparity, int32_t rowWindow, int32_t subPixel,
                                                uint32_t smallPenalty, uint32_t largePenalty,
                                                int32_t useGuide, int32_t swapped);

// --- Steps, callable by themselves ------------------------------------------

// Census of both views (the census of the mode) and the Hamming cost.
TLResult Sgm_computeCost(Sgm* sgm, Image* costVolume, const Image* view1, const Image* view2,
                         const Image* mask, uint8_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                         int32_t swapped);
// Aggregation in the shape of the object into `aggregated` (UINT8 only in
// the parallel shape, else UINT16), with its mirrored pads.
TLResult Sgm_aggregate(Sgm* sgm, Image* aggregated, const Image* costVolume, const Image* guide,
                       int32_t useGuide, uint8_t numDisparities, uint32_t smallPenalty,
                       uint32_t largePenalty);
// The winner kernel alone, without the median: the map of the base view
// (matchView 0) or of the match view (non-zero) from an aggregated volume
// (UINT8 or UINT16, W * (D + 2) by H, pads mirrored). map is UINT8 (with
// fractionBits) or FLOAT (with subPixel), of the size given to init.
TLResult Sgm_selectDisparity(Sgm* sgm, Image* map, const Image* aggregated, uint8_t numDisparities,
                             int8_t minDisparity, int32_t fractionBits, int32_t subPixel, int32_t swapped,
                             int32_t matchView);
// Large penalty per pixel of a W by H UINT8 image: largePenalty up to
// innerRadius and rising linearly to maxScale times it at outerRadius, with
// the radius normalised by hypot(W / 2, W / 2) and the rows stretched by W / H.
TLResult Sgm_makeRadialPenalty(Sgm* sgm, Image* penalty, uint8_t largePenalty, float maxScale,
                               float innerRadius, float outerRadius);
// dst = src with a replicated border of `border` pixels on every side; UINT8
// and UINT88 only, dst (W + 2 * border) by (H + 2 * border) of src's format.
TLResult Sgm_copyWithBorder(Image* dst, const Image* src, int32_t border);

}  // namespace vq_tl
