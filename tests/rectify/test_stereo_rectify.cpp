// StereoRectify: camera matrices fitted between sizes by hand, the
// composition of grids, and a synthetic calibrated pair of phone cameras
// whose 3D points must land on the same rows of the two rectified frames.
#include <gtest/gtest.h>

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

struct Stereo {
    Env env{};
    StereoRectify s;
    explicit Stereo(Pel* pel = nullptr) {
        construct_StereoRectify(&s, &env);
        StereoRectify_setPel(&s, pel);
    }
    ~Stereo() { destruct_StereoRectify(&s); }
};

Mvec8Real cameraXY(double fx, double fy, double cx, double cy) {
    return Mvec8Real{{fx, 0, cx, 0, fy, cy, 0, 0, 1}};
}

}  // namespace

TEST(StereoRectify, FitCameraMatrixWorkedByHand) {
    const Mvec8Real k = cameraXY(3200, 3190, 2003.3, 1497.7);
    const struct {
        const char* name;
        int32_t width, height;
        Mvec8Real expected;
    } cases[] = {
        // Equal sizes: the first branch, cx through a float.
        {"same size", 4000, 3000, cameraXY(3200, 3190, static_cast<float>(2003.3), 1497.7)},
        // The same aspect: the crop term is 0, scale 0.25.
        {"quarter", 1000, 750,
         cameraXY(800, 797.5, static_cast<float>(0.25f * static_cast<float>(2003.3)), 374.425)},
        // 1080 by 810 is 0.27 of the calibration, as the working frame.
        {"working size", 1080, 810,
         cameraXY(3200 * static_cast<double>(0.27f), 3190 * static_cast<double>(0.27f),
                  static_cast<float>(0.27f * static_cast<float>(2003.3)),
                  1497.7 * static_cast<double>(0.27f))},
        // Square target: scale by the heights (1 / 3), crop 500 across.
        {"square", 1000, 1000,
         cameraXY(3200 * static_cast<double>(1000.0f / 3000.0f),
                  3190 * static_cast<double>(1000.0f / 3000.0f),
                  static_cast<float>((1000.0f / 3000.0f) * (static_cast<float>(2003.3) - 500.0f)),
                  1497.7 * static_cast<double>(1000.0f / 3000.0f))},
        // 16:9 target: the calibration frame is taller; scale by the widths
        // (0.48) and crop 375 down.
        {"wide", 1920, 1080,
         cameraXY(3200 * static_cast<double>(0.48f), 3190 * static_cast<double>(0.48f),
                  2003.3 * static_cast<double>(0.48f),
                  static_cast<float>(0.48f * (static_cast<float>(1497.7) - 375.0f)))},
    };
    for (const auto& c : cases) {
        Mvec8Real out;
        ASSERT_EQ(StereoRectify_fitCameraMatrix(&out, &k, c.width, c.height, 4000, 3000), TL_OK) << c.name;
        for (int i = 0; i < 9; ++i)
            EXPECT_NEAR(out.m[i], c.expected.m[i], 1e-9) << c.name << " element " << i;
    }
    // The principal point of a centred camera stays in the centre of the crop.
    const Mvec8Real centred = camera(3000, 2000, 1500);
    for (const int32_t side : {1080, 1000}) {
        Mvec8Real out;
        const int32_t width = side == 1080 ? 1920 : 1000;
        ASSERT_EQ(StereoRectify_fitCameraMatrix(&out, &centred, width, side, 4000, 3000), TL_OK);
        EXPECT_NEAR(out.m[2], width / 2, 1e-3);
        EXPECT_NEAR(out.m[5], side / 2, 1e-3);
    }
}

TEST(StereoRectify, SynthesizeGridComposesTwoMaps) {
    // A lookup that holds an affine map at its vertices: bilinear
    // interpolation reproduces it exactly inside, and its edge outside. The
    // 4 row tasks over a Pel give the same grid.
    Stereo serial, parallel(&sharedLayers().pel);
    Grid lookup(64, 48, 16), grid(40, 30, 8), again(40, 30, 8);
    for (int32_t v = 0; v < lookup.count(); ++v) {
        lookup.g.x[v] = 2.0 * lookup.g.xs[v] + 1.0;
        lookup.g.y[v] = -3.0 * lookup.g.ys[v] + 0.5 * lookup.g.xs[v];
    }
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
    ASSERT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &lookup.g), TL_OK);
    ASSERT_EQ(StereoRectify_synthesizeGrid(&parallel.s, &again.g, &lookup.g), TL_OK);
    EXPECT_DOUBLE_EQ(grid.g.x[0], 1.0);
    EXPECT_DOUBLE_EQ(grid.g.y[0], -3.0 * 48);
    EXPECT_DOUBLE_EQ(grid.g.x[1], 2.0 * 64 + 1.0);
    EXPECT_DOUBLE_EQ(grid.g.y[1], -3.0 * 48 + 0.5 * 64);
    for (int32_t v = 2; v < grid.count(); ++v) {
        const double x = std::fmin(1.3 * grid.g.xs[v] + 0.7, 64.0),
                     y = std::fmin(1.1 * grid.g.ys[v] + 2.25, 48.0);
        ASSERT_NEAR(grid.g.x[v], 2.0 * x + 1.0, 1e-9) << v;
        ASSERT_NEAR(grid.g.y[v], -3.0 * y + 0.5 * x, 1e-9) << v;
    }
    EXPECT_EQ(std::memcmp(again.g.x, grid.g.x, sizeof(double) * grid.count()), 0);
    EXPECT_EQ(std::memcmp(again.g.y, grid.g.y, sizeof(double) * grid.count()), 0);
    // One grid for both is refused.
    EXPECT_EQ(StereoRectify_synthesizeGrid(&serial.s, &grid.g, &grid.g), TL_ERROR_PARAM);
}

namespace {

// One phone camera of the pair at its calibration size, 4000 by 3000.
struct PhoneCamera {
    Mvec8Real k;
    RectifyLensDist dist;
};

PhoneCamera phoneCamera(double f, double cx, double cy, double k1, double k2, double k3, double p1,
                        double p2) {
    return {camera(f, cx, cy), coeffLens(k1, k2, k3, p1, p2)};
}

// The lens, written out: ideal normalised point to distorted pixel.
void project(const PhoneCamera& c, const Mvec8Real& fitted, const double p[3], double* u, double* v) {
    double dx, dy;
    distort(c.dist.coeff, p[0] / p[2], p[1] / p[2], &dx, &dy);
    *u = fitted.m[0] * dx + fitted.m[2];
    *v = fitted.m[4] * dy + fitted.m[5];
}

// The warp's map at a rectified pixel: the bilinear blend of the four
// vertices of its cell, as Renderer2 draws it. False on an invalid vertex.
bool gridAt(const Renderer2_Params& g, double rx, double ry, double* sx, double* sy) {
    const int32_t i = std::min(std::max(static_cast<int32_t>(rx / g.gridWidth), 0), g.cols - 2);
    const int32_t j = std::min(std::max(static_cast<int32_t>(ry / g.gridHeight), 0), g.rows - 2);
    const int32_t v = j * g.cols + i;
    const double u = (rx - g.xs[v]) / (g.xs[v + 1] - g.xs[v]);
    const double w = (ry - g.ys[v]) / (g.ys[v + g.cols] - g.ys[v]);
    const int32_t corner[4] = {v, v + 1, v + g.cols, v + g.cols + 1};
    const double weight[4] = {(1 - u) * (1 - w), u * (1 - w), (1 - u) * w, u * w};
    *sx = 0;
    *sy = 0;
    for (int c = 0; c < 4; ++c) {
        if (g.x[corner[c]] >= kRenderer2InvalidVertex) return false;
        *sx += weight[c] * g.x[corner[c]];
        *sy += weight[c] * g.y[corner[c]];
    }
    return true;
}

// The rectified pixel that the warp fills from source pixel (sx, sy):
// Newton's method on the grid's map, with a numerical Jacobian.
bool rectifiedOf(const Renderer2_Params& g, double sx, double sy, double* rx, double* ry) {
    double x = sx, y = sy;
    for (int it = 0; it < 40; ++it) {
        double fx, fy, ax, ay, bx, by;
        if (!gridAt(g, x, y, &fx, &fy) || !gridAt(g, x + 0.25, y, &ax, &ay) ||
            !gridAt(g, x, y + 0.25, &bx, &by)) {
            return false;
        }
        const double ex = fx - sx, ey = fy - sy;
        if (std::hypot(ex, ey) < 1e-9) break;
        const double j00 = (ax - fx) / 0.25, j10 = (ay - fy) / 0.25, j01 = (bx - fx) / 0.25,
                     j11 = (by - fy) / 0.25;
        const double det = j00 * j11 - j01 * j10;
        x -= (j11 * ex - j01 * ey) / det;
        y -= (-j10 * ex + j00 * ey) / det;
    }
    double fx, fy;
    if (!gridAt(g, x, y, &fx, &fy) || std::hypot(fx - sx, fy - sy) > 1e-6) return false;
    *rx = x;
    *ry = y;
    return true;
}

struct PairResult {
    double worstRowOffset = 0;  // largest |row 1 - row 2|, working pixels
    double worstDisparity = 0;  // largest error of the disparity against f B / Z, working pixels
    int32_t points = 0;         // points seen by both cameras and compared
    double focal = 0;           // rectified focal length
    Mvec8Real newCamera1, newCamera2;
};

// Rectifies a synthetic pair at the working size of the session (1080 by
// 810, cells of 32) and projects 3D points into both cameras.
PairResult rectifyPair(const float baseline[3], const Mvec8Real& rotation, Pel* pel) {
    PairResult result;
    Stereo st(pel);
    // Two phone cameras: 4000 by 3000 at a focal length of 3200 pixels
    // (about 64 degrees across), barrel and pincushion terms and decentring
    // of the size a module shows, principal points a few pixels off centre.
    PhoneCamera main = phoneCamera(3200, 2003.5, 1497.2, 0.06, -0.12, 0.04, 6e-4, -4e-4);
    PhoneCamera sub = phoneCamera(3150, 1995.0, 1506.0, -0.05, 0.08, -0.02, -5e-4, 3e-4);
    constexpr int32_t kW = 1080, kH = 810, kCalibW = 4000, kCalibH = 3000;
    Mvec8Real r1, r2, n1, n2;
    EXPECT_EQ(
        StereoRectify_stereoRectify(&st.s, &r1, &r2, &n1, &n2, &main.k, &sub.k, &main.dist, &sub.dist,
                                    &rotation, baseline, kW, kH, kCalibW, kCalibH, kCalibW, kCalibH, 8, 8),
        TL_OK);
    EXPECT_EQ(main.dist.coeff.invValid, 1);
    EXPECT_EQ(sub.dist.coeff.invValid, 1);
    result.newCamera1 = n1;
    result.newCamera2 = n2;
    result.focal = n1.m[0];
    // The grids of the session, in its order: the main camera with the
    // inverse grid (at half the working size), then the sub camera.
    Grid mainGrid(kW, kH, 32), subGrid(kW, kH, 32), inverseGrid(kW / 2, kH / 2, 32);
    EXPECT_EQ(StereoRectify_calcRectifyGridParams(&st.s, &mainGrid.g, &inverseGrid.g, &r1, &n1, &main.k,
                                                  &main.dist, kW, kH, kW, kH, kW, kH, kCalibW, kCalibH),
              TL_OK);
    EXPECT_EQ(StereoRectify_calcRectifyGridParams(&st.s, &subGrid.g, nullptr, &r2, &n2, &sub.k, &sub.dist, kW,
                                                  kH, kW, kH, kW, kH, kCalibW, kCalibH),
              TL_OK);
    Mvec8Real fitted1, fitted2;
    StereoRectify_fitCameraMatrix(&fitted1, &main.k, kW, kH, kCalibW, kCalibH);
    StereoRectify_fitCameraMatrix(&fitted2, &sub.k, kW, kH, kCalibW, kCalibH);

    const double b = std::sqrt(double{baseline[0]} * baseline[0] + double{baseline[1]} * baseline[1] +
                               double{baseline[2]} * baseline[2]);
    const int32_t steps = vq_tl_test_scaled(15, 7);
    for (const double depth : {500.0, 900.0, 2000.0, 5000.0}) {
        for (int32_t j = 0; j <= steps; ++j) {
            for (int32_t i = 0; i <= steps; ++i) {
                // Directions over the main camera's field, to its corners.
                const double p1[3] = {depth * (-0.6 + 1.2 * i / steps), depth * (-0.45 + 0.9 * j / steps),
                                      depth};
                double p2[3];
                for (int r = 0; r < 3; ++r) {
                    p2[r] = rotation.m[3 * r] * p1[0] + rotation.m[3 * r + 1] * p1[1] +
                            rotation.m[3 * r + 2] * p1[2] + baseline[r];
                }
                double u1, v1, u2, v2, x1, y1, x2, y2;
                project(main, fitted1, p1, &u1, &v1);
                project(sub, fitted2, p2, &u2, &v2);
                const bool seen =
                    u1 >= 0 && u1 <= kW && v1 >= 0 && v1 <= kH && u2 >= 0 && u2 <= kW && v2 >= 0 && v2 <= kH;
                if (!seen) continue;
                if (!rectifiedOf(mainGrid.g, u1, v1, &x1, &y1) || !rectifiedOf(subGrid.g, u2, v2, &x2, &y2)) {
                    ADD_FAILURE() << "no rectified pixel for " << u1 << "," << v1 << " / " << u2 << "," << v2;
                    continue;
                }
                // The whole source frame lies inside the rectified frame.
                EXPECT_GE(x1, 0.0);
                EXPECT_LE(x1, kW);
                EXPECT_GE(y1, 0.0);
                EXPECT_LE(y1, kH);
                result.worstRowOffset = std::fmax(result.worstRowOffset, std::fabs(y1 - y2));
                const double expected = result.focal * b / depth;
                result.worstDisparity =
                    std::fmax(result.worstDisparity, std::fabs(std::fabs(x1 - x2) - expected));
                ++result.points;
            }
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
    EXPECT_GT(r.focal, 800);
    EXPECT_LT(r.focal, 870);
    // The same over a Pel.
    EXPECT_EQ(rectifyPair(baseline, rotation, &sharedLayers().pel).worstRowOffset, r.worstRowOffset);
}

TEST(StereoRectify, SmallVerticalAndDepthBaselineStaysInTheRowWindow) {
    // Vertical and depth components of a few tenths of a millimetre: the
    // rows of the two frames part (the rotation turns the baseline by twice
    // its angle to the axis), but by no more than the 4 rows each way that
    // the matcher searches.
    const Mvec8Real rotation = rodrigues(-0.7, 0.2, 0.4, 0.4 * M_PI / 180);
    for (const auto& t : {std::vector<float>{-10.0f, 0.3f, 0.3f}, std::vector<float>{-10.0f, -0.4f, 0.2f},
                          std::vector<float>{10.0f, 0.3f, -0.4f}}) {
        const PairResult r = rectifyPair(t.data(), rotation, nullptr);
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
