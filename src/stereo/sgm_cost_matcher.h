// SgmCostMatcher: the raw matching cost of the semi-global matcher. A census
// transform of each view, then per pixel and per disparity candidate the
// Hamming distance between census words, minimised over a window of rows of
// the match view so that a vertical residual of the rectification does not
// break matching.
//
// Images: views and the 3x3 census are UINT8; the 5x5 census is INT32 with 24
// significant bits; the mask is UINT8 (0 or 255, validity of the base pixel);
// the cost volume is UINT8, W * D wide and H high, the D costs of pixel
// (x, y) at columns x * D to x * D + D - 1 of row y, slot k at x * D + k, in
// ascending order of the signed shift.
//
// Threads: each call runs 4 row bands over the Pel (or on the calling thread
// without one) and returns when they are done. The object holds no state
// beyond its references.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct SgmCostMatcher {
    Env* env;
    Pel* pel;  // not owned; null: the bands run on the calling thread
};

// Cost given to every slot of a pixel whose candidates would leave the match
// view, for both census widths; such a pixel is not masked.
constexpr uint8_t kSgmOutsideCost = 24;
// Row bands of every matcher kernel.
constexpr int32_t kSgmCostBands = 4;

int32_t SgmCostMatcher_getBufferSize();  // 0: the matcher holds no memory
TLResult construct_SgmCostMatcher(SgmCostMatcher* matcher, Env* env);
TLResult destruct_SgmCostMatcher(SgmCostMatcher* matcher);
TLResult SgmCostMatcher_recycle(SgmCostMatcher* matcher);
TLResult SgmCostMatcher_init(SgmCostMatcher* matcher);
TLResult SgmCostMatcher_setPel(SgmCostMatcher* matcher, Pel* pel);

// Census of every pixel: bit set where the neighbour is strictly greater than
// the centre, neighbours in raster order from the top left, the first in the
// highest bit. Rows and columns beyond the image repeat the nearest one.
// A view that is not UINT8 or a census of the wrong format: TL_OK, nothing
// written. TL_ERROR_PARAM for absent images or differing sizes.
TLResult SgmCostMatcher_censusTransform3x3(SgmCostMatcher* matcher, Image* census, const Image* view);
TLResult SgmCostMatcher_censusTransform5x5(SgmCostMatcher* matcher, Image* census, const Image* view);

// Fills the cost volume. swapped non-zero: census1 is the base view and the
// shift runs from 1 - (minDisparity + D) to -minDisparity; zero: census2 is
// the base view and the shift runs from minDisparity to minDisparity + D - 1.
// Slot k compares base (x, y) with match (x + dLow + k, y + j), minimised
// over j in [-rowWindow / 2, rowWindow / 2] with rows clamped to the image.
// Pixels whose candidates would leave the match view get kSgmOutsideCost in
// every slot; the others are ANDed with the mask byte when a mask is given.
// TL_ERROR_PARAM for rowWindow 0, even or above 255, numDisparities 0 or not a multiple
// of 8, absent images or sizes that do not fit; TL_OK without writing when
// census1 is neither UINT8 nor INT32.
TLResult SgmCostMatcher_calculateHammingDistance(SgmCostMatcher* matcher, Image* costVolume,
                                                 const Image* census1, const Image* census2,
                                                 const Image* mask, uint8_t numDisparities,
                                                 int8_t minDisparity, int32_t rowWindow, int32_t swapped);

}  // namespace vq_tl
