// SgmCostAggregator: the path-wise dynamic programme of semi-global matching
// over the cost volume of SgmCostMatcher.
//
// Path costs are bytes, normalised after every pixel so that the smallest is
// 0; per direction with previous pixel q of p:
//   a = min(L'(q, k - 1), L'(q, k + 1))
//   b = min(a + P1, P2(p))
//   L(p, k) = min(b, L'(q, k)) + C(p, k)
//   L'(p, k) = L(p, k) - min over k of L(p, k)
// all in 8 bits without saturation. The order (penalty, then the clamp by
// P2, then the same-disparity cost) is kept: with P2 below P1 it differs
// from the textbook form.
//
// Directions: i looks back to (x + dx[i], y + dy[i]) with
//   dx = {-1, +1, 0, 0, -1, +1, +1, -1}, dy = {0, 0, -1, +1, -1, +1, -1, +1}.
// 4 paths are directions 0 to 3, 8 paths all. Even directions scan from the
// top left, odd ones from the bottom right.
//
// Path work image (UINT8, owned by the caller): one plane per direction,
// each H + 2 rows high and (W + 2) * (D + 1) + 1 bytes wide, plane i from row
// (H + 1) * i, so that neighbouring planes share a border row. Pixel (x, y)
// has its D path costs at row y + 1 of its plane from byte
// (x + 1) * (D + 1) + 1; the byte before them is a separator. The image is
// cleared to 0 and every (D + 1)-th byte from byte 0 set to 255 before first
// use (SgmCostAggregator_preparePathCosts): the separators are infinity for
// the outer neighbours of slots 0 and D - 1, and the border pixels, never
// written, are the all-zero start of every path. Aggregation leaves borders
// and separators as they are.
//
// Aggregated volume: W * (D + 2) by H, UINT16 (UINT8 only from the summing of
// 4 planes); pixel x has entries x * (D + 2) to x * (D + 2) + D + 1, slot k at
// entry k + 1, and the pads mirrored: entry 0 equals entry 2 and entry D + 1
// equals entry D - 1.
//
// Guide: UINT88 (the chroma pair, g = (|dU| + |dV|) >> 1) or UINT8 (g = the
// absolute difference), with a replicated border of 1 pixel, (W + 2) by
// (H + 2). With a guide the large penalty of p in a direction is
//   max(round(P2 / (1 + g)), P1 + 1)
// with g taken between p and its previous pixel, and P2 the constant or the
// penalty image's byte at p. guide and rowPenalty are given or absent
// together. rowPenalty is UINT8 scratch: W by numPaths (parallel shape; row i
// for direction i), W * numPaths by 1 (2-way shape; segment i for direction
// i), W * 4 by 1 (serial shape; segment j for the j-th direction of a pass).
//
// The three shapes give the same aggregated volume for the same inputs:
// parallel (one Pel task per direction, each over its own plane, summed
// afterwards with SgmCostAggregator_sumPaths), 2-way (a forward and a backward
// Pel task, each keeping two rows per direction) and serial (both passes on
// the calling thread). The 2-way and serial shapes keep direction j's two
// rows at rows 2 * j and 2 * j + 1 of the path work image, which must be
// prepared before each call.
//
// Results: TL_ERROR_PARAM for numPaths other than 4 or 8, numDisparities 0 or
// not a multiple of 8, absent images, or sizes and formats that do not fit;
// TL_ERROR_UNSUPPORTED for 16 paths (not built: no caller asks for it) and an
// aggregated volume that is not UINT16 in the 2-way and serial shapes;
// TL_ERROR_STATE before SgmCostAggregator_init; TL_OK with nothing computed
// for a guide that is neither UINT8 nor UINT88.
//
// Threads: one caller per object; the parallel shapes block until their tasks
// are done, and a task writes only its own plane or volume and its own part
// of rowPenalty.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct SgmCostAggregator {
    Env* env;
    Pel* pel;  // not owned; null: tasks run on the calling thread
    uint32_t width;
    uint32_t height;
};

constexpr int32_t kSgmMaxPaths = 8;

int32_t SgmCostAggregator_getBufferSize();  // 0: every image is the caller's
TLResult construct_SgmCostAggregator(SgmCostAggregator* aggregator, Env* env);
TLResult destruct_SgmCostAggregator(SgmCostAggregator* aggregator);
TLResult SgmCostAggregator_recycle(SgmCostAggregator* aggregator);
// width and height of the views, at least 1 each.
TLResult SgmCostAggregator_init(SgmCostAggregator* aggregator, uint32_t width, uint32_t height);
TLResult SgmCostAggregator_setPel(SgmCostAggregator* aggregator, Pel* pel);

// Bytes of one row of the path work image: (width + 2) * (D + 1) + 1.
int32_t SgmCostAggregator_getPathCostsWidth(int32_t width, int32_t numDisparities);
// Clears every row of pathCosts to 0 and sets every (D + 1)-th byte from
// byte 0 to 255, in 4 bands over pel. TL_ERROR_PARAM for an absent or
// non-UINT8 image, or a width that is not that of the layout for D.
TLResult SgmCostAggregator_preparePathCosts(Pel* pel, Image* pathCosts, int32_t numDisparities);

TLResult SgmCostAggregator_aggregateParallel(SgmCostAggregator* aggregator, Image* pathCosts,
                                             const Image* costVolume, const Image* guide, Image* rowPenalty,
                                             uint8_t numDisparities, uint8_t smallPenalty,
                                             uint8_t largePenalty, uint8_t numPaths);
TLResult SgmCostAggregator_aggregateParallelVariablePenalty(SgmCostAggregator* aggregator, Image* pathCosts,
                                                            const Image* costVolume, const Image* guide,
                                                            uint8_t smallPenalty, const Image* penaltyImage,
                                                            Image* rowPenalty, uint8_t numDisparities,
                                                            uint8_t numPaths);
// With 8 paths the forward task sets `aggregated` and the backward task sets
// `secondVolume` (UINT16, the size of `aggregated`), which the caller adds;
// with 4 paths one task does all and `secondVolume` may be null.
TLResult SgmCostAggregator_aggregate2wayParallel(SgmCostAggregator* aggregator, Image* aggregated,
                                                 Image* secondVolume, const Image* costVolume,
                                                 const Image* guide, Image* pathCosts, Image* rowPenalty,
                                                 uint8_t numDisparities, uint8_t smallPenalty,
                                                 uint8_t largePenalty, uint8_t numPaths);
TLResult SgmCostAggregator_aggregateSerial(SgmCostAggregator* aggregator, Image* aggregated,
                                           const Image* costVolume, const Image* guide, Image* pathCosts,
                                           Image* rowPenalty, uint8_t numDisparities, uint8_t smallPenalty,
                                           uint8_t largePenalty, uint8_t numPaths);
TLResult SgmCostAggregator_aggregateSerialVariablePenalty(SgmCostAggregator* aggregator, Image* aggregated,
                                                          const Image* costVolume, const Image* guide,
                                                          Image* pathCosts, uint8_t smallPenalty,
                                                          const Image* penaltyImage, Image* rowPenalty,
                                                          uint8_t numDisparities, uint8_t numPaths);

// Sums the numPaths planes left by the parallel shape into `aggregated` and
// writes its mirrored pads, in 4 bands over the aggregator's Pel. UINT8
// sums wrap at 8 bits, UINT16 sums at 16.
TLResult SgmCostAggregator_sumPaths(SgmCostAggregator* aggregator, Image* aggregated, const Image* pathCosts,
                                    uint8_t numDisparities, uint8_t numPaths);

// The sums of SgmCostAggregator_sumPaths row by row, for a driver that uses
// each row right after it is made, while it is in cache: initPathSum checks
// as sumPaths does (same codes) and fills `sum`; sumPathRows then writes
// rows y0 to y1 - 1 on the calling thread (any threads, disjoint rows).
struct AggregationPlaneSum;
struct SgmPathSum {
    uint8_t* out;
    int32_t outPitch;
    const uint8_t* path;
    int32_t pathPitch;
    int32_t width, height, numDisparities, numPaths;
    void (*fn)(const AggregationPlaneSum* row);
};
TLResult SgmCostAggregator_initPathSum(const SgmCostAggregator* aggregator, SgmPathSum* sum,
                                       Image* aggregated, const Image* pathCosts, uint8_t numDisparities,
                                       uint8_t numPaths);
void SgmCostAggregator_sumPathRows(const SgmPathSum* sum, int32_t y0, int32_t y1);
// Row y's sums into `out` (a row of the volume's width and format) instead.
void SgmCostAggregator_sumPathRow(const SgmPathSum* sum, int32_t y, void* out);

}  // namespace vq_tl
