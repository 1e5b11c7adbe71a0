// The lens model: coefficient and table forms worked out by hand, the fitted
// inverse of phone lenses against an independent inverse, refused records;
// and the small float linear algebra that the fit runs on.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "rectify/rectify_lens_dist.h"
#include "rectify/rectify_util.h"
#include "support/layers.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Fixture {
    Env env{};
    Rectify rectify;
    Fixture() { construct_Rectify(&rectify, &env); }
    ~Fixture() { destruct_Rectify(&rectify); }
};

RectifyLensDist tableLens(const std::vector<double>& t, double maxRadius) {
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    RectifyLensDist_setDistData(&d, t.data(), static_cast<int32_t>(t.size()), maxRadius);
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
        px += xd - (px * radial + 2 * p[0] * px * py + p[1] * (r2 + 2 * px * px));
        py += yd - (py * radial + p[0] * (r2 + 2 * py * py) + 2 * p[1] * px * py);
    }
    *x = static_cast<double>(px);
    *y = static_cast<double>(py);
}

// Phone main cameras: a 4000 by 3000 frame with a focal length of 3200
// pixels (about 64 degrees across), barrel and pincushion lenses with
// decentring terms of the size a module shows. Tolerances: one pixel for the
// strong barrel lens (a quarter of a pixel at the matching size of 27
// percent); its single-precision fit comes to about 0.8 pixel at the
// corners, the pincushion lens to 0.25, the mild one to 0.04.
const struct Lens {
    const char* name;
    double k1, k2, k3, p1, p2;
    double tolerancePixels;  // largest error allowed anywhere in the frame
} kLenses[] = {
    {"barrel", -0.12, 0.05, -0.01, 0.0010, -0.0008, 1.0},
    {"pincushion", 0.08, -0.02, 0.005, -0.0005, 0.0012, 0.35},
    {"mild barrel", -0.035, 0.012, 0.0, 0.0002, 0.0003, 0.08},
};
constexpr double kFocal = 3200.0;
constexpr int32_t kWidth = 4000, kHeight = 3000;
const Mvec8Real kCamera = camera(kFocal, 2000, 1500);

// A float matrix image, or int32; the row pitch is widened by padding so
// that code which ignores the pitch is caught.
struct Matrix {
    Env env{};
    Image image;
    std::vector<uint8_t> storage;
    Matrix(int32_t rows, int32_t cols, std::initializer_list<float> v = {},
           uint32_t format = IMAGE_FORMAT_FLOAT) {
        construct_Image(&image, &env);
        const int32_t pitch = cols * 4 + 12;
        storage.assign(static_cast<size_t>(pitch) * rows + 4, 0xEE);
        ImagePlanes p;
        std::memset(&p, 0, sizeof p);
        p.one.plane0 = storage.data();
        p.one.pitch0 = pitch;
        Image_initWithPitch(&image, cols, rows, &p, format);
        int k = 0;
        for (float x : v) {
            if (format == IMAGE_FORMAT_INT32) {
                i(k / cols, k % cols) = static_cast<int32_t>(x);
            } else {
                f(k / cols, k % cols) = x;
            }
            ++k;
        }
    }
    ~Matrix() { destruct_Image(&image); }
    float& f(int32_t r, int32_t c) {
        return reinterpret_cast<float*>(image.plane[0] + image.pitch[0] * r)[c];
    }
    int32_t& i(int32_t r, int32_t c) {
        return reinterpret_cast<int32_t*>(image.plane[0] + image.pitch[0] * r)[c];
    }
};

}  // namespace

TEST(RectifyLensDist, FittedInverseUndoesPhoneLenses) {
    for (const Lens& lens : kLenses) {
        Fixture f;
        RectifyLensDist d = coeffLens(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2);
        ASSERT_EQ(RectifyLensDist_needCalcInv(&d), 1);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &kCamera, kWidth, kHeight), TL_OK)
            << lens.name;
        EXPECT_EQ(RectifyLensDist_needCalcInv(&d), 0);
        EXPECT_EQ(d.coeff.invK[3], 0.0);  // the fitted inverse stays a pure polynomial
        // distort(undistort(p)) - p, and the fitted inverse against the
        // reference, over a 41 by 31 grid of distorted points over the frame.
        double roundTrip = 0, versusReference = 0;
        for (int gy = 0; gy <= 30; ++gy) {
            for (int gx = 0; gx <= 40; ++gx) {
                const double xd = (kWidth * gx / 40.0 - 2000) / kFocal,
                             yd = (kHeight * gy / 30.0 - 1500) / kFocal;
                double xi, yi, xr, yr, xb, yb;
                ASSERT_EQ(Rectify_undistortPoint(xd, yd, &xi, &yi, &d), TL_OK);
                ASSERT_EQ(Rectify_distortPoint(xi, yi, &xb, &yb, &d), TL_OK);
                referenceUndistort(d, xd, yd, &xr, &yr);
                roundTrip = std::fmax(roundTrip, kFocal * std::hypot(xb - xd, yb - yd));
                versusReference = std::fmax(versusReference, kFocal * std::hypot(xi - xr, yi - yr));
            }
        }
        EXPECT_LT(roundTrip, lens.tolerancePixels) << lens.name;
        EXPECT_LT(versusReference, lens.tolerancePixels) << lens.name;
    }
}

// The sample rows are shared out over the Pel; the fit must not depend on it.
TEST(RectifyLensDist, FitOverAPelMatchesTheSerialFit) {
    for (const Lens& lens : kLenses) {
        Fixture serial, parallel;
        Rectify_setPel(&parallel.rectify, &sharedLayers().pel);
        RectifyLensDist a = coeffLens(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2), b = a;
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&serial.rectify, &a.coeff, &kCamera, kWidth, kHeight),
                  TL_OK);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&parallel.rectify, &b.coeff, &kCamera, kWidth, kHeight),
                  TL_OK);
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << lens.name;
    }
}

TEST(RectifyLensDist, FitSkipsTheIdentityKeepsAStaleInverseAndFailsWhenSingular) {
    Fixture f;
    RectifyLensDist d = coeffLens(0, 0, 0, 0, 0);
    d.coeff.invK[0] = 0.5;  // left as it is: no matrices are built
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &d.coeff, &kCamera, kWidth, kHeight), TL_OK);
    EXPECT_EQ(d.coeff.invValid, 1);
    EXPECT_EQ(d.coeff.invK[0], 0.5);
    // Replacing the coefficients does not invalidate a fitted inverse.
    RectifyLensDist e = coeffLens(-0.1, 0.02, 0, 0, 0);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &kCamera, kWidth, kHeight), TL_OK);
    const RectifyLensDist fitted = e;
    const double k2[3] = {0.3, 0, 0}, p2[2] = {0, 0};
    ASSERT_EQ(RectifyLensDist_setDistCoeff(&e, k2, 3, p2, 2), TL_OK);
    ASSERT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &e.coeff, &kCamera, kWidth, kHeight), TL_OK);
    EXPECT_EQ(std::memcmp(e.coeff.invK, fitted.coeff.invK, sizeof e.coeff.invK), 0);
    // A focal length so long that every sample is 0 in float: the system is
    // singular, and the record stays as it was.
    const Mvec8Real far = camera(1e30, 2000, 1500);
    RectifyLensDist s = coeffLens(-0.1, 0, 0, 0, 0);
    s.coeff.invK[0] = 0.25;
    EXPECT_EQ(Rectify_estimateUndistortCoeff(&f.rectify, &s.coeff, &far, kWidth, kHeight), TL_ERROR_GENERAL);
    EXPECT_EQ(s.coeff.invValid, 0);
    EXPECT_EQ(s.coeff.invK[0], 0.25);
}

TEST(RectifyLensDist, CoefficientModelWorkedByHand) {
    // x' = x (1 + k1 r2) + 2 p1 x y + p2 (r2 + 2 x^2) with r2 = 0.25 + 0.0625.
    RectifyLensDist d = coeffLens(0.2, 0, 0, 0.01, -0.02);
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
    // Beyond the last knot the factor is T[n-1] itself (3 * 1.2), and 1 /
    // T[n-1] back: the map jumps there. The optical centre and points closer
    // than 1e-15 pass unchanged.
    const RectifyLensDist d = tableLens({0.0, 0.4, 1.2}, 2.0);
    const struct {
        double ideal, distorted, along;  // radii; `along` the direction's cosine
    } cases[] = {{0.5, 0.4, 0.6}, {1.0, 0.8, 0.6}, {1.5, 1.6, 0.6},
                 {3.0, 3.6, 1.0}, {0, 0, 0.6},     {1e-16, 1e-16, 0.6}};
    for (const auto& c : cases) {
        const double s = std::sqrt(1 - c.along * c.along);
        double x, y;
        ASSERT_EQ(Rectify_distortPoint(c.ideal * c.along, c.ideal * s, &x, &y, &d), TL_OK);
        EXPECT_NEAR(x, c.distorted * c.along, 1e-15) << c.ideal;
        EXPECT_NEAR(y, c.distorted * s, 1e-15) << c.ideal;
        ASSERT_EQ(Rectify_undistortPoint(c.distorted * c.along, c.distorted * s, &x, &y, &d), TL_OK);
        EXPECT_NEAR(x, c.ideal * c.along, 1e-15) << c.distorted;
        EXPECT_NEAR(y, c.ideal * s, 1e-15) << c.distorted;
    }
    // A barrel table of 41 knots, T(r) = r (1 - 0.15 r^2), round-trips
    // inside its range.
    std::vector<double> t(41);
    for (int i = 0; i < 41; ++i) t[i] = i / 40.0 * (1.0 - 0.15 * i * i / 1600.0);
    const RectifyLensDist barrel = tableLens(t, 0.8);
    for (int k = 0; k < 500; ++k) {
        const double angle = 0.37 * k, r = 0.8 * (k + 0.5) / 500.0;
        double xd, yd, x, y;
        ASSERT_EQ(Rectify_distortPoint(r * std::cos(angle), r * std::sin(angle), &xd, &yd, &barrel), TL_OK);
        ASSERT_EQ(Rectify_undistortPoint(xd, yd, &x, &y, &barrel), TL_OK);
        EXPECT_NEAR(x, r * std::cos(angle), 1e-12) << k;
        EXPECT_NEAR(y, r * std::sin(angle), 1e-12) << k;
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
    // coefficient counts, the denominator's too, the inverse's not. Tables
    // have no inverse to fit.
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
    c.coeff.invK[0] = 0.3;
    EXPECT_EQ(RectifyLensDist_isNotDistorted(&c), 1);
    EXPECT_EQ(RectifyLensDist_needCalcInv(&c), 1);
}

TEST(RectifyUtil, DotAndTransposeWorkedByHand) {
    Matrix a(2, 3, {1, 2, 3, 4, 5, 6}), b(3, 2, {7, 8, 9, 10, 11, 12}), out(2, 2), at(3, 2);
    ASSERT_EQ(RectifyUtil_laDot(&out.image, &a.image, &b.image), TL_OK);
    EXPECT_EQ(out.f(0, 0), 58.0f);  // 7 + 18 + 33
    EXPECT_EQ(out.f(0, 1), 64.0f);
    EXPECT_EQ(out.f(1, 0), 139.0f);
    EXPECT_EQ(out.f(1, 1), 154.0f);
    EXPECT_EQ(out.storage[8], 0xEE);  // the padding after each row is untouched
    ASSERT_EQ(RectifyUtil_laTranspose(&at.image, &a.image), TL_OK);
    EXPECT_EQ(at.f(0, 1), 4.0f);
    EXPECT_EQ(at.f(2, 0), 3.0f);
    EXPECT_EQ(at.f(2, 1), 6.0f);
    Matrix ai(2, 2, {3, -2, 100000, 7}, IMAGE_FORMAT_INT32), bi(2, 1, {5, 40000}, IMAGE_FORMAT_INT32),
        oi(2, 1, {}, IMAGE_FORMAT_INT32);
    ASSERT_EQ(RectifyUtil_laDot(&oi.image, &ai.image, &bi.image), TL_OK);
    EXPECT_EQ(oi.i(0, 0), 15 - 80000);
    EXPECT_EQ(oi.i(1, 0), 500000 + 280000);
    // Shapes that do not fit, and types that differ, are refused; another
    // element type is left alone and still TL_OK.
    Matrix square(2, 2), big(3, 3), ints(3, 2, {}, IMAGE_FORMAT_INT32);
    EXPECT_EQ(RectifyUtil_laDot(&out.image, &a.image, &square.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laDot(&big.image, &a.image, &b.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laTranspose(&out.image, &a.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laDot(&out.image, &a.image, &ints.image), TL_ERROR_GENERAL);
    Matrix u8a(2, 2, {}, IMAGE_FORMAT_UINT8), u8o(2, 2, {}, IMAGE_FORMAT_UINT8);
    const std::vector<uint8_t> before = u8o.storage;
    EXPECT_EQ(RectifyUtil_laDot(&u8o.image, &u8a.image, &u8a.image), TL_OK);
    EXPECT_EQ(RectifyUtil_laTranspose(&u8o.image, &u8a.image), TL_OK);
    EXPECT_EQ(u8o.storage, before);
}

TEST(RectifyUtil, GaussianEliminationSolves) {
    // Random diagonally dominant systems from a known solution, in double,
    // stored as float.
    std::mt19937 rng(31337);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int round = 0; round < 100; ++round) {
        const int n = 1 + round % 7;
        Matrix a(n, n), b(n, 1);
        std::vector<double> m(n * n), x(n), rhs(n, 0.0);
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) m[i * n + j] = a.f(i, j) = u(rng) + (i == j ? 4.0f : 0.0f);
            x[i] = u(rng) * 10.0;
        }
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) rhs[i] += m[i * n + j] * x[j];
            b.f(i, 0) = static_cast<float>(rhs[i]);
        }
        ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(b.f(i, 0), x[i], 1e-4) << "n " << n << " row " << i;
    }
    // A zero diagonal needs the row swap; b is swapped over its whole width.
    Matrix s(2, 2, {0, 1, 1, 0}), sb(2, 2, {5, 50, 7, 70});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&s.image, &sb.image), TL_OK);
    EXPECT_EQ(sb.f(0, 0), 7.0f);
    EXPECT_EQ(sb.f(1, 0), 5.0f);
    EXPECT_EQ(sb.f(0, 1), 70.0f);
    EXPECT_EQ(sb.f(1, 1), 50.0f);
    // A negative diagonal with a non-zero entry below still solves: x = 1, y = 2.
    Matrix n(2, 2, {-5, 1, 1, 2}), nb(2, 1, {-3, 5});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&n.image, &nb.image), TL_OK);
    EXPECT_NEAR(nb.f(0, 0), 1.0f, 1e-6f);
    EXPECT_NEAR(nb.f(1, 0), 2.0f, 1e-6f);
}

TEST(RectifyUtil, GaussianEliminationFailures) {
    // A singular matrix, a zero column, a matrix that is not square, a
    // right-hand side of another height. The pivot search starts from the
    // signed diagonal: a zero below a negative diagonal entry displaces it
    // and is then a zero pivot.
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
            << c.rows << "x" << c.cols;
    }
    Matrix ints(2, 2, {}, IMAGE_FORMAT_INT32), bi(2, 1, {}, IMAGE_FORMAT_INT32);
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&ints.image, &bi.image), TL_ERROR_UNSUPPORTED);
}
