// StereoRectify: camera matrices fitted between sizes by hand, the
// composition of grids, and a synthetic calibrated pair of phone cameras
// whose 3D points must land on the same rows of the two rectified frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "rectify/stereo_rectify.h"
#include "support/layers.h"
#include "support/test_env.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct PairResult {
    double worstRowOffset = 0, worstDisparity = 0;  // |row 1 - row 2|; disparity against f B / Z
    double worstGrid = 0;                           // the grid's map against the camera model
    int32_t points = 0;                             // seen by both cameras and compared
    Mvec8Real newCamera[2];
};

// Rectifies a synthetic pair at the session's working size (1080 by 810,
// cells of 32) and projects 3D points into both cameras: two 4000 by 3000
// phone cameras, f 3200 (about 64 degrees across), module-sized barrel,
// pincushion and decentring terms, principal points a few pixels off centre.
PairResult rectifyPair(const float baseline[3], const Mvec8Real& rotation, Pel* pel) {
    PairResult res;
    Stereo st(pel);
    const Mvec8Real k[2] = {camera(3200, 2003.5, 1497.2), camera(3150, 1995.0, 1506.0)};
    RectifyLensDist lens[2] = {coeffLens(0.06, -0.12, 0.04, 6e-4, -4e-4),
                               coeffLens(-0.05, 0.08, -0.02, -5e-4, 3e-4)};
    constexpr int32_t kW = 1080, kH = 810;
    Mvec8Real r[2], *n = res.newCamera, fitted[2];
    EXPECT_EQ(StereoRectify_stereoRectify(&st.s, &r[0], &r[1], &n[0], &n[1], &k[0], &k[1], &lens[0], &lens[1],
                                          &rotation, baseline, kW, kH, 4000, 3000, 4000, 3000, 8, 8),
              TL_OK);
    EXPECT_TRUE(lens[0].coeff.invValid && lens[1].coeff.invValid);
    // The session's grids: the main camera with the inverse grid (at half
    // the working size), then the sub camera.
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
            double u[2], v[2], x[2][2], q[3], at[2];
            bool seen = true;
            for (int c = 0; c < 2; ++c) {
                distort(lens[c].coeff, p[c][0] / p[c][2], p[c][1] / p[c][2], &u[c], &v[c]);
                u[c] = fitted[c].m[0] * u[c] + fitted[c].m[2];
                v[c] = fitted[c].m[4] * v[c] + fitted[c].m[5];
                seen = seen && u[c] >= 0 && u[c] <= kW && v[c] >= 0 && v[c] <= kH;
                // The rectified pixel of the point: the new camera of the turned frame.
                for (int row = 0; row < 3; ++row)
                    q[row] = r[c].m[3 * row] * p[c][0] + r[c].m[3 * row + 1] * p[c][1] +
                             r[c].m[3 * row + 2] * p[c][2];
                x[c][0] = n[c].m[0] * q[0] / q[2] + n[c].m[2];
                x[c][1] = n[c].m[4] * q[1] / q[2] + n[c].m[5];
            }
            if (!seen) continue;
            // The warp fills that pixel from where the camera sees the point.
            for (int c = 0; c < 2; ++c) {
                EXPECT_TRUE(gridAt(grid[c].g, x[c][0], x[c][1], at)) << x[c][0] << "," << x[c][1];
                res.worstGrid = std::fmax(res.worstGrid, std::hypot(at[0] - u[c], at[1] - v[c]));
            }
            // The whole source frame lies inside the rectified frame.
            EXPECT_TRUE(x[0][0] >= 0 && x[0][0] <= kW && x[0][1] >= 0 && x[0][1] <= kH) << x[0][0];
            res.worstRowOffset = std::fmax(res.worstRowOffset, std::fabs(x[0][1] - x[1][1]));
            res.worstDisparity = std::fmax(res.worstDisparity,
                                           std::fabs(std::fabs(x[0][0] - x[1][0]) - n[0].m[0] * b / depth));
            ++res.points;
        }
    }
    return res;
}

}  // namespace

TEST(StereoRectify, FitCameraMatrixWorkedByHand) {
    // From 4000 by 3000, f 3200 by 3190 at (2003.3, 1497.7). The same aspect
    // scales; a wider frame scales by the heights and crops across (square:
    // 1 / 3, 500 off cx), a taller one by the widths and crops down (16:9:
    // 0.48, 375 off cy). In float.
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
        for (int i = 0; i < 9; ++i) EXPECT_NEAR(out.m[i], expected.m[i], 2e-4) << c.width << " " << i;
    }
}

TEST(StereoRectify, SynthesizeGridComposesTwoMaps) {
    // A lookup that holds an affine map at its vertices: bilinear
    // interpolation reproduces it exactly inside, and its edge outside. The
    // 4 row tasks over a Pel give the same grid. One grid for both is refused.
    Stereo serial, parallel(&sharedLayers().pel);
    Grid lookup(64, 48, 16), grid(40, 30, 8), again(40, 30, 8);
    lookup.apply(
        [](double x, double y, double* sx, double* sy) { *sx = 2.0 * x + 1.0, *sy = -3.0 * y + 0.5 * x; });
    for (Grid* g : {&grid, &again}) {
        g->apply(
            [](double x, double y, double* sx, double* sy) { *sx = 1.3 * x + 0.7, *sy = 1.1 * y + 2.25; });
        // Outside on two sides, and the invalid marker, which reads the last
        // column and row.
        g->g.x[0] = -10;
        g->g.y[0] = 60;
        g->g.x[1] = g->g.y[1] = kRenderer2InvalidVertex;
    }
    const std::vector<double> x(grid.g.x, grid.g.x + grid.count()), y(grid.g.y, grid.g.y + grid.count());
    ASSERT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &lookup.g), TL_OK);
    ASSERT_EQ(StereoRectify_synthesizeGrid(&parallel.s, &again.g, &lookup.g), TL_OK);
    for (int32_t v = 0; v < grid.count(); ++v) {
        const double cx = std::clamp(x[v], 0.0, 64.0), cy = std::clamp(y[v], 0.0, 48.0);
        ASSERT_TRUE(std::fabs(grid.g.x[v] - (2.0 * cx + 1.0)) < 1e-9 &&
                    std::fabs(grid.g.y[v] - (-3.0 * cy + 0.5 * cx)) < 1e-9)
            << v;
    }
    EXPECT_TRUE(!std::memcmp(again.g.x, grid.g.x, sizeof(double) * grid.count()) &&
                !std::memcmp(again.g.y, grid.g.y, sizeof(double) * grid.count()));
    EXPECT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &grid.g), TL_ERROR_PARAM);
}

TEST(StereoRectify, PointsLandOnTheSameRowOfBothFrames) {
    // A 10 mm baseline along x with a residual rotation of 0.3 degree: every
    // point from 0.5 m to 5 m lands on the same row of both frames within a
    // quarter of a working pixel, and its disparity (1.7 to 17 pixels) is
    // that of the baseline at the rectified focal length. Vertical and depth
    // components of a few tenths of a millimetre part the rows (the rotation
    // turns the baseline by twice its angle to the axis), but by no more than
    // the 4 rows each way that the matcher searches.
    const Mvec8Real turn = rodrigues(0.3, -0.5, 0.8, 0.3 * M_PI / 180),
                    tilt = rodrigues(-0.7, 0.2, 0.4, 0.4 * M_PI / 180);
    const struct {
        float baseline[3];
        const Mvec8Real& rotation;
        double rows, disparity;
    } cases[] = {{{-10.0f, 0.0f, 0.0f}, turn, 0.25, 0.15},
                 {{-10.0f, 0.3f, 0.3f}, tilt, 4.0, 1e9},
                 {{-10.0f, -0.4f, 0.2f}, tilt, 4.0, 1e9},
                 {{10.0f, 0.3f, -0.4f}, tilt, 4.0, 1e9}};
    for (const auto& c : cases) {
        const PairResult r = rectifyPair(c.baseline, c.rotation, nullptr);
        EXPECT_GT(r.points, vq_tl_test_scaled(500, 100));
        EXPECT_LT(r.worstRowOffset, c.rows) << c.baseline[1];
        EXPECT_LT(r.worstDisparity, c.disparity) << c.baseline[1];
        EXPECT_LT(r.worstGrid, 0.15) << c.baseline[1];
        // One new camera for both, framing 1072 by 802 of 1080 by 810 at about
        // a quarter of the calibration's focal length.
        EXPECT_EQ(std::memcmp(&r.newCamera[0], &r.newCamera[1], sizeof(Mvec8Real)), 0);
        EXPECT_TRUE(r.newCamera[0].m[0] > 800 && r.newCamera[0].m[0] < 870) << r.newCamera[0].m[0];
    }
    EXPECT_EQ(rectifyPair(cases[0].baseline, turn, &sharedLayers().pel).worstGrid,
              rectifyPair(cases[0].baseline, turn, nullptr).worstGrid);
}
