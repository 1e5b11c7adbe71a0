// Rectify: rotations and new camera matrices worked out by hand, grid maps
// against closed forms, the radius limit, the inverse grid, blending of
// grids; the lens model and its fitted inverse against an independent one;
// and the small linear algebra that the fit runs on.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "rectify/rectify.h"
#include "rectify/rectify_util.h"
#include "support/layers.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Fixture {
    Env env{};
    Rectify rectify;
    explicit Fixture(Pel* pel = nullptr) {
        construct_Rectify(&rectify, &env);
        Rectify_setPel(&rectify, pel);
    }
    ~Fixture() { destruct_Rectify(&rectify); }
};

const Mvec8Real kIdentity = {{1, 0, 0, 0, 1, 0, 0, 0, 1}};

Mvec8Real multiply(const Mvec8Real& a, const Mvec8Real& b) {
    Mvec8Real r;
    for (int i = 0; i < 9; ++i) {
        const int row = i / 3 * 3, col = i % 3;
        r.m[i] = a.m[row] * b.m[col] + a.m[row + 1] * b.m[3 + col] + a.m[row + 2] * b.m[6 + col];
    }
    return r;
}

void expectMatrixNear(const Mvec8Real& actual, const Mvec8Real& expected, double tolerance,
                      const char* what) {
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(actual.m[i], expected.m[i], tolerance) << what << " element " << i;
}

// The grid map tests: camera f 320 at (203, 148) on a 400 by 300 frame,
// rectified camera f 300 at (108, 81), and this rotation between them.
const Mvec8Real kCamera = camera(320, 203, 148), kNewCamera = camera(300, 108, 81);
const Mvec8Real kRotation = rodrigues(0.2, -0.5, 0.8, 0.02);

// Rectified pixel (x, y) to source pixel: K distort(R^T newK^-1 p), written out.
void forward(const RectifyLensDist& lens, double x, double y, double* sx, double* sy) {
    const double* r = kRotation.m;
    const double nx = (x - 108) / 300, ny = (y - 81) / 300;
    const double px = r[0] * nx + r[3] * ny + r[6], py = r[1] * nx + r[4] * ny + r[7],
                 pz = r[2] * nx + r[5] * ny + r[8];
    distort(lens.coeff, px / pz, py / pz, sx, sy);
    *sx = 320 * *sx + 203;
    *sy = 320 * *sy + 148;
}

}  // namespace

TEST(Rectify, RectifyingRotationsWorkedByHand) {
    Fixture f;
    const double h = std::sqrt(0.5);
    const Mvec8Real turn = {{0.8, 0.6, 0, -0.6, 0.8, 0, 0, 0, 1}}, eighth = {{h, -h, 0, h, h, 0, 0, 0, 1}};
    const Mvec8Real ry10 = rodrigues(0, 1, 0, M_PI / 18), ryMinus10 = rodrigues(0, 1, 0, -M_PI / 18);
    const struct {
        const char* name;
        Mvec8Real rotation;
        double t[3];
        Mvec8Real rotation1, rotation2;
    } cases[] = {
        // No rotation, baseline along x either way: nothing to turn. A
        // vertical baseline takes the y axis; its sign does not matter.
        {"baseline -x", kIdentity, {-10, 0, 0}, kIdentity, kIdentity},
        {"baseline +x", kIdentity, {10, 0, 0}, kIdentity, kIdentity},
        {"baseline -y", kIdentity, {0, -5, 0}, kIdentity, kIdentity},
        {"baseline +y", kIdentity, {0, 5, 0}, kIdentity, kIdentity},
        // (3, 4, 0): y is strictly greater, n = (0.6, 0.8, 0), and align turns
        // y onto n by acos(0.8) about -z. (-4, 3, 0): x is greater and
        // negative, so t becomes (4, -3, 0): the same turn.
        {"baseline (3, 4, 0)", kIdentity, {3, 4, 0}, turn, turn},
        {"baseline (-4, 3, 0)", kIdentity, {-4, 3, 0}, turn, turn},
        // Equal parts count as horizontal: 45 degrees about z.
        {"baseline (2, 2, 0)", kIdentity, {2, 2, 0}, eighth, eighth},
        // 10 degrees about y with the baseline along -x: the halves are
        // Ry(5) and Ry(-5), t = Ry(-5) (-10, 0, 0) turned positive is
        // (cos 5, 0, sin 5) * 10, and align = Ry(-5) takes x onto it. With
        // align itself in both products: rotation1 = Ry(-5) Ry(5) = I and
        // rotation2 = Ry(-5) Ry(-5) = Ry(-10).
        {"10 degrees about y", ry10, {-10, 0, 0}, kIdentity, ryMinus10},
    };
    for (const auto& c : cases) {
        Mvec8Real r1, r2;
        ASSERT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &c.rotation, c.t), TL_OK) << c.name;
        expectMatrixNear(r1, c.rotation1, 1e-12, c.name);
        expectMatrixNear(r2, c.rotation2, 1e-12, c.name);
        // Whatever the baseline, both rectified frames are parallel:
        // rotation2 * rotation = rotation1.
        expectMatrixNear(multiply(r2, c.rotation), r1, 1e-12, c.name);
    }
    // Refused with the outputs untouched: not a rotation (the sine of its
    // angle would be above 1), no baseline, not a number.
    Mvec8Real r1 = kIdentity, r2 = kIdentity;
    const Mvec8Real notRotation = {{1, 0, 0, 0, 1, -3, 0, 3, 1}},
                    notANumber = {{1, 0, 0, 0, 1, NAN, 0, 0, 1}};
    const double t[3] = {-10, 0.1, 0.2}, zero[3] = {0, 0, 0};
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &notRotation, t), TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &kRotation, zero), TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &notANumber, t), TL_ERROR_GENERAL);
    expectMatrixNear(r1, kIdentity, 0, "untouched");
    // A rotation beyond 90 degrees is not detected: 120 degrees reads as 60.
    const Mvec8Real far = rodrigues(0, 0, 1, 2 * M_PI / 3);
    ASSERT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &far, t), TL_OK);
    EXPECT_GT(std::fabs(multiply(r2, far).m[1] - r1.m[1]), 0.1);
}

TEST(Rectify, NewCameraFramesTheSourceWorkedByHand) {
    // No lens distortion and no rotation: the border spans
    // [-cx / f, (W - cx) / f] by [-cy / f, (H - cy) / f], 1.25 by 0.9375 for a
    // 400 by 300 frame with f = 320. In 216 by 162 less margins of 8 the
    // height binds: f' = 154 / 0.9375. The frame is centred: across,
    // cx' = 4 - minX f' + (208 - 1.25 f') / 2; down 4 + (150 / 320) f' +
    // (154 - 0.9375 f') / 2 = 81.
    Fixture f;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), barrel = coeffLens(-0.08, 0.02, 0, 0, 0);
    const double fp = 154 / 0.9375;
    Mvec8Real n1, n2;
    auto run = [&](const Mvec8Real& k, RectifyLensDist* lens, int32_t outWidth) {
        return Rectify_calcRectifyNewCameraMat(&f.rectify, &n1, &n2, &kIdentity, &k, lens, &kIdentity, &k,
                                               &none, 400, 300, 999, 999, outWidth, 162, 8, 8);
    };
    for (const double cx : {200.0, 190.0}) {
        ASSERT_EQ(run(camera(320, cx, 150), &none, 216), TL_OK);
        expectMatrixNear(n1, camera(fp, 4 + cx / 320 * fp + (208 - 1.25 * fp) / 2, 81), 1e-9, "no lens");
        EXPECT_EQ(std::memcmp(&n1, &n2, sizeof n1), 0);
    }
    // The fit of the lens inverse happens on the way. Barrel distortion: the
    // undistorted frame is larger, the focal length shorter.
    const Mvec8Real k = camera(320, 200, 150);
    ASSERT_EQ(run(k, &barrel, 216), TL_OK);
    EXPECT_EQ(barrel.coeff.invValid, 1);
    EXPECT_LT(n1.m[0], fp);
    // Skew, and no room.
    Mvec8Real skewed = k;
    skewed.m[1] = 0.5;
    EXPECT_EQ(run(skewed, &none, 216), TL_ERROR_GENERAL);
    EXPECT_EQ(run(k, &none, 8), TL_ERROR_GENERAL);
}

TEST(Rectify, GridMapsMatchClosedFormsAndTheInverseGridUndoesThem) {
    // Each vertex against the model written out, serially and over a Pel.
    // The inverse grid: each vertex, sent forward through the exact model,
    // comes back to its source pixel within the accuracy of the fitted lens
    // inverse.
    Fixture serial, parallel(&sharedLayers().pel);
    const RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), mild = coeffLens(0.05, -0.08, 0.02, 4e-4, -3e-4);
    for (const RectifyLensDist& lens : {none, mild}) {
        for (Fixture* f : {&serial, &parallel}) {
            RectifyLensDist d = lens;
            Grid grid(216, 162, 16), inverse(400, 300, 25);
            ASSERT_EQ(Rectify_calcRectifyGridParams(&f->rectify, &grid.g, &inverse.g, &kCamera, &d,
                                                    &kRotation, &kNewCamera, 400, 300),
                      TL_OK);
            EXPECT_EQ(d.coeff.invValid, 1);
            for (int32_t v = 0; v < grid.count(); ++v) {
                double sx, sy;
                forward(d, grid.g.xs[v], grid.g.ys[v], &sx, &sy);
                ASSERT_NEAR(grid.g.x[v], sx, 1e-9) << v;
                ASSERT_NEAR(grid.g.y[v], sy, 1e-9) << v;
            }
            double worst = 0;
            for (int32_t v = 0; v < inverse.count(); ++v) {
                double sx, sy;
                forward(d, inverse.g.x[v], inverse.g.y[v], &sx, &sy);
                worst = std::fmax(worst, std::hypot(sx - inverse.g.xs[v], sy - inverse.g.ys[v]));
            }
            EXPECT_LT(worst, 0.1);
        }
    }
    // Laid out on 100 by 60 of the 400 by 300 image: the scaled inverse
    // multiplies the focal terms by 4 across and 5 down and leaves the
    // offsets, so with no lens, no rotation and the same camera each vertex
    // (x, y) maps to (4 x, 5 y).
    RectifyLensDist d = none;
    Grid grid(400, 300, 32), inverse(100, 60, 8);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&serial.rectify, &grid.g, &inverse.g, &kCamera, &d, &kIdentity,
                                            &kCamera, 400, 300),
              TL_OK);
    for (int32_t v = 0; v < inverse.count(); ++v) {
        ASSERT_NEAR(inverse.g.x[v], 4.0 * inverse.g.xs[v], 1e-9);
        ASSERT_NEAR(inverse.g.y[v], 5.0 * inverse.g.ys[v], 1e-9);
    }
}

TEST(Rectify, VerticesBeyondTheRadiusLimitAreInvalid) {
    // No distortion: the limit is the radius of the corners pushed out by
    // 32 pixels, hypot(232, 182) / 320. A short new focal length of 100 sends
    // the outer vertices of the rectified frame beyond it.
    Fixture f;
    const Mvec8Real k = camera(320, 200, 150), newK = camera(100, 108, 81);
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0);
    Grid grid(216, 162, 8);
    ASSERT_EQ(
        Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &none, &kIdentity, &newK, 400, 300),
        TL_OK);
    int32_t invalid = 0;
    for (int32_t v = 0; v < grid.count(); ++v) {
        const bool beyond = std::hypot((grid.g.xs[v] - 108) / 100.0, (grid.g.ys[v] - 81) / 100.0) >
                            std::hypot(232.0, 182.0) / 320;
        invalid += beyond;
        ASSERT_NEAR(grid.g.x[v], beyond ? kRenderer2InvalidVertex : 200 + 3.2 * (grid.g.xs[v] - 108), 1e-9);
        ASSERT_EQ(grid.g.y[v] == kRenderer2InvalidVertex, beyond);
    }
    EXPECT_GT(invalid, 20);
    EXPECT_LT(invalid, grid.count() / 2);
}

TEST(Rectify, GridMapsRefused) {
    // Cameras that are not plain (skew, a projective row, a last element
    // other than 1), a singular rotation, a lens of another kind or whose
    // table is too short to evaluate, a grid without arrays: refused, the
    // grid as it was.
    Fixture f;
    const Mvec8Real k = camera(320, 200, 150), singular = {{1, 0, 0, 0, 0, 0, 0, 0, 1}};
    Mvec8Real skew = k, projective = k, scaled = k;
    skew.m[1] = 1e-300;
    projective.m[7] = 1e-9;
    scaled.m[8] = 2.0;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), kind2 = none, shortTable;
    kind2.kind = 2;
    const double table[2] = {0, 1};
    RectifyLensDist_clear(&shortTable);
    RectifyLensDist_setDistData(&shortTable, table, 2, 1.0);
    Grid grid(64, 48, 16), empty;
    const double before = grid.g.x[5];
    auto run = [&](Grid& g, const Mvec8Real& camera1, RectifyLensDist& lens, const Mvec8Real& rotation,
                   const Mvec8Real& camera2) {
        return Rectify_calcRectifyGridParams(&f.rectify, &g.g, nullptr, &camera1, &lens, &rotation, &camera2,
                                             400, 300);
    };
    EXPECT_EQ(run(grid, skew, none, kIdentity, k), TL_ERROR_GENERAL);
    EXPECT_EQ(run(grid, k, none, kIdentity, projective), TL_ERROR_GENERAL);
    EXPECT_EQ(run(grid, scaled, none, kIdentity, k), TL_ERROR_GENERAL);
    EXPECT_EQ(run(grid, k, none, singular, k), TL_ERROR_GENERAL);
    EXPECT_EQ(run(grid, k, kind2, kIdentity, k), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(run(grid, k, shortTable, kIdentity, k), TL_ERROR_PARAM);
    EXPECT_EQ(run(empty, k, none, kIdentity, k), TL_ERROR_PARAM);
    EXPECT_EQ(grid.g.x[5], before);
}

TEST(Rectify, ComplementingTwoGrids) {
    Fixture f, parallel(&sharedLayers().pel);
    Grid a(64, 48, 16), b(64, 48, 16), out(64, 48, 16), out2(64, 48, 16);
    for (int32_t v = 0; v < a.count(); ++v) {
        a.g.x[v] = a.g.xs[v] + 4.0;
        a.g.y[v] = a.g.ys[v] - 2.0;
        b.g.x[v] = b.g.xs[v] * 0.5;
        b.g.y[v] = b.g.ys[v] * 0.25 + 1.0;
    }
    a.g.x[3] = kRenderer2InvalidVertex;
    b.g.y[7] = kRenderer2InvalidVertex;
    for (const double alpha : {0.0, 0.25, 1.0}) {
        ASSERT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &b.g, alpha), TL_OK);
        ASSERT_EQ(Rectify_complementGridMap(&parallel.rectify, &out2.g, &a.g, &b.g, alpha), TL_OK);
        EXPECT_EQ(std::memcmp(out.g.x, out2.g.x, sizeof(double) * out.count()), 0);
        for (int32_t v = 0; v < a.count(); ++v) {
            // An invalid coordinate in either input invalidates both outputs.
            const bool invalid = v == 3 || v == 7;
            EXPECT_EQ(out.g.x[v],
                      invalid ? kRenderer2InvalidVertex : (1 - alpha) * b.g.x[v] + alpha * a.g.x[v]);
            EXPECT_EQ(out.g.y[v],
                      invalid ? kRenderer2InvalidVertex : (1 - alpha) * b.g.y[v] + alpha * a.g.y[v]);
        }
    }
    // Refused: alpha outside [0, 1], layouts that differ, coordinates that
    // are not finite.
    for (const double alpha : {-0.01, 1.01, static_cast<double>(NAN)}) {
        EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &b.g, alpha), TL_ERROR_PARAM) << alpha;
    }
    Grid other(64, 48, 8), shifted(64, 48, 16);
    shifted.g.xs[4] += 1;
    EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &other.g, 0.5), TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &shifted.g, 0.5), TL_ERROR_GENERAL);
    for (const double bad : {static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
        b.g.x[9] = bad;
        EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &b.g, 0.5), TL_ERROR_PARAM);
    }
}

namespace {

// Independent inverse of the forward model: fixed-point iteration
// p = d - (forward(p) - p), in long double, run to convergence.
void referenceUndistort(const RectifyLensDistortionCoeff& c, double xd, double yd, double* x, double* y) {
    long double px = xd, py = yd;
    for (int it = 0; it < 200; ++it) {
        const long double r2 = px * px + py * py, radial = 1 + r2 * (c.k[0] + r2 * (c.k[1] + r2 * c.k[2]));
        px += xd - (px * radial + 2 * c.p[0] * px * py + c.p[1] * (r2 + 2 * px * px));
        py += yd - (py * radial + c.p[0] * (r2 + 2 * py * py) + 2 * c.p[1] * px * py);
    }
    *x = static_cast<double>(px);
    *y = static_cast<double>(py);
}

RectifyLensDist tableLens(const std::vector<double>& t, double maxRadius) {
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    RectifyLensDist_setDistData(&d, t.data(), static_cast<int32_t>(t.size()), maxRadius);
    return d;
}

}  // namespace

TEST(RectifyLensDist, FittedInverseUndoesPhoneLenses) {
    // Phone main cameras: a 4000 by 3000 frame with a focal length of 3200
    // pixels (about 64 degrees across), barrel and pincushion lenses with
    // decentring terms of the size a module shows. Over a 41 by 31 grid of
    // distorted points: distort(undistort(p)) - p, and the fitted inverse
    // against the reference. Tolerances: one pixel for the strong barrel lens
    // (a quarter of a pixel at the matching size of 27 percent); its
    // single-precision fit comes to about 0.8 pixel at the corners, the
    // pincushion lens to 0.25, the mild one to 0.04. The sample rows are
    // shared out over the Pel; the fit must not depend on it.
    const struct {
        double k1, k2, k3, p1, p2, tolerancePixels;
    } lenses[] = {{-0.12, 0.05, -0.01, 0.0010, -0.0008, 1.0},
                  {0.08, -0.02, 0.005, -0.0005, 0.0012, 0.35},
                  {-0.035, 0.012, 0.0, 0.0002, 0.0003, 0.08}};
    const Mvec8Real k = camera(3200, 2000, 1500);
    Fixture serial, parallel(&sharedLayers().pel);
    for (const auto& lens : lenses) {
        RectifyLensDist d = coeffLens(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2), e = d;
        ASSERT_EQ(RectifyLensDist_needCalcInv(&d), 1);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&serial.rectify, &d.coeff, &k, 4000, 3000), TL_OK)
            << lens.k1;
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&parallel.rectify, &e.coeff, &k, 4000, 3000), TL_OK)
            << lens.k1;
        EXPECT_EQ(std::memcmp(&d, &e, sizeof d), 0) << lens.k1;
        EXPECT_EQ(RectifyLensDist_needCalcInv(&d), 0);
        EXPECT_EQ(d.coeff.invK[3], 0.0);  // the fitted inverse stays a pure polynomial
        double roundTrip = 0, versusReference = 0;
        for (int i = 0; i < 41 * 31; ++i) {
            const double xd = (100.0 * (i % 41) - 2000) / 3200, yd = (100.0 * (i / 41) - 1500) / 3200;
            double xi, yi, xr, yr, xb, yb;
            ASSERT_EQ(Rectify_undistortPoint(xd, yd, &xi, &yi, &d), TL_OK);
            ASSERT_EQ(Rectify_distortPoint(xi, yi, &xb, &yb, &d), TL_OK);
            referenceUndistort(d.coeff, xd, yd, &xr, &yr);
            roundTrip = std::fmax(roundTrip, 3200 * std::hypot(xb - xd, yb - yd));
            versusReference = std::fmax(versusReference, 3200 * std::hypot(xi - xr, yi - yr));
        }
        EXPECT_LT(roundTrip, lens.tolerancePixels) << lens.k1;
        EXPECT_LT(versusReference, lens.tolerancePixels) << lens.k1;
    }
}

TEST(RectifyLensDist, FitSkipsTheIdentityKeepsAStaleInverseAndFailsWhenSingular) {
    Fixture f;
    const Mvec8Real k = camera(3200, 2000, 1500);
    RectifyLensDist d = coeffLens(0, 0, 0, 0, 0);
    d.coeff.invK[0] = 0.5;  // left as it is: no matrices are built
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &k, 4000, 3000), TL_OK);
    EXPECT_EQ(d.coeff.invValid, 1);
    EXPECT_EQ(d.coeff.invK[0], 0.5);
    // Replacing the coefficients does not invalidate a fitted inverse.
    RectifyLensDist e = coeffLens(-0.1, 0.02, 0, 0, 0);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &k, 4000, 3000), TL_OK);
    const RectifyLensDist fitted = e;
    const double k2[3] = {0.3, 0, 0}, p2[2] = {0, 0};
    ASSERT_EQ(RectifyLensDist_setDistCoeff(&e, k2, 3, p2, 2), TL_OK);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &k, 4000, 3000), TL_OK);
    EXPECT_EQ(std::memcmp(e.coeff.invK, fitted.coeff.invK, sizeof e.coeff.invK), 0);
    // A focal length so long that every sample is 0 in float: the system is
    // singular, and the record stays as it was.
    const Mvec8Real far = camera(1e30, 2000, 1500);
    RectifyLensDist s = coeffLens(-0.1, 0, 0, 0, 0);
    s.coeff.invK[0] = 0.25;
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &s.coeff, &far, 4000, 3000), TL_ERROR_GENERAL);
    EXPECT_EQ(s.coeff.invValid, 0);
    EXPECT_EQ(s.coeff.invK[0], 0.25);
}

TEST(RectifyLensDist, ModelsWorkedByHand) {
    // x' = x (1 + k1 r2) / (1 + k4 r2) + 2 p1 x y + p2 (r2 + 2 x^2), r2 = 0.3125.
    RectifyLensDist d = coeffLens(0.2, 0, 0, 0.01, -0.02);
    d.coeff.k[3] = 0.1;
    double x, y;
    ASSERT_EQ(Rectify_distortPoint(0.5, -0.25, &x, &y, &d), TL_OK);
    const double r2 = 0.3125, radial = (1 + 0.2 * r2) / (1 + 0.1 * r2);
    EXPECT_DOUBLE_EQ(x, 0.5 * radial + 2 * 0.01 * 0.5 * -0.25 + -0.02 * (r2 + 2 * 0.25));
    EXPECT_DOUBLE_EQ(y, -0.25 * radial + 0.01 * (r2 + 2 * 0.0625) + 2 * -0.02 * 0.5 * -0.25);
    // The inverse direction uses invK and invP in the same formulas.
    d.coeff.invK[0] = -0.2;
    d.coeff.invP[1] = 0.02;
    ASSERT_EQ(Rectify_undistortPoint(0.5, -0.25, &x, &y, &d), TL_OK);
    EXPECT_DOUBLE_EQ(x, 0.5 * (1 - 0.2 * r2) + 0.02 * (r2 + 0.5));
    EXPECT_DOUBLE_EQ(y, -0.25 * (1 - 0.2 * r2) + 2 * 0.02 * 0.5 * -0.25);

    // A table of three knots at ideal radii 0, 1, 2 (maxRadius 2): distorted
    // 0, 0.8, 2.4. Beyond the last knot the factor is T[n-1] itself
    // (3 * 1.2), and 1 / T[n-1] back: the map jumps there. The optical
    // centre and points closer than 1e-15 pass unchanged.
    const RectifyLensDist t = tableLens({0.0, 0.4, 1.2}, 2.0);
    const struct {
        double ideal, distorted, cosine;
    } cases[] = {{0.5, 0.4, 0.6}, {1.0, 0.8, 0.6}, {1.5, 1.6, 0.6},
                 {3.0, 3.6, 1.0}, {0, 0, 0.6},     {1e-16, 1e-16, 0.6}};
    for (const auto& c : cases) {
        const double sine = std::sqrt(1 - c.cosine * c.cosine);
        ASSERT_EQ(Rectify_distortPoint(c.ideal * c.cosine, c.ideal * sine, &x, &y, &t), TL_OK);
        EXPECT_NEAR(x, c.distorted * c.cosine, 1e-15) << c.ideal;
        EXPECT_NEAR(y, c.distorted * sine, 1e-15) << c.ideal;
        ASSERT_EQ(Rectify_undistortPoint(c.distorted * c.cosine, c.distorted * sine, &x, &y, &t), TL_OK);
        EXPECT_NEAR(x, c.ideal * c.cosine, 1e-15) << c.distorted;
        EXPECT_NEAR(y, c.ideal * sine, 1e-15) << c.distorted;
    }
    // A barrel table of 41 knots, T(r) = r (1 - 0.15 r^2), round-trips
    // inside its range.
    std::vector<double> knots(41);
    for (int i = 0; i < 41; ++i) knots[i] = i / 40.0 * (1.0 - 0.15 * i * i / 1600.0);
    const RectifyLensDist barrel = tableLens(knots, 0.8);
    for (int i = 0; i < 500; ++i) {
        const double angle = 0.37 * i, r = 0.8 * (i + 0.5) / 500.0;
        double xd, yd;
        ASSERT_EQ(Rectify_distortPoint(r * std::cos(angle), r * std::sin(angle), &xd, &yd, &barrel), TL_OK);
        ASSERT_EQ(Rectify_undistortPoint(xd, yd, &x, &y, &barrel), TL_OK);
        EXPECT_NEAR(x, r * std::cos(angle), 1e-12) << i;
        EXPECT_NEAR(y, r * std::sin(angle), 1e-12) << i;
    }
}

TEST(RectifyLensDist, RecordsRefusedAndCountedAsUndistorted) {
    // Tables of fewer than 3 knots cannot be evaluated, other kinds are
    // unknown: the output is left alone.
    double x = 7, y = 7;
    RectifyLensDist other = coeffLens(0.1, 0, 0, 0, 0);
    other.kind = 2;
    for (const auto& [d, expected] :
         {std::pair{tableLens({0.0, 1.0}, 1.0), TL_ERROR_PARAM},
          std::pair{tableLens({0.0}, 1.0), TL_ERROR_PARAM}, std::pair{other, TL_ERROR_UNSUPPORTED}}) {
        EXPECT_EQ(Rectify_distortPoint(0.5, 0, &x, &y, &d), expected);
        EXPECT_EQ(Rectify_undistortPoint(0.5, 0, &x, &y, &d), expected);
        EXPECT_EQ(x, 7);
    }
    // Counts above the record's room: nothing is copied.
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    const double many[42] = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 7, many, 2), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 3, many, 3), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistData(&d, many, 42, 1.0), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    EXPECT_EQ(d.kind, 0);
    // Undistorted: a straight table, or one of no knots; any forward
    // coefficient counts, the denominator's and the tangential ones too, the
    // inverse's not. Tables have no inverse to fit.
    std::vector<double> straight(41);
    for (int i = 0; i < 41; ++i) straight[i] = i / 40.0;
    RectifyLensDist table = tableLens(straight, 1.0);
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&table), 1);
    EXPECT_EQ(RectifyLensDist_needCalcInv(&table), 0);
    table.data.table[17] += 2e-15;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&table), 0);
    table.data.count = 0;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&table), 1);
    RectifyLensDist c = coeffLens(0, 0, 0, 0, 0);
    c.coeff.k[5] = 1e-300;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 0);
    c.coeff.k[5] = 0.0;
    c.coeff.p[1] = 1e-300;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 0);
    c.coeff.p[1] = 0.0;
    c.coeff.invK[0] = 0.3;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 1);
    EXPECT_EQ(RectifyLensDist_needCalcInv(&c), 1);
}

namespace {

// A float matrix image (or one of another type, left blank); the row pitch is widened by padding so
// that code which ignores the pitch is caught.
struct Matrix {
    Env env{};
    Image image;
    std::vector<uint8_t> storage;
    Matrix(int32_t rows, int32_t cols, std::initializer_list<float> v = {},
           uint32_t format = IMAGE_FORMAT_FLOAT) {
        construct_Image(&image, &env);
        storage.assign(static_cast<size_t>(cols * 4 + 12) * rows + 4, 0xEE);
        ImagePlanes p;
        std::memset(&p, 0, sizeof p);
        p.one = ImagePlanes1{storage.data(), cols * 4 + 12};
        Image_initWithPitch(&image, cols, rows, &p, format);
        int k = 0;
        for (float x : v) {
            at<float>(k++) = x;
        }
    }
    ~Matrix() { destruct_Image(&image); }
    template <typename T>
    T& at(int k) {  // row-major element k
        return reinterpret_cast<T*>(image.plane[0] + image.pitch[0] * (k / image.width))[k % image.width];
    }
    template <typename T>
    bool is(std::initializer_list<T> v) {
        int k = 0;
        for (T x : v) {
            if (at<T>(k++) != x) return false;
        }
        return true;
    }
};

}  // namespace

TEST(RectifyUtil, DotAndTransposeWorkedByHand) {
    // The padding after each row is untouched. Shapes that do not fit and
    // types that differ are refused.
    Matrix m(2, 3, {1, 2, 3, 4, 5, 6}), n(3, 2, {7, 8, 9, 10, 11, 12}), mn(2, 2), mt(3, 2), big(3, 3);
    Matrix ints(3, 2, {}, IMAGE_FORMAT_INT32);
    ASSERT_EQ(RectifyUtil_laDot(&mn.image, &m.image, &n.image), TL_OK);
    EXPECT_TRUE(mn.is<float>({58, 64, 139, 154}));  // 7 + 18 + 33, ...
    EXPECT_EQ(mn.storage[8], 0xEE);
    ASSERT_EQ(RectifyUtil_laTranspose(&mt.image, &m.image), TL_OK);
    EXPECT_TRUE(mt.is<float>({1, 4, 2, 5, 3, 6}));
    EXPECT_EQ(RectifyUtil_laDot(&mn.image, &m.image, &mn.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laDot(&big.image, &m.image, &n.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laTranspose(&mn.image, &m.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laDot(&mn.image, &m.image, &ints.image), TL_ERROR_GENERAL);
}

TEST(RectifyUtil, GaussianElimination) {
    // Random diagonally dominant systems from a known solution, in double,
    // stored as float.
    std::mt19937 rng(31337);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int round = 0; round < 100; ++round) {
        const int n = 1 + round % 7;
        Matrix a(n, n), b(n, 1);
        std::vector<double> x(n), rhs(n, 0.0);
        for (int i = 0; i < n; ++i) x[i] = u(rng) * 10.0;
        for (int i = 0; i < n * n; ++i)
            rhs[i / n] += (a.at<float>(i) = u(rng) + (i % (n + 1) == 0 ? 4 : 0)) * x[i % n];
        for (int i = 0; i < n; ++i) b.at<float>(i) = static_cast<float>(rhs[i]);
        ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(b.at<float>(i), x[i], 1e-4) << "n " << n << " row " << i;
    }
    // A zero diagonal needs the row swap; b is swapped over its whole width.
    // A negative diagonal with a non-zero entry below still solves: 1, 2.
    Matrix s(2, 2, {0, 1, 1, 0}), sb(2, 2, {5, 50, 7, 70}), n(2, 2, {-5, 1, 1, 2}), nb(2, 1, {-3, 5});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&s.image, &sb.image), TL_OK);
    EXPECT_TRUE(sb.is<float>({7, 70, 5, 50}));
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&n.image, &nb.image), TL_OK);
    EXPECT_NEAR(nb.at<float>(0), 1.0f, 1e-6f);
    EXPECT_NEAR(nb.at<float>(1), 2.0f, 1e-6f);
    // Refused: a singular matrix, a zero column, a matrix that is not
    // square, a right-hand side of another height. The pivot search starts
    // from the signed diagonal: a zero below a negative diagonal entry
    // displaces it and is then a zero pivot.
    const struct {
        int32_t rows, cols;
        std::initializer_list<float> a;
    } cases[] = {{2, 2, {1, 2, 2, 4}},
                 {2, 2, {0, 1, 0, 3}},
                 {2, 2, {-5, 1, 0, 2}},
                 {2, 3, {}},
                 {3, 3, {1, 0, 0, 0, 1, 0, 0, 0, 1}}};
    for (const auto& c : cases) {
        Matrix a(c.rows, c.cols, c.a), b(2, 1, {1, 1});
        EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_ERROR_GENERAL)
            << c.rows << c.cols;
    }
    Matrix ints(2, 2, {}, IMAGE_FORMAT_INT32), bi(2, 1, {}, IMAGE_FORMAT_INT32);
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&ints.image, &bi.image), TL_ERROR_UNSUPPORTED);
}
