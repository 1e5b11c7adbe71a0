#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

#include "alignment/mvec.h"

using namespace vq_tl;

namespace {

Mvec8Real mat(std::initializer_list<double> v) {
    Mvec8Real m{};
    int i = 0;
    for (double x : v) m.m[i++] = x;
    return m;
}

void expectNear(const Mvec8Real& a, const Mvec8Real& b, double tolerance) {
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(a.m[i], b.m[i], tolerance) << "element " << i;
}

bool sameBits(const Mvec6F32& a, const Mvec6F32& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Independent model of the point formula: the real map evaluated in long double.
long double realTrans(const Mvec6F32& m, long double x, long double y, bool first) {
    return first ? (m.a * x + m.b * y) / 32768.0L + m.c : (m.d * x + m.e * y) / 32768.0L + m.f;
}

// A motion record of the kind the search produces: scale 0.8 to 1.25, a
// rotation of a few degrees, a translation of up to `maxShift` pixels.
Mvec6F32 randomMotion(std::mt19937& rng, double maxShift) {
    std::uniform_real_distribution<double> scale(0.8, 1.25), angle(-0.1, 0.1), shift(-maxShift, maxShift);
    const double s = scale(rng), t = angle(rng), sy = scale(rng);
    Mvec6F32 m;
    m.a = static_cast<int32_t>(std::lround(32768.0 * s * std::cos(t)));
    m.b = static_cast<int32_t>(std::lround(-32768.0 * s * std::sin(t)));
    m.d = static_cast<int32_t>(std::lround(32768.0 * sy * std::sin(t)));
    m.e = static_cast<int32_t>(std::lround(32768.0 * sy * std::cos(t)));
    m.c = static_cast<int32_t>(std::lround(32768.0 * shift(rng)));
    m.f = static_cast<int32_t>(std::lround(32768.0 * shift(rng)));
    return m;
}

void expectIdentityWithinOne(const Mvec6F32& m) {
    EXPECT_NEAR(m.a, 32768, 1);
    EXPECT_NEAR(m.b, 0, 1);
    EXPECT_NEAR(m.c, 0, 1);
    EXPECT_NEAR(m.d, 0, 1);
    EXPECT_NEAR(m.e, 32768, 1);
    EXPECT_NEAR(m.f, 0, 1);
}

}  // namespace

TEST(Mvec8Real, ProductAndInverseWorkedByHand) {
    const Mvec8Real a = mat({1, 2, 0, 0, 1, 3, 0, 0, 1});
    const Mvec8Real b = mat({2, 0, 1, 0, 1, 0, 1, 0, 1});
    Mvec8Real r;
    ASSERT_EQ(Mvec8Real_mult(&r, &a, &b), TL_OK);
    expectNear(r, mat({2, 2, 1, 3, 1, 3, 1, 0, 1}), 0.0);

    // det = 2*1*1 - 1*1*1 = 1 for b; its inverse worked out by cofactors.
    ASSERT_EQ(Mvec8Real_inv(&r, &b), TL_OK);
    expectNear(r, mat({1, 0, -1, 0, 1, 0, -1, 0, 2}), 1e-15);

    // Result may alias the input.
    Mvec8Real c = mat({4, 0, 0, 0, 2, 0, 0, 0, 0.5});
    ASSERT_EQ(Mvec8Real_inv(&c, &c), TL_OK);
    expectNear(c, mat({0.25, 0, 0, 0, 0.5, 0, 0, 0, 2}), 0.0);
    ASSERT_EQ(Mvec8Real_mult(&c, &c, &c), TL_OK);
    expectNear(c, mat({0.0625, 0, 0, 0, 0.25, 0, 0, 0, 4}), 0.0);
}

TEST(Mvec8Real, RandomMatrixTimesInverseIsIdentity) {
    std::mt19937 rng(20190326);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    Mvec8Real identity;
    Mvec8Real_setIdentity(&identity);
    for (int round = 0; round < 200; ++round) {
        Mvec8Real m;
        for (double& v : m.m) v = u(rng);
        for (int i = 0; i < 3; ++i) m.m[4 * i] += 5.0;  // diagonally dominant, far from singular
        Mvec8Real inv, p;
        ASSERT_EQ(Mvec8Real_inv(&inv, &m), TL_OK);
        Mvec8Real_mult(&p, &m, &inv);
        expectNear(p, identity, 1e-13);
        Mvec8Real_mult(&p, &inv, &m);
        expectNear(p, identity, 1e-13);
    }
}

TEST(Mvec8Real, SingularMatrixLeavesResultUnchanged) {
    const Mvec8Real singular[] = {
        mat({1, 2, 3, 2, 4, 6, 0, 0, 1}),  // rows 0 and 1 dependent
        mat({0, 0, 0, 0, 0, 0, 0, 0, 0}),
        mat({1, 0, 0, 0, 1, 0, 0, 0, 0}),
    };
    for (const Mvec8Real& m : singular) {
        Mvec8Real r = mat({9, 9, 9, 9, 9, 9, 9, 9, 9});
        EXPECT_EQ(Mvec8Real_inv(&r, &m), TL_ERROR_PARAM);
        expectNear(r, mat({9, 9, 9, 9, 9, 9, 9, 9, 9}), 0.0);
    }
    Mvec8Real r = mat({9, 9, 9, 9, 9, 9, 9, 9, 9});
    const Mvec8Real zero8 = mat({1, 2, 3, 4, 5, 6, 7, 8, 0});
    EXPECT_EQ(Mvec8Real_normalize(&r, &zero8), TL_ERROR_PARAM);
    expectNear(r, mat({9, 9, 9, 9, 9, 9, 9, 9, 9}), 0.0);
    const Mvec8Real two = mat({2, 4, 6, 8, 10, 12, 14, 16, 2});
    ASSERT_EQ(Mvec8Real_normalize(&r, &two), TL_OK);
    expectNear(r, mat({1, 2, 3, 4, 5, 6, 7, 8, 1}), 0.0);
}

TEST(Mvec8Real, PointMapsWorkedByHand) {
    // x' = (2x + 1) / (x + 1), y' = (3y) / (x + 1).
    const Mvec8Real m = mat({2, 0, 1, 0, 3, 0, 1, 0, 1});
    double rx, ry;
    ASSERT_EQ(Mvec8Real_trans2DReal(&m, &rx, &ry, 1.0, 2.0), TL_OK);
    EXPECT_DOUBLE_EQ(rx, 1.5);
    EXPECT_DOUBLE_EQ(ry, 3.0);
    float fx, fy;
    ASSERT_EQ(Mvec8Real_trans2D(&m, &fx, &fy, 3.0f, -1.0f), TL_OK);
    EXPECT_FLOAT_EQ(fx, 7.0f / 4.0f);
    EXPECT_FLOAT_EQ(fy, -3.0f / 4.0f);
    double v[3] = {1.0, 2.0, 3.0};
    ASSERT_EQ(Mvec8Real_trans3DReal(&m, v, v), TL_OK);  // in place
    EXPECT_DOUBLE_EQ(v[0], 5.0);
    EXPECT_DOUBLE_EQ(v[1], 6.0);
    EXPECT_DOUBLE_EQ(v[2], 4.0);
}

TEST(Mvec8Real, Trans2DF32IdentityIsBitExact) {
    Mvec8Real id;
    Mvec8Real_setIdentity(&id);
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    const int32_t fixed[] = {0, 1, -1, 16384, -16384, INT32_MAX, INT32_MIN, 123456789};
    for (int i = 0; i < 1000; ++i) {
        const int32_t x = i < 8 ? fixed[i] : any(rng);
        const int32_t y = i < 8 ? fixed[7 - i] : any(rng);
        int32_t ox = 0, oy = 0;
        ASSERT_EQ(Mvec8Real_trans2DF32(&id, &ox, &oy, x, y), TL_OK);
        ASSERT_EQ(ox, x);
        ASSERT_EQ(oy, y);
    }
}

TEST(Mvec8Real, Trans2DF32RoundsHalfAwayFromZero) {
    // Scale by a half: odd inputs land on halves.
    const Mvec8Real half = mat({0.5, 0, 0, 0, 0.5, 0, 0, 0, 1});
    struct Case {
        int32_t in, out;
    };
    const Case cases[] = {{1, 1}, {-1, -1}, {3, 2}, {-3, -2}, {4, 2}, {-4, -2}, {0, 0}, {5, 3}};
    for (const Case& c : cases) {
        int32_t ox = 0, oy = 0;
        ASSERT_EQ(Mvec8Real_trans2DF32(&half, &ox, &oy, c.in, -c.in), TL_OK);
        EXPECT_EQ(ox, c.out) << c.in;
        EXPECT_EQ(oy, -c.out) << c.in;
    }
    // A translation of one pixel in element 2 moves a Q15 point by 32768;
    // a projective w of 2 halves it: (x + 32768) / 2.
    const Mvec8Real proj = mat({1, 0, 1, 0, 1, 0, 0, 0, 2});
    int32_t ox = 0, oy = 0;
    ASSERT_EQ(Mvec8Real_trans2DF32(&proj, &ox, &oy, 1, 7), TL_OK);
    EXPECT_EQ(ox, 16385);  // 16384.5 away from zero
    EXPECT_EQ(oy, 4);      // 3.5
    // w of 0: outputs unchanged.
    const Mvec8Real atInfinity = mat({1, 0, 0, 0, 1, 0, 1, 0, 0});
    ox = 11;
    oy = 12;
    EXPECT_EQ(Mvec8Real_trans2DF32(&atInfinity, &ox, &oy, 0, 5), TL_ERROR_PARAM);
    EXPECT_EQ(ox, 11);
    EXPECT_EQ(oy, 12);
}

TEST(Mvec8Real, RotationAnglesRoundTripAndOrthonormal) {
    const double angles[][3] = {{0.1, 0.2, 0.3}, {-0.4, 0.05, 1.2}, {0.0, -1.3, -2.9}, {3.0, 0.7, 0.0}};
    for (const auto& a : angles) {
        Mvec8Real r;
        ASSERT_EQ(Mvec8Real_setRotationAngle(&r, a[0], a[1], a[2]), TL_OK);
        Mvec8Real rt = mat({r.m[0], r.m[3], r.m[6], r.m[1], r.m[4], r.m[7], r.m[2], r.m[5], r.m[8]});
        Mvec8Real p, id;
        Mvec8Real_setIdentity(&id);
        Mvec8Real_mult(&p, &r, &rt);
        expectNear(p, id, 1e-12);
        double x, y, z;
        ASSERT_EQ(Mvec8Real_estimateRotationAngle(&r, &x, &y, &z), TL_OK);
        EXPECT_NEAR(x, a[0], 1e-9);
        EXPECT_NEAR(y, a[1], 1e-9);
        EXPECT_NEAR(z, a[2], 1e-9);
    }
    // A quarter turn about z takes the x axis to the y axis.
    Mvec8Real r;
    Mvec8Real_setRotationAngle(&r, 0.0, 0.0, 1.5707963267948966);
    double v[3] = {1.0, 0.0, 0.0};
    Mvec8Real_trans3DReal(&r, v, v);
    EXPECT_NEAR(v[0], 0.0, 1e-12);
    EXPECT_NEAR(v[1], 1.0, 1e-12);
    EXPECT_NEAR(v[2], 0.0, 1e-12);
}

TEST(Mvec8Real, RotationHomographyRoundTrip) {
    const Mvec8Real k = mat({1500, 0, 960, 0, 1500, 540, 0, 0, 1});
    Mvec8Real r, h, back;
    Mvec8Real_setRotationAngle(&r, 0.02, -0.03, 0.01);
    ASSERT_EQ(Mvec8Real_setRotationMatrix(&h, &r, &k), TL_OK);
    for (double& v : h.m) v *= 3.0;  // known only up to scale
    ASSERT_EQ(Mvec8Real_estimateRotationMatrix(&back, &h, &k), TL_OK);
    expectNear(back, r, 1e-12);
    const Mvec8Real singular = mat({0, 0, 0, 0, 0, 0, 0, 0, 0});
    back = mat({9, 9, 9, 9, 9, 9, 9, 9, 9});
    EXPECT_EQ(Mvec8Real_estimateRotationMatrix(&back, &h, &singular), TL_ERROR_PARAM);
    EXPECT_EQ(Mvec8Real_estimateRotationMatrix(&back, &singular, &k), TL_ERROR_PARAM);
    expectNear(back, mat({9, 9, 9, 9, 9, 9, 9, 9, 9}), 0.0);
}

TEST(Mvec6F32, CompositionWorkedByHand) {
    const Mvec6F32 twice{65536, 0, 0, 0, 65536, 0};
    const Mvec6F32 onePixelRight{32768, 0, 32768, 0, 32768, 0};
    Mvec6F32 r;
    // twice after shift: 2 * (x + 1) = 2x + 2.
    ASSERT_EQ(Mvec6F32_mult(&r, &twice, &onePixelRight), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{65536, 0, 65536, 0, 65536, 0}));
    // shift after twice: 2x + 1.
    ASSERT_EQ(Mvec6F32_mult(&r, &onePixelRight, &twice), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{65536, 0, 32768, 0, 65536, 0}));
    // Rounding to nearest: 3/4 of 1 + 1/2**15 is 24576.75 -> 24577.
    const Mvec6F32 threeQuarters{24576, 0, 0, 0, 24576, 0};
    const Mvec6F32 tiny{32769, 0, 1, 0, 32767, -1};
    ASSERT_EQ(Mvec6F32_mult(&r, &threeQuarters, &tiny), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{24577, 0, 1, 0, 24575, -1}));
    // Identity on either side changes nothing; in place works.
    Mvec6F32 id;
    Mvec6F32_setIdentity(&id);
    Mvec6F32 m{30000, -1200, 123456, 900, 34000, -98765};
    ASSERT_EQ(Mvec6F32_mult(&r, &id, &m), TL_OK);
    EXPECT_TRUE(sameBits(r, m));
    ASSERT_EQ(Mvec6F32_mult(&m, &m, &id), TL_OK);
    EXPECT_TRUE(sameBits(r, m));
}

TEST(Mvec6F32, PointFormulaFloorsTheProduct) {
    const Mvec6F32 half{16384, 0, 0, 0, 16384, 100};
    int32_t x, y;
    ASSERT_EQ(Mvec6F32_trans(&half, &x, &y, -1, 3), TL_OK);
    EXPECT_EQ(x, -1);       // -0.5 floors to -1
    EXPECT_EQ(y, 1 + 100);  // 1.5 floors to 1
    ASSERT_EQ(MvecDetectMulti2_Mvec6F32_transF32(&half, &x, &y, 7, -7), TL_OK);
    EXPECT_EQ(x, 3);
    EXPECT_EQ(y, -4 + 100);
}

TEST(Mvec6F32, MapAfterInverseIsIdentityWithinOneUnit) {
    std::mt19937 rng(4242);
    for (int round = 0; round < 2000; ++round) {
        const Mvec6F32 m = randomMotion(rng, 2000.0);
        Mvec6F32 inv, p;
        ASSERT_EQ(Mvec6F32_inv(&inv, &m), TL_OK);
        ASSERT_EQ(Mvec6F32_mult(&p, &m, &inv), TL_OK);
        expectIdentityWithinOne(p);
        // The other order carries the rounding of the inverse's linear part
        // times the translation, so it holds to one unit for short shifts only.
        const Mvec6F32 small = randomMotion(rng, 0.5);
        ASSERT_EQ(Mvec6F32_inv(&inv, &small), TL_OK);
        ASSERT_EQ(Mvec6F32_mult(&p, &inv, &small), TL_OK);
        expectIdentityWithinOne(p);
        if (HasFailure()) break;
    }
}

TEST(Mvec6F32, InverseOfSingularLeavesResultUnchanged) {
    const Mvec6F32 singular[] = {{0, 0, 5, 0, 0, 6}, {32768, 65536, 0, 16384, 32768, 0}};
    for (const Mvec6F32& m : singular) {
        Mvec6F32 r{1, 2, 3, 4, 5, 6};
        EXPECT_EQ(Mvec6F32_inv(&r, &m), TL_ERROR_PARAM);
        EXPECT_TRUE(sameBits(r, Mvec6F32{1, 2, 3, 4, 5, 6}));
        const Mvec6F32 id{32768, 0, 0, 0, 32768, 0};
        EXPECT_EQ(Mvec6F32_div(&r, &id, &m), TL_ERROR_PARAM);
        EXPECT_TRUE(sameBits(r, Mvec6F32{1, 2, 3, 4, 5, 6}));
    }
    // Hand case: scale 2 and shift 1 inverts to scale 1/2 and shift -1/2.
    const Mvec6F32 m{65536, 0, 32768, 0, 65536, -32768};
    Mvec6F32 r;
    ASSERT_EQ(Mvec6F32_inv(&r, &m), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{16384, 0, -16384, 0, 16384, 16384}));
}

TEST(Mvec6F32, CompositionMatchesTheRealMaps) {
    std::mt19937 rng(99);
    std::uniform_int_distribution<int32_t> point(-4000 * 32768, 4000 * 32768);
    for (int round = 0; round < 500; ++round) {
        const Mvec6F32 a = randomMotion(rng, 100.0), b = randomMotion(rng, 100.0);
        Mvec6F32 ab, q, shifted;
        Mvec6F32_mult(&ab, &a, &b);
        const int32_t x = point(rng), y = point(rng);
        // a(b(p)) in reals versus the composed record: each element of ab is
        // within half a unit, which moves a point of 4000 pixels by 1/8 pixel.
        const long double bx = realTrans(b, x, y, true), by = realTrans(b, x, y, false);
        int32_t ox, oy;
        Mvec6F32_trans(&ab, &ox, &oy, x, y);
        EXPECT_NEAR(ox, static_cast<double>(realTrans(a, bx, by, true)), 8192.0);
        EXPECT_NEAR(oy, static_cast<double>(realTrans(a, bx, by, false)), 8192.0);

        // div undoes a composition. The translation carries half a unit of
        // each linear element times shifts of up to 180 pixels.
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
        if (HasFailure()) break;
    }
}

TEST(Mvec6F32, SmallOperationsWorkedByHand) {
    const Mvec6F32 m{30000, 100, 32768 * 3, -100, 31000, -32768};
    Mvec6F32 r;
    ASSERT_EQ(Mvec6F32_shift(&r, &m, 5, -5), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{30000, 100, 32768 * 3 + 5, -100, 31000, -32773}));
    ASSERT_EQ(MvecDetectMulti2_Mvec6F32_upscale(&r, &m), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{30000, 100, 32768 * 6, -100, 31000, -65536}));
    ASSERT_EQ(Mvec6F32_scale(&r, &m, 16384), TL_OK);  // half-size image: half the shift
    EXPECT_TRUE(sameBits(r, Mvec6F32{30000, 100, 49152, -100, 31000, -16384}));
    ASSERT_EQ(Mvec6F32_setZero(&r), TL_OK);
    EXPECT_TRUE(sameBits(r, Mvec6F32{0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(Mvec6F32_copy(&r, &m), TL_OK);
    EXPECT_TRUE(sameBits(r, m));
    Mvec6F32 base{32768, 0, 32768, 0, 32768, 0};
    ASSERT_EQ(MvecDetectMulti2_Mvec6F32_setBase(&r, &m, &base), TL_OK);
    EXPECT_EQ(r.c, 32768 * 3 + 30000);  // m(x + 1) = ... + 30000/32768 pixels
}

TEST(Mvec6F32, ShrinkRatioOutputAndInputAreInverse) {
    std::mt19937 rng(5);
    for (int32_t ratio : {1, 2, 4, 8}) {
        for (int round = 0; round < 50; ++round) {
            const Mvec6F32 m = randomMotion(rng, 20.0);
            Mvec6F32 up, back;
            ASSERT_EQ(MvecDetectMulti2_Mvec6F32_output(&up, &m, ratio, 0), TL_OK);
            ASSERT_EQ(MvecDetectMulti2_Mvec6F32_input(&back, &up, ratio, 0), TL_OK);
            EXPECT_EQ(up.a, m.a);  // the linear part commutes with a uniform scale
            EXPECT_EQ(up.d, m.d);
            EXPECT_TRUE(
                sameBits(Mvec6F32{back.a, back.b, 0, back.d, back.e, 0}, Mvec6F32{m.a, m.b, 0, m.d, m.e, 0}));
            EXPECT_NEAR(back.c, m.c, 1);
            EXPECT_NEAR(back.f, m.f, 1);
        }
        // A shift of one pixel on the shrunk image is `ratio` pixels on the full one.
        const Mvec6F32 onePixel{32768, 0, 32768, 0, 32768, 0};
        Mvec6F32 up;
        ASSERT_EQ(MvecDetectMulti2_Mvec6F32_output(&up, &onePixel, ratio, 0), TL_OK);
        EXPECT_EQ(up.c, 32768 * ratio);
        EXPECT_EQ(up.f, 0);
    }
    Mvec6F32 r{1, 2, 3, 4, 5, 6};
    const Mvec6F32 m{32768, 0, 0, 0, 32768, 0};
    EXPECT_EQ(MvecDetectMulti2_Mvec6F32_output(&r, &m, 0, 0), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_Mvec6F32_input(&r, &m, -2, 0), TL_ERROR_PARAM);
    EXPECT_TRUE(sameBits(r, Mvec6F32{1, 2, 3, 4, 5, 6}));
}

TEST(Mvec, NullArgumentsAreRefused) {
    Mvec8Real m8;
    Mvec8Real_setIdentity(&m8);
    Mvec6F32 m6;
    Mvec6F32_setIdentity(&m6);
    double d = 0.0;
    float f = 0.0f;
    int32_t i = 0;
    double v[3] = {0, 0, 0};
    const TLResult results[] = {
        Mvec8Real_setIdentity(nullptr),
        Mvec8Real_mult(nullptr, &m8, &m8),
        Mvec8Real_mult(&m8, nullptr, &m8),
        Mvec8Real_mult(&m8, &m8, nullptr),
        Mvec8Real_inv(nullptr, &m8),
        Mvec8Real_inv(&m8, nullptr),
        Mvec8Real_normalize(nullptr, &m8),
        Mvec8Real_trans2D(nullptr, &f, &f, 0, 0),
        Mvec8Real_trans2D(&m8, nullptr, &f, 0, 0),
        Mvec8Real_trans2DF32(&m8, &i, nullptr, 0, 0),
        Mvec8Real_trans2DReal(&m8, nullptr, &d, 0, 0),
        Mvec8Real_trans3DReal(&m8, nullptr, v),
        Mvec8Real_trans3DReal(&m8, v, nullptr),
        Mvec8Real_setRotationAngle(nullptr, 0, 0, 0),
        Mvec8Real_estimateRotationAngle(&m8, &d, nullptr, &d),
        Mvec8Real_setRotationMatrix(&m8, nullptr, &m8),
        Mvec8Real_estimateRotationMatrix(&m8, &m8, nullptr),
        Mvec6F32_setIdentity(nullptr),
        Mvec6F32_setZero(nullptr),
        Mvec6F32_copy(&m6, nullptr),
        Mvec6F32_shift(nullptr, &m6, 0, 0),
        Mvec6F32_scale(&m6, nullptr, 1),
        Mvec6F32_mult(&m6, &m6, nullptr),
        Mvec6F32_trans(&m6, nullptr, &i, 0, 0),
        Mvec6F32_changeOrigin(nullptr, &m6, 0, 0),
        Mvec6F32_inv(&m6, nullptr),
        Mvec6F32_div(&m6, nullptr, &m6),
        MvecDetectMulti2_Mvec6F32_upscale(nullptr, &m6),
        MvecDetectMulti2_Mvec6F32_output(&m6, nullptr, 2, 0),
        MvecDetectMulti2_Mvec6F32_setBase(&m6, &m6, nullptr),
        MvecDetectMulti2_Mvec8Real_setBase(nullptr, &m8, &m8),
    };
    for (size_t k = 0; k < sizeof results / sizeof results[0]; ++k)
        EXPECT_EQ(results[k], TL_ERROR_PARAM) << k;
}
