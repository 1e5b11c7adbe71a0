// The motion solvers on exact point pairs: each recovers a motion of its own kind, over pairs of a
// reference and one image and over chains of several, and reports degenerate sets instead of solving them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "alignment/mvec_lsm.h"

using namespace vq_tl;

namespace {

struct Solver {
    MvecDetectMulti2_Lsm lsm;
    MvecDetectMulti2_Mvec out;
    Solver(int32_t dof, int32_t w, int32_t h, int32_t images, double focal = 1000.0) {
        construct_MvecDetectMulti2_Lsm(&lsm, nullptr);
        EXPECT_EQ(MvecDetectMulti2_Lsm_init(&lsm, dof, w, h, images), TL_OK) << dof;
        EXPECT_EQ(MvecDetectMulti2_Lsm_setFocalLength(&lsm, focal), TL_OK);
        MvecDetectMulti2_Mvec_init(&out, dof, focal);
    }
    ~Solver() { destruct_MvecDetectMulti2_Lsm(&lsm); }
    uint32_t solve() {
        EXPECT_EQ(MvecDetectMulti2_Lsm_solve(&lsm), TL_OK);
        return MvecDetectMulti2_Lsm_getFailureCode(&lsm);
    }
    const MvecDetectMulti2_Mvec& output(int32_t image) {
        EXPECT_EQ(MvecDetectMulti2_Lsm_outputMvec(&lsm, &out, image), TL_OK);
        return out;
    }
};

int32_t q15(double v) { return static_cast<int32_t>(std::lround(v * 32768.0)); }

// A motion as a real map of pixels (top-left coordinates, the quaternion's centred).
struct Motion {
    double m[9];  // homography, row by row
    void apply(double x, double y, double* ox, double* oy) const {
        const double w = m[6] * x + m[7] * y + m[8];
        *ox = (m[0] * x + m[1] * y + m[2]) / w;
        *oy = (m[3] * x + m[4] * y + m[5]) / w;
    }
};

// Farthest disagreement of the solver's motion and the truth over a grid of the frame, in pixels.
double worstOver(const MvecDetectMulti2_Mvec& got, const Motion& truth, int32_t w, int32_t h) {
    double worst = 0.0;
    const double cx = got.kind == MVEC_KIND_QUATERNION ? 0.5 * w : 0.0,
                 cy = got.kind == MVEC_KIND_QUATERNION ? 0.5 * h : 0.0;
    for (int32_t y = 0; y <= h; y += h / 8) {
        for (int32_t x = 0; x <= w; x += w / 8) {
            int32_t gx, gy;
            EXPECT_EQ(MvecDetectMulti2_Mvec_transF32(&got, &gx, &gy, q15(x - cx), q15(y - cy)), TL_OK);
            double tx, ty;
            truth.apply(x - cx, y - cy, &tx, &ty);
            worst = std::fmax(worst, std::hypot(gx / 32768.0 - tx, gy / 32768.0 - ty));
        }
    }
    return worst;
}

// A motion of the model of `dof` about the frame's centre: small scales, shears, rotations, shifts.
Motion randomMotion(int32_t dof, std::mt19937& rng, int32_t w, int32_t h) {
    std::uniform_real_distribution<double> small(-0.02, 0.02), shift(-15, 15);
    double a = 1 + small(rng), b = small(rng), d = small(rng), e = 1 + small(rng);
    if (dof == 2) a = e = 1, b = d = 0;
    if (dof == 14) d = 0, e = 1;
    if (dof == 24) a = 1, b = 0;
    const double cx = 0.5 * w, cy = 0.5 * h;
    Motion m{{a, b, 0, d, e, 0, 0, 0, 1}};
    m.m[2] = cx + shift(rng) - a * cx - b * cy;
    m.m[5] = cy + shift(rng) - d * cx - e * cy;
    if (dof == 8) m.m[6] = small(rng) * 2.5 / w, m.m[7] = small(rng) * 2.5 / h;
    return m;
}

void addPairs(Solver& s, const Motion& m, int32_t i1, int32_t i2, int32_t count, std::mt19937& rng, int32_t w,
              int32_t h) {
    std::uniform_real_distribution<double> ux(0, w), uy(0, h);
    for (int32_t k = 0; k < count; ++k) {
        const double x = ux(rng), y = uy(rng);
        double mx, my;
        m.apply(x, y, &mx, &my);
        ASSERT_EQ(MvecDetectMulti2_Lsm_addF32(&s.lsm, i1, q15(x), q15(y), i2, q15(mx), q15(my), 1 + k % 5),
                  TL_OK);
    }
}

Motion compose(const Motion& a, const Motion& b) {  // a after b
    Motion r{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) r.m[3 * i + j] += a.m[3 * i + k] * b.m[3 * k + j];
        }
    }
    return r;
}

}  // namespace

// Each linear model from exact pairs of one image and of a chain of four (0-1, 1-2, 2-3, so that the last two
// reach the reference only through the others); fixed elements stay exact; a frame of 32767 pixels does not
// overflow the sums.
TEST(MvecLsm, LinearModelsRecoverTheirMotion) {
    std::mt19937 rng(11);
    for (int32_t dof : {2, 6, 14, 24}) {
        for (int32_t w : {640, 32767}) {
            const int32_t h = w * 3 / 4;
            Solver s(dof, w, h, 4);
            Motion step[3], total[4];
            total[0] = Motion{{1, 0, 0, 0, 1, 0, 0, 0, 1}};
            for (int32_t i = 0; i < 3; ++i) {
                step[i] = randomMotion(dof, rng, w, h);
                total[i + 1] = compose(step[i], total[i]);
                // Points of image i and their images in image i + 1.
                addPairs(s, step[i], i, i + 1, 40, rng, w, h);
            }
            ASSERT_EQ(s.solve(), 0u) << dof;
            for (int32_t i = 1; i < 4; ++i) {
                const MvecDetectMulti2_Mvec& got = s.output(i);
                // Q15 elements leave up to half a unit of scale at the far corner.
                EXPECT_LT(worstOver(got, total[i], w, h), (w + h) / 32768.0)
                    << "dof " << dof << " w " << w << " image " << i;
                const Mvec6F32& a = got.u.affine;
                const bool rowsKept = (dof != 2 && dof != 24) || (a.a == 32768 && a.b == 0);
                const bool columnsKept = (dof != 2 && dof != 14) || (a.d == 0 && a.e == 32768);
                EXPECT_TRUE(rowsKept && columnsKept) << "dof " << dof;
            }
        }
    }
}

// Three non-collinear pairs that do not move give the identity exactly.
TEST(MvecLsm, StillPairsGiveTheIdentity) {
    Solver s(6, 320, 240, 2);
    const int32_t points[3][2] = {{10, 20}, {300, 40}, {150, 230}};
    for (const auto& p : points)
        ASSERT_EQ(
            MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, p[0] << 15, p[1] << 15, 1, p[0] << 15, p[1] << 15, 3),
            TL_OK);
    ASSERT_EQ(s.solve(), 0u);
    const Mvec6F32& a = s.output(1).u.affine;
    EXPECT_TRUE(a.a == 32768 && a.b == 0 && a.c == 0 && a.d == 0 && a.e == 32768 && a.f == 0);
}

// Degenerate sets: points on one line, fewer than half as many points as unknowns, nothing at all; each sets
// its code and leaves the former solution. Refused arguments change nothing.
TEST(MvecLsm, DegenerateSetsKeepTheFormerSolution) {
    std::mt19937 rng(5);
    for (int32_t dof : {6, 14, 24}) {
        Solver s(dof, 640, 480, 2);
        const Motion m = randomMotion(dof, rng, 640, 480);
        addPairs(s, m, 0, 1, 20, rng, 640, 480);
        ASSERT_EQ(s.solve(), 0u);
        const MvecDetectMulti2_Mvec before = s.output(1);
        const struct {
            int32_t points;
            bool onLine;
            uint32_t code;
        } cases[] = {{10, true, MVEC_LSM_FAILURE_SINGULAR},
                     {dof == 6 ? 2 : 1, false, MVEC_LSM_FAILURE_TOO_FEW_POINTS},
                     {0, false, MVEC_LSM_FAILURE_TOO_FEW_POINTS}};
        for (const auto& c : cases) {
            ASSERT_EQ(MvecDetectMulti2_Lsm_clear(&s.lsm), TL_OK);
            for (int32_t k = 0; k < c.points; ++k) {
                const double x = 50 + 40 * k, y = c.onLine ? 30 + 0.5 * x : 100 + 37 * (k % 3);
                double mx, my;
                m.apply(x, y, &mx, &my);
                MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, q15(x), q15(y), 1, q15(mx), q15(my), 2);
            }
            EXPECT_EQ(s.solve(), c.code) << "dof " << dof << ", " << c.points << " points";
            EXPECT_EQ(std::memcmp(&s.output(1).u.affine, &before.u.affine, sizeof(Mvec6F32)), 0);
        }
        EXPECT_EQ(MvecDetectMulti2_Lsm_addF32(&s.lsm, 1, 0, 0, 1, 0, 0, 1), TL_ERROR_PARAM);
        EXPECT_EQ(MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, 0, 0, 2, 0, 0, 1), TL_ERROR_PARAM);
        EXPECT_EQ(MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, 0, 0, 1, 0, 0, -1), TL_ERROR_PARAM);
    }
    MvecDetectMulti2_Lsm lsm;
    construct_MvecDetectMulti2_Lsm(&lsm, nullptr);
    EXPECT_EQ(MvecDetectMulti2_Lsm_init(&lsm, 5, 64, 64, 2), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Lsm_init(&lsm, 6, 64, 64, 17), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Lsm_solve(&lsm), TL_ERROR_PARAM);
}

// Dropping image 1 of four, each paired with the reference, moves images 2 and 3 down with their solutions.
TEST(MvecLsm, UpdateDropsAnImage) {
    std::mt19937 rng(9);
    Solver s(6, 640, 480, 4);
    Motion m[4];
    for (int32_t i = 1; i < 4; ++i) {
        m[i] = randomMotion(6, rng, 640, 480);
        addPairs(s, m[i], 0, i, 30, rng, 640, 480);
    }
    ASSERT_EQ(MvecDetectMulti2_Lsm_update(&s.lsm, 1), TL_OK);
    ASSERT_EQ(s.solve(), 0u);
    EXPECT_LT(worstOver(s.output(1), m[2], 640, 480), 1120 / 32768.0);
    EXPECT_LT(worstOver(s.output(2), m[3], 640, 480), 1120 / 32768.0);
}

namespace {

// The homography of a camera turned by `angle` radians about (ax, ay, az), on coordinates centred on the
// frame: K R K^-1 with K = diag(f, f, 1).
Motion turned(double angle, double ax, double ay, double az, double f) {
    const double n = std::sqrt(ax * ax + ay * ay + az * az), c = std::cos(angle), s = std::sin(angle);
    ax /= n, ay /= n, az /= n;
    const double r[9] = {c + ax * ax * (1 - c),      ax * ay * (1 - c) - az * s, ax * az * (1 - c) + ay * s,
                         ay * ax * (1 - c) + az * s, c + ay * ay * (1 - c),      ay * az * (1 - c) - ax * s,
                         az * ax * (1 - c) - ay * s, az * ay * (1 - c) + ax * s, c + az * az * (1 - c)};
    return Motion{{r[0], r[1], f * r[2], r[3], r[4], f * r[5], r[6] / f, r[7] / f, r[8]}};
}

// A motion of centred coordinates as one of top-left ones on a w by h frame.
Motion fromCentre(const Motion& m, int32_t w, int32_t h) {
    const Motion in{{1, 0, -0.5 * w, 0, 1, -0.5 * h, 0, 0, 1}}, out{{1, 0, 0.5 * w, 0, 1, 0.5 * h, 0, 0, 1}};
    return compose(out, compose(m, in));
}

}  // namespace

// The iterative solvers from exact pairs, one image and a chain of three: rotations (dof 3, compared on
// centred coordinates), homographies (dof 8) and rotations or near-rotations as homographies (dof 18).
TEST(MvecLsm, IterativeModelsRecoverTheirMotion) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<double> axis(-1, 1), angle(-0.05, 0.05);
    const int32_t w = 640, h = 480;
    const double f = 700.0;
    for (int32_t dof : {3, 8, 18}) {
        for (int32_t images : {2, 3}) {
            Solver s(dof, w, h, images, f);
            Motion total = Motion{{1, 0, 0, 0, 1, 0, 0, 0, 1}};
            for (int32_t i = 1; i < images; ++i) {
                Motion step = dof == 8
                                  ? randomMotion(8, rng, w, h)
                                  : fromCentre(turned(angle(rng), axis(rng), axis(rng), axis(rng), f), w, h);
                // A little perspective of its own on top of the rotation for dof 18.
                if (dof == 18 && i == 1) step.m[6] += 2e-5;
                addPairs(s, step, i - 1, i, 30, rng, w, h);
                total = compose(step, total);
            }
            ASSERT_EQ(s.solve(), 0u) << "dof " << dof << ", " << images << " images";
            const Motion truth =
                dof == 3 ? compose(Motion{{1, 0, -0.5 * w, 0, 1, -0.5 * h, 0, 0, 1}},
                                   compose(total, Motion{{1, 0, 0.5 * w, 0, 1, 0.5 * h, 0, 0, 1}}))
                         : total;
            EXPECT_LT(worstOver(s.output(images - 1), truth, w, h), 5e-3) << "dof " << dof << ", " << images;
        }
        // Too few points: one for a rotation (three unknowns), three for a homography; and for the
        // homographies points on a line.
        Solver s(dof, w, h, 2, f);
        const MvecDetectMulti2_Mvec before = s.output(1);
        for (int32_t k = 0; k < (dof == 3 ? 1 : 3); ++k)
            MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, q15(100 + 90 * k), q15(50 + 70 * k * k), 1,
                                        q15(101 + 90 * k), q15(50 + 70 * k * k), 1);
        EXPECT_EQ(s.solve(), MVEC_LSM_FAILURE_TOO_FEW_POINTS) << dof;
        if (dof != 3) {
            for (int32_t k = 3; k < 12; ++k)
                MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, q15(20 + 50 * k), q15(10 + 30 * k), 1,
                                            q15(22 + 50 * k), q15(11 + 30 * k), 1);
            MvecDetectMulti2_Lsm_clearBlock(&s.lsm, 1);
            for (int32_t k = 0; k < 12; ++k)
                MvecDetectMulti2_Lsm_addF32(&s.lsm, 0, q15(20 + 50 * k), q15(10 + 30 * k), 1,
                                            q15(22 + 50 * k), q15(11 + 30 * k), 1);
            EXPECT_EQ(s.solve(), MVEC_LSM_FAILURE_SINGULAR) << dof;
        }
        EXPECT_EQ(std::memcmp(&s.output(1).u, &before.u, sizeof before.u), 0) << dof;
    }
}
