// DepthMapRefiner: lifts a coarse disparity map to the size of its guide
// picture level by level. Between the map's size and the output's it builds
// a pyramid of levels, each about half the one above; from the coarsest level
// up it runs one edge-preserving filter per level under the guide of that
// level, then doubles the size for the next.
//
// Filter kinds (fixed at init): 0 SeparableBilateralFilter. Kinds 1 to 4
// (bilateral, guided, cross-based local, domain transform) have their place
// in the table of kinds but no filter yet: init takes them, so that an owner
// can be set up for them, and the filter calls answer TL_ERROR_UNSUPPORTED.
//
// Guide modes: 1 the luma of a YUV or UINT8 guide; 2 the chroma plane of a
// semi-planar 4:2:0 guide (27, 29) as UINT88; 3 RGB888 converted from a
// 4:2:0 guide (26, 27, 29). A guide not of the output's size is resized to it.
//
// Pyramid: level 0 has the output's size (W, H); level l > 0 the size
// ((W + 2^(l+1) - 2) >> l, likewise for H) with bit 0 cleared, raised to the
// map's size; the first level at or below the map's size in either direction
// is the coarsest, at most 10 levels. The coarsest level filters with a
// window of 31, the others with the caller's window; sigmaSpace shrinks by
// sqrt(2) per level (less than the size does, so coarse levels smooth
// relatively more), sigmaRange is the same on every level.
//
// Threads: one caller at a time. The filters and the guide reductions run on
// the Pel, the resizes on the executor; each call returns when all is done.
#pragma once

#include <cstdint>

#include "depth/separable_bilateral_filter.h"
#include "image/image.h"
#include "imageproc/image_proc.h"
#include "runtime/env.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

namespace vq_tl {

constexpr int32_t kDepthMapRefinerMaxLevels = 10;
constexpr int32_t kDepthMapRefinerMaxWindow = 31;

struct DepthMapRefiner {
    Env* env;
    ParallelExecutor* parallelExecutor;  // not owned
    Pel* pel;                            // not owned
    ImageProc imageProc;
    SeparableBilateralFilter separable;
    int32_t filterKind;  // -1 until init
    Image work;          // (width, height) in the guide format given at init
    int32_t width, height;
    uint32_t mapFormat;
};

// Level sizes for an output of (width, height) and a map of (mapWidth,
// mapHeight): writes sizes[l][0..1] and returns the level count, 1 to 10;
// 0 for sizes below 1.
int32_t DepthMapRefiner_getLevelSizes(int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight,
                                      int32_t sizes[kDepthMapRefinerMaxLevels][2]);

// Memory of init and of one call, for planning: the executor kernels' work,
// the work image, the converted guide, and per level the map buffer (with 15
// pixels of room on two sides), its weight buffer and the level's guide; a
// kind without a filter counts none. -1 for bad sizes, a format without
// kernels or a kind outside 0 to 4.
int32_t DepthMapRefiner_getBufferSize(int32_t width, int32_t height, int32_t smallWidth, int32_t smallHeight,
                                      int32_t guideWidth, int32_t guideHeight, uint32_t mapFormat,
                                      uint32_t guideFormat, int32_t filterKind);
TLResult construct_DepthMapRefiner(DepthMapRefiner* self, Env* env);
TLResult destruct_DepthMapRefiner(DepthMapRefiner* self);
TLResult DepthMapRefiner_recycle(DepthMapRefiner* self);
TLResult DepthMapRefiner_setPel(DepthMapRefiner* self, Pel* pel);
TLResult DepthMapRefiner_setParallelExecutor(DepthMapRefiner* self, ParallelExecutor* executor);
// (width, height): the largest output; mapFormat UINT8 or FLOAT. The small
// and guide sizes are for planning only. TL_ERROR_PARAM for sizes below 1,
// TL_ERROR_UNSUPPORTED for another map format or a kind outside 0 to 4,
// TL_ERROR_MEMORY when the work image cannot be had.
TLResult DepthMapRefiner_init(DepthMapRefiner* self, int32_t width, int32_t height, int32_t smallWidth,
                              int32_t smallHeight, int32_t guideWidth, int32_t guideHeight,
                              uint32_t mapFormat, uint32_t guideFormat, int32_t filterKind);

// out: the refined map, at most init's size, in init's map format, as map.
// window 0 to 31, guideMode 1 to 3. TL_ERROR_STATE before init;
// TL_ERROR_UNSUPPORTED for a kind without a filter; TL_ERROR_PARAM for absent images, a window or guide mode
// out of range, formats that differ from init's or an output larger than init's; TL_ERROR_UNSUPPORTED for a
// guide the mode can't read; TL_ERROR_MEMORY for the level buffers. out is written only once every check has
// passed; the first failing step's code is returned.
TLResult DepthMapRefiner_crossFilter(DepthMapRefiner* self, Image* out, const Image* map, const Image* guide,
                                     int32_t window, int32_t guideMode, float sigmaSpace, float sigmaRange);
// The same with a UINT8 weight per map pixel (map and weight of one size,
// map UINT8): the levels below the finest filter values with their weights,
// carried up with the values; the finest level is the plain filter.
TLResult DepthMapRefiner_weightedCrossFilter(DepthMapRefiner* self, Image* out, const Image* map,
                                             const Image* weight, const Image* guide, int32_t window,
                                             int32_t guideMode, float sigmaSpace, float sigmaRange);

// Doubles a UINT8 or FLOAT map: along x, d[0] = s[0], d[2i + 1] = 0.75 s[i]
// + 0.25 s[i + 1], d[2i + 2] = 0.25 s[i] + 0.75 s[i + 1], and for an even
// width the last column copies s[min(dw / 2, sw) - 1]; rows the same way.
// UINT8 rounds once, after both directions. Another format does nothing.
TLResult DepthMapRefiner_upsample2x(DepthMapRefiner* self, Image* dst, const Image* src);

}  // namespace vq_tl
