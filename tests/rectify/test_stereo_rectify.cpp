// StereoRectify: camera matrices fitted between sizes by hand, the
// composition of grids, and a synthetic calibrated pair of phone cameras
// whose 3D points must land on the same rows of the two rectified frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "rectify/stereo_rectify.h"
#include "support/layers.h"
#include "support/test_env.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Stereo {
    Env env{};
    StereoRectify s;
    explicit Stereo(Pel* pel = nullptr) {
        construct_StereoRectify(&s, &env);
        StereoRectify_setPel(&s, pel);
    }
    ~Stereo() { destruct_StereoRectify(&s); }
};

}  // namespace

TEST(StereoRectify, FitCameraMatrixWorkedByHand) {
    // From a 4000 by 3000 calibration with f 3200 across and 3190 down at
    // (2003.3, 1497.7). The same aspect scales (0.25, 0.27); a frame at
    // least as wide scales by the heights and crops across about the centre
    // (square: 1 / 3, 500 off cx); a taller one scales by the widths and
    // crops down (16:9: 0.48, 375 off cy). The arithmetic is in float.
    const Mvec8Real k = camera(3200, 2003.3, 1497.7, 3190);
    const struct {
        int32_t width, height;
        double f, fy, cx, cy;
    } cases[] = {
        {4000, 3000, 3200, 3190, 2003.3, 1497.7},
        {1000, 750, 800, 797.5, 500.825, 374.425},
        {1080, 810, 864, 861.3, 540.891, 404.379},
        {1000, 1000, 3200 / 3.0, 3190 / 3.0, (2003.3 - 500) / 3, 1497.7 / 3},
        {1920, 1080, 1536, 1531.2, 961.584, 0.48 * (1497.7 - 375)},
    };
    for (const auto& c : cases) {
        Mvec8Real out;
        ASSERT_EQ(StereoRectify_fitCameraMatrix(&out, &k, c.width, c.height, 4000, 3000), TL_OK);
        const Mvec8Real expected = camera(c.f, c.cx, c.cy, c.fy);
        for (int i = 0; i < 9; ++i) EXPECT_NEAR(out.m[i], expected.m[i], 2e-4) << c.width << " element " << i;
    }
}

TEST(StereoRectify, SynthesizeGridComposesTwoMaps) {
    // A lookup that holds an affine map at its vertices: bilinear
    // interpolation reproduces it exactly inside, and its edge outside. The
    // 4 row tasks over a Pel give the same grid. One grid for both is refused.
    Stereo serial, parallel(&sharedLayers().pel);
    Grid lookup(64, 48, 16), grid(40, 30, 8), again(40, 30, 8);
    lookup.apply([](double x, double y, double* sx, double* sy) {
        *sx = 2.0 * x + 1.0;
        *sy = -3.0 * y + 0.5 * x;
    });
    for (Grid* g : {&grid, &again}) {
        g->apply([](double x, double y, double* sx, double* sy) {
            *sx = 1.3 * x + 0.7;
            *sy = 1.1 * y + 2.25;
        });
        // Outside on two sides, and the invalid marker, which reads the last
        // column and row.
        g->g.x[0] = -10;
        g->g.y[0] = 60;
        g->g.x[1] = g->g.y[1] = kRenderer2InvalidVertex;
    }
    Grid expected(40, 30, 8);
    for (int32_t v = 0; v < grid.count(); ++v) {
        const double x = std::fmin(std::fmax(grid.g.x[v], 0.0), 64),
                     y = std::fmin(std::fmax(grid.g.y[v], 0.0), 48);
        expected.g.x[v] = 2.0 * x + 1.0;
        expected.g.y[v] = -3.0 * y + 0.5 * x;
    }
    ASSERT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &lookup.g), TL_OK);
    ASSERT_EQ(StereoRectify_synthesizeGrid(&parallel.s, &again.g, &lookup.g), TL_OK);
    for (int32_t v = 0; v < grid.count(); ++v) {
        ASSERT_NEAR(grid.g.x[v], expected.g.x[v], 1e-9) << v;
        ASSERT_NEAR(grid.g.y[v], expected.g.y[v], 1e-9) << v;
    }
    EXPECT_EQ(std::memcmp(again.g.x, grid.g.x, sizeof(double) * grid.count()), 0);
    EXPECT_EQ(std::memcmp(again.g.y, grid.g.y, sizeof(double) * grid.count()), 0);
    EXPECT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &grid.g), TL_ERROR_PARAM);
}

namespace {

// The warp's map at a rectified pixel: the bilinear blend of the four
// vertices of its cell, as Renderer2 draws it. False on an invalid vertex.
bool gridAt(const Renderer2_Params& g, double rx, double ry, double* sx, double* sy) {
    const int32_t i = std::min(std::max(static_cast<int32_t>(rx / g.gridWidth), 0), g.cols - 2);
    const int32_t j = std::min(std::max(static_cast<int32_t>(ry / g.gridHeight), 0), g.rows - 2);
    const int32_t v = j * g.cols + i;
    const double u = (rx - g.xs[v]) / (g.xs[v + 1] - g.xs[v]),
                 w = (ry - g.ys[v]) / (g.ys[v + g.cols] - g.ys[v]);
    const int32_t corner[4] = {v, v + 1, v + g.cols, v + g.cols + 1};
    const double weight[4] = {(1 - u) * (1 - w), u * (1 - w), (1 - u) * w, u * w};
    *sx = *sy = 0;
    for (int c = 0; c < 4; ++c) {
        if (g.x[corner[c]] >= kRenderer2InvalidVertex) return false;
        *sx += weight[c] * g.x[corner[c]];
        *sy += weight[c] * g.y[corner[c]];
    }
    return true;
}

// The rectified pixel that the warp fills from source pixel (sx, sy):
// Newton's method on the grid's map, with a numerical Jacobian.
bool rectifiedOf(const Renderer2_Params& g, double sx, double sy, double* x, double* y) {
    double fx, fy, ax, ay, bx, by;
    *x = sx;
    *y = sy;
    for (int it = 0; it < 40; ++it) {
        if (!gridAt(g, *x, *y, &fx, &fy) || !gridAt(g, *x + 0.25, *y, &ax, &ay) ||
            !gridAt(g, *x, *y + 0.25, &bx, &by))
            return false;
        const double ex = fx - sx, ey = fy - sy;
        const double j00 = (ax - fx) * 4, j10 = (ay - fy) * 4, j01 = (bx - fx) * 4, j11 = (by - fy) * 4;
        const double det = j00 * j11 - j01 * j10;
        *x -= (j11 * ex - j01 * ey) / det;
        *y -= (-j10 * ex + j00 * ey) / det;
    }
    return gridAt(g, *x, *y, &fx, &fy) && std::hypot(fx - sx, fy - sy) < 1e-6;
}

struct PairResult {
    double worstRowOffset = 0;  // largest |row 1 - row 2|, working pixels
    double worstDisparity = 0;  // largest error of the disparity against f B / Z, working pixels
    int32_t points = 0;         // points seen by both cameras and compared
    Mvec8Real newCamera1, newCamera2;
};

// Rectifies a synthetic pair at the working size of the session (1080 by
// 810, cells of 32) and projects 3D points into both cameras. Two phone
// cameras: 4000 by 3000 at a focal length of 3200 pixels (about 64 degrees
// across), barrel and pincushion terms and decentring of the size a module
// shows, principal points a few pixels off centre.
PairResult rectifyPair(const float baseline[3], const Mvec8Real& rotation, Pel* pel) {
    PairResult result;
    Stereo st(pel);
    const Mvec8Real k[2] = {camera(3200, 2003.5, 1497.2), camera(3150, 1995.0, 1506.0)};
    RectifyLensDist lens[2] = {coeffLens(0.06, -0.12, 0.04, 6e-4, -4e-4),
                               coeffLens(-0.05, 0.08, -0.02, -5e-4, 3e-4)};
    constexpr int32_t kW = 1080, kH = 810;
    Mvec8Real r[2], n[2], fitted[2];
    EXPECT_EQ(StereoRectify_stereoRectify(&st.s, &r[0], &r[1], &n[0], &n[1], &k[0], &k[1], &lens[0], &lens[1],
                                          &rotation, baseline, kW, kH, 4000, 3000, 4000, 3000, 8, 8),
              TL_OK);
    EXPECT_TRUE(lens[0].coeff.invValid && lens[1].coeff.invValid);
    result.newCamera1 = n[0];
    result.newCamera2 = n[1];
    // The grids of the session, in its order: the main camera with the
    // inverse grid (at half the working size), then the sub camera.
    Grid grid[2] = {{kW, kH, 32}, {kW, kH, 32}}, inverseGrid(kW / 2, kH / 2, 32);
    for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(
            StereoRectify_calcRectifyGridParams(&st.s, &grid[c].g, c == 0 ? &inverseGrid.g : nullptr, &r[c],
                                                &n[c], &k[c], &lens[c], kW, kH, kW, kH, kW, kH, 4000, 3000),
            TL_OK);
        StereoRectify_fitCameraMatrix(&fitted[c], &k[c], kW, kH, 4000, 3000);
    }
    const double b = std::hypot(double{baseline[0]}, double{baseline[1]}, double{baseline[2]});
    const int32_t steps = vq_tl_test_scaled(15, 7);
    for (const double depth : {500.0, 900.0, 2000.0, 5000.0}) {
        for (int32_t i = 0; i < (steps + 1) * (steps + 1); ++i) {
            // Directions over the main camera's field, to its corners.
            double p[2][3] = {{depth * (-0.6 + 1.2 * (i % (steps + 1)) / steps),
                               depth * (-0.45 + 0.9 * (i / (steps + 1)) / steps), depth}};
            for (int row = 0; row < 3; ++row) {
                const double* m = &rotation.m[3 * row];
                p[1][row] = m[0] * p[0][0] + m[1] * p[0][1] + m[2] * p[0][2] + baseline[row];
            }
            double u[2], v[2], x[2], y[2];
            bool seen = true;
            for (int c = 0; c < 2; ++c) {
                distort(lens[c].coeff, p[c][0] / p[c][2], p[c][1] / p[c][2], &u[c], &v[c]);
                u[c] = fitted[c].m[0] * u[c] + fitted[c].m[2];
                v[c] = fitted[c].m[4] * v[c] + fitted[c].m[5];
                seen = seen && u[c] >= 0 && u[c] <= kW && v[c] >= 0 && v[c] <= kH;
            }
            if (!seen) continue;
            if (!rectifiedOf(grid[0].g, u[0], v[0], &x[0], &y[0]) ||
                !rectifiedOf(grid[1].g, u[1], v[1], &x[1], &y[1])) {
                ADD_FAILURE() << "no rectified pixel for " << u[0] << "," << v[0] << " / " << u[1] << ","
                              << v[1];
                continue;
            }
            // The whole source frame lies inside the rectified frame.
            EXPECT_TRUE(x[0] >= 0 && x[0] <= kW && y[0] >= 0 && y[0] <= kH) << x[0] << "," << y[0];
            result.worstRowOffset = std::fmax(result.worstRowOffset, std::fabs(y[0] - y[1]));
            result.worstDisparity =
                std::fmax(result.worstDisparity, std::fabs(std::fabs(x[0] - x[1]) - n[0].m[0] * b / depth));
            ++result.points;
        }
    }
    return result;
}

}  // namespace

TEST(StereoRectify, HorizontalBaselinePutsPointsOnTheSameRow) {
    // A 10 mm baseline along x and a residual rotation of 0.3 degree: every
    // point from 0.5 m to 5 m lands on the same row of both rectified frames
    // within a quarter of a working pixel, across the frame.
    const float baseline[3] = {-10.0f, 0.0f, 0.0f};
    const Mvec8Real rotation = rodrigues(0.3, -0.5, 0.8, 0.3 * M_PI / 180);
    const PairResult r = rectifyPair(baseline, rotation, nullptr);
    EXPECT_GT(r.points, vq_tl_test_scaled(500, 100));
    EXPECT_LT(r.worstRowOffset, 0.25);
    // Disparities are those of a 10 mm baseline at the rectified focal
    // length, 1.7 to 17 pixels, within a tenth of a pixel or so.
    EXPECT_LT(r.worstDisparity, 0.15);
    // One new camera for both, which frames 1072 by 802 of the 1080 by 810
    // frame at a focal length of about a quarter of the calibration's.
    EXPECT_EQ(std::memcmp(&r.newCamera1, &r.newCamera2, sizeof r.newCamera1), 0);
    EXPECT_GT(r.newCamera1.m[0], 800);
    EXPECT_LT(r.newCamera1.m[0], 870);
    // The same over a Pel.
    EXPECT_EQ(rectifyPair(baseline, rotation, &sharedLayers().pel).worstRowOffset, r.worstRowOffset);
}

TEST(StereoRectify, SmallVerticalAndDepthBaselineStaysInTheRowWindow) {
    // Vertical and depth components of a few tenths of a millimetre: the
    // rows of the two frames part (the rotation turns the baseline by twice
    // its angle to the axis), but by no more than the 4 rows each way that
    // the matcher searches.
    const Mvec8Real rotation = rodrigues(-0.7, 0.2, 0.4, 0.4 * M_PI / 180);
    const float baselines[3][3] = {{-10.0f, 0.3f, 0.3f}, {-10.0f, -0.4f, 0.2f}, {10.0f, 0.3f, -0.4f}};
    for (const auto& t : baselines) {
        const PairResult r = rectifyPair(t, rotation, nullptr);
        EXPECT_GT(r.points, vq_tl_test_scaled(500, 100));
        EXPECT_LT(r.worstRowOffset, 4.0) << t[0] << " " << t[1] << " " << t[2];
    }
}

TEST(StereoRectify, LensKindsAndFailures) {
    // A table lens is used as it is; the coefficient lens gets its inverse.
    // Failures of Rectify come back: a zero baseline, a skewed camera.
    Stereo st;
    const Mvec8Real k = camera(3200, 2000, 1500), id = {{1, 0, 0, 0, 1, 0, 0, 0, 1}};
    Mvec8Real skew = k;
    skew.m[1] = 1e-300;
    RectifyLensDist table, coeff = coeffLens(-0.05, 0.01, 0, 0, 0);
    RectifyLensDist_clear(&table);
    const double values[5] = {0, 0.24, 0.47, 0.69, 0.9};
    RectifyLensDist_setDistData(&table, values, 5, 1.0);
    const RectifyLensDist tableBefore = table;
    const float t[3] = {-10, 0, 0}, zero[3] = {0, 0, 0};
    Mvec8Real r1, r2, n1, n2;
    auto run = [&](const Mvec8Real& camera1, const float* baseline) {
        return StereoRectify_stereoRectify(&st.s, &r1, &r2, &n1, &n2, &camera1, &k, &table, &coeff, &id,
                                           baseline, 1080, 810, 4000, 3000, 4000, 3000, 8, 8);
    };
    ASSERT_EQ(run(k, t), TL_OK);
    EXPECT_EQ(std::memcmp(&table, &tableBefore, sizeof table), 0);
    EXPECT_EQ(coeff.coeff.invValid, 1);
    EXPECT_EQ(run(k, zero), TL_ERROR_GENERAL);
    EXPECT_EQ(run(skew, t), TL_ERROR_GENERAL);
}
