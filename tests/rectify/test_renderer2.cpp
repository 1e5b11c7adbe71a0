// The grid warp: identity and known answers, agreement with a per-pixel
// bilinear reference, trimmed and skipped cells, the classification of
// cells, every way of running cells, and refused input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "rectify/renderer2.h"
#include "rectify/renderer2_kernels.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/test_env.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct FormatMode {
    uint32_t format;
    int32_t mode;
};

// Every format with a kernel, in every mode that selects a different one.
const FormatMode kAllKernels[] = {
    {16, 0},
    {17, 0},
    {20, 0},
    {21, 0},
    {IMAGE_FORMAT_YUV422_PLANAR, 0},
    {IMAGE_FORMAT_UINT8, 0},
    {IMAGE_FORMAT_YUV420_PLANAR, 0},
    {IMAGE_FORMAT_YUV420_PLANAR, 1},
    {IMAGE_FORMAT_YUV420_PLANAR, 3},
    {IMAGE_FORMAT_YUV420_SEMIPLANAR, 0},
    {IMAGE_FORMAT_YUV420_SEMIPLANAR, 1},
    {IMAGE_FORMAT_YUV420_SEMIPLANAR, 2},
    {IMAGE_FORMAT_YUV420_SEMIPLANAR, 3},
    {IMAGE_FORMAT_YVU420_SEMIPLANAR, 1},
    {IMAGE_FORMAT_YVU420_SEMIPLANAR, 3},
};

bool isCopy(const FormatMode& f) { return f.mode == 3 && Layout::of(f.format).chromaShiftY == 1; }
bool isNearest(const FormatMode& f) {
    return f.mode == 2 &&
           (f.format == IMAGE_FORMAT_YUV420_SEMIPLANAR || f.format == IMAGE_FORMAT_YVU420_SEMIPLANAR);
}

std::string nameOf(const FormatMode& f) {
    return std::string(Image_getImageFormatStr(f.format)) + " mode " + std::to_string(f.mode);
}

// Whether the four vertices of the cell of destination pixel (x, y) lie in
// [0, w - margin] by [0, h - margin]; `last` is the last cell index taken.
bool cellInside(const Grid& grid, int32_t x, int32_t y, int32_t w, int32_t h, int32_t margin, int32_t last) {
    const int32_t cx = std::min(x / grid.g.gridWidth, grid.g.cols - last);
    const int32_t cy = std::min(y / grid.g.gridHeight, grid.g.rows - last);
    for (int32_t j = 0; j < 2; ++j) {
        for (int32_t i = 0; i < 2; ++i) {
            const int32_t v = (cy + j) * grid.g.cols + cx + i;
            if (!(grid.g.x[v] >= 0 && grid.g.x[v] <= w - margin && grid.g.y[v] >= 0 &&
                  grid.g.y[v] <= h - margin))
                return false;
        }
    }
    return true;
}

Map affine(double a, double b, double c, double d, double e, double f) {
    return [=](double x, double y, double* sx, double* sy) {
        *sx = a * x + b * y + c;
        *sy = d * x + e * y + f;
    };
}

Map projective(const double h[9]) {
    std::vector<double> m(h, h + 9);
    return [m](double x, double y, double* sx, double* sy) {
        const double w = m[6] * x + m[7] * y + m[8];
        *sx = (m[0] * x + m[1] * y + m[2]) / w;
        *sy = (m[3] * x + m[4] * y + m[5]) / w;
    };
}

// Samples moved by whole steps: luma (when checked) from (x + d, y + d), the
// column limited to `lastColumn(y)` where given; chroma from (cx + cdx, cy + cdy).
void expectMoved(const Picture& dst, const Picture& src, const Layout& l, int32_t w, int32_t h, bool luma,
                 int32_t d, int32_t cdx, int32_t cdy, const std::string& what,
                 const std::function<int32_t(int32_t)>& lastColumn = nullptr) {
    for (int32_t y = 0; luma && y < h; ++y) {
        const int32_t limit = lastColumn ? lastColumn(y) : INT32_MAX;
        for (int32_t x = 0; x < w; ++x) {
            ASSERT_EQ(l.luma(dst, x, y), l.luma(src, std::min(x + d, limit), y + d))
                << what << " at " << x << "," << y;
        }
    }
    if (!l.hasChroma) return;
    for (int32_t cy = 0; cy < l.chromaHeight(h); ++cy) {
        for (int32_t cx = 0; cx < l.chromaWidth(w); ++cx) {
            for (int c = 0; c < 2; ++c) {
                ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx + cdx, cy + cdy))
                    << what << " chroma " << c << " at " << cx << "," << cy;
            }
        }
    }
}

}  // namespace

TEST(Renderer2, IdentityReproducesTheSource) {
    const struct { int32_t w, h, cell; } sizes[] = {{37, 29, 8}, {64, 48, 16}, {21, 9, 8}, {91, 35, 32}};
    std::mt19937 random(11);
    for (const FormatMode& f : kAllKernels) {
        for (const auto& s : sizes) {
            const std::string what = nameOf(f) + " " + std::to_string(s.w) + "x" + std::to_string(s.h);
            Picture src(s.w, s.h, f.format), dst(s.w, s.h, f.format);
            src.fillRandom(random);
            dst.fillPlanes(7);
            Grid grid(s.w, s.h, s.cell);
            Renderer r(f.mode, 0);
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            if (isCopy(f) || isNearest(f)) {
                expectMoved(dst, src, Layout::of(f.format), s.w, s.h, true, 0, 0, 0, what);
                continue;
            }
            // Bilinear luma: exact, except where the last column falls to the
            // row's tail, whose column is limited to width - 2. It does in
            // the grid's last cell, whose groups stop 16 pixels before the
            // end, and in the last column of cells when their width is not
            // a multiple of 8.
            const int32_t lastLeft = grid.g.xs[grid.g.cols - 2];
            const int32_t lastTop = grid.g.ys[(grid.g.rows - 2) * grid.g.cols];
            expectMoved(dst, src, Layout::of(f.format), s.w, s.h, true, 0, 0, 0, what, [&](int32_t y) {
                return y >= lastTop || (s.w - lastLeft) % 8 != 0 ? s.w - 2 : s.w - 1;
            });
        }
    }
}

TEST(Renderer2, GroupsRoundAndTailsTruncate) {
    // A half-pixel shift between columns of 10 and 13: groups of 8 give the
    // rounded mean 12, the pixels of the tail the truncated 11. In the grid's
    // last cell groups stop 16 pixels before the end: on a 40-pixel row the
    // groups cover 0 to 31 and the tail 32 to 39. The same cell as the first
    // of two runs its groups to 8 pixels before its end.
    Picture src(96, 8, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 96; ++x) src.u8(x, y) = x % 2 == 0 ? 10 : 13;
    }
    for (const int32_t w : {40, 80}) {
        Picture dst(w, 8, IMAGE_FORMAT_UINT8);
        Grid grid(w, 8, 40);
        grid.apply(affine(1, 0, 0.5, 0, 1, 0));
        Renderer r;
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t y = 0; y < 8; ++y) {
            for (int32_t x = 0; x < w; ++x) ASSERT_EQ(dst.u8(x, y), x % 40 < 32 || x < w - 40 ? 12 : 11) << x;
        }
    }
}

TEST(Renderer2, GroupLanesRoundNegativeRowStepsUp) {
    // A parallelogram whose top edge rises 0.6 pixel over 128: dy is
    // trunc(-0.6 * 32768 / 128) = -153, and dy >> 3 = -20. Lane k's row
    // offset in sixteenths is (-20 * k + 255) >> 8 = 0 for every lane of a
    // group, so the first group reads row 4 exactly: 16 * 4 on a ramp of 16
    // levels per row. (Without the 255 the lanes past the first would read
    // a sixteenth higher, 63.)
    Picture src(136, 140, IMAGE_FORMAT_UINT8), dst(128, 128, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < 140; ++y) {
        for (int32_t x = 0; x < 136; ++x) src.u8(x, y) = static_cast<uint8_t>(std::min(16 * y, 255));
    }
    Grid grid(128, 128, 128);
    const double v[8] = {0, 4, 128, 3.4, 0, 132, 128, 131.4};
    for (int32_t i = 0; i < 4; ++i) {
        grid.g.x[i] = v[2 * i];
        grid.g.y[i] = v[2 * i + 1];
    }
    Renderer r;
    ASSERT_EQ(render(r, dst, src, grid), TL_OK);
    for (int32_t x = 0; x < 8; ++x) {
        EXPECT_EQ(dst.u8(x, 0), 64) << x;
        EXPECT_EQ(dst.u8(x, 1), 80) << x;
    }
}

TEST(Renderer2, TrimmedRowsAndSkippedCellsLeaveTheDestinationAlone) {
    // The boundary check trims rows in steps of two pixels until their ends
    // map inside [0, width - 2] by [0, height - 2]; without it a cell with a
    // vertex outside the source is skipped, and a cell with an invalid
    // vertex is skipped either way. What is not drawn keeps its fill of 1;
    // the source has no sample below 100. Expected: 0 untouched, 1 the
    // source sample at the rounded map, 2 drawn, -1 not checked.
    using Expect = int (*)(int32_t x, int32_t y);
    auto marker = [](double x, double y, double* sx, double* sy) {
        const bool at = x == 32 && y == 32;
        *sx = at ? kRenderer2InvalidVertex : x;
        *sy = at ? kRenderer2InvalidVertex : y;
    };
    auto low = [](double x, double y, double* sx, double* sy) {
        *sx = x == 16 && y == 0 ? -0.5 : x;
        *sy = y;
    };
    const struct {
        const char* name;
        uint32_t format;
        int32_t srcW, srcH, dstW, dstH, gridW, gridH, cell, boundaryCheck;
        Map map;
        Expect expect;
    } cases[] = {
        // Identity: odd sizes lose their last column and row, then pairs
        // until width - 2.
        {"identity 37x29", IMAGE_FORMAT_YUV420_SEMIPLANAR, 37, 29, 37, 29, 37, 29, 8, 1,
         affine(1, 0, 0, 0, 1, 0), [](int32_t x, int32_t y) { return int{x < 35 && y < 28}; }},
        {"identity 36x30", IMAGE_FORMAT_YUV420_SEMIPLANAR, 36, 30, 36, 30, 36, 30, 8, 1,
         affine(1, 0, 0, 0, 1, 0), [](int32_t x, int32_t y) { return int{x < 34 && y < 30}; }},
        {"identity 40x17", IMAGE_FORMAT_UINT8, 40, 17, 40, 17, 40, 17, 8, 1, affine(1, 0, 0, 0, 1, 0),
         [](int32_t x, int32_t y) { return int{x < 38 && y < 16}; }},
        // 5 rows up: pair 4 starts at -1; pair 42 at 37 is drawn, pair 44
        // at 39 is past 38.
        {"rows above and below", IMAGE_FORMAT_UINT8, 64, 40, 64, 48, 64, 48, 16, 1, affine(1, 0, 0, 0, 1, -5),
         [](int32_t x, int32_t y) { return x >= 62 ? -1 : int{y >= 6 && y < 44}; }},
        // Rows falling 0.1 pixel per pixel from 3 above: the left ends of the
        // first pairs are above the source and move right until inside.
        {"sloping rows", IMAGE_FORMAT_UINT8, 80, 60, 64, 48, 64, 48, 16, 1, affine(1, 0, 0, 0.1, 1, -3),
         [](int32_t x, int32_t y) {
             const double pairStart = (y & ~1) + 0.1 * x - 3;
             return y >= 8 ? -1 : pairStart < 0 ? 0 : pairStart >= 0.2 ? 2 : -1;
         }},
        // Columns 40 to 104 of a 64-wide source: the second cell's rows lose
        // two pixels at a time from their last, 31, until the end maps to
        // column 62 or less: 21 is the last drawn. Cells from 32 have no
        // vertex inside and are skipped.
        {"one vertex inside", IMAGE_FORMAT_UINT8, 64, 64, 64, 64, 64, 64, 16, 1, affine(1, 0, 40, 0, 1, 0),
         [](int32_t x, int32_t) { return int{x <= 21}; }},
        // An invalid vertex at (32, 32): its four cells are skipped.
        {"invalid vertex", IMAGE_FORMAT_UINT8, 64, 64, 64, 64, 64, 64, 16, 1, marker,
         [](int32_t x, int32_t y) {
             return x >= 62 ? -1 : (x / 16 == 1 || x / 16 == 2) && (y / 16 == 1 || y / 16 == 2) ? 0 : 2;
         }},
        // Without the boundary check a vertex at -0.5 skips its two cells.
        {"vertex outside", IMAGE_FORMAT_UINT8, 64, 64, 64, 64, 64, 64, 16, 0, low,
         [](int32_t x, int32_t y) { return x < 32 && y < 16 ? 0 : 2; }},
        // A grid laid out for a larger destination draws the cells that fit.
        {"grid larger than the destination", IMAGE_FORMAT_UINT8, 64, 64, 40, 40, 64, 64, 16, 0,
         affine(1, 0, 0, 0, 1, 0), [](int32_t x, int32_t y) { return int{x < 32 && y < 32}; }},
    };
    std::mt19937 random(13);
    for (const auto& c : cases) {
        const Layout l = Layout::of(c.format);
        Picture src(c.srcW, c.srcH, c.format), dst(c.dstW, c.dstH, c.format);
        src.fillRandom(random);
        for (uint8_t& b : src.storage) b = static_cast<uint8_t>(100 + b % 156);
        dst.fillPlanes(1);
        Grid grid(c.gridW, c.gridH, c.cell);
        grid.apply(c.map);
        Renderer r(1, c.boundaryCheck);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK) << c.name;
        EXPECT_TRUE(dst.canariesIntact()) << c.name;
        for (int32_t y = 0; y < c.dstH; ++y) {
            for (int32_t x = 0; x < c.dstW; ++x) {
                double sx, sy;
                c.map(x, y, &sx, &sy);
                const int e = c.expect(x, y);
                const int got = l.luma(dst, x, y);
                if (e < 0) continue;
                const int32_t from[2] = {static_cast<int32_t>(std::lround(sx)),
                                         static_cast<int32_t>(std::lround(sy))};
                const bool ok = e == 0 ? got == 1 : e == 2 ? got != 1 : got == l.luma(src, from[0], from[1]);
                ASSERT_TRUE(ok) << c.name << " at " << x << "," << y << ": " << got << ", expected " << e;
            }
        }
    }
}

TEST(Renderer2, WarpsAgreeWithAPerPixelBilinearReference) {
    // Widths of whole groups: cells away from the last column and row are
    // drawn in groups of 8 only.
    const int32_t w = vq_tl_test_scaled(136, 72), h = vq_tl_test_scaled(101, 51);
    const double mild[9] = {1.01, 0.02, 4.0, -0.015, 0.99, 3.0, 2e-5, -1e-5, 1.0};
    const double steep[9] = {0.97, -0.035, 6.0, 0.03, 1.02, 1.5, -6e-5, 4e-5, 1.0};
    const struct {
        const char* name;
        Map map;
    } maps[] = {
        {"shift", affine(1, 0, 2.3125, 0, 1, 1.75)},
        {"scale", affine(0.93, 0, 5.2, 0, 0.95, 3.1)},
        {"rotation", affine(0.9994, -0.0349, 4.1, 0.0349, 0.9994, 1.3)},
        {"shear", affine(1.02, 0.03, 1.0, -0.025, 0.98, 4.0)},
        {"projective", projective(mild)},
        {"steep projective", projective(steep)},
    };
    for (const FormatMode& f : kAllKernels) {
        if (isCopy(f)) continue;
        const Layout l = Layout::of(f.format);
        Picture src(w, h, f.format);
        fillSmooth(src, l, w, h);
        for (const auto& m : maps) {
            for (const int32_t cell : {16, 32}) {
                const int32_t bc = cell == 16 ? 1 : 0;
                const std::string what = nameOf(f) + " " + m.name + " cell " + std::to_string(cell);
                Picture dst(w, h, f.format);
                Grid grid(w, h, cell);
                grid.apply(m.map);
                Renderer r(f.mode, bc);
                ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
                EXPECT_TRUE(dst.canariesIntact()) << what;
                // Without the boundary check only cells whose vertices all lie
                // in the source are drawn.
                auto drawn = [&](int32_t x, int32_t y) {
                    return bc != 0 || cellInside(grid, x, y, w, h, 0, 2);
                };
                // Inside, one level. Cells of the last column and row, and
                // cells whose rows are trimmed, have pixels in tails, whose
                // sums are truncated: up to a level lower. Nearest luma may
                // be half a pixel off; chroma is one sample, never
                // interpolated, so up to a chroma sample off.
                int32_t compared = 0;
                for (int32_t y = 0; y < h; ++y) {
                    for (int32_t x = 0; x < w; ++x) {
                        double sx, sy;
                        m.map(x, y, &sx, &sy);
                        if (sx < 2 || sy < 2 || sx > w - 4 || sy > h - 4 || !drawn(x, y)) continue;
                        const bool inner = x / cell < grid.g.cols - 2 && y / cell < grid.g.rows - 2 &&
                                           cellInside(grid, x, y, w, h, 2, 1);
                        const double tolerance = isNearest(f) ? 3.0 : (inner ? 1.0 : 1.5);
                        ASSERT_NEAR(l.luma(dst, x, y), referenceLuma(src, l, w, h, sx, sy), tolerance)
                            << what << " at " << x << "," << y;
                        ++compared;
                    }
                }
                EXPECT_GT(compared, w * h / 2) << what;
                if (!l.hasChroma) continue;
                for (int32_t cy = 0; cy < l.chromaHeight(h); ++cy) {
                    for (int32_t cx = 0; cx < l.chromaWidth(w); ++cx) {
                        double sx, sy;
                        const int32_t x = 2 * cx, y = cy << l.chromaShiftY;
                        m.map(x, y, &sx, &sy);
                        if (sx < 4 || sy < 4 || sx > w - 6 || sy > h - 6 || !drawn(x, y)) continue;
                        for (int c = 0; c < 2; ++c) {
                            const double ref = smoothChroma(c, sx / 2, sy / (1 << l.chromaShiftY));
                            ASSERT_NEAR(l.chroma(dst, c, cx, cy), ref, 3.5)
                                << what << " chroma " << c << " at " << cx << "," << cy;
                        }
                    }
                }
            }
        }
    }
}

TEST(Renderer2, ChromaNearestAndCopySamplesKnownAnswers) {
    // A shift of 1.25 pixels on both axes. The plain 4:2:0 rule truncates:
    // (x + 1.25) / 2 for even x is chroma column x / 2, row y / 2. The HQ
    // rule adds half a step and a half (2 + 0.25 in all): x / 2 + 1 and
    // y / 2 + 1. Interleaved 4:2:2 rounds likewise to macro-pixel x / 2 + 1
    // on luma row y + 1; planar 4:2:2 truncates the column. Nearest luma
    // rounds 1.25 to 1; copy mode truncates 1.25 to 1 for luma and
    // (x + 1.25) / 2 to x / 2 for chroma, and moves an even shift of 6
    // whole: chroma by 3.
    const struct {
        FormatMode f;
        double shift;
        bool lumaMoved;
        int32_t chromaDx, chromaDy;
    } cases[] = {
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 0}, 1.25, false, 0, 0},
        {{IMAGE_FORMAT_YVU420_SEMIPLANAR, 0}, 1.25, false, 0, 0},
        {{IMAGE_FORMAT_YUV420_PLANAR, 0}, 1.25, false, 0, 0},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 1}, 1.25, false, 1, 1},
        {{IMAGE_FORMAT_YUV420_PLANAR, 1}, 1.25, false, 1, 1},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 2}, 1.25, true, 1, 1},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 3}, 1.25, true, 0, 0},
        {{IMAGE_FORMAT_YUV420_PLANAR, 3}, 1.25, true, 0, 0},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 3}, 6, true, 3, 3},
        {{IMAGE_FORMAT_YUV420_PLANAR, 3}, 6, true, 3, 3},
        {{16, 0}, 1.25, false, 1, 1},
        {{21, 0}, 1.25, false, 1, 1},
        {{IMAGE_FORMAT_YUV422_PLANAR, 0}, 1.25, false, 0, 1},
    };
    std::mt19937 random(20);
    for (const auto& c : cases) {
        Picture src(48, 40, c.f.format), dst(32, 24, c.f.format);
        src.fillRandom(random);
        Grid grid(32, 24, 8);
        grid.apply(affine(1, 0, c.shift, 0, 1, c.shift));
        Renderer r(c.f.mode, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        expectMoved(dst, src, Layout::of(c.f.format), 32, 24, c.lumaMoved, static_cast<int32_t>(c.shift),
                    c.chromaDx, c.chromaDy, nameOf(c.f) + " shift " + std::to_string(c.shift));
    }
}

TEST(Renderer2, CellsAreClassifiedByShape) {
    // Deviations in pixels of the 128-pixel cell: a from a parallelogram in
    // x, b in y, c the drop of the top edge; 0.5 is the threshold of both.
    // Each cell is drawn by the renderer and by each kernel directly, and so
    // chosen that the kernel it must not take gives other pixels.
    enum Kernel { kNoRot, kParallel, kGeneral };
    const struct {
        const char* name;
        double v[8];  // xTL, yTL, xTR, yTR, xBL, yBL, xBR, yBR
        Kernel expected, notThis;
    } cases[] = {
        {"top edge drops 0.49", {10, 12, 140, 12.49, 10, 140, 140, 140.49}, kNoRot, kParallel},
        {"top edge drops 0.5", {10, 12, 140, 12.5, 10, 140, 140, 140.5}, kParallel, kNoRot},
        {"rotated parallelogram", {10, 12, 140, 16, 6, 140, 136, 144}, kParallel, kNoRot},
        {"x off by 0.49", {10, 12, 140, 12.3, 10, 140, 140.49, 140.3}, kNoRot, kParallel},
        {"x off by 0.5", {10, 12, 140, 12.3, 10, 140, 140.5, 140.3}, kGeneral, kParallel},
        {"y off by 0.6", {10, 12, 140, 12, 10, 140, 140, 140.6}, kGeneral, kParallel},
        {"trapezoid", {10, 12, 140, 12, 14, 140, 136, 140}, kGeneral, kParallel},
    };
    Picture src(160, 160, IMAGE_FORMAT_UINT8);
    fillSmooth(src, Layout::of(IMAGE_FORMAT_UINT8), 160, 160);
    const Renderer2_DrawFn kernels[3] = {Renderer2_Uint8_drawRectNoRot, Renderer2_Uint8_drawRectParallel,
                                         Renderer2_Uint8_drawRect};
    const int32_t rect[4] = {0, 0, 128, 128};
    for (const auto& c : cases) {
        Grid grid(128, 128, 128);
        for (int32_t i = 0; i < 4; ++i) {
            grid.g.x[i] = c.v[2 * i];
            grid.g.y[i] = c.v[2 * i + 1];
        }
        Picture viaRenderer(128, 128, IMAGE_FORMAT_UINT8), expected(128, 128, IMAGE_FORMAT_UINT8),
            other(128, 128, IMAGE_FORMAT_UINT8);
        Renderer r;
        ASSERT_EQ(render(r, viaRenderer, src, grid), TL_OK);
        const Renderer2_DrawArg a = {&expected.image, &src.image, c.v, rect, 0};
        const Renderer2_DrawArg b = {&other.image, &src.image, c.v, rect, 0};
        ASSERT_EQ(kernels[c.expected](&a), TL_OK);
        ASSERT_EQ(kernels[c.notThis](&b), TL_OK);
        EXPECT_TRUE(viaRenderer.samePixels(expected)) << c.name;
        EXPECT_FALSE(viaRenderer.samePixels(other)) << c.name;
    }
}

TEST(Renderer2, FarAndBrokenVerticesNeverWriteOutside) {
    // Random grids with vertices scattered far outside the source, markers
    // and non-numbers: whatever is drawn stays inside the destination.
    std::mt19937 random(16);
    std::uniform_real_distribution<double> far(-300.0, 400.0);
    const int rounds = vq_tl_test_scaled(40, 8);
    for (int round = 0; round < rounds; ++round) {
        for (const FormatMode& f : kAllKernels) {
            Picture src(45, 39, f.format), dst(51, 33, f.format);
            src.fillRandom(random);
            Grid grid(51, 33, 8);
            for (int32_t v = 0; v < grid.count(); ++v) {
                const int kind = static_cast<int>(random() % 16);
                grid.g.x[v] = kind == 0 ? kRenderer2InvalidVertex : (kind == 1 ? NAN : far(random));
                grid.g.y[v] = kind == 2 ? -1e9 : far(random);
            }
            for (int32_t bc = 0; bc < 2; ++bc) {
                Renderer r(f.mode, bc);
                ASSERT_EQ(render(r, dst, src, grid), TL_OK);
                ASSERT_TRUE(dst.canariesIntact()) << nameOf(f) << " round " << round;
            }
        }
    }
}

TEST(Renderer2, EveryWayOfRunningCellsGivesTheSamePixels) {
    Layers& layers = sharedLayers();
    std::mt19937 random(17);
    const double h[9] = {0.98, 0.03, 5.0, -0.02, 1.01, 3.0, 3e-5, -2e-5, 1.0};
    const int32_t w = vq_tl_test_scaled(150, 70), height = vq_tl_test_scaled(128, 58);
    for (const FormatMode& f :
         {FormatMode{IMAGE_FORMAT_YUV420_SEMIPLANAR, 1}, FormatMode{IMAGE_FORMAT_UINT8, 0},
          FormatMode{IMAGE_FORMAT_YUV420_PLANAR, 3}, FormatMode{16, 0}}) {
        Picture src(w, height, f.format);
        src.fillRandom(random);
        // 13 (or 6) cell rows: the bands of the executors do not divide them evenly.
        Grid grid(w, height, 10);
        grid.apply(projective(h));
        Picture serial(w, height, f.format);
        serial.fillPlanes(9);
        Renderer r(f.mode, 1);
        ASSERT_EQ(render(r, serial, src, grid), TL_OK);
        for (int i = 0; i < Layers::kCount; ++i) {
            Picture out(w, height, f.format);
            out.fillPlanes(9);
            const ImageStripeExec e = layers.exec(i);
            ASSERT_EQ(
                e.pel != nullptr ? Renderer2_initWithPel(&r.r, e.pel) : Renderer2_init(&r.r, e.executor),
                TL_OK);
            ASSERT_EQ(render(r, out, src, grid), TL_OK) << layers.names[i];
            EXPECT_TRUE(out.samePixels(serial)) << nameOf(f) << " " << layers.names[i];
        }
        // The caller's own schedule, three cells per index: called in reverse
        // order, then over a Pel.
        Picture own(w, height, f.format);
        own.fillPlanes(9);
        Renderer2_KernelArg arg;
        ASSERT_EQ(Renderer2_getKernelArg(&r.r, &arg, &own.image, &src.image, &grid.g, 3), TL_OK);
        const PelIndexFunction fn = Renderer2_getKernelFunc(&r.r);
        const int32_t cells = (grid.g.cols - 1) * (grid.g.rows - 1);
        for (int32_t i = (cells + 2) / 3; i >= 0; --i) EXPECT_EQ(fn(&arg, i, nullptr), TL_OK);
        EXPECT_TRUE(own.samePixels(serial)) << nameOf(f) << " own schedule";
        own.fillPlanes(9);
        ASSERT_EQ(Pel_execute(&layers.pel, Renderer2_getKernel(&r.r), &arg, (cells + 2) / 3), TL_OK);
        EXPECT_TRUE(own.samePixels(serial)) << nameOf(f) << " own Pel_execute";
    }
}

TEST(Renderer2, MatrixEntryPoints) {
    // A whole-pixel translation: the destination is the shifted source, in
    // real and in Q15 form, and again on a destination of another size,
    // for which the grid is laid out anew.
    std::mt19937 random(18);
    Picture src(120, 90, IMAGE_FORMAT_UINT8);
    src.fillRandom(random);
    Renderer r;
    Mvec8Real m;
    Mvec8Real_setIdentity(&m);
    m.m[2] = 3.0;
    m.m[5] = 2.0;
    const Mvec6F32 q = {32768, 0, 3 * 32768, 0, 32768, 2 * 32768};
    for (const auto& size : {std::pair<int32_t, int32_t>{100, 80}, {64, 70}}) {
        Picture a(size.first, size.second, IMAGE_FORMAT_UINT8),
            b(size.first, size.second, IMAGE_FORMAT_UINT8);
        ASSERT_EQ(Renderer2_renderWithMvec8Real(&r.r, &a.image, &src.image, &m), TL_OK);
        ASSERT_EQ(Renderer2_renderWithMvec6F32(&r.r, &b.image, &src.image, &q), TL_OK);
        for (int32_t y = 0; y < size.second; ++y) {
            for (int32_t x = 0; x < size.first; ++x)
                ASSERT_EQ(a.u8(x, y), src.u8(x + 3, y + 2)) << x << "," << y;
        }
        EXPECT_TRUE(a.samePixels(b));
        r.r.division = 2;
    }
}

TEST(Renderer2, RefusedInputWritesNothing) {
    std::mt19937 random(19);
    Grid grid(32, 32, 8);
    // A grid above 16384 vertices, made by hand, and one without arrays.
    std::vector<double> x(129 * 128, 1.0);
    std::vector<int32_t> xs(129 * 128, 0);
    Renderer2_Params big{}, bare{};
    big.cols = 129;
    big.rows = 128;
    big.x = big.y = x.data();
    big.xs = big.ys = xs.data();
    bare.cols = bare.rows = 3;
    // Modes: 2 has no planar 4:2:0 kernel; 4:2:0 knows 0 to 3; UINT8 and
    // interleaved 4:2:2 ignore the mode. Before a destination is known
    // setMode only stores the mode; once it is known it reports at once, and
    // renders refuse until a valid mode comes.
    const struct {
        uint32_t format, srcFormat;
        int32_t mode;
        const Renderer2_Params* grid;
        TLResult expected;
    } cases[] = {
        {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_RGB888, 0, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_YUV422_SEMIPLANAR, IMAGE_FORMAT_YUV422_SEMIPLANAR, 0, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT16, 0, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_YUV444_PLANAR, IMAGE_FORMAT_YUV444_PLANAR, 0, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_FLOAT, 0, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_PLANAR, 2, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR, 4, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_YVU420_SEMIPLANAR, IMAGE_FORMAT_YVU420_SEMIPLANAR, -1, &grid.g, TL_ERROR_UNSUPPORTED},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 9, &grid.g, TL_OK},
        {16, 16, -3, &grid.g, TL_OK},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 0, &big, TL_ERROR_PARAM},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 0, &bare, TL_ERROR_PARAM},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_YUV420_SEMIPLANAR, 0, &grid.g, TL_ERROR_PARAM},
    };
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.format) + " mode " + std::to_string(c.mode);
        Picture src(32, 32, c.srcFormat), dst(32, 32, c.format), blank(32, 32, c.format);
        src.fillRandom(random);
        dst.fillPlanes(5);
        blank.fillPlanes(5);
        Renderer r;
        EXPECT_EQ(Renderer2_setMode(&r.r, c.mode), TL_OK) << what;
        EXPECT_EQ(Renderer2_render(&r.r, &dst.image, &src.image, c.grid), c.expected) << what;
        EXPECT_EQ(dst.samePixels(blank), c.expected != TL_OK) << what;
        EXPECT_TRUE(dst.canariesIntact()) << what;
        if (c.format != c.srcFormat || c.grid != &grid.g ||
            (c.expected == TL_ERROR_UNSUPPORTED && c.mode == 0))
            continue;
        Renderer known;
        ASSERT_EQ(render(known, dst, src, grid), TL_OK) << what;
        EXPECT_EQ(Renderer2_setMode(&known.r, c.mode), c.expected) << what;
        dst.fillPlanes(5);
        EXPECT_EQ(render(known, dst, src, grid), c.expected) << what;
        EXPECT_EQ(dst.samePixels(blank), c.expected != TL_OK) << what;
        EXPECT_EQ(Renderer2_setMode(&known.r, 1), TL_OK) << what;
        EXPECT_EQ(render(known, dst, src, grid), TL_OK) << what;
    }
    // A source without pixels.
    Picture src(32, 32, IMAGE_FORMAT_UINT8), dst(32, 32, IMAGE_FORMAT_UINT8);
    Image empty;
    construct_Image(&empty, nullptr);
    Renderer r;
    EXPECT_EQ(Renderer2_render(&r.r, &dst.image, &empty, &grid.g), TL_ERROR_PARAM);
}
