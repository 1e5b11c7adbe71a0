#include "rectify/renderer2_kernels.h"

#include <cstring>

#include "rectify/warp_kernels.h"

namespace vq_tl {

namespace {

enum class Shape { NoRot, Parallel, General };
enum class Chroma { None, Planar420, Semiplanar420, Interleaved422, Planar422 };

// What tells one family from another: where its chroma lives and how it is
// sampled, and where luma sits in a row.
template <Chroma C, bool Hq, bool Nearest, int LumaOffset = 0>
struct Family {
    static constexpr Chroma kChroma = C;
    static constexpr bool kHq = Hq;            // chroma sampled at the rounded centre
    static constexpr bool kNearest = Nearest;  // luma from the nearest sample
    static constexpr int kLumaStride = C == Chroma::Interleaved422 ? 2 : 1;
    static constexpr int kLumaOffset = LumaOffset;
    static constexpr int kChromaOffset = 1 - LumaOffset;  // interleaved layouts only
};

using Uint8 = Family<Chroma::None, false, false>;
using Yuv420Planar = Family<Chroma::Planar420, false, false>;
using Yuv420PlanarHQ = Family<Chroma::Planar420, true, false>;
using Yuv420Semiplanar = Family<Chroma::Semiplanar420, false, false>;
using Yuv420SemiplanarHQ = Family<Chroma::Semiplanar420, true, false>;
using Yuv420SemiplanarNN = Family<Chroma::Semiplanar420, true, true>;
using Yuv422Yuyv = Family<Chroma::Interleaved422, false, false, 0>;
using Yuv422Uyvy = Family<Chroma::Interleaved422, false, false, 1>;
using Yuv422Planar = Family<Chroma::Planar422, false, false>;

constexpr double kQ15 = 32768.0;
constexpr double kQ31 = 2147483648.0;
// Groups of 8 only while the 8 lanes stay within the reach of one load:
// dx * 8 below 15 pixels, |dy| below a quarter pixel per pixel, and (checked
// by the group kernel, warp_kernels.h) the last lane at most 11 pixels right
// of the group's first column.
constexpr int32_t kGroupMaxDx = 491520 / 8;
constexpr int32_t kGroupMaxDy = 8192;

inline int32_t clampInt(int32_t v, int32_t low, int32_t high) {
    return v < low ? low : (v > high ? high : v);
}

// Value times 32768, truncated toward zero.
inline int32_t toQ15(double v) { return static_cast<int32_t>(v * kQ15); }

struct Cell {
    int32_t L, T, R, B;
    int32_t xq, yq;        // Q15 source position of the left end of the current pair
    int32_t xStep, yStep;  // change of the left end per pair of rows, Q15
    int32_t dx, dy;        // Q15 steps along a row; drawRect changes them per pair
    int64_t dx31, dy31;    // drawRect: the steps in Q31
    int64_t dx31Step, dy31Step;
};

bool setUpCell(const Renderer2_DrawArg* a, Shape shape, Cell* c) {
    const int32_t* rect = a->rect;
    c->L = rect[0];
    c->T = rect[1];
    c->R = rect[2];
    c->B = rect[3];
    if (c->R <= c->L || c->B <= c->T) return false;
    if (c->L < 0 || c->T < 0 || c->R > a->dst->width || c->B > a->dst->height) return false;
    const double* v = a->vertices;
    for (int i = 0; i < 8; ++i) {
        if (!(v[i] > -kRenderer2MaxCoordinate && v[i] < kRenderer2MaxCoordinate)) return false;
    }
    const double xTL = v[0], yTL = v[1], xTR = v[2], yTR = v[3], xBL = v[4], yBL = v[5], xBR = v[6];
    const int32_t w = c->R - c->L, h = c->B - c->T;
    c->xq = toQ15(xTL);
    c->yq = toQ15(yTL);
    c->xStep = static_cast<int32_t>(2 * (int64_t{toQ15(xBL)} - c->xq) / h);
    c->yStep = static_cast<int32_t>(2 * (int64_t{toQ15(yBL)} - c->yq) / h);
    c->dx = static_cast<int32_t>((xTR - xTL) * kQ15 / w);
    c->dy = shape == Shape::NoRot ? 0 : static_cast<int32_t>((yTR - yTL) * kQ15 / w);
    if (shape == Shape::General) {
        const double yBR = v[7];
        c->dx31 = static_cast<int64_t>((xTR - xTL) * kQ31 / w);
        c->dy31 = static_cast<int64_t>((yTR - yTL) * kQ31 / w);
        const int64_t dxBottom = static_cast<int64_t>((xBR - xBL) * kQ31 / w);
        const int64_t dyBottom = static_cast<int64_t>((yBR - yBL) * kQ31 / w);
        c->dx31Step = 2 * (dxBottom - c->dx31) / h;
        c->dy31Step = 2 * (dyBottom - c->dy31) / h;
    }
    return true;
}

// The Q15 steps of the current pair of rows from the Q31 ones. dy rounds
// negative values up by adding 65536 first (so -65536 becomes 0, not -1).
inline void generalSteps(Cell* c) {
    c->dx = static_cast<int32_t>(c->dx31 >> 16);
    c->dy = static_cast<int32_t>((c->dy31 < 0 ? c->dy31 + 65536 : c->dy31) >> 16);
}

struct Planes {
    const uint8_t* src[3];
    int32_t srcPitch[3];
    uint8_t* dst[3];
    int32_t dstPitch[3];
    int32_t srcW, srcH;  // luma samples
    int32_t dstW, dstH;
};

Planes planesOf(const Renderer2_DrawArg* a) {
    Planes p;
    for (int k = 0; k < 3; ++k) {
        p.src[k] = a->src->plane[k];
        p.srcPitch[k] = a->src->pitch[k];
        p.dst[k] = a->dst->plane[k];
        p.dstPitch[k] = a->dst->pitch[k];
    }
    p.srcW = a->src->width;
    p.srcH = a->src->height;
    p.dstW = a->dst->width;
    p.dstH = a->dst->height;
    return p;
}

template <class F>
struct Luma {
    const Planes& p;

    const uint8_t* row(int32_t r) const {
        return p.src[0] + intptr_t{p.srcPitch[0]} * clampInt(r, 0, p.srcH - 1) + F::kLumaOffset;
    }
    uint8_t* dstRow(int32_t y) const { return p.dst[0] + intptr_t{p.dstPitch[0]} * y + F::kLumaOffset; }
    // (16 - wx) * a(c) + wx * a(c + 1), both columns kept inside the row.
    int32_t h(const uint8_t* s, int32_t col, int32_t wx) const {
        const int32_t c0 = clampInt(col, 0, p.srcW - 1);
        const int32_t c1 = clampInt(col + 1, 0, p.srcW - 1);
        return (16 - wx) * s[c0 * F::kLumaStride] + wx * s[c1 * F::kLumaStride];
    }
};

// One pair of destination rows of one cell, after trimming: [lx, rx) on
// row y (and y + 1 when it exists). Positions of pixel x are
// xq + (x - L) * dx and yq + (x - L) * dy.
struct PairRow {
    int32_t y, lx, rx;
    bool second;
    int32_t xq, yq, dx, dy, yStep;
    int32_t L;
    int32_t px(int32_t x) const { return xq + (x - L) * dx; }
    int32_t py(int32_t x) const { return yq + (x - L) * dy; }
};

// A pixel outside the groups: exact Q15 position, the column limited to
// width - 2, and the sum shifted without the rounding term.
template <class F>
void drawTailPixel(const Luma<F>& luma, const PairRow& pr, int32_t x, uint8_t* d1, uint8_t* d2) {
    const int32_t px = pr.px(x), py = pr.py(x);
    int32_t col = px >> 15;
    col = col < luma.p.srcW - 2 ? col : luma.p.srcW - 2;
    col = col > 0 ? col : 0;
    const int32_t wx = (px >> 11) & 15;
    const int32_t r = py >> 15, wy = (py >> 11) & 15;
    const int32_t h0 = luma.h(luma.row(r), col, wx);
    const int32_t h1 = luma.h(luma.row(r + 1), col, wx);
    d1[x * F::kLumaStride] = static_cast<uint8_t>(((16 - wy) * h0 + wy * h1) >> 8);
    if (d2 != nullptr) {
        const int32_t h2 = luma.h(luma.row(r + 2), col, wx);
        d2[x * F::kLumaStride] = static_cast<uint8_t>(((16 - wy) * h1 + wy * h2) >> 8);
    }
}

template <class F, Shape S>
void drawLumaBilinear(const Planes& p, const Cell& c, const PairRow& pr) {
    const Luma<F> luma{p};
    uint8_t* d1 = luma.dstRow(pr.y);
    uint8_t* d2 = pr.second ? luma.dstRow(pr.y + 1) : nullptr;
    // The grid's last cell keeps its groups 16 pixels from the end, so that
    // a vector form never touches memory past the last row.
    const bool lastCell = c.B >= p.dstH && c.R >= p.dstW;
    const int32_t groupEnd = pr.rx - (lastCell ? 16 : 8);
    int32_t x = pr.lx;
    if (pr.dx >= 0 && pr.dx < kGroupMaxDx && pr.dy > -kGroupMaxDy && pr.dy < kGroupMaxDy && x <= groupEnd) {
        const WarpLumaRow row{p.src[0] + F::kLumaOffset,
                              p.srcPitch[0],
                              p.srcW,
                              p.srcH,
                              F::kLumaStride,
                              d1,
                              d2,
                              pr.xq,
                              pr.yq,
                              pr.dx,
                              pr.dy,
                              pr.L};
        x = WarpKernels_get()->groups(&row, x, groupEnd);
    }
    for (; x < pr.rx; ++x) drawTailPixel(luma, pr, x, d1, d2);
}

template <class F>
void drawLumaNearest(const Planes& p, const PairRow& pr) {
    const Luma<F> luma{p};
    uint8_t* d1 = luma.dstRow(pr.y);
    uint8_t* d2 = pr.second ? luma.dstRow(pr.y + 1) : nullptr;
    for (int32_t x = pr.lx; x < pr.rx; ++x) {
        const int32_t px = pr.px(x), py = pr.py(x);
        const int32_t col = clampInt((px + 16384) >> 15, 0, p.srcW - 1) * F::kLumaStride;
        d1[x * F::kLumaStride] = luma.row((py + 16384) >> 15)[col];
        if (d2 != nullptr) d2[x * F::kLumaStride] = luma.row((py + pr.yStep / 2 + 16384) >> 15)[col];
    }
}

// Chroma of one pair of rows: one sample per two destination pixels, from
// the source position of the even pixel of each pair; the semi-planar
// layouts through the warp kernels' table.
template <class F>
void drawChroma(const Planes& p, const PairRow& pr) {
    const int32_t srcCw = (p.srcW + 1) >> 1, srcCh = (p.srcH + 1) >> 1;
    if (F::kChroma == Chroma::Semiplanar420) {
        const WarpChromaRow row{p.src[1],
                                p.srcPitch[1],
                                srcCw,
                                srcCh,
                                p.dst[1] + intptr_t{p.dstPitch[1]} * (pr.y >> 1),
                                pr.xq,
                                pr.yq,
                                pr.dx,
                                pr.dy,
                                pr.L,
                                F::kHq ? pr.dx / 2 + 16384 : 0,
                                F::kHq ? pr.yStep / 4 + 16384 : 0};
        WarpKernels_get()->chroma(&row, pr.lx & ~1, pr.rx);
        return;
    }
    for (int32_t x = pr.lx & ~1; x < pr.rx; x += 2) {
        const int32_t px = pr.px(x), py = pr.py(x);
        // The HQ sampling point is the centre of the destination pixel pair,
        // rounded; the plain one truncates.
        const int32_t cx = F::kHq ? px + pr.dx / 2 + 16384 : px;
        if (F::kChroma == Chroma::Planar420) {
            const int32_t row = clampInt((F::kHq ? py + pr.yStep / 4 + 16384 : py) >> 16, 0, srcCh - 1);
            const intptr_t dstRow = intptr_t{pr.y >> 1};
            const int32_t col = clampInt(cx >> 16, 0, srcCw - 1);
            for (int k = 1; k < 3; ++k) {
                p.dst[k][p.dstPitch[k] * dstRow + (x >> 1)] = p.src[k][intptr_t{p.srcPitch[k]} * row + col];
            }
        } else if (F::kChroma == Chroma::Interleaved422) {
            const int32_t byte = clampInt(((px + pr.dx / 2 + 16384) >> 14) & ~3, 0, 4 * (srcCw - 1));
            const int32_t row = py >> 15;
            for (int32_t j = 0; j < (pr.second ? 2 : 1); ++j) {
                const uint8_t* s = p.src[0] + intptr_t{p.srcPitch[0]} * clampInt(row + j, 0, p.srcH - 1) +
                                   byte + F::kChromaOffset;
                uint8_t* d = p.dst[0] + intptr_t{p.dstPitch[0]} * (pr.y + j) + 2 * x + F::kChromaOffset;
                d[0] = s[0];
                d[2] = s[2];
            }
        } else if (F::kChroma == Chroma::Planar422) {
            const int32_t col = clampInt(px >> 16, 0, srcCw - 1);
            const int32_t row = py >> 15;
            for (int32_t j = 0; j < (pr.second ? 2 : 1); ++j) {
                const int32_t srcRow = clampInt(row + j, 0, p.srcH - 1);
                for (int k = 1; k < 3; ++k) {
                    p.dst[k][intptr_t{p.dstPitch[k]} * (pr.y + j) + (x >> 1)] =
                        p.src[k][intptr_t{p.srcPitch[k]} * srcRow + col];
                }
            }
        }
    }
}

// Moves the ends of a pair's row inwards, two pixels at a time, until both
// map inside the source: x from 0 to width - 2, y from 0 to height - 2.
void trimRow(const Planes& p, PairRow* pr) {
    const int64_t xMax = int64_t{p.srcW} * 32768 - 65536;
    const int64_t yMax = int64_t{p.srcH} * 32768 - 65536;
    while (pr->lx < pr->rx) {
        const int32_t x = pr->px(pr->lx), y = pr->py(pr->lx);
        if (x >= 0 && y >= 0 && y <= yMax) break;
        pr->lx += 2;
    }
    while (pr->rx > pr->lx) {
        const int32_t x = pr->px(pr->rx - 1), y = pr->py(pr->rx - 1);
        if (x <= xMax && y >= 0 && y <= yMax) break;
        pr->rx -= 2;
    }
}

template <class F, Shape S>
TLResult drawWarp(const Renderer2_DrawArg* a) {
    Cell c;
    if (!setUpCell(a, S, &c)) return TL_OK;
    const Planes p = planesOf(a);
    for (int32_t y = c.T; y < c.B; y += 2) {
        if (S == Shape::General) generalSteps(&c);
        // A pair whose second row lies past the cell still writes it: cells
        // of odd height overlap the cell below by one row. Past the
        // destination nothing is written.
        PairRow pr{y, c.L, c.R, y + 1 < p.dstH, c.xq, c.yq, c.dx, c.dy, c.yStep, c.L};
        if (a->boundaryCheck != 0) trimRow(p, &pr);
        if (pr.lx < pr.rx) {
            if (F::kNearest) {
                drawLumaNearest<F>(p, pr);
            } else {
                drawLumaBilinear<F, S>(p, c, pr);
            }
            if (F::kChroma != Chroma::None) drawChroma<F>(p, pr);
        }
        c.xq += c.xStep;
        c.yq += c.yStep;
        if (S == Shape::General) {
            c.dx31 += c.dx31Step;
            c.dy31 += c.dy31Step;
        }
    }
    return TL_OK;
}

// Copy of `count` bytes from a source row, the start moved back when the
// row would end early. count must not exceed rowBytes.
inline void copyRow(uint8_t* d, const uint8_t* srcRow, int32_t start, int32_t count, int32_t rowBytes) {
    std::memcpy(d, srcRow + clampInt(start, 0, rowBytes - count), count);
}

template <bool Planar>
TLResult drawCopy(const Renderer2_DrawArg* a) {
    Cell c;
    if (!setUpCell(a, Shape::NoRot, &c)) return TL_OK;
    const Planes p = planesOf(a);
    const int32_t srcCw = (p.srcW + 1) >> 1, srcCh = (p.srcH + 1) >> 1;
    int32_t n = c.R - c.L;
    n = n < p.srcW ? n : p.srcW;
    // Every chroma sample that the cell's columns touch; with an even width
    // that is half the width.
    int32_t cn = ((c.R + 1) >> 1) - (c.L >> 1);
    cn = cn < srcCw ? cn : srcCw;
    for (int32_t y = c.T; y < c.B; y += 2, c.xq += c.xStep, c.yq += c.yStep) {
        const int32_t row = c.yq >> 15;
        for (int32_t j = 0; j < (y + 1 < p.dstH ? 2 : 1); ++j) {
            const uint8_t* s = p.src[0] + intptr_t{p.srcPitch[0]} * clampInt(row + j, 0, p.srcH - 1);
            copyRow(p.dst[0] + intptr_t{p.dstPitch[0]} * (y + j) + c.L, s, c.xq >> 15, n, p.srcW);
        }
        const int32_t srcRow = clampInt(c.yq >> 16, 0, srcCh - 1);
        const intptr_t dstRow = y >> 1;
        if (Planar) {
            for (int k = 1; k < 3; ++k) {
                copyRow(p.dst[k] + p.dstPitch[k] * dstRow + (c.L >> 1),
                        p.src[k] + intptr_t{p.srcPitch[k]} * srcRow, c.xq >> 16, cn, srcCw);
            }
        } else {
            const uint8_t* s = p.src[1] + intptr_t{p.srcPitch[1]} * srcRow;
            uint8_t* d = p.dst[1] + p.dstPitch[1] * dstRow + 2 * (c.L >> 1);
            std::memcpy(d, s + 2 * clampInt(c.xq >> 16, 0, srcCw - cn), 2 * cn);
        }
    }
    return TL_OK;
}

}  // namespace

TLResult Renderer2_Uint8_drawRect(const Renderer2_DrawArg* a) { return drawWarp<Uint8, Shape::General>(a); }
TLResult Renderer2_Uint8_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Uint8, Shape::Parallel>(a);
}
TLResult Renderer2_Uint8_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Uint8, Shape::NoRot>(a);
}

TLResult Renderer2_Yuv420Planar_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Planar, Shape::General>(a);
}
TLResult Renderer2_Yuv420Planar_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Planar, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv420Planar_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Planar, Shape::NoRot>(a);
}
TLResult Renderer2_Yuv420PlanarHQ_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420PlanarHQ, Shape::General>(a);
}
TLResult Renderer2_Yuv420PlanarHQ_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420PlanarHQ, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv420PlanarHQ_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420PlanarHQ, Shape::NoRot>(a);
}

TLResult Renderer2_Yuv420Semiplanar_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Semiplanar, Shape::General>(a);
}
TLResult Renderer2_Yuv420Semiplanar_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Semiplanar, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv420Semiplanar_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420Semiplanar, Shape::NoRot>(a);
}
TLResult Renderer2_Yuv420SemiplanarHQ_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarHQ, Shape::General>(a);
}
TLResult Renderer2_Yuv420SemiplanarHQ_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarHQ, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv420SemiplanarHQ_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarHQ, Shape::NoRot>(a);
}
TLResult Renderer2_Yuv420SemiplanarNN_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarNN, Shape::General>(a);
}
TLResult Renderer2_Yuv420SemiplanarNN_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarNN, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv420SemiplanarNN_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv420SemiplanarNN, Shape::NoRot>(a);
}

TLResult Renderer2_Yuv420Planar_drawRectMemcpy(const Renderer2_DrawArg* a) { return drawCopy<true>(a); }
TLResult Renderer2_Yuv420Semiplanar_drawRectMemcpy(const Renderer2_DrawArg* a) { return drawCopy<false>(a); }

TLResult Renderer2_Yuv422Yuyv_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Yuyv, Shape::General>(a);
}
TLResult Renderer2_Yuv422Yuyv_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Yuyv, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv422Yuyv_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Yuyv, Shape::NoRot>(a);
}
TLResult Renderer2_Yuv422Uyvy_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Uyvy, Shape::General>(a);
}
TLResult Renderer2_Yuv422Uyvy_drawRectParallel(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Uyvy, Shape::Parallel>(a);
}
TLResult Renderer2_Yuv422Uyvy_drawRectNoRot(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Uyvy, Shape::NoRot>(a);
}

// The planar 4:2:2 family has only the general kernel.
TLResult Renderer2_Yuv422Planar_drawRect(const Renderer2_DrawArg* a) {
    return drawWarp<Yuv422Planar, Shape::General>(a);
}
TLResult Renderer2_Yuv422Planar_drawRectParallel(const Renderer2_DrawArg* a) {
    return Renderer2_Yuv422Planar_drawRect(a);
}
TLResult Renderer2_Yuv422Planar_drawRectNoRot(const Renderer2_DrawArg* a) {
    return Renderer2_Yuv422Planar_drawRect(a);
}

}  // namespace vq_tl
