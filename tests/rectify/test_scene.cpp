// The synthetic stereo scene against the library's lens model and rectification: surface points seen where
// the lens model puts them, an occlusion strip as wide as the baseline makes it, rectified frames in which
// matching points share a row and lie f B / Z apart.
#include <gtest/gtest.h>

#include "support/scene.h"
#include "support/test_env.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

// Both frames at the working size of a 4000 by 3000 main camera, 1080 by 810: the default scene, and one
// whose baseline lies along x.
const Scene& workingScene(bool alongX = false) {
    static std::unique_ptr<Scene> scenes[2];
    if (!scenes[alongX]) {
        SceneConfig c;
        c.mainWidth = c.subWidth = 1080;
        if (alongX) c.subCentre[1] = c.subCentre[2] = 0;
        scenes[alongX] = std::make_unique<Scene>(c);
    }
    return *scenes[alongX];
}

size_t at(const Scene& s, double u, double v) { return std::lround(v) * s.mainCamera.width + std::lround(u); }

Mvec8Real matrix(const double* m) {
    Mvec8Real out;
    std::copy(m, m + 9, out.m);
    return out;
}

}  // namespace

TEST(Scene, SurfacePointsLandWhereTheLensModelPutsThem) {
    // A point of each surface, projected into both frames by the library's lens model: the scene's ray there
    // meets the point, and the main view's truth at the nearest pixel holds its surface and depth (z, not
    // range: the background is at 3.5 m everywhere) within what half a pixel changes on a slope.
    const Scene& s = workingScene();
    const struct {
        double p[3];
        SceneSurface surface;
        double depthTolerance;
    } cases[] = {{{1.2, -0.5, 3.5}, kSceneBackground, 1e-6},
                 {{0.77, -0.63, 3.5}, kSceneFlatPatch, 1e-6},
                 {{0.6, 0.6, 2.0}, kSceneGround, 0.008},
                 {{-0.3, 0.2, 0.8}, kSceneBoxFront, 1e-6},
                 {{-0.05, 0.0, 0.9}, kSceneBoxSide, 0.015}};
    for (const auto& c : cases) {
        for (int cam = 0; cam < 2; ++cam) {
            const SceneCamera& k = cam == 0 ? s.mainCamera : s.subCamera;
            double q[3] = {c.p[0], c.p[1], c.p[2]}, x, y;
            if (cam == 1) s.toSub(c.p, q);
            ASSERT_EQ(Rectify_distortPoint(q[0] / q[2], q[1] / q[2], &x, &y, &k.lens), TL_OK);
            const double u = k.matrix.m[0] * x + k.matrix.m[2], v = k.matrix.m[4] * y + k.matrix.m[5];
            const SceneHit hit = s.castPixel(cam, u, v);
            EXPECT_EQ(hit.surface, c.surface) << c.p[0] << " camera " << cam;
            EXPECT_LT(std::hypot(hit.p[0] - c.p[0], hit.p[1] - c.p[1], hit.p[2] - c.p[2]), 1e-9) << c.p[0];
            if (cam == 1) continue;
            const size_t i = at(s, u, v);
            EXPECT_EQ(s.surface[i], c.surface) << c.p[0];
            EXPECT_NEAR(s.depth[i], c.p[2], c.depthTolerance) << c.p[0];
            EXPECT_EQ(s.textured[i], c.surface != kSceneFlatPatch);
            EXPECT_EQ(s.occluded[i], 0) << c.p[0];
        }
    }
}

TEST(Scene, OcclusionStripLeftOfTheBoxHasTheBaselinesWidth) {
    // The sub camera, 10 mm to the right, sees the box moved further left than the background behind it: main
    // pixels left of the box edge are hidden from it over f B (1 / 0.8 m - 1 / 3.5 m) = 810 * 10 * 0.000964 =
    // 7.8 pixels (f in pixels, B and Z in metres). Nothing right of the box's front face is hidden.
    const Scene& s = workingScene();
    for (const double v : {330.0, 400.0, 470.0}) {
        int32_t edge = 0, run = 0, right = 0;
        while (s.surface[at(s, edge, v)] != kSceneBoxFront) ++edge;
        while (s.occluded[at(s, edge - 1 - run, v)]) ++run;
        EXPECT_NEAR(run, 7.8, 1.0) << v;
        for (int32_t u = edge; u < edge + 500; ++u) right += s.occluded[at(s, u, v)];
        EXPECT_EQ(right, 0) << v;
    }
}

TEST(Scene, RectifiedPairSharesRowsAndDisparityFollowsDepth) {
    // The pair rectified as the depth stage does it, at 1080 by 810 with cells of 32: from a row's stereo
    // extrinsics, and from its per-camera rotations. Rectified main blocks on textured surfaces clear of
    // edges are found in the rectified sub frame on the same row and at the disparity f B / Z of their depth,
    // both within 0.3 pixels. With the stereo extrinsics the baseline is along x: the library turns the pair
    // onto the baseline the other way round, so that vertical and depth parts of the baseline part the rows
    // (0.85 rows at 0.8 m for the default 0.3 and -0.25 mm).
    const struct { bool alongX, perCamera; } cases[] = {{true, false}, {false, true}};
    constexpr int32_t kW = 1080, kH = 810, kHalf = 10, kSide = 2 * kHalf + 1;
    for (const auto& c : cases) {
        const Scene& s = workingScene(c.alongX);
        const Layout layout = Layout::of(s.config.format);
        TwinLensCameraParam row;
        s.cameraParam(&row, false, c.perCamera);
        const SceneCamera* k[2] = {&s.mainCalib, &s.subCalib};
        RectifyLensDist lens[2] = {k[0]->lens, k[1]->lens};
        Mvec8Real r[2] = {matrix(row.mainRectRotation), matrix(row.subRectRotation)},
                  n[2] = {matrix(row.mainRectCameraMatrix), matrix(row.subRectCameraMatrix)},
                  rotation = matrix(row.stereoRotation);
        const double* t = row.stereoTranslation;
        const float translation[3] = {float(t[0]), float(t[1]), float(t[2])};
        const int32_t rectWidth = c.perCamera ? row.mainRectWidth : kW,
                      rectHeight = c.perCamera ? row.mainRectHeight : kH;
        Stereo st;
        if (!c.perCamera) {
            ASSERT_EQ(StereoRectify_stereoRectify(&st, &r[0], &r[1], &n[0], &n[1], &k[0]->matrix,
                                                  &k[1]->matrix, &lens[0], &lens[1], &rotation, translation,
                                                  kW, kH, 4000, 3000, 2592, 1944, 8, 8),
                      TL_OK);
        }
        Grid grid[2] = {{kW, kH, 32}, {kW, kH, 32}};
        Picture rect[2] = {{kW, kH, s.config.format}, {kW, kH, s.config.format}};
        Renderer warp(1, 1);
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(StereoRectify_calcRectifyGridParams(&st, &grid[i].g, nullptr, &r[i], &n[i],
                                                          &k[i]->matrix, &lens[i], kW, kH, kW, kH, rectWidth,
                                                          rectHeight, k[i]->width, k[i]->height),
                      TL_OK);
            rect[i].fillPlanes(0);
            ASSERT_EQ(render(warp, rect[i], i == 0 ? *s.main : *s.sub, grid[i]), TL_OK);
        }
        Mvec8Real f;
        StereoRectify_fitCameraMatrix(&f, &n[0], kW, kH, rectWidth, rectHeight);
        double worstRow = 0, worstDisparity = 0;
        int32_t points = 0;
        const int32_t step = vq_tl_test_scaled(37, 111), across = (kW - 80) / step + 1;
        for (int32_t i = 0; i < across * ((kH - 80) / step + 1); ++i) {
            // Main pixels whose surroundings within reach of the search see one textured surface, seen by
            // both.
            const int32_t x = 40 + step * (i % across), y = 40 + step * (i / across);
            double m[2];
            bool usable =
                gridAt(grid[0].g, x, y, m) && m[0] > 16 && m[1] > 16 && m[0] < kW - 17 && m[1] < kH - 17;
            for (int32_t j = 0; usable && j < 33 * 33; ++j) {
                const size_t a = at(s, m[0], m[1]), b = at(s, m[0] + j % 33 - 16, m[1] + j / 33 - 16);
                usable = s.surface[b] == s.surface[a] && s.textured[b] && !s.occluded[b];
            }
            if (!usable) continue;
            const SceneHit hit = s.castPixel(0, m[0], m[1]);
            const double disparity =
                f.m[0] * s.baseline / (r[0].m[6] * hit.p[0] + r[0].m[7] * hit.p[1] + r[0].m[8] * hit.p[2]);
            // Gauss-Newton from the predicted offset on the bilinear sub frame, with the main block's
            // gradients.
            double sx = -disparity, sy = 0;
            for (int iteration = 0; iteration < 8; ++iteration) {
                double h[3] = {0, 0, 0}, g[2] = {0, 0};
                for (int32_t j = 0; j < kSide * kSide; ++j) {
                    const int32_t u = x + j % kSide - kHalf, v = y + j / kSide - kHalf;
                    const double gx = 0.5 * (rect[0].u8(u + 1, v) - rect[0].u8(u - 1, v)),
                                 gy = 0.5 * (rect[0].u8(u, v + 1) - rect[0].u8(u, v - 1)),
                                 e = rect[0].u8(u, v) -
                                     referenceLuma(rect[1], layout, kW, kH, u + sx, v + sy);
                    h[0] += gx * gx, h[1] += gx * gy, h[2] += gy * gy, g[0] += gx * e, g[1] += gy * e;
                }
                const double det = h[0] * h[2] - h[1] * h[1];
                sx = std::clamp(sx + (h[2] * g[0] - h[1] * g[1]) / det, -disparity - 3, -disparity + 3);
                sy = std::clamp(sy + (h[0] * g[1] - h[1] * g[0]) / det, -3.0, 3.0);
            }
            worstRow = std::fmax(worstRow, std::fabs(sy));
            worstDisparity = std::fmax(worstDisparity, std::fabs(-sx - disparity));
            ++points;
        }
        EXPECT_GT(points, vq_tl_test_scaled(150, 15)) << c.alongX;
        EXPECT_LT(worstRow, 0.3) << c.alongX;
        EXPECT_LT(worstDisparity, 0.3) << c.alongX;
    }
}
