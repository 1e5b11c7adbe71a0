// Homographies, Q15 affine motions and motion models of every kind: by hand, against real maps, round trips.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>

#include "alignment/mvec.h"
#include "alignment/mvec_dispatch.h"

using namespace vq_tl;

namespace {

// The call that made `a` succeeded, and a is b within the tolerance.
void expectNear(TLResult made, const Mvec8Real& a, const Mvec8Real& b, double tolerance) {
    EXPECT_EQ(made, TL_OK);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(a.m[i], b.m[i], tolerance) << "element " << i;
}

bool same(const Mvec6F32& a, const Mvec6F32& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

Mvec6F32 product(const Mvec6F32& a, const Mvec6F32& b) {
    Mvec6F32 r{};
    EXPECT_EQ(Mvec6F32_mult(&r, &a, &b), TL_OK);
    return r;
}

// Independent model of the point formula: the real map in long double.
long double realTrans(const Mvec6F32& m, long double x, long double y, bool first) {
    return first ? (m.a * x + m.b * y) / 32768.0L + m.c : (m.d * x + m.e * y) / 32768.0L + m.f;
}

// A motion as the search finds them: scale 0.8 to 1.25, a few degrees of rotation, a shift up to maxShift.
Mvec6F32 randomMotion(std::mt19937& rng, double maxShift) {
    std::uniform_real_distribution<double> scale(0.8, 1.25), angle(-0.1, 0.1), shift(-maxShift, maxShift);
    const double s = scale(rng), t = angle(rng), sy = scale(rng);
    auto q15 = [](double v) { return static_cast<int32_t>(std::lround(32768.0 * v)); };
    return {q15(s * std::cos(t)),  q15(-s * std::sin(t)), q15(shift(rng)),
            q15(sy * std::sin(t)), q15(sy * std::cos(t)), q15(shift(rng))};
}

void expectIdentityWithinOne(const Mvec6F32& m) {
    const int32_t got[6] = {m.a, m.b, m.c, m.d, m.e, m.f}, want[6] = {32768, 0, 0, 0, 32768, 0};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(got[i], want[i], 1) << "element " << i;
}

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

TEST(Mvec8Real, ProductAndInverseWorkedByHand) {
    const Mvec8Real a{{1, 2, 0, 0, 1, 3, 0, 0, 1}};
    const Mvec8Real b{{2, 0, 1, 0, 1, 0, 1, 0, 1}};
    Mvec8Real r, c{{4, 0, 0, 0, 2, 0, 0, 0, 0.5}};
    expectNear(Mvec8Real_mult(&r, &a, &b), r, Mvec8Real{{2, 2, 1, 3, 1, 3, 1, 0, 1}}, 0.0);
    expectNear(Mvec8Real_inv(&r, &b), r, Mvec8Real{{1, 0, -1, 0, 1, 0, -1, 0, 2}},
               1e-15);  // det 1, cofactors
    // The result may alias the input.
    expectNear(Mvec8Real_inv(&c, &c), c, Mvec8Real{{0.25, 0, 0, 0, 0.5, 0, 0, 0, 2}}, 0.0);
    expectNear(Mvec8Real_mult(&c, &c, &c), c, Mvec8Real{{0.0625, 0, 0, 0, 0.25, 0, 0, 0, 4}}, 0.0);
    const Mvec8Real two{{2, 4, 6, 8, 10, 12, 14, 16, 2}};
    expectNear(Mvec8Real_normalize(&r, &two), r, Mvec8Real{{1, 2, 3, 4, 5, 6, 7, 8, 1}}, 0.0);
    // A full matrix times its inverse, both ways.
    const Mvec8Real m{{5.5, -1.25, 0.75, 0.5, 4.0, -1.5, 0.25, 1.75, 6.0}};
    Mvec8Real identity, p;
    Mvec8Real_setIdentity(&identity);
    ASSERT_EQ(Mvec8Real_inv(&r, &m), TL_OK);
    expectNear(Mvec8Real_mult(&p, &m, &r), p, identity, 1e-13);
    expectNear(Mvec8Real_mult(&p, &r, &m), p, identity, 1e-13);
}

// Refusals on singular or degenerate input keep the result as it was.
TEST(Mvec, RefusalsLeaveTheResultAlone) {
    const Mvec8Real zero{{0, 0, 0, 0, 0, 0, 0, 0, 0}};
    const Mvec8Real singular8[] = {Mvec8Real{{1, 2, 3, 2, 4, 6, 0, 0, 1}}, zero,
                                   Mvec8Real{{1, 0, 0, 0, 1, 0, 0, 0, 0}}};
    const Mvec8Real nines{{9, 9, 9, 9, 9, 9, 9, 9, 9}};
    Mvec8Real r = nines;
    for (const Mvec8Real& m : singular8) EXPECT_EQ(Mvec8Real_inv(&r, &m), TL_ERROR_PARAM);
    const Mvec8Real noW{{1, 2, 3, 4, 5, 6, 7, 8, 0}};
    EXPECT_EQ(Mvec8Real_normalize(&r, &noW), TL_ERROR_PARAM);
    expectNear(TL_OK, r, nines, 0.0);
    // A point that maps to infinity (w of 0).
    const Mvec8Real atInfinity{{1, 0, 0, 0, 1, 0, 1, 0, 0}};
    int32_t ox = 11, oy = 12;
    EXPECT_EQ(Mvec8Real_trans2DF32(&atInfinity, &ox, &oy, 0, 5), TL_ERROR_PARAM);
    EXPECT_TRUE(ox == 11 && oy == 12);

    const Mvec6F32 id{32768, 0, 0, 0, 32768, 0}, canary{1, 2, 3, 4, 5, 6};
    Mvec6F32 r6 = canary;
    for (const Mvec6F32& m : {Mvec6F32{0, 0, 5, 0, 0, 6}, Mvec6F32{32768, 65536, 0, 16384, 32768, 0}}) {
        EXPECT_EQ(Mvec6F32_inv(&r6, &m), TL_ERROR_PARAM);
        EXPECT_EQ(Mvec6F32_div(&r6, &id, &m), TL_ERROR_PARAM);
    }
    EXPECT_EQ(MvecDetectMulti2_Mvec6F32_output(&r6, &id, 0, 0), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec6F32_input(&r6, &id, -2, 0), TL_ERROR_PARAM);
    EXPECT_TRUE(same(r6, canary));
    // Dispatch records of mixed or missing kinds, and singular ones.
    MvecDetectMulti2_Mvec a = make(6), b = make(8), never{};
    EXPECT_EQ(MvecDetectMulti2_Mvec_mult(&a, &a, &b), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&b, &a), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec_upscale(&never, &a), TL_ERROR_PARAM);
    a.u.affine = {0, 0, 0, 0, 0, 0};
    MvecDetectMulti2_Mvec result = make(6);
    result.u.affine.c = 99;
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&result, &a), TL_ERROR_PARAM);
    EXPECT_EQ(result.u.affine.c, 99);
    MvecDetectMulti2_Mvec q = make(3);
    q.u.quat = {0, 0, 0, 0};
    EXPECT_EQ(MvecDetectMulti2_Mvec_inv(&q, &q), TL_ERROR_PARAM);
    // Kinds that do not exist, and a rotation without a focal length.
    for (int32_t dof : {0, 1, 4, 5, 7, 9, 25, -6})
        EXPECT_EQ(MvecDetectMulti2_Mvec_init(&never, dof, 1.0), TL_ERROR_PARAM) << dof;
    EXPECT_EQ(MvecDetectMulti2_Mvec_init(&never, 3, 0.0), TL_ERROR_PARAM);
}

TEST(Mvec8Real, PointMapsWorkedByHand) {
    // x' = (2x + 1) / (x + 1), y' = 3y / (x + 1); every result is exact.
    const Mvec8Real m{{2, 0, 1, 0, 3, 0, 1, 0, 1}};
    double rx, ry, v[3] = {1.0, 2.0, 3.0};
    float fx, fy;
    ASSERT_EQ(Mvec8Real_trans2DReal(&m, &rx, &ry, 1.0, 2.0), TL_OK);
    ASSERT_EQ(Mvec8Real_trans2D(&m, &fx, &fy, 3.0f, -1.0f), TL_OK);
    ASSERT_EQ(Mvec8Real_trans3DReal(&m, v, v), TL_OK);  // in place
    EXPECT_TRUE(rx == 1.5 && ry == 3.0) << rx << "," << ry;
    EXPECT_TRUE(fx == 1.75f && fy == -0.75f) << fx << "," << fy;
    EXPECT_TRUE(v[0] == 5.0 && v[1] == 6.0 && v[2] == 4.0) << v[0] << "," << v[1] << "," << v[2];
    // The Q15 form is bit exact for the identity and rounds halves away from zero.
    Mvec8Real id;
    Mvec8Real_setIdentity(&id);
    const int32_t fixed[] = {0, 1, -1, 16384, -16384, INT32_MAX, INT32_MIN, 123456789};
    int32_t ox = 0, oy = 0;
    for (int i = 0; i < 8; ++i) {
        const int32_t x = fixed[i], y = fixed[7 - i];
        ASSERT_EQ(Mvec8Real_trans2DF32(&id, &ox, &oy, x, y), TL_OK);
        ASSERT_TRUE(ox == x && oy == y) << x << "," << y;
    }
    // A half scale puts odd points on halves: {in, out}.
    const Mvec8Real half{{0.5, 0, 0, 0, 0.5, 0, 0, 0, 1}};
    const int32_t cases[][2] = {{1, 1}, {-1, -1}, {3, 2}, {-3, -2}, {4, 2}, {5, 3}, {0, 0}};
    for (const auto& c : cases) {
        ASSERT_EQ(Mvec8Real_trans2DF32(&half, &ox, &oy, c[0], -c[0]), TL_OK);
        EXPECT_TRUE(ox == c[1] && oy == -c[1]) << c[0] << ": " << ox << "," << oy;
    }
    // One pixel of translation is 32768, and a w of 2 halves (x + 32768): 16384.5 and 3.5.
    const Mvec8Real proj{{1, 0, 1, 0, 1, 0, 0, 0, 2}};
    ASSERT_EQ(Mvec8Real_trans2DF32(&proj, &ox, &oy, 1, 7), TL_OK);
    EXPECT_TRUE(ox == 16385 && oy == 4) << ox << "," << oy;
}

TEST(Mvec8Real, RotationsRoundTripAndAreOrthonormal) {
    const double angles[][3] = {{0.1, 0.2, 0.3}, {-0.4, 0.05, 1.2}, {0.0, -1.3, -2.9}, {3.0, 0.7, 0.0}};
    const Mvec8Real k{{1500, 0, 960, 0, 1500, 540, 0, 0, 1}};
    Mvec8Real id, r, p, h, back;
    Mvec8Real_setIdentity(&id);
    for (const auto& a : angles) {
        ASSERT_EQ(Mvec8Real_setRotationAngle(&r, a[0], a[1], a[2]), TL_OK);
        const Mvec8Real rt{{r.m[0], r.m[3], r.m[6], r.m[1], r.m[4], r.m[7], r.m[2], r.m[5], r.m[8]}};
        expectNear(Mvec8Real_mult(&p, &r, &rt), p, id, 1e-12);
        double x, y, z;
        ASSERT_EQ(Mvec8Real_estimateRotationAngle(&r, &x, &y, &z), TL_OK);
        EXPECT_TRUE(std::fabs(x - a[0]) < 1e-9 && std::fabs(y - a[1]) < 1e-9 && std::fabs(z - a[2]) < 1e-9);
        // The homography K R K^-1, known only up to scale, gives R back.
        ASSERT_EQ(Mvec8Real_setRotationMatrix(&h, &r, &k), TL_OK);
        for (double& v : h.m) v *= 3.0;
        expectNear(Mvec8Real_estimateRotationMatrix(&back, &h, &k), back, r, 1e-11);
    }
    // A quarter turn about z takes the x axis to the y axis.
    Mvec8Real_setRotationAngle(&r, 0.0, 0.0, 1.5707963267948966);
    double v[3] = {1.0, 0.0, 0.0};
    Mvec8Real_trans3DReal(&r, v, v);
    EXPECT_TRUE(std::fabs(v[0]) < 1e-12 && std::fabs(v[1] - 1.0) < 1e-12 && std::fabs(v[2]) < 1e-12);
}

TEST(Mvec6F32, OperationsWorkedByHand) {
    const Mvec6F32 twice{65536, 0, 0, 0, 65536, 0}, onePixelRight{32768, 0, 32768, 0, 32768, 0};
    // a after b: twice after the shift is 2x + 2, the shift after twice 2x + 1.
    EXPECT_TRUE(same(product(twice, onePixelRight), {65536, 0, 65536, 0, 65536, 0}));
    EXPECT_TRUE(same(product(onePixelRight, twice), {65536, 0, 32768, 0, 65536, 0}));
    // Elements round to nearest: 3/4 of (1 + 2^-15) is 24576.75 units; half of +-1 unit ties, rounding up.
    EXPECT_TRUE(
        same(product({24576, 0, 0, 0, 24576, 0}, {32769, 0, 1, 0, 32767, -1}), {24577, 0, 1, 0, 24575, -1}));
    EXPECT_TRUE(same(product({16384, 0, 0, 0, 16384, 0}, {1, 0, 0, 0, -1, 0}), {1, 0, 0, 0, 0, 0}));
    // Scale 2 and shift (1, -1) inverts to scale 1/2 and shift (-1/2, 1/2).
    const Mvec6F32 m2{65536, 0, 32768, 0, 65536, -32768};
    Mvec6F32 r;
    EXPECT_TRUE(Mvec6F32_inv(&r, &m2) == TL_OK && same(r, {16384, 0, -16384, 0, 16384, 16384}));
    // The point formula floors: -0.5 to -1, 1.5 to 1, 3.5 to 3, -3.5 to -4.
    const Mvec6F32 half{16384, 0, 0, 0, 16384, 100};
    int32_t x, y;
    EXPECT_TRUE(Mvec6F32_trans(&half, &x, &y, -1, 3) == TL_OK && x == -1 && y == 101) << x << "," << y;
    EXPECT_TRUE(MvecDetectMulti2_Mvec6F32_transF32(&half, &x, &y, 7, -7) == TL_OK && x == 3 && y == 96)
        << x << "," << y;

    const Mvec6F32 m{30000, 100, 32768 * 3, -100, 31000, -32768};
    EXPECT_TRUE(Mvec6F32_shift(&r, &m, 5, -5) == TL_OK && same(r, {30000, 100, 98309, -100, 31000, -32773}));
    EXPECT_TRUE(MvecDetectMulti2_Mvec6F32_upscale(&r, &m) == TL_OK &&
                same(r, {30000, 100, 32768 * 6, -100, 31000, -65536}));
    // A half-size image: half the shift. A base one pixel right: m(x + 1) = ... + 30000/32768 pixels.
    EXPECT_TRUE(Mvec6F32_scale(&r, &m, 16384) == TL_OK && same(r, {30000, 100, 49152, -100, 31000, -16384}));
    EXPECT_TRUE(MvecDetectMulti2_Mvec6F32_setBase(&r, &m, &onePixelRight) == TL_OK &&
                r.c == 32768 * 3 + 30000);
}

TEST(Mvec6F32, RoundTripsAndCompositionFollowTheRealMaps) {
    std::mt19937 rng(99);
    std::uniform_int_distribution<int32_t> point(-4000 * 32768, 4000 * 32768);
    Mvec6F32 id, inv, p, ab, q, shifted;
    Mvec6F32_setIdentity(&id);
    for (int round = 0; round < 1000 && !HasFailure(); ++round) {
        // m after its inverse is the identity within one unit. The other order carries the rounding of the
        // inverse's linear part times the translation, so it holds to one unit for short shifts only.
        const Mvec6F32 far = randomMotion(rng, 2000.0), near = randomMotion(rng, 0.5);
        ASSERT_TRUE(Mvec6F32_inv(&inv, &far) == TL_OK && Mvec6F32_mult(&p, &far, &inv) == TL_OK);
        expectIdentityWithinOne(p);
        ASSERT_TRUE(Mvec6F32_inv(&inv, &near) == TL_OK && Mvec6F32_mult(&p, &inv, &near) == TL_OK);
        expectIdentityWithinOne(p);
        // The identity on either side changes nothing, in place too.
        ASSERT_TRUE(Mvec6F32_mult(&p, &id, &far) == TL_OK && Mvec6F32_mult(&p, &p, &id) == TL_OK);
        EXPECT_TRUE(same(p, far));
        // a(b(p)) in reals against the composed record: an element half a unit off moves 4000 pixels by 1/8.
        const Mvec6F32 a = randomMotion(rng, 100.0), b = randomMotion(rng, 100.0);
        Mvec6F32_mult(&ab, &a, &b);
        const int32_t x = point(rng), y = point(rng);
        const long double bx = realTrans(b, x, y, true), by = realTrans(b, x, y, false);
        int32_t ox, oy;
        Mvec6F32_trans(&ab, &ox, &oy, x, y);
        EXPECT_NEAR(ox, static_cast<double>(realTrans(a, bx, by, true)), 8192.0);
        EXPECT_NEAR(oy, static_cast<double>(realTrans(a, bx, by, false)), 8192.0);
        // div undoes a composition; the shift carries half a unit per linear element times up to 180.
        Mvec6F32_div(&q, &ab, &b);
        EXPECT_NEAR(q.a, a.a, 2);
        EXPECT_NEAR(q.e, a.e, 2);
        EXPECT_NEAR(q.c, a.c, 256);
        // changeOrigin: m'(p) = m(p + o) - o.
        const int32_t ox0 = 640 * 32768, oy0 = -480 * 32768;
        Mvec6F32_changeOrigin(&shifted, &a, ox0, oy0);
        int32_t sx, sy, tx, ty;
        Mvec6F32_trans(&shifted, &sx, &sy, x / 4, y / 4);
        Mvec6F32_trans(&a, &tx, &ty, x / 4 + ox0, y / 4 + oy0);
        EXPECT_NEAR(sx, tx - ox0, 2);
        EXPECT_NEAR(sy, ty - oy0, 2);
    }
}

TEST(Mvec6F32, ShrinkRatioOutputAndInputAreInverse) {
    std::mt19937 rng(5);
    for (int32_t ratio : {1, 2, 4, 8}) {
        for (int round = 0; round < 50; ++round) {
            const Mvec6F32 m = randomMotion(rng, 20.0);
            Mvec6F32 up, back;
            ASSERT_EQ(MvecDetectMulti2_Mvec6F32_output(&up, &m, ratio, 0), TL_OK);
            ASSERT_EQ(MvecDetectMulti2_Mvec6F32_input(&back, &up, ratio, 0), TL_OK);
            // The linear part commutes with a uniform scale.
            EXPECT_TRUE(same({up.a, up.b, 0, up.d, up.e, 0}, {m.a, m.b, 0, m.d, m.e, 0}));
            EXPECT_TRUE(same({back.a, back.b, 0, back.d, back.e, 0}, {m.a, m.b, 0, m.d, m.e, 0}));
            EXPECT_NEAR(back.c, m.c, 1);
            EXPECT_NEAR(back.f, m.f, 1);
        }
        // A shift of one pixel on the shrunk image is `ratio` pixels on the full one.
        const Mvec6F32 onePixel{32768, 0, 32768, 0, 32768, 0};
        Mvec6F32 up;
        EXPECT_TRUE(MvecDetectMulti2_Mvec6F32_output(&up, &onePixel, ratio, 0) == TL_OK &&
                    up.c == 32768 * ratio);
        EXPECT_EQ(up.f, 0);
    }
}

// Every kind starts as the identity, which maps each point to itself bit for bit.
TEST(MvecDispatch, EachDofStartsAsTheIdentity) {
    for (int32_t dof : {2, 6, 14, 24, 8, 18, 3}) {
        MvecDetectMulti2_Mvec m = make(dof);
        int32_t x = 0, y = 0;
        EXPECT_TRUE(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 123456, -98765) == TL_OK && x == 123456 &&
                    y == -98765)
            << dof;
    }
}

// A quarter turn about the optical axis moves (x, 0) to (0, x): the depth stays, a plain planar rotation.
TEST(MvecDispatch, QuaternionWorkedByHand) {
    MvecDetectMulti2_Mvec m = make(3, 800.0);
    m.u.quat = rotation(M_PI / 2, 0.0, 0.0, 1.0);
    int32_t x, y;
    EXPECT_TRUE(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 100 * kOne, 0) == TL_OK && x == 0 &&
                y == 100 * kOne)
        << x << "," << y;
    // A pan of atan(0.25) about the vertical axis moves the centre a quarter of f sideways: 200 at f = 800.
    m.u.quat = rotation(std::atan(0.25), 0.0, 1.0, 0.0);
    EXPECT_TRUE(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 0, 0) == TL_OK && std::abs(x - 200 * kOne) <= 1 &&
                y == 0)
        << x << "," << y;
    // A ray turned behind the camera has no image.
    m.u.quat = rotation(M_PI, 0.0, 1.0, 0.0);
    x = y = 7;
    EXPECT_TRUE(MvecDetectMulti2_Mvec_transF32(&m, &x, &y, 0, 0) == TL_ERROR_PARAM && x == 7);
}

// For every kind: m after its inverse maps points back; one level finer a point's motion doubles with it.
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
