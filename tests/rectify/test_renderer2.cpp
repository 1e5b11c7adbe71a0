// The grid warp: identity and known answers, agreement with a per-pixel
// bilinear reference, the classification of cells, skipped cells, the three
// ways of running cells, and refused input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "rectify/renderer2.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
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

// Whether the cell of destination pixel (x, y) is drawn: without the
// boundary check only when its four vertices lie in the source.
bool drawn(const Grid& grid, int32_t x, int32_t y, int32_t boundaryCheck, int32_t w, int32_t h) {
    if (boundaryCheck != 0) return true;
    const int32_t cx = std::min(x / grid.g.gridWidth, grid.g.cols - 2);
    const int32_t cy = std::min(y / grid.g.gridHeight, grid.g.rows - 2);
    for (int32_t j = 0; j < 2; ++j) {
        for (int32_t i = 0; i < 2; ++i) {
            const int32_t v = (cy + j) * grid.g.cols + cx + i;
            if (grid.g.x[v] < 0 || grid.g.x[v] > w || grid.g.y[v] < 0 || grid.g.y[v] > h) return false;
        }
    }
    return true;
}

// Whether the cell of (x, y) is neither in the last column or row of cells
// nor has a vertex beyond width - 2 or height - 2 of the source, where rows
// are trimmed.
bool inner(const Grid& grid, int32_t x, int32_t y, int32_t w, int32_t h) {
    const int32_t cx = x / grid.g.gridWidth, cy = y / grid.g.gridHeight;
    if (cx >= grid.g.cols - 2 || cy >= grid.g.rows - 2) return false;
    for (int32_t j = 0; j < 2; ++j) {
        for (int32_t i = 0; i < 2; ++i) {
            const int32_t v = (cy + j) * grid.g.cols + cx + i;
            if (grid.g.x[v] < 0 || grid.g.x[v] > w - 2 || grid.g.y[v] < 0 || grid.g.y[v] > h - 2)
                return false;
        }
    }
    return true;
}

std::string nameOf(const FormatMode& f) {
    return std::string(Image_getImageFormatStr(f.format)) + " mode " + std::to_string(f.mode);
}

const Map kIdentity = [](double x, double y, double* sx, double* sy) {
    *sx = x;
    *sy = y;
};

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

// Every sample of dst equal to src's (the padding of odd sizes aside).
void expectSamePictures(const Picture& dst, const Picture& src, const Layout& l, int32_t w, int32_t h,
                        const std::string& what) {
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            ASSERT_EQ(l.luma(dst, x, y), l.luma(src, x, y)) << what << " at " << x << "," << y;
        }
    }
    if (!l.hasChroma) return;
    for (int32_t cy = 0; cy < l.chromaHeight(h); ++cy) {
        for (int32_t cx = 0; cx < l.chromaWidth(w); ++cx) {
            for (int c = 0; c < 2; ++c) {
                ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx, cy))
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
            const Layout l = Layout::of(f.format);
            Picture src(s.w, s.h, f.format), dst(s.w, s.h, f.format);
            src.fillRandom(random);
            dst.fillPlanes(7);
            Grid grid(s.w, s.h, s.cell);
            Renderer r(f.mode, 0);
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            if (isCopy(f) || isNearest(f)) {
                expectSamePictures(dst, src, l, s.w, s.h, what);
                continue;
            }
            // Bilinear luma: exact, except where the last column falls to the
            // row's tail, whose column is limited to width - 2. It does in
            // the grid's last cell, whose groups stop 16 pixels before the
            // end, and in the last column of cells when their width is not
            // a multiple of 8.
            const int32_t lastLeft = grid.g.xs[grid.g.cols - 2];
            const int32_t lastTop = grid.g.ys[(grid.g.rows - 2) * grid.g.cols];
            for (int32_t y = 0; y < s.h; ++y) {
                const bool tail = y >= lastTop || (s.w - lastLeft) % 8 != 0;
                for (int32_t x = 0; x < s.w; ++x) {
                    const int32_t from = x == s.w - 1 && tail ? s.w - 2 : x;
                    ASSERT_EQ(l.luma(dst, x, y), l.luma(src, from, y)) << what << " at " << x << "," << y;
                }
            }
            if (!l.hasChroma) continue;
            for (int32_t cy = 0; cy < l.chromaHeight(s.h); ++cy) {
                for (int32_t cx = 0; cx < l.chromaWidth(s.w); ++cx) {
                    for (int c = 0; c < 2; ++c) {
                        ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx, cy))
                            << what << " chroma " << c << " at " << cx << "," << cy;
                    }
                }
            }
        }
    }
}

TEST(Renderer2, IdentityOnAWiderSourceIsExactEverywhere) {
    // The destination stops a column short of the source's edge, so no pixel
    // needs the column limit: every pixel is the source's, groups taking the
    // whole-pixel lane steps of dx = 32768.
    std::mt19937 random(12);
    for (const int32_t w : {40, 41, 77}) {
        Picture src(w + 1, 30, IMAGE_FORMAT_UINT8), dst(w, 30, IMAGE_FORMAT_UINT8);
        src.fillRandom(random);
        Grid grid(w, 30, 16);
        Renderer r;
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t y = 0; y < 30; ++y) {
            for (int32_t x = 0; x < w; ++x)
                ASSERT_EQ(dst.u8(x, y), src.u8(x, y)) << w << " " << x << "," << y;
        }
    }
}

TEST(Renderer2, IdentityWithBoundaryCheckTrimsTheLastColumnsAndRow) {
    // Rows are trimmed in steps of two pixels until their ends map at most to
    // width - 2 and height - 2: what lies beyond stays as it was.
    std::mt19937 random(13);
    const struct {
        int32_t w, h, drawnWidth, drawnHeight;
    } cases[] = {{37, 29, 35, 28}, {36, 30, 34, 30}, {40, 17, 38, 16}};
    for (const auto& c : cases) {
        Picture src(c.w, c.h, IMAGE_FORMAT_YUV420_SEMIPLANAR), dst(c.w, c.h, IMAGE_FORMAT_YUV420_SEMIPLANAR);
        src.fillRandom(random);
        dst.fillPlanes(3);
        Grid grid(c.w, c.h, 8);
        Renderer r(1, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        EXPECT_TRUE(dst.canariesIntact());
        for (int32_t y = 0; y < c.h; ++y) {
            for (int32_t x = 0; x < c.w; ++x) {
                const bool drawn = x < c.drawnWidth && y < c.drawnHeight;
                ASSERT_EQ(dst.u8(x, y), drawn ? src.u8(x, y) : 3)
                    << c.w << "x" << c.h << " at " << x << "," << y;
            }
        }
    }
}

TEST(Renderer2, GroupsRoundAndTailsTruncate) {
    // A half-pixel shift between columns of 10 and 13: groups of 8 give the
    // rounded mean 12, the pixels of the tail the truncated 11. In the grid's
    // last cell groups stop 16 pixels before the end: on a 40-pixel row the
    // groups cover 0 to 31 and the tail 32 to 39.
    Picture src(48, 8, IMAGE_FORMAT_UINT8), dst(40, 8, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 48; ++x) src.u8(x, y) = x % 2 == 0 ? 10 : 13;
    }
    Grid grid(40, 8, 40);
    grid.apply(affine(1, 0, 0.5, 0, 1, 0));
    Renderer r;
    ASSERT_EQ(render(r, dst, src, grid), TL_OK);
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 40; ++x) ASSERT_EQ(dst.u8(x, y), x < 32 ? 12 : 11) << x << "," << y;
    }
    // The same cell as one of several: groups run to 8 pixels before the end.
    Grid two(80, 8, 40);
    two.apply(affine(1, 0, 0.5, 0, 1, 0));
    Picture wide(96, 8, IMAGE_FORMAT_UINT8), out(80, 8, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 96; ++x) wide.u8(x, y) = x % 2 == 0 ? 10 : 13;
    }
    ASSERT_EQ(render(r, out, wide, two), TL_OK);
    for (int32_t x = 0; x < 40; ++x) EXPECT_EQ(out.u8(x, 3), 12) << x;
    for (int32_t x = 40; x < 80; ++x) EXPECT_EQ(out.u8(x, 3), x < 72 ? 12 : 11) << x;
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

TEST(Renderer2, BoundaryCheckTrimsRowsAboveAndBelowTheSource) {
    // A map 5 rows up: pairs of rows that start above the source (y < 0) or
    // below height - 2 are left as they were, whole pairs at a time.
    std::mt19937 random(21);
    Picture src(64, 40, IMAGE_FORMAT_UINT8), dst(64, 48, IMAGE_FORMAT_UINT8);
    src.fillRandom(random);
    dst.fillPlanes(1);
    Grid grid(64, 48, 16);
    grid.apply(affine(1, 0, 0, 0, 1, -5));
    Renderer r(0, 1);
    ASSERT_EQ(render(r, dst, src, grid), TL_OK);
    for (int32_t y = 0; y < 48; ++y) {
        // Pair 4 starts at -1; pair 42 at 37 is drawn, pair 44 at 39 is past 38.
        const bool drawn = y >= 6 && y < 44;
        for (int32_t x = 0; x < 62; ++x) {
            ASSERT_EQ(dst.u8(x, y), drawn ? src.u8(x, y - 5) : 1) << x << "," << y;
        }
    }
}

TEST(Renderer2, BoundaryCheckTrimsTheLeftEndOfSlopingRows) {
    // Rows that fall by 0.1 pixel per pixel from 3 above the source: the
    // left ends of the first pairs are above it and move right until they
    // are inside; the right ends are inside from the start.
    Picture src(80, 60, IMAGE_FORMAT_UINT8), dst(64, 48, IMAGE_FORMAT_UINT8);
    src.fillPlanes(200);
    dst.fillPlanes(1);
    Grid grid(64, 48, 16);
    grid.apply(affine(1, 0, 0, 0.1, 1, -3));
    Renderer r(0, 1);
    ASSERT_EQ(render(r, dst, src, grid), TL_OK);
    int32_t untouched = 0;
    for (int32_t y = 0; y < 8; ++y) {
        for (int32_t x = 0; x < 64; ++x) {
            const double pairStart = (y & ~1) + 0.1 * x - 3;  // source row of the pair's first row
            if (pairStart < 0) {
                ASSERT_EQ(dst.u8(x, y), 1) << x << "," << y;
                ++untouched;
            } else if (pairStart >= 0.2) {
                ASSERT_EQ(dst.u8(x, y), 200) << x << "," << y;
            }
        }
    }
    EXPECT_EQ(untouched, 2 * 30 + 2 * 10);
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
                        if (sx < 2 || sy < 2 || sx > w - 4 || sy > h - 4 || !drawn(grid, x, y, bc, w, h))
                            continue;
                        const double ref = referenceLuma(src, l, w, h, sx, sy);
                        const double tolerance = isNearest(f) ? 3.0 : (inner(grid, x, y, w, h) ? 1.0 : 1.5);
                        ASSERT_NEAR(l.luma(dst, x, y), ref, tolerance) << what << " at " << x << "," << y;
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
                        if (sx < 4 || sy < 4 || sx > w - 6 || sy > h - 6 || !drawn(grid, x, y, bc, w, h))
                            continue;
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

TEST(Renderer2, CopyModeMovesWholeRows) {
    // Copy mode takes each pair of rows from the left edge's source position:
    // an even shift gives the shifted picture exactly, chroma included.
    std::mt19937 random(14);
    for (const uint32_t format : {IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR}) {
        const Layout l = Layout::of(format);
        Picture src(80, 60, format), dst(64, 48, format);
        src.fillRandom(random);
        Grid grid(64, 48, 16);
        grid.apply(affine(1, 0, 6, 0, 1, 4));
        Renderer r(3, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t y = 0; y < 48; ++y) {
            for (int32_t x = 0; x < 64; ++x) ASSERT_EQ(l.luma(dst, x, y), l.luma(src, x + 6, y + 4));
        }
        for (int32_t cy = 0; cy < 24; ++cy) {
            for (int32_t cx = 0; cx < 32; ++cx) {
                for (int c = 0; c < 2; ++c)
                    ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx + 3, cy + 2));
            }
        }
    }
}

TEST(Renderer2, ChromaAndNearestSamplesKnownAnswers) {
    // A shift of 1.25 pixels on both axes. The plain 4:2:0 rule truncates:
    // (x + 1.25) / 2 for even x is chroma column x / 2, row y / 2. The HQ
    // rule adds half a step and a half (2 + 0.25 in all): x / 2 + 1 and
    // y / 2 + 1. Interleaved 4:2:2 rounds likewise to macro-pixel x / 2 + 1
    // on luma row y + 1; planar 4:2:2 truncates the column. Nearest luma
    // rounds 1.25 to 1; copy mode truncates 1.25 to 1 for luma and
    // (x + 1.25) / 2 to x / 2 for chroma.
    const struct {
        FormatMode f;
        int32_t chromaDx, chromaDy;
        bool lumaShiftedByOne;
    } cases[] = {
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 0}, 0, 0, false},
        {{IMAGE_FORMAT_YVU420_SEMIPLANAR, 0}, 0, 0, false},
        {{IMAGE_FORMAT_YUV420_PLANAR, 0}, 0, 0, false},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 1}, 1, 1, false},
        {{IMAGE_FORMAT_YUV420_PLANAR, 1}, 1, 1, false},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 2}, 1, 1, true},
        {{IMAGE_FORMAT_YUV420_SEMIPLANAR, 3}, 0, 0, true},
        {{IMAGE_FORMAT_YUV420_PLANAR, 3}, 0, 0, true},
        {{16, 0}, 1, 1, false},
        {{21, 0}, 1, 1, false},
        {{IMAGE_FORMAT_YUV422_PLANAR, 0}, 0, 1, false},
    };
    std::mt19937 random(20);
    for (const auto& c : cases) {
        const Layout l = Layout::of(c.f.format);
        Picture src(48, 40, c.f.format), dst(32, 24, c.f.format);
        src.fillRandom(random);
        Grid grid(32, 24, 8);
        grid.apply(affine(1, 0, 1.25, 0, 1, 1.25));
        Renderer r(c.f.mode, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t cy = 0; cy < l.chromaHeight(24); ++cy) {
            for (int32_t cx = 0; cx < 16; ++cx) {
                for (int k = 0; k < 2; ++k) {
                    ASSERT_EQ(l.chroma(dst, k, cx, cy), l.chroma(src, k, cx + c.chromaDx, cy + c.chromaDy))
                        << nameOf(c.f) << " chroma " << k << " at " << cx << "," << cy;
                }
            }
        }
        if (!c.lumaShiftedByOne) continue;
        for (int32_t y = 0; y < 24; ++y) {
            for (int32_t x = 0; x < 32; ++x)
                ASSERT_EQ(l.luma(dst, x, y), l.luma(src, x + 1, y + 1)) << nameOf(c.f);
        }
    }
}

namespace {

// One 128 by 128 cell drawn by the renderer and by each of the three
// kernels directly.
struct ShapeOutputs {
    std::unique_ptr<Picture> viaRenderer;
    std::unique_ptr<Picture> direct[3];  // NoRot, Parallel, General
};

enum Kernel { kNoRot, kParallel, kGeneral };

ShapeOutputs drawShape(const double v[8]) {
    Picture src(160, 160, IMAGE_FORMAT_UINT8);
    fillSmooth(src, Layout::of(IMAGE_FORMAT_UINT8), 160, 160);
    Grid grid(128, 128, 128);
    for (int32_t i = 0; i < 4; ++i) {  // TL, TR, BL, BR of a 2 by 2 grid
        grid.g.x[i] = v[2 * i];
        grid.g.y[i] = v[2 * i + 1];
    }
    ShapeOutputs out;
    out.viaRenderer = std::make_unique<Picture>(128, 128, IMAGE_FORMAT_UINT8);
    Renderer r;
    EXPECT_EQ(render(r, *out.viaRenderer, src, grid), TL_OK);
    const int32_t rect[4] = {0, 0, 128, 128};
    const Renderer2_DrawFn kernels[3] = {Renderer2_Uint8_drawRectNoRot, Renderer2_Uint8_drawRectParallel,
                                         Renderer2_Uint8_drawRect};
    for (int k = 0; k < 3; ++k) {
        out.direct[k] = std::make_unique<Picture>(128, 128, IMAGE_FORMAT_UINT8);
        const Renderer2_DrawArg arg = {&out.direct[k]->image, &src.image, v, rect, 0};
        EXPECT_EQ(kernels[k](&arg), TL_OK);
    }
    return out;
}

}  // namespace

TEST(Renderer2, CellsAreClassifiedByShape) {
    // Deviations in pixels of the 128-pixel cell: a from a parallelogram in
    // x, b in y, c the drop of the top edge; 0.5 is the threshold of both.
    // Each case is drawn so that the kernel it must not take gives other pixels.
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
    for (const auto& c : cases) {
        const ShapeOutputs out = drawShape(c.v);
        EXPECT_TRUE(out.viaRenderer->samePixels(*out.direct[c.expected])) << c.name;
        EXPECT_FALSE(out.viaRenderer->samePixels(*out.direct[c.notThis])) << c.name;
    }
}

TEST(Renderer2, SkippedCellsLeaveTheDestinationUntouched) {
    std::mt19937 random(15);
    Picture src(64, 64, IMAGE_FORMAT_UINT8);
    src.fillRandom(random);
    const int32_t cell = 16;
    auto cellUntouched = [](const Picture& p, int32_t cx, int32_t cy, uint8_t fill) {
        for (int32_t y = cy * 16; y < cy * 16 + 16; ++y) {
            for (int32_t x = cx * 16; x < cx * 16 + 16; ++x) {
                if (p.image.plane[0][y * p.image.pitch[0] + x] != fill) return false;
            }
        }
        return true;
    };
    {
        // An invalid vertex with the boundary check: the four cells around it
        // are skipped, the others drawn.
        Picture dst(64, 64, IMAGE_FORMAT_UINT8);
        dst.fillPlanes(1);
        Grid grid(64, 64, cell);
        const int32_t v = 2 * grid.g.cols + 2;  // vertex (32, 32)
        grid.g.x[v] = kRenderer2InvalidVertex;
        grid.g.y[v] = kRenderer2InvalidVertex;
        Renderer r(0, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t cy = 0; cy < 4; ++cy) {
            for (int32_t cx = 0; cx < 4; ++cx) {
                const bool aroundMarker = (cx == 1 || cx == 2) && (cy == 1 || cy == 2);
                EXPECT_EQ(cellUntouched(dst, cx, cy, 1), aroundMarker) << cx << "," << cy;
            }
        }
        EXPECT_TRUE(dst.canariesIntact());
    }
    {
        // Without the boundary check a vertex at -0.5 skips its cells.
        Picture dst(64, 64, IMAGE_FORMAT_UINT8);
        dst.fillPlanes(1);
        Grid grid(64, 64, cell);
        grid.g.x[1] = -0.5;  // vertex (16, 0)
        Renderer r(0, 0);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        EXPECT_TRUE(cellUntouched(dst, 0, 0, 1));
        EXPECT_TRUE(cellUntouched(dst, 1, 0, 1));
        EXPECT_FALSE(cellUntouched(dst, 2, 0, 1));
        EXPECT_FALSE(cellUntouched(dst, 0, 1, 1));
    }
    {
        // With the boundary check a cell with one vertex inside is drawn where
        // it maps into the source; a cell wholly outside is skipped.
        Picture dst(64, 64, IMAGE_FORMAT_UINT8);
        dst.fillPlanes(1);
        Grid grid(64, 64, cell);
        grid.apply(affine(1, 0, 40, 0, 1, 0));  // columns 40 to 104 of a 64-wide source
        Renderer r(0, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t y = 0; y < 64; ++y) {
            for (int32_t x = 0; x < 64; ++x) {
                // The second cell's rows lose two pixels at a time from their
                // last, 31, until the end maps to column 62 (width - 2) or
                // less: 21 is the last drawn. Cells from 32 have no vertex
                // inside and are skipped.
                const uint8_t expected = x <= 21 ? src.u8(x + 40, y) : 1;
                ASSERT_EQ(dst.u8(x, y), expected) << x << "," << y;
            }
        }
        EXPECT_TRUE(dst.canariesIntact());
    }
    {
        // A grid laid out for a larger destination draws the cells that fit.
        Picture dst(40, 40, IMAGE_FORMAT_UINT8);
        dst.fillPlanes(1);
        Grid grid(64, 64, cell);
        Renderer r(0, 0);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t y = 0; y < 40; ++y) {
            for (int32_t x = 0; x < 40; ++x) ASSERT_EQ(dst.u8(x, y), x < 32 && y < 32 ? src.u8(x, y) : 1);
        }
        EXPECT_TRUE(dst.canariesIntact());
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

namespace {

struct Layers {
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    ParallelExecutor twoWorkers, overPel;
    Layers() {
        construct_Pel(pel.get(), nullptr);
        pel->params.numberOfWorkers = 3;
        pel->params.callerParticipates = 0;
        EXPECT_EQ(Pel_init(pel.get()), TL_OK);
        // A pool of one thread and a working caller: two bands.
        construct_ParallelExecutor(&twoWorkers, nullptr);
        twoWorkers.numberOfThreads = 1;
        twoWorkers.callerWorks = 1;
        twoWorkers.setAffinity = 0;
        EXPECT_EQ(ParallelExecutor_init(&twoWorkers, 2, 16), TL_OK);
        // Over the Pel, with 16 places: four bands and the remainder.
        construct_ParallelExecutor(&overPel, nullptr);
        overPel.pel = pel.get();
        EXPECT_EQ(ParallelExecutor_init(&overPel, 16, 16), TL_OK);
    }
    ~Layers() {
        EXPECT_EQ(destruct_ParallelExecutor(&overPel), TL_OK);
        EXPECT_EQ(destruct_ParallelExecutor(&twoWorkers), TL_OK);
        EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
    }
};

}  // namespace

TEST(Renderer2, EveryWayOfRunningCellsGivesTheSamePixels) {
    Layers layers;
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
        ASSERT_EQ(grid.g.rows - 1, height > 100 ? 13 : 6);
        grid.apply(projective(h));
        Picture serial(w, height, f.format);
        serial.fillPlanes(9);
        Renderer r(f.mode, 1);
        ASSERT_EQ(render(r, serial, src, grid), TL_OK);

        const struct {
            const char* name;
            Pel* pel;
            ParallelExecutor* executor;
        } ways[] = {{"pel", layers.pel.get(), nullptr},
                    {"two bands", nullptr, &layers.twoWorkers},
                    {"five bands", nullptr, &layers.overPel}};
        for (const auto& way : ways) {
            Picture out(w, height, f.format);
            out.fillPlanes(9);
            if (way.pel != nullptr) {
                Renderer2_initWithPel(&r.r, way.pel);
            } else {
                Renderer2_init(&r.r, way.executor);
            }
            ASSERT_EQ(render(r, out, src, grid), TL_OK) << way.name;
            EXPECT_TRUE(out.samePixels(serial)) << nameOf(f) << " " << way.name;
        }
        // The caller's own schedule: three cells per index.
        Picture own(w, height, f.format);
        own.fillPlanes(9);
        Renderer2_KernelArg arg;
        ASSERT_EQ(Renderer2_getKernelArg(&r.r, &arg, &own.image, &src.image, &grid.g, 3), TL_OK);
        const PelIndexFunction fn = Renderer2_getKernelFunc(&r.r);
        ASSERT_EQ(fn, Renderer2_getKernel(&r.r)->function.index);
        const int32_t cells = (grid.g.cols - 1) * (grid.g.rows - 1);
        for (int32_t i = (cells + 2) / 3; i >= 0; --i) EXPECT_EQ(fn(&arg, i, nullptr), TL_OK);
        EXPECT_TRUE(own.samePixels(serial)) << nameOf(f) << " own schedule";
        ASSERT_EQ(Pel_execute(layers.pel.get(), Renderer2_getKernel(&r.r), &arg, (cells + 2) / 3), TL_OK);
        EXPECT_TRUE(own.samePixels(serial)) << nameOf(f) << " own Pel_execute";
    }
}

TEST(Renderer2, MatrixEntryPoints) {
    std::mt19937 random(18);
    Picture src(120, 90, IMAGE_FORMAT_UINT8);
    src.fillRandom(random);
    Renderer r;
    // A whole-pixel translation: the interior is the shifted source.
    Mvec8Real m;
    Mvec8Real_setIdentity(&m);
    m.m[2] = 3.0;
    m.m[5] = 2.0;
    Picture a(100, 80, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(Renderer2_renderWithMvec8Real(&r.r, &a.image, &src.image, &m), TL_OK);
    // The grid of the matrix entry points: min(100, 80) / 16 = 5, cleared to 0, at least 8.
    EXPECT_EQ(r.r.params.gridWidth, 8);
    EXPECT_EQ(r.r.params.gridHeight, 8);
    EXPECT_EQ(r.r.params.right, 100);
    for (int32_t y = 0; y < 80; ++y) {
        for (int32_t x = 0; x < 100; ++x) ASSERT_EQ(a.u8(x, y), src.u8(x + 3, y + 2));
    }
    // The same map in Q15 gives the same picture.
    const Mvec6F32 q = {32768, 0, 3 * 32768, 0, 32768, 2 * 32768};
    Picture b(100, 80, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(Renderer2_renderWithMvec6F32(&r.r, &b.image, &src.image, &q), TL_OK);
    EXPECT_TRUE(a.samePixels(b));
    // A division of 2 on a new destination lays the grid out again: 64 / 2 = 32.
    r.r.division = 2;
    Picture c(64, 70, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(Renderer2_renderWithMvec8Real(&r.r, &c.image, &src.image, &m), TL_OK);
    EXPECT_EQ(r.r.params.gridWidth, 32);
    EXPECT_EQ(r.r.params.cols, 3);
    EXPECT_EQ(r.r.params.rows, 4);
    EXPECT_EQ(Renderer2_renderWithMvec8Real(&r.r, &c.image, &src.image, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_renderWithMvec6F32(&r.r, &c.image, &src.image, nullptr), TL_ERROR_PARAM);
}

TEST(Renderer2, RefusedInputWritesNothing) {
    std::mt19937 random(19);
    Grid grid(32, 32, 8);
    auto untouched = [](const Picture& p) {
        Picture blank(p.image.width, p.image.height, p.image.format);
        blank.fillPlanes(5);
        return p.samePixels(blank) && p.canariesIntact();
    };
    {
        // Formats without a kernel.
        for (const uint32_t format : {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_YUV422_SEMIPLANAR,
                                      IMAGE_FORMAT_UINT16, IMAGE_FORMAT_YUV444_PLANAR, IMAGE_FORMAT_FLOAT}) {
            Picture src(32, 32, format), dst(32, 32, format);
            src.fillRandom(random);
            dst.fillPlanes(5);
            Renderer r;
            EXPECT_EQ(render(r, dst, src, grid), TL_ERROR_UNSUPPORTED) << format;
            EXPECT_TRUE(untouched(dst)) << format;
        }
    }
    {
        // Modes: 2 has no planar 4:2:0 kernel; modes beyond 0..3 on 4:2:0;
        // UINT8 ignores the mode.
        const struct {
            uint32_t format;
            int32_t mode;
            TLResult expected;
        } cases[] = {
            {IMAGE_FORMAT_YUV420_PLANAR, 2, TL_ERROR_UNSUPPORTED},
            {IMAGE_FORMAT_YUV420_SEMIPLANAR, 4, TL_ERROR_UNSUPPORTED},
            {IMAGE_FORMAT_YVU420_SEMIPLANAR, -1, TL_ERROR_UNSUPPORTED},
            {IMAGE_FORMAT_YUV420_PLANAR, 9, TL_ERROR_UNSUPPORTED},
            {IMAGE_FORMAT_UINT8, 9, TL_OK},
            {16, -3, TL_OK},
        };
        for (const auto& c : cases) {
            Picture src(32, 32, c.format), dst(32, 32, c.format);
            src.fillRandom(random);
            dst.fillPlanes(5);
            // Before a destination is known the mode is only stored.
            Renderer r;
            EXPECT_EQ(Renderer2_setMode(&r.r, c.mode), TL_OK);
            EXPECT_EQ(render(r, dst, src, grid), c.expected) << c.format << " " << c.mode;
            EXPECT_EQ(untouched(dst), c.expected != TL_OK);
            // Once it is known, setMode reports at once, and renders refuse
            // until a valid mode comes.
            Renderer known;
            Picture other(32, 32, c.format);
            ASSERT_EQ(render(known, other, src, grid), TL_OK);
            EXPECT_EQ(Renderer2_setMode(&known.r, c.mode), c.expected);
            dst.fillPlanes(5);
            EXPECT_EQ(render(known, dst, src, grid), c.expected);
            EXPECT_EQ(untouched(dst), c.expected != TL_OK);
            EXPECT_EQ(Renderer2_setMode(&known.r, 1), TL_OK);
            EXPECT_EQ(render(known, dst, src, grid), TL_OK);
        }
    }
    Picture src(32, 32, IMAGE_FORMAT_UINT8), dst(32, 32, IMAGE_FORMAT_UINT8);
    src.fillRandom(random);
    dst.fillPlanes(5);
    Renderer r;
    {
        // A grid above 16384 vertices, made by hand.
        Grid big;
        big.g.cols = 129;
        big.g.rows = 128;
        std::vector<double> x(129 * 128, 1.0);
        std::vector<int32_t> xs(129 * 128, 0);
        big.g.x = x.data();
        big.g.y = x.data();
        big.g.xs = xs.data();
        big.g.ys = xs.data();
        EXPECT_EQ(render(r, dst, src, big), TL_ERROR_PARAM);
        big.g = Renderer2_Params{};
        // Arrays missing.
        big.g.cols = 3;
        big.g.rows = 3;
        EXPECT_EQ(render(r, dst, src, big), TL_ERROR_PARAM);
        big.g = Renderer2_Params{};
    }
    {
        // Images that do not match or have no pixels, and null arguments.
        Picture other(32, 32, IMAGE_FORMAT_YUV420_SEMIPLANAR);
        EXPECT_EQ(Renderer2_render(&r.r, &other.image, &src.image, &grid.g), TL_ERROR_PARAM);
        Image empty;
        construct_Image(&empty, nullptr);
        EXPECT_EQ(Renderer2_render(&r.r, &dst.image, &empty, &grid.g), TL_ERROR_PARAM);
        EXPECT_EQ(Renderer2_render(nullptr, &dst.image, &src.image, &grid.g), TL_ERROR_PARAM);
        EXPECT_EQ(Renderer2_render(&r.r, nullptr, &src.image, &grid.g), TL_ERROR_PARAM);
        EXPECT_EQ(Renderer2_render(&r.r, &dst.image, nullptr, &grid.g), TL_ERROR_PARAM);
        EXPECT_EQ(Renderer2_render(&r.r, &dst.image, &src.image, nullptr), TL_ERROR_PARAM);
        Renderer2_KernelArg arg;
        EXPECT_EQ(Renderer2_getKernelArg(&r.r, &arg, &dst.image, &src.image, &grid.g, 0), TL_ERROR_PARAM);
        EXPECT_EQ(Renderer2_drawCells(nullptr, 0, nullptr), TL_ERROR_PARAM);
    }
    EXPECT_TRUE(untouched(dst));
    EXPECT_EQ(construct_Renderer2(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Renderer2(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_init(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_initWithPel(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_setMode(nullptr, 0), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_setBoundaryCheck(nullptr, 1), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_getKernel(nullptr), nullptr);
    EXPECT_EQ(Renderer2_getKernelFunc(nullptr), nullptr);
}

TEST(Renderer2, ObjectDefaults) {
    Env env{};
    Renderer2 r;
    ASSERT_EQ(construct_Renderer2(&r, &env), TL_OK);
    EXPECT_EQ(r.division, 16);
    EXPECT_EQ(r.width, 0);
    EXPECT_EQ(r.drawRect, nullptr);
    EXPECT_EQ(Renderer2_getBufferSize(), 409600);
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    ParallelExecutor executor;
    EXPECT_EQ(Renderer2_initWithPel(&r, pel.get()), TL_OK);
    EXPECT_EQ(r.parallelThreshold, 0.5);
    EXPECT_EQ(r.rotationThreshold, 0.5);
    EXPECT_EQ(r.pel, pel.get());
    EXPECT_EQ(Renderer2_init(&r, &executor), TL_OK);
    EXPECT_EQ(r.pel, nullptr);
    EXPECT_EQ(r.parallelExecutor, &executor);
    EXPECT_EQ(Renderer2_initWithPel(&r, pel.get()), TL_OK);
    EXPECT_EQ(r.parallelExecutor, nullptr);
    EXPECT_EQ(Renderer2_setBoundaryCheck(&r, 7), TL_OK);
    EXPECT_EQ(r.boundaryCheck, 1);
    EXPECT_EQ(destruct_Renderer2(&r), TL_OK);
}
