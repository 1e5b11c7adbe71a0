// The per-cell kernels of the grid warp, one family per pixel layout. Each
// family draws one quadrilateral cell of a grid in three ways:
//  - drawRectNoRot: the source quadrilateral is an axis-aligned
//    parallelogram; the source row does not change along a destination row.
//  - drawRectParallel: any parallelogram; steps along a row are constant.
//  - drawRect: any quadrilateral; the steps change from pair to pair of rows.
//
// Fixed point throughout: source positions in Q15 (value * 32768, truncated
// toward zero), 16 sub-pixel phases on each axis, two destination rows per
// pass. Luma is bilinear with 4-bit weights; chroma is taken from one sample,
// never interpolated. The second row of a pair reuses the first row's source
// column and weights one source row lower: the warp assumes unit vertical
// scale within a pair.
//
// Pixels are done in groups of 8 with rounding, and the rest of a row one by
// one without the rounding term and with the source column limited to
// width - 2: a pixel's rounding depends on whether it fell in a group.
//
// Kernels trust their caller (Renderer2_drawCells): both images of one
// format, the cell inside the destination, vertices finite and within 16384
// pixels of the origin. A cell that breaks these is left undrawn. Kernels do
// not fail. Source reads are always clamped to the source.
#pragma once

#include <cstdint>

#include "image/image.h"

namespace vq_tl {

// One cell of a grid.
struct Renderer2_DrawArg {
    Image* dst;
    const Image* src;
    // Source x and y of the top-left, top-right, bottom-left and bottom-right
    // vertices: xTL, yTL, xTR, yTR, xBL, yBL, xBR, yBR.
    const double* vertices;
    const int32_t* rect;    // the cell in the destination: left, top, right, bottom
    int32_t boundaryCheck;  // 1: rows are trimmed to what lies inside the source
};

using Renderer2_DrawFn = TLResult (*)(const Renderer2_DrawArg* arg);

// Vertices farther than this from the origin leave the cell undrawn: Q15
// positions and their steps must fit 32 bits.
constexpr double kRenderer2MaxCoordinate = 16384.0;

// UINT8 (60).
TLResult Renderer2_Uint8_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Uint8_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Uint8_drawRectNoRot(const Renderer2_DrawArg* arg);

// YUV420_PLANAR (26): chroma at (px >> 16, py >> 16), or HQ, rounded at the
// centre of the sample pair: ((px + dx / 2 + 16384) >> 16,
// (py + yStep / 4 + 16384) >> 16).
TLResult Renderer2_Yuv420Planar_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420Planar_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420Planar_drawRectNoRot(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420PlanarHQ_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420PlanarHQ_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420PlanarHQ_drawRectNoRot(const Renderer2_DrawArg* arg);

// YUV420_SEMIPLANAR and YVU420_SEMIPLANAR (27, 29): a U,V byte pair from
// byte column (px >> 15) with bit 0 cleared and row py >> 16; HQ as for the
// planar layout; NN takes HQ's chroma and the nearest luma sample.
TLResult Renderer2_Yuv420Semiplanar_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420Semiplanar_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420Semiplanar_drawRectNoRot(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarHQ_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarHQ_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarHQ_drawRectNoRot(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarNN_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarNN_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420SemiplanarNN_drawRectNoRot(const Renderer2_DrawArg* arg);

// Copy mode of the 4:2:0 layouts: each pair of rows is copied from the
// source position of the cell's left edge, luma from (x >> 15, y >> 15) and
// the row below, chroma from (x >> 16, y >> 16). The same for all three shapes.
TLResult Renderer2_Yuv420Planar_drawRectMemcpy(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv420Semiplanar_drawRectMemcpy(const Renderer2_DrawArg* arg);

// Interleaved 4:2:2: YUYV and YVYU (16, 17) carry luma in even bytes, VYUY
// and UYVY (20, 21) in odd bytes. Luma is bilinear on every second byte;
// the chroma bytes of a macro-pixel come from byte offset
// ((px + dx / 2 + 16384) >> 14) with the two low bits cleared, on the luma
// row of each output row.
TLResult Renderer2_Yuv422Yuyv_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Yuyv_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Yuyv_drawRectNoRot(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Uyvy_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Uyvy_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Uyvy_drawRectNoRot(const Renderer2_DrawArg* arg);

// YUV422_PLANAR (24): every shape takes the general kernel; chroma from
// column px >> 16 on the luma row of each output row.
TLResult Renderer2_Yuv422Planar_drawRect(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Planar_drawRectParallel(const Renderer2_DrawArg* arg);
TLResult Renderer2_Yuv422Planar_drawRectNoRot(const Renderer2_DrawArg* arg);

}  // namespace vq_tl
