// Sparse warp grids. A grid is a regular lattice of vertices over a
// destination rectangle; each vertex has an integer position in the
// destination (xs, ys) and the real position in the source that it maps to
// (x, y). Renderer2 draws every cell of four neighbouring vertices as one
// quadrilateral, so a map is computed exactly only at the vertices.
//
// Threads: a grid is written by its owner; renders only read it.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "runtime/env.h"

namespace vq_tl {

// At most this many vertices per grid: 128 by 128.
constexpr int32_t kRenderer2MaxVertices = 16384;
// Cells narrower or lower than this are refused.
constexpr int32_t kRenderer2MinCellSize = 8;
// A vertex without a source position holds 2^24 in both coordinates.
constexpr double kRenderer2InvalidVertex = 16777216.0;

// A grid laid out on a destination rectangle.
struct Renderer2_Params {
    int32_t cols, rows;  // vertices across and down
    double* x;           // source position of each vertex, row by row
    double* y;
    int32_t* xs;  // destination position of each vertex
    int32_t* ys;
    Env* env;
    // The destination rectangle; right and bottom are exclusive as a
    // rectangle and yet the positions of the last vertices.
    int32_t left, top, right, bottom;
    int32_t gridWidth, gridHeight;  // cell size in pixels
};

// The same arrays without a rectangle.
struct Renderer2_GridWrapper {
    int32_t cols, rows;
    double* x;
    double* y;
    int32_t* xs;
    int32_t* ys;
    Env* env;
};

// 409600 whatever the grid: enough for the largest one.
int32_t Renderer2_Params_getBufferSize();
TLResult construct_Renderer2_Params(Renderer2_Params* params, Env* env);
TLResult destruct_Renderer2_Params(Renderer2_Params* params);
TLResult Renderer2_Params_recycle(Renderer2_Params* params);

// rect: left, top, right, bottom. Vertices stand at left, left + gridWidth,
// ... while below right, and one more at right; the same down. Cells below 8
// pixels, an empty rectangle or more than 16384 vertices give TL_ERROR_PARAM
// with the grid as it was. x and y start equal to xs and ys. A failed
// allocation gives TL_ERROR_MEMORY with cols and rows 0; what was allocated
// stays for the next init or destruct.
TLResult Renderer2_Params_initWithGridSize(Renderer2_Params* params, const int32_t rect[4], int32_t gridWidth,
                                           int32_t gridHeight);
// On (0, 0, width, height): a division below 2 is one cell of the whole
// rectangle; otherwise square cells of max((min(width, height) / division)
// with the four low bits cleared, 8). `any` must be non-null and is not used.
TLResult Renderer2_Params_init(Renderer2_Params* params, const void* any, int32_t width, int32_t height,
                               int32_t division);
// Cells of the full width; their height is the full height for a division
// below 2, else max((height / division) with the four low bits cleared, 8).
TLResult Renderer2_Params_initVertical(Renderer2_Params* params, const void* any, int32_t width,
                                       int32_t height, int32_t division);
// Square cells of `size` on (0, 0, width, height).
TLResult Renderer2_Params_initWithSize(Renderer2_Params* params, const void* any, int32_t width,
                                       int32_t height, int32_t size);
// The rule of Renderer2_Params_init on the sides of rect.
TLResult Renderer2_Params_initRect(Renderer2_Params* params, const void* any, const int32_t rect[4],
                                   int32_t division);
TLResult Renderer2_Params_initRectWithSize(Renderer2_Params* params, const void* any, const int32_t rect[4],
                                           int32_t size);
// Lays dst out again when its rectangle or cell size differ from src's,
// then copies the four arrays. A src without arrays gives TL_ERROR_PARAM.
TLResult Renderer2_Params_copy(Renderer2_Params* dst, const Renderer2_Params* src);
// x, y of every vertex = matrix applied to (xs, ys, 1), divided by the third
// component. The matrix maps destination to source.
TLResult Renderer2_Params_setMvec8Real(Renderer2_Params* params, const Mvec8Real* matrix);

// Clamps every x to [rect.left, rect.right - 2] and every y to
// [rect.top, rect.bottom - 2]; invalid vertices are clamped like any other.
TLResult Renderer2_Grid_confineWithinRect(Renderer2_Params* grid, const int32_t rect[4]);
TLResult Renderer2_Grid_confineWithinRect(Renderer2_GridWrapper* grid, const int32_t rect[4]);

// cols * rows * 24, or -1 for negative sizes or a size beyond 31 bits.
int32_t Renderer2_GridWrapper_getBufferSize(int32_t cols, int32_t rows);
TLResult construct_Renderer2_GridWrapper(Renderer2_GridWrapper* wrapper, Env* env);
TLResult destruct_Renderer2_GridWrapper(Renderer2_GridWrapper* wrapper);
TLResult Renderer2_GridWrapper_recycle(Renderer2_GridWrapper* wrapper);
// Allocates the arrays of cols by rows vertices and leaves them unfilled.
// Negative sizes: TL_ERROR_PARAM. Allocation failure: as for the params.
TLResult Renderer2_GridWrapper_init(Renderer2_GridWrapper* wrapper, int32_t cols, int32_t rows);
// cols = ceil(width / gridWidth) + 1, rows likewise; vertex (i, j) at
// (min(i * gridWidth, width), min(j * gridHeight, height)), x and y equal to
// xs and ys. Sizes below 1: TL_ERROR_PARAM.
TLResult Renderer2_GridWrapper_initWithGridSize(Renderer2_GridWrapper* wrapper, int32_t width, int32_t height,
                                                int32_t gridWidth, int32_t gridHeight);
TLResult Renderer2_GridWrapper_setMvec8Real(Renderer2_GridWrapper* wrapper, const Mvec8Real* matrix);

}  // namespace vq_tl
