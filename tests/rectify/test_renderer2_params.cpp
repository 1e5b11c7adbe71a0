// Warp grids: layouts worked out by hand and refused layouts that leave a
// grid as it was, copies, matrices and clamping.
#include <gtest/gtest.h>

#include "rectify/renderer2_params.h"
#include "warp_support.h"

using namespace vq_tl;
using vq_tl_test::Grid;

TEST(Renderer2Params, LayoutsWorkedOutByHand) {
    enum Kind { kGridSize, kDivision, kVertical, kSize, kRectDivision, kRectSize, kWrapper };
    // p is the cell width, division or size; q the cell height. A gridWidth
    // of 0 marks a refused layout.
    const struct {
        const char* name;
        Kind kind;
        int32_t rect[4], p, q;
        int32_t gridWidth, gridHeight, cols, rows;
    } cases[] = {
        // The last cell is the remainder: 3, 19, 35, then 40.
        {"rect with grid size", kGridSize, {3, 5, 40, 30}, 16, 8, 16, 8, 4, 5},
        {"exact multiple adds no empty cell", kGridSize, {0, 0, 64, 32}, 32, 16, 32, 16, 3, 3},
        // 810 / 16 = 50, cleared to 48: 1056 is the last multiple before 1080.
        {"division 16", kDivision, {0, 0, 1080, 810}, 16, 0, 48, 48, 24, 18},
        {"division 1 is one cell", kDivision, {0, 0, 50, 20}, 1, 0, 50, 20, 2, 2},
        {"share below 16 clears to 0, raised to 8", kDivision, {0, 0, 40, 30}, 4, 0, 8, 8, 6, 5},
        {"vertical", kVertical, {0, 0, 50, 100}, 3, 0, 50, 32, 2, 5},
        {"vertical undivided", kVertical, {0, 0, 50, 100}, 0, 0, 50, 100, 2, 2},
        {"with size", kSize, {0, 0, 20, 10}, 9, 0, 9, 9, 4, 3},
        {"rect divided: 64 / 2", kRectDivision, {10, 20, 110, 84}, 2, 0, 32, 32, 5, 3},
        {"rect with size", kRectSize, {-8, 0, 8, 8}, 8, 0, 8, 8, 3, 2},
        {"16384 vertices", kGridSize, {0, 0, 127 * 8, 127 * 8}, 8, 8, 8, 8, 128, 128},
        {"wrapper", kWrapper, {0, 0, 37, 20}, 16, 10, 16, 10, 4, 3},
        {"cell of 7", kGridSize, {0, 0, 4096, 4096}, 7, 64, 0, 0, 0, 0},
        {"cell height of 7", kGridSize, {0, 0, 4096, 4096}, 64, 7, 0, 0, 0, 0},
        {"513 by 513 vertices", kGridSize, {0, 0, 4096, 4096}, 8, 8, 0, 0, 0, 0},
        {"128 by 129 vertices", kGridSize, {0, 0, 127 * 8, 128 * 8}, 8, 8, 0, 0, 0, 0},
        {"empty rectangle", kGridSize, {5, 5, 5, 20}, 8, 8, 0, 0, 0, 0},
        {"whole cell below 8", kDivision, {0, 0, 7, 64}, 1, 0, 0, 0, 0, 0},
        {"wrapper cell of 0", kWrapper, {0, 0, 10, 10}, 0, 4, 0, 0, 0, 0},
    };
    Grid grid(64, 64, 16);
    Env env{};
    Renderer2_GridWrapper wrapper;
    construct_Renderer2_GridWrapper(&wrapper, &env);
    const int any = 0;
    for (const auto& c : cases) {
        const int32_t* r = c.rect;
        const int32_t colsBefore = grid.g.cols;
        const double* xBefore = grid.g.x;
        TLResult result;
        switch (c.kind) {
            case kGridSize: result = Renderer2_Params_initWithGridSize(&grid.g, r, c.p, c.q); break;
            case kDivision: result = Renderer2_Params_init(&grid.g, &any, r[2], r[3], c.p); break;
            case kVertical: result = Renderer2_Params_initVertical(&grid.g, &any, r[2], r[3], c.p); break;
            case kSize: result = Renderer2_Params_initWithSize(&grid.g, &any, r[2], r[3], c.p); break;
            case kRectDivision: result = Renderer2_Params_initRect(&grid.g, &any, r, c.p); break;
            case kRectSize: result = Renderer2_Params_initRectWithSize(&grid.g, &any, r, c.p); break;
            default: result = Renderer2_GridWrapper_initWithGridSize(&wrapper, r[2], r[3], c.p, c.q); break;
        }
        if (c.gridWidth == 0) {
            EXPECT_EQ(result, TL_ERROR_PARAM) << c.name;
            EXPECT_EQ(grid.g.cols, colsBefore) << c.name;
            EXPECT_EQ(grid.g.x, xBefore) << c.name;
            continue;
        }
        ASSERT_EQ(result, TL_OK) << c.name;
        const bool w = c.kind == kWrapper;
        const int32_t cols = w ? wrapper.cols : grid.g.cols, rows = w ? wrapper.rows : grid.g.rows;
        ASSERT_EQ(cols, c.cols) << c.name;
        ASSERT_EQ(rows, c.rows) << c.name;
        if (!w) {
            EXPECT_EQ(grid.g.gridWidth, c.gridWidth) << c.name;
            EXPECT_EQ(grid.g.gridHeight, c.gridHeight) << c.name;
        }
        // Vertices at left + i * gridWidth, the last at right; the same
        // down; x and y start at the integer positions.
        for (int32_t v = 0; v < cols * rows; ++v) {
            const int32_t i = v % cols, j = v / cols;
            const int32_t xs = i == cols - 1 ? r[2] : r[0] + i * c.gridWidth;
            const int32_t ys = j == rows - 1 ? r[3] : r[1] + j * c.gridHeight;
            ASSERT_EQ(w ? wrapper.xs[v] : grid.g.xs[v], xs) << c.name << " vertex " << v;
            ASSERT_EQ(w ? wrapper.ys[v] : grid.g.ys[v], ys) << c.name << " vertex " << v;
            ASSERT_EQ(w ? wrapper.x[v] : grid.g.x[v], xs) << c.name << " vertex " << v;
            ASSERT_EQ(w ? wrapper.y[v] : grid.g.y[v], ys) << c.name << " vertex " << v;
        }
    }
    EXPECT_EQ(Renderer2_GridWrapper_init(&wrapper, -1, 5), TL_ERROR_PARAM);
    EXPECT_EQ(Renderer2_GridWrapper_getBufferSize(100000, 100000), -1);  // beyond 31 bits
    destruct_Renderer2_GridWrapper(&wrapper);
}

TEST(Renderer2Params, CopyMatrixAndConfine) {
    Grid a(100, 60, 16), b, other(30, 30, 8);
    // A homography: every vertex is its image under the matrix.
    const Mvec8Real h = {{1.5, 0.25, -3.0, 0.125, 0.75, 9.0, 1e-3, 2e-3, 1.0}};
    ASSERT_EQ(Renderer2_Params_setMvec8Real(&a.g, &h), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v) {
        const double x = a.g.xs[v], y = a.g.ys[v], w = 1e-3 * x + 2e-3 * y + 1.0;
        ASSERT_DOUBLE_EQ(a.g.x[v], (1.5 * x + 0.25 * y - 3.0) / w);
        ASSERT_DOUBLE_EQ(a.g.y[v], (0.125 * x + 0.75 * y + 9.0) / w);
    }
    // A copy into an empty grid or one of another layout lays it out and
    // takes every array; into one of the same layout it overwrites them.
    for (Grid* to : {&b, &other, &b}) {
        ASSERT_EQ(Renderer2_Params_copy(&to->g, &a.g), TL_OK);
        ASSERT_EQ(to->count(), a.count());
        EXPECT_EQ(to->g.gridWidth, 16);
        for (int32_t v = 0; v < a.count(); ++v) {
            ASSERT_EQ(to->g.x[v], a.g.x[v]);
            ASSERT_EQ(to->g.y[v], a.g.y[v]);
            ASSERT_EQ(to->g.xs[v], a.g.xs[v]);
            ASSERT_EQ(to->g.ys[v], a.g.ys[v]);
        }
        a.g.x[3] = -77.0;
    }
    // Confining clamps to [left, right - 2] and [top, bottom - 2], markers too.
    a.g.x[0] = kRenderer2InvalidVertex;
    a.g.y[0] = -5.0;
    const int32_t rect[4] = {2, 3, 50, 40};
    ASSERT_EQ(Renderer2_Grid_confineWithinRect(&a.g, rect), TL_OK);
    EXPECT_EQ(a.g.x[0], 48.0);
    EXPECT_EQ(a.g.y[0], 3.0);
    for (int32_t v = 1; v < a.count(); ++v) {
        ASSERT_EQ(a.g.x[v], std::fmin(std::fmax(b.g.x[v], 2.0), 48.0)) << v;
        ASSERT_EQ(a.g.y[v], std::fmin(std::fmax(b.g.y[v], 3.0), 38.0)) << v;
    }
}
