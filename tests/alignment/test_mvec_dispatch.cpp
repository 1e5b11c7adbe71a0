#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

#include "alignment/mvec_dispatch.h"

using namespace vq_tl;

namespace {

constexpr int32_t kOne = 32768;

MvecDetectMulti2_Mvec make(int32_t dof, double focal = 1000.0) {
    MvecDetectMulti2_Mvec m{};
    EXPECT_EQ(MvecDetectMulti2_Mvec_init(&m, dof, focal), TL_OK) << dof;
    return m;
}

// A rotation of angle t (radians) about the unit axis (ax, ay, az).
MvecDetectMulti2_Quat rotation(double t, double ax, double ay, double az) {
    const double s = std::sin(t / 2);
    return {std::cos(t / 2), ax * s, ay * s, az * s};
}

}  // namespace

// Every model starts as the identity, which maps each point to itself bit for bit.
TEST(MvecDispatch, EachDofStartsAsTheIdentity) {
    for (int32_t dof : {2, 6, 14, 24, 8, 18, 3}) {
        MvecDetectMulti2_Mvec m = make(dof);
        int32_t x = 0, y = 0;
        ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 123456, -98765), TL_OK);
        EXPECT_TRUE(x == 123456 && y == -98765) << dof;
    }
    MvecDetectMulti2_Mvec m{};
    for (int32_t dof : {0, 1, 4, 5, 7, 9, 25, -6})
        EXPECT_EQ(MvecDetectMulti2_Mvec_init(&m, dof, 1.0), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_init(&m, 3, 0.0), TL_ERROR_PARAM);  // a rotation needs a focal length
}

// A quarter turn about the optical axis moves (x, 0) to (0, x): the ray turns,
// the depth stays, so the projection is the plain planar rotation.
TEST(MvecDispatch, QuaternionWorkedByHand) {
    MvecDetectMulti2_Mvec m = make(3, 800.0);
    m.u.quat = rotation(M_PI / 2, 0.0, 0.0, 1.0);
    int32_t x, y;
    ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 100 * kOne, 0), TL_OK);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(y, 100 * kOne);
    // A pan of atan(0.25) about the vertical axis carries the centre to a
    // quarter of the focal length sideways: 200 pixels at f = 800.
    m.u.quat = rotation(std::atan(0.25), 0.0, 1.0, 0.0);
    ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 0, 0), TL_OK);
    EXPECT_NEAR(x, 200 * kOne, 1);
    EXPECT_EQ(y, 0);
    // A ray turned behind the camera has no image.
    m.u.quat = rotation(M_PI, 0.0, 1.0, 0.0);
    x = y = 7;
    EXPECT_EQ(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 0, 0), TL_ERROR_PARAM);
    EXPECT_EQ(x, 7);
}

// For every kind: m after its inverse maps points back, and one level finer
// the motion of a point doubles with the point.
TEST(MvecDispatch, InverseAndUpscaleAgreeWithTheMaps) {
    std::mt19937 rng(3);
    std::uniform_int_distribution<int32_t> coord(-400 * kOne, 400 * kOne);
    for (int32_t dof : {6, 8, 3}) {
        SCOPED_TRACE(dof);
        MvecDetectMulti2_Mvec m = make(dof), inv = make(dof), both = make(dof), fine = make(dof);
        if (dof == 6) m.u.affine = {33100, -900, 5 * kOne, 700, 32400, -3 * kOne};
        if (dof == 8) m.u.projective = {{1.01, -0.02, 4.5, 0.015, 0.99, -2.25, 1e-5, -2e-5, 1.0}};
        if (dof == 3) m.u.quat = rotation(0.03, 0.6, 0.0, 0.8);
        ASSERT_EQ(MvecDetectMulti2_Mvec_inv(&inv, &m), TL_OK);
        ASSERT_EQ(MvecDetectMulti2_Mvec_mult(&both, &m, &inv), TL_OK);
        ASSERT_EQ(MvecDetectMulti2_Mvec_upscale(&fine, &m), TL_OK);
        for (int i = 0; i < 200; ++i) {
            const int32_t px = coord(rng), py = coord(rng);
            int32_t bx, by, cx, cy, fx, fy;
            ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&both, &bx, &by, px, py), TL_OK);
            EXPECT_LE(std::abs(bx - px), 64);  // within 1/500 pixel
            EXPECT_LE(std::abs(by - py), 64);
            ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&m, &cx, &cy, px / 2, py / 2), TL_OK);
            ASSERT_EQ(MvecDetectMulti2_Mvec_transF32(&fine, &fx, &fy, px / 2 * 2, py / 2 * 2), TL_OK);
            EXPECT_LE(std::abs(fx - 2 * cx), 4);
            EXPECT_LE(std::abs(fy - 2 * cy), 4);
        }
    }
}

TEST(MvecDispatch, RefusesMixedOrMissingRecords) {
    MvecDetectMulti2_Mvec a = make(6), b = make(8), never{};
    int32_t y;
    EXPECT_EQ(MvecDetectMulti2_Mvec_mult(&a, &a, &b), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&b, &a), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_upscale(&never, &a), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_setIdentity(&never), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_transF32(&a, nullptr, &y, 0, 0), TL_ERROR_PARAM);
    // A singular record keeps the result as it was.
    a.u.affine = {0, 0, 0, 0, 0, 0};
    MvecDetectMulti2_Mvec result = make(6);
    result.u.affine.c = 99;
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&result, &a), TL_ERROR_PARAM);
    EXPECT_EQ(result.u.affine.c, 99);
    MvecDetectMulti2_Mvec q = make(3);
    q.u.quat = {0, 0, 0, 0};
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&q, &q), TL_ERROR_PARAM);
}
