// Renderer2: warps an image through a sparse grid (renderer2_params.h). Every
// cell of the grid is drawn as one quadrilateral by one of three kernels of
// the destination's format, chosen by the cell's shape
// (renderer2_kernels.h), so that the common near-identity cell costs little
// more than a resampled copy. The rectified pair, the warped depth map and
// the masks of the depth pipeline are all made here.
//
// Threads: a render blocks until every cell is drawn. Cells run as one Pel
// task each, as bands of cell rows forked on a ParallelExecutor, or in order
// on the calling thread. Cells write disjoint bytes when cell heights are
// even (and, in the 4:2:0 and 4:2:2 layouts, widths are even too); a pair of
// rows that starts on a cell's last row writes its second row into the
// cell below. The object has no lock: one render at a time per object.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "image/image.h"
#include "rectify/renderer2_kernels.h"
#include "rectify/renderer2_params.h"
#include "runtime/pel.h"

namespace vq_tl {

struct ParallelExecutor;

enum : int32_t {
    RENDERER2_MODE_DEFAULT = 0,
    RENDERER2_MODE_HIGH_QUALITY = 1,  // chroma sampled at the rounded centre
    RENDERER2_MODE_NEAREST = 2,       // 4:2:0 semi-planar only
    RENDERER2_MODE_COPY = 3,          // 4:2:0: rows copied from the cell's left edge
};

struct Renderer2 {
    Env* env;
    ParallelExecutor* parallelExecutor;  // at most one of the two is set;
    Pel* pel;                            // neither: cells run on the calling thread
    Renderer2_Params params;             // the grid of the matrix entry points
    // The destination that the kernels were selected for; 0 at first.
    int32_t width, height;
    uint32_t format;
    int32_t dstLeft, dstTop, dstRight, dstBottom;  // the whole destination
    int32_t srcLeft, srcTop, srcRight, srcBottom;  // the source that vertices are tested against
    int32_t division;                              // grid divisor of the matrix entry points; 16
    int32_t mode;                                  // RENDERER2_MODE_*
    int32_t boundaryCheck;                         // 0 or 1
    // Deviations from a parallelogram and from level rows, in pixels of a
    // 128-pixel cell, below which the cheaper kernels are taken.
    double parallelThreshold, rotationThreshold;
    Renderer2_DrawFn drawRect, drawRectParallel, drawRectNoRot;
};

// The argument of the per-cell function: cells count * index up to
// count * index + count - 1.
struct Renderer2_KernelArg {
    Renderer2* renderer;
    const Renderer2_Params* params;
    Image* dst;
    const Image* src;
    int32_t count;
};

int32_t Renderer2_getBufferSize();
// Zero-fills, constructs the embedded grid, division 16; no kernels yet.
TLResult construct_Renderer2(Renderer2* renderer, Env* env);
TLResult destruct_Renderer2(Renderer2* renderer);

// Both set the thresholds to 0.5 and choose the parallel layer, clearing the
// other one; a null layer runs cells on the calling thread. One of them
// comes before the first render.
TLResult Renderer2_init(Renderer2* renderer, ParallelExecutor* parallelExecutor);
TLResult Renderer2_initWithPel(Renderer2* renderer, Pel* pel);

// Stores the mode and, once a destination is known, selects the kernels
// again: TL_ERROR_UNSUPPORTED when the known format has no kernel for it,
// and the renders refuse until the mode or the destination changes.
TLResult Renderer2_setMode(Renderer2* renderer, int32_t mode);
TLResult Renderer2_setBoundaryCheck(Renderer2* renderer, int32_t flag);

// The kernels of the stored format and mode, or TL_ERROR_UNSUPPORTED with
// none selected:
//   16, 17 YUYV, YVYU; 20, 21 VYUY, UYVY; 24 YUV422_PLANAR; 60 UINT8: any mode;
//   26 YUV420_PLANAR: modes 0, 1, 3;  27, 29 the semi-planar 4:2:0: modes 0 to 3.
TLResult Renderer2_selectKernels(Renderer2* renderer);

// Draws every cell of params from src into dst. dst and src must be of one
// format, with planes (TL_ERROR_PARAM otherwise); a grid of more than 16384
// vertices or without arrays is TL_ERROR_PARAM. Cells are skipped, their
// destination untouched, when:
//  - boundary check 0: a vertex lies outside the closed source rectangle;
//  - boundary check 1: a coordinate is 16777216.0 or more (or not a number),
//    or no vertex lies inside the closed source rectangle; rows are then
//    trimmed to the part that maps inside the source;
//  - the cell's rectangle is empty or not inside the destination.
// A format or mode without kernels: TL_ERROR_UNSUPPORTED, nothing drawn.
TLResult Renderer2_render(Renderer2* renderer, Image* dst, const Image* src, const Renderer2_Params* params);
// The matrix maps destination to source. The embedded grid is laid out again
// (Renderer2_Params_init at `division`) when the destination changed.
TLResult Renderer2_renderWithMvec8Real(Renderer2* renderer, Image* dst, const Image* src,
                                       const Mvec8Real* matrix);
// An affine map in Q15 (scales 32768 = 1.0, translations in Q15 pixels).
TLResult Renderer2_renderWithMvec6F32(Renderer2* renderer, Image* dst, const Image* src,
                                      const Mvec6F32* matrix);

// For callers that run cells on their own schedule: fills arg (with the
// same checks and kernel selection as a render) for `count` cells per index;
// the cells are (params->cols - 1) * (params->rows - 1) in row order.
TLResult Renderer2_getKernelArg(Renderer2* renderer, Renderer2_KernelArg* arg, Image* dst, const Image* src,
                                const Renderer2_Params* params, int32_t count);
// The Pel descriptor of Renderer2_drawCells (one index per call); null for a
// null renderer.
const PelKernel* Renderer2_getKernel(const Renderer2* renderer);
PelIndexFunction Renderer2_getKernelFunc(const Renderer2* renderer);
// Draws cells count * index to count * index + count - 1 of arg (a
// Renderer2_KernelArg); a cell past the last ends the run, and so does a
// kernel's failure, which is returned. context may be null.
uint32_t Renderer2_drawCells(void* arg, int32_t index, PelWorkInfo* context);

}  // namespace vq_tl
