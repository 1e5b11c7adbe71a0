#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "rectify/rectify_lens_dist.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

struct Fixture {
    Env env{};
    Rectify rectify;
    Fixture() { construct_Rectify(&rectify, &env); }
    ~Fixture() { destruct_Rectify(&rectify); }
};

Mvec8Real cameraMatrix(double f, double cx, double cy) {
    Mvec8Real m;
    Mvec8Real_setIdentity(&m);
    m.m[0] = f;
    m.m[2] = cx;
    m.m[4] = f;
    m.m[5] = cy;
    return m;
}

RectifyLensDist coeffDist(double k1, double k2, double k3, double p1, double p2) {
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    const double k[3] = {k1, k2, k3};
    const double p[2] = {p1, p2};
    RectifyLensDist_setDistCoeff(&d, k, 3, p, 2);
    return d;
}

RectifyLensDist tableDist(std::initializer_list<double> values, double maxRadius) {
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    double t[41];
    int32_t n = 0;
    for (double v : values) t[n++] = v;
    RectifyLensDist_setDistData(&d, t, n, maxRadius);
    return d;
}

// Independent inverse of the forward model: fixed-point iteration
// p = d - (forward(p) - p), in long double, run to convergence.
void referenceUndistort(const RectifyLensDist& d, double xd, double yd, double* x, double* y) {
    long double px = xd, py = yd;
    const double* k = d.coeff.k;
    const double* p = d.coeff.p;
    for (int it = 0; it < 200; ++it) {
        const long double r2 = px * px + py * py;
        const long double radial = 1 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]));
        const long double fx = px * radial + 2 * p[0] * px * py + p[1] * (r2 + 2 * px * px);
        const long double fy = py * radial + p[0] * (r2 + 2 * py * py) + 2 * p[1] * px * py;
        px += xd - fx;
        py += yd - fy;
    }
    *x = static_cast<double>(px);
    *y = static_cast<double>(py);
}

struct Lens {
    const char* name;
    double k1, k2, k3, p1, p2;
    double tolerancePixels;  // largest error allowed anywhere in the frame
};

// Phone main cameras: a 4000 by 3000 frame with a focal length of 3200
// pixels (about 64 degrees across), barrel and pincushion lenses with
// decentring terms of the size a module shows.
const Lens kLenses[] = {
    // Tolerances: one pixel for the strong barrel lens (a quarter of a pixel at
    // the matching size of 27 percent); its single-precision fit comes to about
    // 0.8 pixel at the corners, the pincushion lens to 0.25, the mild one to 0.04.
    {"barrel", -0.12, 0.05, -0.01, 0.0010, -0.0008, 1.0},
    {"pincushion", 0.08, -0.02, 0.005, -0.0005, 0.0012, 0.35},
    {"mild barrel", -0.035, 0.012, 0.0, 0.0002, 0.0003, 0.08},
};
constexpr double kFocal = 3200.0, kCx = 2000.0, kCy = 1500.0;
constexpr int32_t kWidth = 4000, kHeight = 3000;

// Largest error in pixels of distort(undistort(p)) - p over a 41 by 31 grid
// of distorted points that covers the frame, and of the fitted inverse
// against the reference inverse.
void measureRoundTrip(const RectifyLensDist& d, double* roundTrip, double* versusReference) {
    *roundTrip = 0.0;
    *versusReference = 0.0;
    for (int gy = 0; gy <= 30; ++gy) {
        for (int gx = 0; gx <= 40; ++gx) {
            const double u = kWidth * gx / 40.0, v = kHeight * gy / 30.0;
            const double xd = (u - kCx) / kFocal, yd = (v - kCy) / kFocal;
            double xi, yi, xr, yr, xb, yb;
            ASSERT_EQ(Rectify_undistortPoint(xd, yd, &xi, &yi, &d), TL_OK);
            ASSERT_EQ(Rectify_distortPoint(xi, yi, &xb, &yb, &d), TL_OK);
            referenceUndistort(d, xd, yd, &xr, &yr);
            *roundTrip = std::fmax(*roundTrip, kFocal * std::hypot(xb - xd, yb - yd));
            *versusReference = std::fmax(*versusReference, kFocal * std::hypot(xi - xr, yi - yr));
        }
    }
}

}  // namespace

TEST(RectifyLensDist, FittedInverseUndoesPhoneLenses) {
    for (const Lens& lens : kLenses) {
        Fixture f;
        RectifyLensDist d = coeffDist(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2);
        ASSERT_EQ(RectifyLensDist_needCalcInv(&d), 1);
        const Mvec8Real k = cameraMatrix(kFocal, kCx, kCy);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &k, kWidth, kHeight), TL_OK)
            << lens.name;
        EXPECT_EQ(d.coeff.invValid, 1);
        EXPECT_EQ(RectifyLensDist_needCalcInv(&d), 0);
        EXPECT_EQ(d.coeff.invK[3], 0.0);  // the fitted inverse stays a pure polynomial
        double roundTrip, versusReference;
        measureRoundTrip(d, &roundTrip, &versusReference);
        EXPECT_LT(roundTrip, lens.tolerancePixels) << lens.name;
        EXPECT_LT(versusReference, lens.tolerancePixels) << lens.name;
        // The inverse's first radial term opposes the lens's.
        EXPECT_LT(d.coeff.invK[0] * lens.k1, 0.0) << lens.name;
    }
}

// The sample rows are shared out over the Pel; the fit must not depend on it.
TEST(RectifyLensDist, FitOverAPelMatchesTheSerialFit) {
    Pel pel;
    construct_Pel(&pel, nullptr);
    pel.params.numberOfWorkers = 3;
    ASSERT_EQ(Pel_init(&pel), TL_OK);
    const Mvec8Real k = cameraMatrix(kFocal, kCx, kCy);
    for (const Lens& lens : kLenses) {
        Fixture serial;
        Fixture parallel;
        Rectify_setPel(&parallel.rectify, &pel);
        RectifyLensDist a = coeffDist(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2);
        RectifyLensDist b = a;
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&serial.rectify, &a.coeff, &k, kWidth, kHeight), TL_OK);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&parallel.rectify, &b.coeff, &k, kWidth, kHeight), TL_OK);
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << lens.name;
    }
    destruct_Pel(&pel);
}

TEST(RectifyLensDist, FitIsIdempotentAndSkipsTheIdentity) {
    Fixture f;
    const Mvec8Real k = cameraMatrix(kFocal, kCx, kCy);
    RectifyLensDist d = coeffDist(0, 0, 0, 0, 0);
    d.coeff.invK[0] = 0.5;  // left as it is: no matrices are built
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &k, kWidth, kHeight), TL_OK);
    EXPECT_EQ(d.coeff.invValid, 1);
    EXPECT_EQ(d.coeff.invK[0], 0.5);

    RectifyLensDist e = coeffDist(-0.1, 0.02, 0, 0, 0);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &k, kWidth, kHeight), TL_OK);
    RectifyLensDist fitted = e;
    // A stale inverse is kept: replacing coefficients does not invalidate it.
    const double k2[3] = {0.3, 0, 0};
    const double p2[2] = {0, 0};
    ASSERT_EQ(RectifyLensDist_setDistCoeff(&e, k2, 3, p2, 2), TL_OK);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &k, kWidth, kHeight), TL_OK);
    EXPECT_EQ(std::memcmp(e.coeff.invK, fitted.coeff.invK, sizeof e.coeff.invK), 0);
}

TEST(RectifyLensDist, DegenerateSamplingIsSingular) {
    // A focal length so long that every sample is 0 in float: A is all zeros.
    Fixture f;
    const Mvec8Real k = cameraMatrix(1e30, kCx, kCy);
    RectifyLensDist d = coeffDist(-0.1, 0, 0, 0, 0);
    d.coeff.invK[0] = 0.25;
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &k, kWidth, kHeight), TL_ERROR_GENERAL);
    EXPECT_EQ(d.coeff.invValid, 0);
    EXPECT_EQ(d.coeff.invK[0], 0.25);
    const Mvec8Real good = cameraMatrix(kFocal, kCx, kCy);
    EXPECT_EQ(Rectify_estimateUndistortCoeff(nullptr, &d.coeff, &good, kWidth, kHeight), TL_ERROR_PARAM);
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, nullptr, &good, kWidth, kHeight), TL_ERROR_PARAM);
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, nullptr, kWidth, kHeight), TL_ERROR_PARAM);
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &good, 0, kHeight), TL_ERROR_PARAM);
    EXPECT_EQ(d.coeff.invValid, 0);
}

TEST(RectifyLensDist, CoefficientModelWorkedByHand) {
    // x' = x (1 + k1 r2) + 2 p1 x y + p2 (r2 + 2 x^2) with r2 = 0.25 + 0.0625.
    RectifyLensDist d = coeffDist(0.2, 0, 0, 0.01, -0.02);
    d.coeff.k[3] = 0.1;  // denominator 1 + 0.1 r2
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
}

TEST(RectifyLensDist, RadialTableWorkedByHand) {
    // Three knots at ideal radii 0, 1, 2 (maxRadius 2): distorted 0, 0.8, 2.4.
    const RectifyLensDist d = tableDist({0.0, 0.4, 1.2}, 2.0);
    ASSERT_EQ(d.data.step, 0.5);
    struct Case {
        double ideal, distorted;
    };
    const Case cases[] = {{0.5, 0.4}, {1.0, 0.8}, {1.5, 1.6}};
    for (const Case& c : cases) {
        double x, y;
        ASSERT_EQ(Rectify_distortPoint(c.ideal * 0.6, c.ideal * 0.8, &x, &y, &d), TL_OK);
        EXPECT_NEAR(x, c.distorted * 0.6, 1e-15) << c.ideal;
        EXPECT_NEAR(y, c.distorted * 0.8, 1e-15) << c.ideal;
        ASSERT_EQ(Rectify_undistortPoint(c.distorted * 0.6, c.distorted * 0.8, &x, &y, &d), TL_OK);
        EXPECT_NEAR(x, c.ideal * 0.6, 1e-15) << c.distorted;
        EXPECT_NEAR(y, c.ideal * 0.8, 1e-15) << c.distorted;
    }
    // Beyond the last knot: forward factor T[n-1] itself (3 * 1.2), inverse 1 / T[n-1].
    double x, y;
    ASSERT_EQ(Rectify_distortPoint(3.0, 0.0, &x, &y, &d), TL_OK);
    EXPECT_DOUBLE_EQ(x, 3.6);
    ASSERT_EQ(Rectify_undistortPoint(3.0, 0.0, &x, &y, &d), TL_OK);
    EXPECT_DOUBLE_EQ(x, 2.5);
    // The optical centre and points closer than 1e-15 pass unchanged.
    for (double r : {0.0, 1e-16}) {
        ASSERT_EQ(Rectify_distortPoint(r, -r, &x, &y, &d), TL_OK);
        EXPECT_EQ(x, r);
        EXPECT_EQ(y, -r);
        ASSERT_EQ(Rectify_undistortPoint(r, -r, &x, &y, &d), TL_OK);
        EXPECT_EQ(x, r);
        EXPECT_EQ(y, -r);
    }
}

TEST(RectifyLensDist, RadialTableRoundTripsInsideItsRange) {
    // Barrel table of 41 knots: T(r) = r (1 - 0.15 r^2), increasing on [0, 1].
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    double t[41];
    for (int i = 0; i < 41; ++i) {
        const double r = i / 40.0;
        t[i] = r * (1.0 - 0.15 * r * r);
    }
    ASSERT_EQ(RectifyLensDist_setDistData(&d, t, 41, 0.8), TL_OK);
    for (int k = 0; k < 500; ++k) {
        const double angle = 0.37 * k;
        const double r = 0.8 * (k + 0.5) / 500.0;  // up to just below maxRadius
        double xd, yd, x, y;
        ASSERT_EQ(Rectify_distortPoint(r * std::cos(angle), r * std::sin(angle), &xd, &yd, &d), TL_OK);
        ASSERT_EQ(Rectify_undistortPoint(xd, yd, &x, &y, &d), TL_OK);
        EXPECT_NEAR(x, r * std::cos(angle), 1e-12) << k;
        EXPECT_NEAR(y, r * std::sin(angle), 1e-12) << k;
    }
}

TEST(RectifyLensDist, BadRecordsAreRefused) {
    double x = 7, y = 7;
    const RectifyLensDist two = tableDist({0.0, 1.0}, 1.0);
    EXPECT_EQ(Rectify_distortPoint(0.5, 0, &x, &y, &two), TL_ERROR_PARAM);
    EXPECT_EQ(Rectify_undistortPoint(0.5, 0, &x, &y, &two), TL_ERROR_PARAM);
    const RectifyLensDist one = tableDist({0.0}, 1.0);
    EXPECT_TRUE(std::isinf(one.data.step));
    EXPECT_EQ(Rectify_distortPoint(0.5, 0, &x, &y, &one), TL_ERROR_PARAM);
    EXPECT_EQ(x, 7);
    RectifyLensDist other = coeffDist(0.1, 0, 0, 0, 0);
    other.kind = 2;
    EXPECT_EQ(Rectify_distortPoint(0.5, 0, &x, &y, &other), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Rectify_undistortPoint(0.5, 0, &x, &y, &other), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Rectify_distortPoint(0.5, 0, nullptr, &y, &two), TL_ERROR_PARAM);
    EXPECT_EQ(Rectify_undistortPoint(0.5, 0, &x, &y, nullptr), TL_ERROR_PARAM);

    // Counts above the record's room: nothing is copied.
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    const double many[42] = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 7, many, 2), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 3, many, 3), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistData(&d, many, 42, 1.0), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    EXPECT_EQ(d.kind, 0);
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, nullptr, 0, many, 0), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 0, many, 0), TL_OK);  // copies nothing
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    EXPECT_EQ(RectifyLensDist_setDistCoeff(&d, many, 6, many, 2), TL_OK);
    EXPECT_EQ(d.coeff.k[5], 6.0);
    EXPECT_EQ(d.coeff.p[1], 2.0);
    EXPECT_EQ(RectifyLensDist_clear(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDistortionCoeff_clear(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDistData_clear(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyLensDist_setDistData(nullptr, many, 3, 1.0), TL_ERROR_PARAM);
}

TEST(RectifyLensDist, TruthValues) {
    EXPECT_EQ(RectifyLensDist_isNotDistorted(nullptr), 0);
    EXPECT_EQ(RectifyLensDist_needCalcInv(nullptr), 0);
    double t[41];
    for (int i = 0; i < 41; ++i) t[i] = i / 40.0;
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    RectifyLensDist_setDistData(&d, t, 41, 1.0);
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    EXPECT_EQ(RectifyLensDist_needCalcInv(&d), 0);  // tables have no inverse to fit
    d.data.table[17] += 2e-15;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 0);
    d.data.count = 0;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 1);
    d.kind = 5;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&d), 0);
    RectifyLensDist c = coeffDist(0, 0, 0, 0, 0);
    c.coeff.k[5] = 1e-300;  // any forward coefficient counts, the denominator's too
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 0);
    c.coeff.k[5] = 0.0;
    c.coeff.invK[0] = 0.3;  // the inverse does not
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 1);
    EXPECT_EQ(RectifyLensDist_needCalcInv(&c), 1);
}
