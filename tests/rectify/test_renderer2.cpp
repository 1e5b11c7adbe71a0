// The grid warp against known answers and a per-pixel bilinear reference; cells, schedules, refusals, grids.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "rectify/renderer2.h"
#include "rectify/renderer2_kernels.h"
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

// Every format with a kernel, in every mode selecting another: 16, 17, 20, 21 the interleaved 4:2:2 orders.
constexpr uint32_t kGray = IMAGE_FORMAT_UINT8, k422P = IMAGE_FORMAT_YUV422_PLANAR,
                   k420P = IMAGE_FORMAT_YUV420_PLANAR, k420SP = IMAGE_FORMAT_YUV420_SEMIPLANAR,
                   k420VU = IMAGE_FORMAT_YVU420_SEMIPLANAR;
const FormatMode kAllKernels[] = {{16, 0},     {17, 0},     {20, 0},     {21, 0},     {k422P, 0},
                                  {kGray, 0},  {k420P, 0},  {k420P, 1},  {k420P, 3},  {k420SP, 0},
                                  {k420SP, 1}, {k420SP, 2}, {k420SP, 3}, {k420VU, 1}, {k420VU, 3}};

bool isCopy(const FormatMode& f) { return f.mode == 3 && Layout::of(f.format).chromaShiftY == 1; }
bool isNearest(const FormatMode& f) { return f.mode == 2 && f.format != k420P; }

std::string nameOf(const FormatMode& f) {
    return std::string(Image_getImageFormatStr(f.format)) + " mode " + std::to_string(f.mode);
}

// Whether the vertices of pixel (x, y)'s cell (at most `last` from the end) lie in [0, w - m] by [0, h - m].
bool cellInside(const Grid& grid, int32_t x, int32_t y, int32_t w, int32_t h, int32_t margin, int32_t last) {
    const int32_t v = std::min(y / grid.g.gridHeight, grid.g.rows - last) * grid.g.cols +
                      std::min(x / grid.g.gridWidth, grid.g.cols - last);
    const int32_t c[4] = {v, v + 1, v + grid.g.cols, v + grid.g.cols + 1};
    return std::all_of(c, c + 4, [&](int32_t i) {
        return grid.g.x[i] >= 0 && grid.g.x[i] <= w - margin && grid.g.y[i] >= 0 && grid.g.y[i] <= h - margin;
    });
}

// The corners of a one-cell grid (top left, top right, bottom left, bottom right).
void setCorners(Grid& grid, const double v[8]) {
    for (int32_t i = 0; i < 8; ++i) (i % 2 == 0 ? grid.g.x : grid.g.y)[i / 2] = v[i];
}

Map projective(const std::vector<double>& m) {
    return [m](double x, double y, double* sx, double* sy) {
        const double w = m[6] * x + m[7] * y + m[8];
        *sx = (m[0] * x + m[1] * y + m[2]) / w;
        *sy = (m[3] * x + m[4] * y + m[5]) / w;
    };
}
Map affine(double a, double b, double c, double d, double e, double f) {
    return projective({a, b, c, d, e, f, 0, 0, 1});
}

// Samples moved by whole steps: luma from (x + d, y + d), columns up to lastColumn(y); chroma by (cdx, cdy).
void expectMoved(const Picture& dst, const Picture& src, const Layout& l, int32_t w, int32_t h, bool luma,
                 int32_t d, int32_t cdx, int32_t cdy, const std::string& what,
                 const std::function<int32_t(int32_t)>& lastColumn = nullptr) {
    for (int32_t y = 0; luma && y < h; ++y) {
        const int32_t limit = lastColumn ? lastColumn(y) : INT32_MAX;
        for (int32_t x = 0; x < w; ++x)
            ASSERT_EQ(l.luma(dst, x, y), l.luma(src, std::min(x + d, limit), y + d))
                << what << " " << x << "," << y;
    }
    for (int32_t cy = 0; l.hasChroma && cy < l.chromaHeight(h); ++cy) {
        for (int32_t cx = 0; cx < l.chromaWidth(w); ++cx) {
            for (int c = 0; c < 2; ++c)
                ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx + cdx, cy + cdy))
                    << what << " chroma " << cx;
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
            Grid grid(s.w, s.h, s.cell);
            Renderer r(f.mode, 0);
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            // Bilinear luma is exact, but the tail limits its column to width - 2: in the last cell (groups
            // stop 16 pixels before the end) and the last column of cells of a width not a multiple of 8.
            const int32_t lastLeft = grid.g.xs[grid.g.cols - 2],
                          lastTop = grid.g.ys[(grid.g.rows - 2) * grid.g.cols];
            const bool exact = isCopy(f) || isNearest(f);
            expectMoved(dst, src, Layout::of(f.format), s.w, s.h, true, 0, 0, 0, what, [&](int32_t y) {
                return !exact && (y >= lastTop || (s.w - lastLeft) % 8 != 0) ? s.w - 2 : s.w - 1;
            });
        }
    }
}

TEST(Renderer2, GroupArithmeticWorkedByHand) {
    // A half-pixel shift between columns of 10 and 13: groups of 8 give the rounded mean 12, the tail's
    // pixels the truncated 11. In the last cell groups stop 16 pixels before the end: on a 40-pixel row they
    // cover 0 to 31, the tail 32 to 39; the same cell as the first of two runs groups to 8 before its end.
    Picture src(96, 8, kGray);
    for (int32_t i = 0; i < 96 * 8; ++i) src.u8(i % 96, i / 96) = i % 2 == 0 ? 10 : 13;
    Renderer r;
    for (const int32_t w : {40, 80}) {
        Picture dst(w, 8, kGray);
        Grid grid(w, 8, 40);
        grid.apply(affine(1, 0, 0.5, 0, 1, 0));
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t i = 0; i < w * 8; ++i)
            ASSERT_EQ(dst.u8(i % w, i / w), i % w % 40 < 32 || i % w < w - 40 ? 12 : 11) << i % w;
    }
    // A top edge rising 0.6 pixel over 128: dy = trunc(-0.6 * 32768 / 128) = -153, dy >> 3 = -20, and lane
    // k's row offset in sixteenths is (-20 k + 255) >> 8 = 0: the first group reads row 4 of a ramp of 16
    // levels per row exactly, 64. (Without the 255: 63 past the first lane.)
    Picture ramp(136, 140, kGray), dst(128, 128, kGray);
    for (int32_t i = 0; i < 136 * 140; ++i)
        ramp.u8(i % 136, i / 136) = static_cast<uint8_t>(std::min(16 * (i / 136), 255));
    Grid grid(128, 128, 128);
    setCorners(grid, std::array<double, 8>{0, 4, 128, 3.4, 0, 132, 128, 131.4}.data());
    ASSERT_EQ(render(r, dst, ramp, grid), TL_OK);
    for (int32_t x = 0; x < 8; ++x) EXPECT_TRUE(dst.u8(x, 0) == 64 && dst.u8(x, 1) == 80) << x;
}

TEST(Renderer2, TrimmedRowsAndSkippedCellsLeaveTheDestinationAlone) {
    // The boundary check trims rows by pairs until their ends map inside [0, width - 2] by [0, height - 2];
    // without it a cell with a vertex outside is skipped, as is one with an invalid vertex. Expected: 0
    // untouched (fill 1, the source is 100 or more), 1 the source at the rounded map, 2 drawn, -1 any.
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
        int32_t srcW, srcH, dstW, dstH, cell, boundaryCheck;
        Map map;
        int (*expect)(int32_t x, int32_t y);
    } cases[] = {
        // Identity: odd sizes lose their last column and row, then pairs until width - 2.
        {"identity 37x29", k420SP, 37, 29, 37, 29, 8, 1, affine(1, 0, 0, 0, 1, 0),
         [](int32_t x, int32_t y) { return int{x < 35 && y < 28}; }},
        // Columns 40 to 104 of a 64-wide source: the second cell's rows lose two pixels at a time from 31
        // until the end maps to 62 or less: 21 is the last drawn. Cells from 32 have no vertex inside.
        {"one vertex inside", kGray, 64, 64, 64, 64, 16, 1, affine(1, 0, 40, 0, 1, 0),
         [](int32_t x, int32_t) { return int{x <= 21}; }},
        // An invalid vertex at (32, 32): its four cells are skipped.
        {"invalid vertex", kGray, 64, 64, 64, 64, 16, 1, marker,
         [](int32_t x, int32_t y) { return x >= 62                                  ? -1
                                           : x >= 16 && x < 48 && y >= 16 && y < 48 ? 0
                                                                                    : 2; }},
        // Without the boundary check a vertex at -0.5 skips its two cells.
        {"vertex outside", kGray, 64, 64, 64, 64, 16, 0, low,
         [](int32_t x, int32_t y) { return x < 32 && y < 16 ? 0 : 2; }},
    };
    std::mt19937 random(13);
    for (const auto& c : cases) {
        const Layout l = Layout::of(c.format);
        Picture src(c.srcW, c.srcH, c.format), dst(c.dstW, c.dstH, c.format);
        src.fillRandom(random);
        for (uint8_t& b : src.storage) b = static_cast<uint8_t>(100 + b % 156);
        dst.fillPlanes(1);
        Grid grid(c.dstW, c.dstH, c.cell);
        grid.apply(c.map);
        Renderer r(1, c.boundaryCheck);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK) << c.name;
        EXPECT_TRUE(dst.canariesIntact()) << c.name;
        for (int32_t y = 0; y < c.dstH; ++y) {
            for (int32_t x = 0; x < c.dstW; ++x) {
                const int e = c.expect(x, y), got = l.luma(dst, x, y);
                double sx, sy;
                c.map(x, y, &sx, &sy);
                const bool ok = e < 0 || (e == 0   ? got == 1
                                          : e == 2 ? got != 1
                                                   : got == l.luma(src, static_cast<int32_t>(std::lround(sx)),
                                                                   static_cast<int32_t>(std::lround(sy))));
                ASSERT_TRUE(ok) << c.name << " at " << x << "," << y;
            }
        }
    }
}

TEST(Renderer2, WarpsAgreeWithAPerPixelBilinearReference) {
    // Widths of whole groups: cells away from the last column and row are drawn in groups of 8 only.
    const int32_t w = vq_tl_test_scaled(136, 72), h = vq_tl_test_scaled(101, 51);
    const Map maps[] = {
        affine(1, 0, 2.3125, 0, 1, 1.75),                   // shift
        affine(0.93, 0, 5.2, 0, 0.95, 3.1),                 // scale
        affine(0.9994, -0.0349, 4.1, 0.0349, 0.9994, 1.3),  // rotation
        affine(1.02, 0.03, 1.0, -0.025, 0.98, 4.0),         // shear
        projective({1.01, 0.02, 4.0, -0.015, 0.99, 3.0, 2e-5, -1e-5, 1.0}),
        projective({0.97, -0.035, 6.0, 0.03, 1.02, 1.5, -6e-5, 4e-5, 1.0}),
    };
    for (const FormatMode& f : kAllKernels) {
        if (isCopy(f)) continue;
        const Layout l = Layout::of(f.format);
        Picture src(w, h, f.format);
        fillSmooth(src, l, w, h);
        for (int k = 0; k < 12; ++k) {
            const int m = k / 2, cell = k % 2 == 0 ? 16 : 32, bc = k % 2 == 0 ? 1 : 0;
            const std::string what = nameOf(f) + " case " + std::to_string(k);
            Picture dst(w, h, f.format);
            Grid grid(w, h, cell);
            grid.apply(maps[m]);
            Renderer r(f.mode, bc);
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            // Without the boundary check only cells inside the source are drawn. One level inside; tails
            // (last column, row, trimmed rows) truncate, a level lower; nearest luma may be half a pixel off.
            auto drawn = [&](int32_t x, int32_t y) { return bc != 0 || cellInside(grid, x, y, w, h, 0, 2); };
            int32_t compared = 0;
            for (int32_t y = 0; y < h; ++y) {
                for (int32_t x = 0; x < w; ++x) {
                    double sx, sy;
                    maps[m](x, y, &sx, &sy);
                    if (sx < 2 || sy < 2 || sx > w - 4 || sy > h - 4 || !drawn(x, y)) continue;
                    const bool inner = x / cell < grid.g.cols - 2 && y / cell < grid.g.rows - 2 &&
                                       cellInside(grid, x, y, w, h, 2, 1);
                    ASSERT_NEAR(l.luma(dst, x, y), referenceLuma(src, l, w, h, sx, sy),
                                isNearest(f) ? 3.0 : (inner ? 1.0 : 1.5))
                        << what << " " << x << "," << y;
                    ++compared;
                }
            }
            EXPECT_GT(compared, w * h / 2) << what;
        }
    }
}

TEST(Renderer2, ChromaNearestAndCopySamplesKnownAnswers) {
    // A shift of 1.25 pixels on both axes. The plain 4:2:0 rule truncates: (x + 1.25) / 2 for even x is
    // chroma column x / 2, row y / 2. The HQ rule adds half a step and a half (2 + 0.25 in all): x / 2 + 1
    // and y / 2 + 1. Interleaved 4:2:2 rounds likewise to macro-pixel x / 2 + 1 on luma row y + 1; planar
    // 4:2:2 truncates the column. Nearest luma rounds 1.25 to 1; copy mode truncates 1.25 and 1.75 to 1 for
    // luma and (x + 1.75) / 2 to x / 2 for chroma, and moves an even shift of 6 whole: chroma by 3.
    const struct {
        FormatMode f;
        double shift;
        bool lumaMoved;
        int32_t chromaDx, chromaDy;
    } cases[] = {
        {{k420SP, 0}, 1.25, false, 0, 0}, {{k420VU, 0}, 1.25, false, 0, 0}, {{k420P, 0}, 1.25, false, 0, 0},
        {{k420SP, 1}, 1.25, false, 1, 1}, {{k420P, 1}, 1.25, false, 1, 1},  {{k420SP, 2}, 1.25, true, 1, 1},
        {{k420SP, 3}, 1.25, true, 0, 0},  {{k420P, 3}, 1.75, true, 0, 0},   {{k420SP, 3}, 6, true, 3, 3},
        {{k420P, 3}, 6, true, 3, 3},      {{16, 0}, 1.25, false, 1, 1},     {{21, 0}, 1.25, false, 1, 1},
        {{k422P, 0}, 1.25, false, 0, 1},
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
    // Deviations of the 128-pixel cell: a from a parallelogram in x, b in y, c the top edge's drop; 0.5 is
    // the threshold. Each cell is drawn by the renderer and two kernels, the wrong one giving other pixels.
    const Renderer2_DrawFn noRot = Renderer2_Uint8_drawRectNoRot, parallel = Renderer2_Uint8_drawRectParallel,
                           general = Renderer2_Uint8_drawRect;
    const struct {
        double v[8];  // xTL, yTL, xTR, yTR, xBL, yBL, xBR, yBR
        Renderer2_DrawFn expected, notThis;
    } cases[] = {
        {{10, 12, 140, 12.49, 10, 140, 140, 140.49}, noRot, parallel},    // top edge drops 0.49
        {{10, 12, 140, 12.5, 10, 140, 140, 140.5}, parallel, noRot},      // top edge drops 0.5
        {{10, 12, 140, 16, 6, 140, 136, 144}, parallel, noRot},           // rotated parallelogram
        {{10, 12, 140, 12.3, 10, 140, 140.49, 140.3}, noRot, parallel},   // x off by 0.49
        {{10, 12, 140, 12.3, 10, 140, 140.5, 140.3}, general, parallel},  // x off by 0.5
        {{10, 12, 140, 12, 10, 140, 140, 140.6}, general, parallel},      // y off by 0.6
        {{10, 12, 140, 12, 14, 140, 136, 140}, general, parallel},        // trapezoid
    };
    Picture src(160, 160, kGray);
    fillSmooth(src, Layout::of(kGray), 160, 160);
    const int32_t rect[4] = {0, 0, 128, 128};
    for (size_t i = 0; i < std::size(cases); ++i) {
        Grid grid(128, 128, 128);
        setCorners(grid, cases[i].v);
        Picture viaRenderer(128, 128, kGray), expected(128, 128, kGray), other(128, 128, kGray);
        Renderer r;
        ASSERT_EQ(render(r, viaRenderer, src, grid), TL_OK);
        const Renderer2_DrawArg a = {&expected.image, &src.image, cases[i].v, rect, 0},
                                b = {&other.image, &src.image, cases[i].v, rect, 0};
        ASSERT_TRUE(cases[i].expected(&a) == TL_OK && cases[i].notThis(&b) == TL_OK);
        EXPECT_TRUE(viaRenderer.samePixels(expected)) << i;
        EXPECT_FALSE(viaRenderer.samePixels(other)) << i;
    }
}

TEST(Renderer2, EveryWayOfRunningCellsGivesTheSamePixels) {
    // Each parallel layer gives the serial pixels; 13 (or 6) cell rows do not divide evenly into bands.
    Layers& layers = sharedLayers();
    std::mt19937 random(17);
    const int32_t w = vq_tl_test_scaled(150, 70), h = vq_tl_test_scaled(128, 58);
    for (const FormatMode& f :
         {FormatMode{k420SP, 1}, FormatMode{kGray, 0}, FormatMode{k420P, 3}, FormatMode{16, 0}}) {
        Picture src(w, h, f.format), serial(w, h, f.format), out(w, h, f.format);
        src.fillRandom(random);
        Grid grid(w, h, 10);
        grid.apply(projective({0.98, 0.03, 5.0, -0.02, 1.01, 3.0, 3e-5, -2e-5, 1.0}));
        Renderer r(f.mode, 1);
        serial.fillPlanes(9);
        ASSERT_EQ(render(r, serial, src, grid), TL_OK);
        for (int i = 0; i < Layers::kCount; ++i) {
            const ImageStripeExec e = layers.exec(i);
            ASSERT_EQ(
                e.pel != nullptr ? Renderer2_initWithPel(&r.r, e.pel) : Renderer2_init(&r.r, e.executor),
                TL_OK);
            out.fillPlanes(9);
            ASSERT_EQ(render(r, out, src, grid), TL_OK) << layers.names[i];
            EXPECT_TRUE(out.samePixels(serial)) << nameOf(f) << " " << layers.names[i];
        }
    }
}

TEST(Renderer2Params, LayoutsWorkedOutByHand) {
    // Vertices at left + i * cell while below right, one more at right; the same down. p: cell width or
    // division; q: cell height. A cell width of 0 marks a refused layout, which leaves the grid as it was.
    enum Kind { kGridSize, kDivision };
    const struct {
        const char* name;
        Kind kind;
        int32_t rect[4], p, q;
        int32_t gridWidth, gridHeight, cols, rows;
    } cases[] = {
        {"the last cell is the remainder", kGridSize, {3, 5, 40, 30}, 16, 8, 16, 8, 4, 5},
        {"exact multiple adds no empty cell", kGridSize, {0, 0, 64, 32}, 32, 16, 32, 16, 3, 3},
        {"division 16: 810 / 16 = 50, cleared to 48", kDivision, {0, 0, 1080, 810}, 16, 0, 48, 48, 24, 18},
        {"division 1 is one cell", kDivision, {0, 0, 50, 20}, 1, 0, 50, 20, 2, 2},
        {"share below 16 clears to 0, raised to 8", kDivision, {0, 0, 40, 30}, 4, 0, 8, 8, 6, 5},
        {"16384 vertices", kGridSize, {0, 0, 127 * 8, 127 * 8}, 8, 8, 8, 8, 128, 128},
        {"cell of 7", kGridSize, {0, 0, 4096, 4096}, 7, 64, 0, 0, 0, 0},
        {"cell height of 7", kGridSize, {0, 0, 4096, 4096}, 64, 7, 0, 0, 0, 0},
        {"513 by 513 vertices", kGridSize, {0, 0, 4096, 4096}, 8, 8, 0, 0, 0, 0},
        {"128 by 129 vertices", kGridSize, {0, 0, 127 * 8, 128 * 8}, 8, 8, 0, 0, 0, 0},
        {"empty rectangle", kGridSize, {5, 5, 5, 20}, 8, 8, 0, 0, 0, 0},
        {"whole cell below 8", kDivision, {0, 0, 7, 64}, 1, 0, 0, 0, 0, 0},
    };
    Grid grid(64, 64, 16);
    const int any = 0;
    for (const auto& c : cases) {
        const int32_t* r = c.rect;
        const int32_t colsBefore = grid.g.cols;
        const double* xBefore = grid.g.x;
        const TLResult result = c.kind == kGridSize ? Renderer2_Params_initWithGridSize(&grid.g, r, c.p, c.q)
                                                    : Renderer2_Params_init(&grid.g, &any, r[2], r[3], c.p);
        if (c.gridWidth == 0) {
            EXPECT_TRUE(result == TL_ERROR_PARAM && grid.g.cols == colsBefore && grid.g.x == xBefore)
                << c.name;
            continue;
        }
        ASSERT_TRUE(result == TL_OK && grid.g.cols == c.cols && grid.g.rows == c.rows &&
                    grid.g.gridWidth == c.gridWidth && grid.g.gridHeight == c.gridHeight)
            << c.name;
        for (int32_t v = 0; v < grid.count(); ++v) {
            const int32_t i = v % c.cols, j = v / c.cols,
                          xs = i == c.cols - 1 ? r[2] : r[0] + i * c.gridWidth,
                          ys = j == c.rows - 1 ? r[3] : r[1] + j * c.gridHeight;
            ASSERT_TRUE(grid.g.xs[v] == xs && grid.g.ys[v] == ys && grid.g.x[v] == xs && grid.g.y[v] == ys)
                << c.name << " " << v;
        }
    }
}

TEST(Renderer2Params, MatrixAndConfine) {
    // The grid of a homography: every vertex is its image under the matrix.
    Grid a(100, 60, 16);
    const Mvec8Real h = {{1.5, 0.25, -3.0, 0.125, 0.75, 9.0, 1e-3, 2e-3, 1.0}};
    ASSERT_EQ(Renderer2_Params_setMvec8Real(&a.g, &h), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v) {
        const double x = a.g.xs[v], y = a.g.ys[v], w = 1e-3 * x + 2e-3 * y + 1.0;
        ASSERT_DOUBLE_EQ(a.g.x[v], (1.5 * x + 0.25 * y - 3.0) / w);
        ASSERT_DOUBLE_EQ(a.g.y[v], (0.125 * x + 0.75 * y + 9.0) / w);
    }
    a.g.x[0] = kRenderer2InvalidVertex;
    const std::vector<double> x(a.g.x, a.g.x + a.count()), y(a.g.y, a.g.y + a.count());
    // Confining clamps to [left, right - 2] and [top, bottom - 2], markers too.
    const int32_t rect[4] = {2, 3, 50, 40};
    ASSERT_EQ(Renderer2_Grid_confineWithinRect(&a.g, rect), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v)
        ASSERT_TRUE(a.g.x[v] == std::clamp(x[v], 2.0, 48.0) && a.g.y[v] == std::clamp(y[v], 3.0, 38.0)) << v;
}
