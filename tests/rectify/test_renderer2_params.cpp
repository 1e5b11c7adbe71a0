// Warp grids: layouts worked out by hand, the size rules, copies, matrices,
// clamping, and refused layouts that leave a grid as it was.
#include <gtest/gtest.h>

#include <vector>

#include "rectify/renderer2_params.h"
#include "warp_support.h"

using namespace vq_tl;
using vq_tl_test::Grid;

namespace {

std::vector<int32_t> columnsOf(const Renderer2_Params& g) {
    return std::vector<int32_t>(g.xs, g.xs + g.cols);
}

std::vector<int32_t> rowsOf(const Renderer2_Params& g) {
    std::vector<int32_t> r;
    for (int32_t j = 0; j < g.rows; ++j) r.push_back(g.ys[j * g.cols]);
    return r;
}

}  // namespace

TEST(Renderer2Params, LayoutsWorkedOutByHand) {
    Grid grid;
    int any = 0;
    const struct {
        const char* name;
        std::function<TLResult(Renderer2_Params*)> init;
        int32_t gridWidth, gridHeight;
        std::vector<int32_t> xs, ys;
    } cases[] = {
        // The last cell is the remainder: 3 + 2 * 16 = 35, then 40.
        {"rect with grid size",
         [](Renderer2_Params* p) {
             const int32_t rect[4] = {3, 5, 40, 30};
             return Renderer2_Params_initWithGridSize(p, rect, 16, 8);
         },
         16,
         8,
         {3, 19, 35, 40},
         {5, 13, 21, 29, 30}},
        // An exact multiple adds no empty cell.
        {"exact multiple",
         [](Renderer2_Params* p) {
             const int32_t rect[4] = {0, 0, 64, 32};
             return Renderer2_Params_initWithGridSize(p, rect, 32, 16);
         },
         32,
         16,
         {0, 32, 64},
         {0, 16, 32}},
        // 1080 by 810 at a division of 16: 810 / 16 = 50, cleared to 48.
        {"division 16",
         [&](Renderer2_Params* p) { return Renderer2_Params_init(p, &any, 1080, 810, 16); },
         48,
         48,
         {0,   48,  96,  144, 192, 240, 288, 336, 384, 432,  480,  528,
          576, 624, 672, 720, 768, 816, 864, 912, 960, 1008, 1056, 1080},
         {0, 48, 96, 144, 192, 240, 288, 336, 384, 432, 480, 528, 576, 624, 672, 720, 768, 810}},
        // Divisions below 2: one cell of the whole rectangle.
        {"division 1",
         [&](Renderer2_Params* p) { return Renderer2_Params_init(p, &any, 50, 20, 1); },
         50,
         20,
         {0, 50},
         {0, 20}},
        // A share below 16 clears to 0 and is raised to 8.
        {"small share",
         [&](Renderer2_Params* p) { return Renderer2_Params_init(p, &any, 40, 30, 4); },
         8,
         8,
         {0, 8, 16, 24, 32, 40},
         {0, 8, 16, 24, 30}},
        {"vertical",
         [&](Renderer2_Params* p) { return Renderer2_Params_initVertical(p, &any, 50, 100, 3); },
         50,
         32,
         {0, 50},
         {0, 32, 64, 96, 100}},
        {"vertical undivided",
         [&](Renderer2_Params* p) { return Renderer2_Params_initVertical(p, &any, 50, 100, 0); },
         50,
         100,
         {0, 50},
         {0, 100}},
        {"with size",
         [&](Renderer2_Params* p) { return Renderer2_Params_initWithSize(p, &any, 20, 10, 9); },
         9,
         9,
         {0, 9, 18, 20},
         {0, 9, 10}},
        {"rect divided",
         [&](Renderer2_Params* p) {
             const int32_t rect[4] = {10, 20, 110, 84};
             return Renderer2_Params_initRect(p, &any, rect, 2);  // 64 / 2 = 32
         },
         32,
         32,
         {10, 42, 74, 106, 110},
         {20, 52, 84}},
        {"rect with size",
         [&](Renderer2_Params* p) {
             const int32_t rect[4] = {-8, 0, 8, 8};
             return Renderer2_Params_initRectWithSize(p, &any, rect, 8);
         },
         8,
         8,
         {-8, 0, 8},
         {0, 8}},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.init(&grid.g), TL_OK) << c.name;
        EXPECT_EQ(grid.g.gridWidth, c.gridWidth) << c.name;
        EXPECT_EQ(grid.g.gridHeight, c.gridHeight) << c.name;
        EXPECT_EQ(columnsOf(grid.g), c.xs) << c.name;
        EXPECT_EQ(rowsOf(grid.g), c.ys) << c.name;
        EXPECT_EQ(grid.g.right, c.xs.back()) << c.name;
        EXPECT_EQ(grid.g.bottom, c.ys.back()) << c.name;
        // Row by row, x and y start at the integer positions.
        for (int32_t v = 0; v < grid.count(); ++v) {
            ASSERT_EQ(grid.g.xs[v], c.xs[static_cast<size_t>(v % grid.g.cols)]) << c.name;
            ASSERT_EQ(grid.g.ys[v], c.ys[static_cast<size_t>(v / grid.g.cols)]) << c.name;
            ASSERT_EQ(grid.g.x[v], grid.g.xs[v]) << c.name;
            ASSERT_EQ(grid.g.y[v], grid.g.ys[v]) << c.name;
        }
    }
}

TEST(Renderer2Params, RefusedLayoutsLeaveTheGridAsItWas) {
    Grid grid(64, 64, 16);
    const double* x = grid.g.x;
    int any = 0;
    const int32_t big[4] = {0, 0, 4096, 4096};
    const int32_t edge[4] = {0, 0, 127 * 8, 128 * 8};  // 128 by 129 vertices
    const int32_t fits[4] = {0, 0, 127 * 8, 127 * 8};  // 128 by 128
    const int32_t empty[4] = {5, 5, 5, 20};
    const struct {
        const char* name;
        TLResult result;
        TLResult expected;
    } cases[] = {
        {"cell of 7", Renderer2_Params_initWithGridSize(&grid.g, big, 7, 64), TL_ERROR_PARAM},
        {"cell height of 7", Renderer2_Params_initWithGridSize(&grid.g, big, 64, 7), TL_ERROR_PARAM},
        {"513 by 513 vertices", Renderer2_Params_initWithGridSize(&grid.g, big, 8, 8), TL_ERROR_PARAM},
        {"128 by 129 vertices", Renderer2_Params_initWithGridSize(&grid.g, edge, 8, 8), TL_ERROR_PARAM},
        {"empty rectangle", Renderer2_Params_initWithGridSize(&grid.g, empty, 8, 8), TL_ERROR_PARAM},
        {"null rectangle", Renderer2_Params_initWithGridSize(&grid.g, nullptr, 8, 8), TL_ERROR_PARAM},
        {"null any", Renderer2_Params_init(&grid.g, nullptr, 64, 64, 4), TL_ERROR_PARAM},
        {"null any vertical", Renderer2_Params_initVertical(&grid.g, nullptr, 64, 64, 4), TL_ERROR_PARAM},
        {"null any size", Renderer2_Params_initWithSize(&grid.g, nullptr, 64, 64, 8), TL_ERROR_PARAM},
        {"null any rect", Renderer2_Params_initRect(&grid.g, nullptr, big, 4), TL_ERROR_PARAM},
        {"null any rect size", Renderer2_Params_initRectWithSize(&grid.g, nullptr, big, 8), TL_ERROR_PARAM},
        {"whole cell below 8", Renderer2_Params_init(&grid.g, &any, 7, 64, 1), TL_ERROR_PARAM},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, c.expected) << c.name;
        EXPECT_EQ(grid.g.cols, 5) << c.name;
        EXPECT_EQ(grid.g.x, x) << c.name;
    }
    // 16384 vertices exactly are accepted.
    ASSERT_EQ(Renderer2_Params_initWithGridSize(&grid.g, fits, 8, 8), TL_OK);
    EXPECT_EQ(grid.count(), 16384);
    EXPECT_EQ(Renderer2_Params_getBufferSize(), 409600);
}

TEST(Renderer2Params, CopyMatrixAndConfine) {
    Grid a(100, 60, 16), b;
    // A homography: every vertex is its image under the matrix.
    const Mvec8Real h = {{1.5, 0.25, -3.0, 0.125, 0.75, 9.0, 1e-3, 2e-3, 1.0}};
    ASSERT_EQ(Renderer2_Params_setMvec8Real(&a.g, &h), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v) {
        const double x = a.g.xs[v], y = a.g.ys[v];
        const double w = 1e-3 * x + 2e-3 * y + 1.0;
        ASSERT_DOUBLE_EQ(a.g.x[v], (1.5 * x + 0.25 * y - 3.0) / w);
        ASSERT_DOUBLE_EQ(a.g.y[v], (0.125 * x + 0.75 * y + 9.0) / w);
    }
    // A copy into an empty grid lays it out and takes every array.
    ASSERT_EQ(Renderer2_Params_copy(&b.g, &a.g), TL_OK);
    EXPECT_EQ(b.g.cols, a.g.cols);
    EXPECT_EQ(b.g.gridWidth, 16);
    for (int32_t v = 0; v < a.count(); ++v) {
        ASSERT_EQ(b.g.x[v], a.g.x[v]);
        ASSERT_EQ(b.g.y[v], a.g.y[v]);
        ASSERT_EQ(b.g.xs[v], a.g.xs[v]);
    }
    // Into a grid of the same layout the arrays are kept and overwritten.
    const double* kept = b.g.x;
    a.g.x[3] = -77.0;
    ASSERT_EQ(Renderer2_Params_copy(&b.g, &a.g), TL_OK);
    EXPECT_EQ(b.g.x, kept);
    EXPECT_EQ(b.g.x[3], -77.0);
    EXPECT_EQ(Renderer2_Params_copy(&b.g, &b.g), TL_ERROR_PARAM);
    Grid none;
    EXPECT_EQ(Renderer2_Params_copy(&b.g, &none.g), TL_ERROR_PARAM);

    // Confining clamps to [left, right - 2] and [top, bottom - 2], markers too.
    a.g.x[0] = kRenderer2InvalidVertex;
    a.g.y[0] = -5.0;
    const int32_t rect[4] = {2, 3, 50, 40};
    ASSERT_EQ(Renderer2_Grid_confineWithinRect(&a.g, rect), TL_OK);
    EXPECT_EQ(a.g.x[0], 48.0);
    EXPECT_EQ(a.g.y[0], 3.0);
    for (int32_t v = 0; v < a.count(); ++v) {
        ASSERT_GE(a.g.x[v], 2.0);
        ASSERT_LE(a.g.x[v], 48.0);
        ASSERT_GE(a.g.y[v], 3.0);
        ASSERT_LE(a.g.y[v], 38.0);
    }
    EXPECT_EQ(Renderer2_Params_setMvec8Real(&a.g, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_Grid_confineWithinRect(&a.g, nullptr), TL_ERROR_PARAM);
}

TEST(Renderer2Params, GridWrapper) {
    Env env{};
    Renderer2_GridWrapper w;
    ASSERT_EQ(construct_Renderer2_GridWrapper(&w, &env), TL_OK);
    // ceil(37 / 16) + 1 = 4 columns at 0, 16, 32, 37; ceil(20 / 10) + 1 = 3 rows.
    ASSERT_EQ(Renderer2_GridWrapper_initWithGridSize(&w, 37, 20, 16, 10), TL_OK);
    ASSERT_EQ(w.cols, 4);
    ASSERT_EQ(w.rows, 3);
    const int32_t xs[4] = {0, 16, 32, 37}, ys[3] = {0, 10, 20};
    for (int32_t v = 0; v < 12; ++v) {
        EXPECT_EQ(w.xs[v], xs[v % 4]);
        EXPECT_EQ(w.ys[v], ys[v / 4]);
        EXPECT_EQ(w.x[v], xs[v % 4]);
        EXPECT_EQ(w.y[v], ys[v / 4]);
    }
    Mvec8Real shift;
    Mvec8Real_setIdentity(&shift);
    shift.m[2] = 0.5;
    ASSERT_EQ(Renderer2_GridWrapper_setMvec8Real(&w, &shift), TL_OK);
    EXPECT_EQ(w.x[5], 16.5);
    const int32_t rect[4] = {0, 0, 30, 30};
    ASSERT_EQ(Renderer2_Grid_confineWithinRect(&w, rect), TL_OK);
    EXPECT_EQ(w.x[3], 28.0);
    // A plain init allocates without filling; negative sizes are refused.
    ASSERT_EQ(Renderer2_GridWrapper_init(&w, 7, 5), TL_OK);
    EXPECT_EQ(w.cols * w.rows, 35);
    EXPECT_EQ(Renderer2_GridWrapper_init(&w, -1, 5), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_GridWrapper_initWithGridSize(&w, 10, 10, 0, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_GridWrapper_getBufferSize(7, 5), 7 * 5 * 24);
    EXPECT_EQ(Renderer2_GridWrapper_getBufferSize(-1, 5), -1);
    EXPECT_EQ(Renderer2_GridWrapper_getBufferSize(100000, 100000), -1);
    EXPECT_EQ(Renderer2_GridWrapper_recycle(&w), TL_OK);
    EXPECT_EQ(w.x, nullptr);
    EXPECT_EQ(w.env, &env);
    EXPECT_EQ(destruct_Renderer2_GridWrapper(&w), TL_OK);
    EXPECT_EQ(construct_Renderer2_GridWrapper(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(construct_Renderer2_Params(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Renderer2_Params(nullptr), TL_ERROR_PARAM);
}
