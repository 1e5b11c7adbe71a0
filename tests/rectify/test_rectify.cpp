// Rectify: rotations and new camera matrices worked out by hand, grid maps
// against closed forms and a lens model written here, the radius limit,
// the inverse grid, blending of grids, and the 3 by 3 helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

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

Mvec8Real identity() { return Mvec8Real{{1, 0, 0, 0, 1, 0, 0, 0, 1}}; }

Mvec8Real multiply(const Mvec8Real& a, const Mvec8Real& b) {
    Mvec8Real r;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            r.m[3 * i + j] = a.m[3 * i] * b.m[j] + a.m[3 * i + 1] * b.m[3 + j] + a.m[3 * i + 2] * b.m[6 + j];
        }
    }
    return r;
}

Mvec8Real transpose(const Mvec8Real& a) {
    Mvec8Real r;
    for (int i = 0; i < 9; ++i) r.m[i] = a.m[3 * (i % 3) + i / 3];
    return r;
}

void expectMatrixNear(const Mvec8Real& actual, const Mvec8Real& expected, double tolerance,
                      const char* what) {
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(actual.m[i], expected.m[i], tolerance) << what << " element " << i;
}

void apply(const Mvec8Real& h, double x, double y, double* ox, double* oy) {
    const double w = h.m[6] * x + h.m[7] * y + h.m[8];
    *ox = (h.m[0] * x + h.m[1] * y + h.m[2]) / w;
    *oy = (h.m[3] * x + h.m[4] * y + h.m[5]) / w;
}

// The camera of the grid map tests, a rotation, and the way back from the
// rectified camera (f 300 at (108, 81)) to the ideal ray: R^T newK^-1.
const Mvec8Real kCamera = camera(320, 203, 148), kNewCamera = camera(300, 108, 81);
const Mvec8Real kRotation = rodrigues(0.2, -0.5, 0.8, 0.02);
Mvec8Real back() {
    return multiply(transpose(kRotation),
                    Mvec8Real{{1 / 300.0, 0, -108 / 300.0, 0, 1 / 300.0, -81 / 300.0, 0, 0, 1}});
}

}  // namespace

TEST(Rectify, RotationFromAxisAngle) {
    Mvec8Real r;
    const double z[3] = {0, 0, 1}, axis[3] = {0.48, -0.6, 0.64};  // unit length
    ASSERT_EQ(Rectify_rotationFromAxisAngle(&r, z, M_PI / 2), TL_OK);
    expectMatrixNear(r, Mvec8Real{{0, -1, 0, 1, 0, 0, 0, 0, 1}}, 1e-15, "quarter turn about z");
    ASSERT_EQ(Rectify_rotationFromAxisAngle(&r, axis, 0.3), TL_OK);
    expectMatrixNear(r, rodrigues(0.48, -0.6, 0.64, 0.3), 1e-15, "general axis");
}

TEST(Rectify, RectifyingRotationsWorkedByHand) {
    Fixture f;
    const double h = std::sqrt(0.5);
    const Mvec8Real turn = {{0.8, 0.6, 0, -0.6, 0.8, 0, 0, 0, 1}}, eighth = {{h, -h, 0, h, h, 0, 0, 0, 1}};
    const struct {
        const char* name;
        Mvec8Real rotation;
        double t[3];
        Mvec8Real rotation1, rotation2;
    } cases[] = {
        // No rotation, baseline along x either way: nothing to turn.
        {"baseline -x", identity(), {-10, 0, 0}, identity(), identity()},
        {"baseline +x", identity(), {10, 0, 0}, identity(), identity()},
        // A vertical baseline takes the y axis; its sign does not matter.
        {"baseline -y", identity(), {0, -5, 0}, identity(), identity()},
        {"baseline +y", identity(), {0, 5, 0}, identity(), identity()},
        // (3, 4, 0): y is strictly greater, n = (0.6, 0.8, 0), and align turns
        // y onto n by acos(0.8) about -z. (-4, 3, 0): x is greater and
        // negative, so t becomes (4, -3, 0): the same turn.
        {"baseline (3, 4, 0)", identity(), {3, 4, 0}, turn, turn},
        {"baseline (-4, 3, 0)", identity(), {-4, 3, 0}, turn, turn},
        // Equal parts count as horizontal: 45 degrees about z.
        {"baseline (2, 2, 0)", identity(), {2, 2, 0}, eighth, eighth},
        // 10 degrees about y with the baseline along -x: the halves are
        // Ry(5) and Ry(-5), t = Ry(-5) (-10, 0, 0) turned positive is
        // (cos 5, 0, sin 5) * 10, and align = Ry(-5) takes x onto it. With
        // align itself in both products: rotation1 = Ry(-5) Ry(5) = I and
        // rotation2 = Ry(-5) Ry(-5) = Ry(-10).
        {"10 degrees about y",
         rodrigues(0, 1, 0, M_PI / 18),
         {-10, 0, 0},
         identity(),
         rodrigues(0, 1, 0, -M_PI / 18)},
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
}

TEST(Rectify, RectifyingRotationsRefused) {
    Fixture f;
    Mvec8Real r1 = identity(), r2 = identity();
    const double t[3] = {-10, 0.1, 0.2}, zero[3] = {0, 0, 0};
    // Not a rotation (the sine of its angle would be above 1), no baseline,
    // not a number: refused with the outputs untouched.
    const Mvec8Real notRotation = {{1, 0, 0, 0, 1, -3, 0, 3, 1}},
                    notANumber = {{1, 0, 0, 0, 1, NAN, 0, 0, 1}};
    const Mvec8Real rotation = rodrigues(1, 2, 3, 0.01);
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &notRotation, t), TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &rotation, zero), TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_calcRectifyRotMat(&f.rectify, &r1, &r2, &notANumber, t), TL_ERROR_GENERAL);
    expectMatrixNear(r1, identity(), 0, "untouched");
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
    // cx' = 4 - minX f' + (208 - 1.25 f') / 2.
    Fixture f;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), barrel = coeffLens(-0.08, 0.02, 0, 0, 0);
    const Mvec8Real id = identity();
    const double fp = 154 / 0.9375;
    Mvec8Real n1, n2;
    for (const double cx : {200.0, 190.0}) {
        const Mvec8Real k = camera(320, cx, 150);
        ASSERT_EQ(Rectify_calcRectifyNewCameraMat(&f.rectify, &n1, &n2, &id, &k, &none, &id, &k, &none, 400,
                                                  300, 999, 999, 216, 162, 8, 8),
                  TL_OK);
        // cy' = 4 + (150 / 320) f' + (154 - 0.9375 f') / 2 = 81.
        expectMatrixNear(n1,
                         Mvec8Real{{fp, 0, 4 + cx / 320 * fp + (208 - 1.25 * fp) / 2, 0, fp, 81, 0, 0, 1}},
                         1e-9, "no lens");
        EXPECT_EQ(std::memcmp(&n1, &n2, sizeof n1), 0);
    }
    // The fit of the lens inverse happens on the way. Barrel distortion: the
    // undistorted frame is larger, the focal length shorter.
    const Mvec8Real k = camera(320, 200, 150);
    ASSERT_EQ(Rectify_calcRectifyNewCameraMat(&f.rectify, &n1, &n2, &id, &k, &barrel, &id, &k, &none, 400,
                                              300, 0, 0, 216, 162, 8, 8),
              TL_OK);
    EXPECT_EQ(barrel.coeff.invValid, 1);
    EXPECT_LT(n1.m[0], fp);
    // Skew, and no room.
    Mvec8Real skewed = k;
    skewed.m[1] = 0.5;
    EXPECT_EQ(Rectify_calcRectifyNewCameraMat(&f.rectify, &n1, &n2, &id, &skewed, &none, &id, &k, &none, 400,
                                              300, 0, 0, 216, 162, 8, 8),
              TL_ERROR_GENERAL);
    EXPECT_EQ(Rectify_calcRectifyNewCameraMat(&f.rectify, &n1, &n2, &id, &k, &none, &id, &k, &none, 400, 300,
                                              0, 0, 8, 162, 8, 8),
              TL_ERROR_GENERAL);
}

TEST(Rectify, GridMapsMatchClosedForms) {
    Fixture f;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), mild = coeffLens(0.05, -0.08, 0.02, 4e-4, -3e-4);
    for (RectifyLensDist* d : {&none, &mild}) {
        Grid grid(216, 162, 16);
        ASSERT_EQ(Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &kCamera, d, &kRotation,
                                                &kNewCamera, 400, 300),
                  TL_OK);
        // Each vertex: K distort(R^T newK^-1 p), written out.
        for (int32_t v = 0; v < grid.count(); ++v) {
            double x, y, dx, dy;
            apply(back(), grid.g.xs[v], grid.g.ys[v], &x, &y);
            distort(d->coeff, x, y, &dx, &dy);
            ASSERT_NEAR(grid.g.x[v], 320 * dx + 203, 1e-9) << v;
            ASSERT_NEAR(grid.g.y[v], 320 * dy + 148, 1e-9) << v;
        }
    }
}

TEST(Rectify, VerticesBeyondTheRadiusLimitAreInvalid) {
    // No distortion: the limit is the radius of the corners pushed out by
    // 32 pixels, hypot(232, 182) / 320. A short new focal length of 100 sends
    // the outer vertices of the rectified frame beyond it.
    Fixture f;
    const Mvec8Real k = camera(320, 200, 150), newK = camera(100, 108, 81), id = identity();
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0);
    Grid grid(216, 162, 8);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &none, &id, &newK, 400, 300),
              TL_OK);
    const double limit = std::hypot(232.0, 182.0) / 320;
    int32_t invalid = 0;
    for (int32_t v = 0; v < grid.count(); ++v) {
        if (std::hypot((grid.g.xs[v] - 108) / 100.0, (grid.g.ys[v] - 81) / 100.0) > limit) {
            ASSERT_EQ(grid.g.x[v], kRenderer2InvalidVertex);
            ASSERT_EQ(grid.g.y[v], kRenderer2InvalidVertex);
            ++invalid;
        } else {
            ASSERT_NEAR(grid.g.x[v], 200 + 3.2 * (grid.g.xs[v] - 108), 1e-9);
        }
    }
    EXPECT_GT(invalid, 20);
    EXPECT_LT(invalid, grid.count() / 2);
}

TEST(Rectify, InverseGridUndoesTheGrid) {
    Fixture f;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), mild = coeffLens(0.05, -0.08, 0.02, 4e-4, -3e-4);
    {
        // Laid out at a quarter of the image: the scaled inverse multiplies
        // the focal terms by 4 and leaves the offsets, so with no lens, no
        // rotation and the same camera each vertex maps to 4 times itself.
        Grid grid(400, 300, 32), inverse(100, 75, 8);
        const Mvec8Real id = identity();
        ASSERT_EQ(Rectify_calcRectifyGridParams(&f.rectify, &grid.g, &inverse.g, &kCamera, &none, &id,
                                                &kCamera, 400, 300),
                  TL_OK);
        for (int32_t v = 0; v < inverse.count(); ++v) {
            ASSERT_NEAR(inverse.g.x[v], 4.0 * inverse.g.xs[v], 1e-9);
            ASSERT_NEAR(inverse.g.y[v], 4.0 * inverse.g.ys[v], 1e-9);
        }
    }
    // With a lens and a rotation: each inverse vertex, sent forward through
    // the exact model, comes back to its source pixel within the accuracy of
    // the fitted lens inverse.
    Grid grid(216, 162, 16), inverse(400, 300, 25);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&f.rectify, &grid.g, &inverse.g, &kCamera, &mild, &kRotation,
                                            &kNewCamera, 400, 300),
              TL_OK);
    EXPECT_EQ(mild.coeff.invValid, 1);
    double worst = 0;
    for (int32_t v = 0; v < inverse.count(); ++v) {
        double x, y, dx, dy;
        apply(back(), inverse.g.x[v], inverse.g.y[v], &x, &y);
        distort(mild.coeff, x, y, &dx, &dy);
        worst =
            std::fmax(worst, std::hypot(320 * dx + 203 - inverse.g.xs[v], 320 * dy + 148 - inverse.g.ys[v]));
    }
    EXPECT_LT(worst, 0.1);
}

TEST(Rectify, GridMapsOverAPelAreTheSame) {
    Fixture serial, parallel(&sharedLayers().pel);
    const Mvec8Real newK = camera(150, 108, 81);
    RectifyLensDist a = coeffLens(0.05, -0.08, 0.02, 4e-4, -3e-4), b = a;
    Grid g1(216, 162, 8), g2(216, 162, 8), i1(100, 75, 8), i2(100, 75, 8);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&serial.rectify, &g1.g, &i1.g, &kCamera, &a, &kRotation, &newK,
                                            400, 300),
              TL_OK);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&parallel.rectify, &g2.g, &i2.g, &kCamera, &b, &kRotation, &newK,
                                            400, 300),
              TL_OK);
    const size_t n = static_cast<size_t>(g1.count()) * sizeof(double);
    const size_t m = static_cast<size_t>(i1.count()) * sizeof(double);
    EXPECT_EQ(std::memcmp(g1.g.x, g2.g.x, n), 0);
    EXPECT_EQ(std::memcmp(g1.g.y, g2.g.y, n), 0);
    EXPECT_EQ(std::memcmp(i1.g.x, i2.g.x, m), 0);
    EXPECT_EQ(std::memcmp(i1.g.y, i2.g.y, m), 0);
}

TEST(Rectify, GridMapsRefused) {
    // Cameras that are not plain (skew, a projective row, a last element
    // other than 1), a singular rotation, a lens of another kind or whose
    // table is too short to evaluate, a grid without arrays: refused, the
    // grid as it was.
    Fixture f;
    const Mvec8Real k = camera(320, 200, 150), id = identity(), singular = {{1, 0, 0, 0, 0, 0, 0, 0, 1}};
    Mvec8Real skew = k, projective = k, scaled = k;
    skew.m[1] = 1e-300;
    projective.m[7] = 1e-9;
    scaled.m[8] = 2.0;
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), kind2 = none, shortTable;
    kind2.kind = 2;
    RectifyLensDist_clear(&shortTable);
    const double table[2] = {0, 1};
    RectifyLensDist_setDistData(&shortTable, table, 2, 1.0);
    Grid grid(64, 48, 16), empty;
    const double before = grid.g.x[5];
    const struct {
        const char* name;
        TLResult result, expected;
    } cases[] = {
        {"skewed camera",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &skew, &none, &id, &k, 400, 300),
         TL_ERROR_GENERAL},
        {"projective new camera",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &none, &id, &projective, 400, 300),
         TL_ERROR_GENERAL},
        {"element 8 of 2",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &scaled, &none, &id, &k, 400, 300),
         TL_ERROR_GENERAL},
        {"singular rotation",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &none, &singular, &k, 400, 300),
         TL_ERROR_GENERAL},
        {"lens kind 2",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &kind2, &id, &k, 400, 300),
         TL_ERROR_UNSUPPORTED},
        {"short table",
         Rectify_calcRectifyGridParams(&f.rectify, &grid.g, nullptr, &k, &shortTable, &id, &k, 400, 300),
         TL_ERROR_PARAM},
        {"grid without arrays",
         Rectify_calcRectifyGridParams(&f.rectify, &empty.g, nullptr, &k, &none, &id, &k, 400, 300),
         TL_ERROR_PARAM},
    };
    for (const auto& c : cases) EXPECT_EQ(c.result, c.expected) << c.name;
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
    EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &other.g, 0.5), TL_ERROR_GENERAL);
    shifted.g.xs[4] += 1;
    EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &shifted.g, 0.5), TL_ERROR_GENERAL);
    for (const double bad : {static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
        b.g.x[9] = bad;
        EXPECT_EQ(Rectify_complementGridMap(&f.rectify, &out.g, &a.g, &b.g, 0.5), TL_ERROR_PARAM);
    }
}

TEST(RectifyUtil, MatrixHelpers) {
    const Mvec8Real a = {{1, 2, 3, 4, 5, 6, 7, 8, 9}}, b = {{0.5, 0, -1, 2, 0, 0, 1, 1, 1}};
    Mvec8Real out = a;
    ASSERT_EQ(RectifyUtil_addMvec8Real(&out, &out, &b), TL_OK);  // in place
    expectMatrixNear(out, Mvec8Real{{1.5, 2, 2, 6, 5, 6, 8, 9, 10}}, 0, "sum");
    ASSERT_EQ(RectifyUtil_scaleMvec8Real(&out, -2, &a), TL_OK);
    expectMatrixNear(out, Mvec8Real{{-2, -4, -6, -8, -10, -12, -14, -16, -18}}, 0, "scale");
    // The inverse of a rotation is its transpose, in place too.
    Mvec8Real r = rodrigues(1, -2, 0.5, 0.7);
    const Mvec8Real rotation = r;
    ASSERT_EQ(RectifyUtil_invRotMatrix(&r, &r), TL_OK);
    expectMatrixNear(multiply(r, rotation), identity(), 1e-15, "transpose");
    // The closed form of a camera's inverse; anything but a plain camera is refused.
    const Mvec8Real k = camera(400, 100, 60);
    ASSERT_EQ(RectifyUtil_invCameraMatrix(&out, &k), TL_OK);
    expectMatrixNear(out, Mvec8Real{{0.0025, 0, -0.25, 0, 0.0025, -0.15, 0, 0, 1}}, 1e-18, "camera inverse");
    for (const int element : {1, 3, 6, 7, 8}) {
        Mvec8Real bad = k;
        bad.m[element] = element == 8 ? 0.5 : 1e-300;
        EXPECT_EQ(RectifyUtil_invCameraMatrix(&out, &bad), TL_ERROR_GENERAL) << element;
    }
}
