#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "rectify/rectify_util.h"

using namespace vq_tl;

namespace {

// A matrix image; the row pitch is widened by padding so that code which
// ignores the pitch is caught.
struct Matrix {
    Env env{};
    Image image;
    std::vector<uint8_t> storage;
    Matrix(int32_t rows, int32_t cols, uint32_t format = IMAGE_FORMAT_FLOAT) {
        construct_Image(&image, &env);
        const int32_t pitch = cols * 4 + 12;
        storage.assign(static_cast<size_t>(pitch) * rows + 4, 0xEE);
        ImagePlanes p;
        std::memset(&p, 0, sizeof p);
        p.one.plane0 = storage.data();
        p.one.pitch0 = pitch;
        Image_initWithPitch(&image, cols, rows, &p, format);
    }
    ~Matrix() { destruct_Image(&image); }
    float& f(int32_t r, int32_t c) {
        return reinterpret_cast<float*>(image.plane[0] + image.pitch[0] * r)[c];
    }
    int32_t& i(int32_t r, int32_t c) {
        return reinterpret_cast<int32_t*>(image.plane[0] + image.pitch[0] * r)[c];
    }
    void set(std::initializer_list<float> v) {
        int k = 0;
        for (float x : v) {
            f(k / image.width, k % image.width) = x;
            ++k;
        }
    }
};

}  // namespace

TEST(RectifyUtil, DotAndTransposeWorkedByHand) {
    Matrix a(2, 3), b(3, 2), out(2, 2), at(3, 2);
    a.set({1, 2, 3, 4, 5, 6});
    b.set({7, 8, 9, 10, 11, 12});
    ASSERT_EQ(RectifyUtil_laDot(&out.image, &a.image, &b.image), TL_OK);
    EXPECT_EQ(out.f(0, 0), 58.0f);  // 7 + 18 + 33
    EXPECT_EQ(out.f(0, 1), 64.0f);
    EXPECT_EQ(out.f(1, 0), 139.0f);
    EXPECT_EQ(out.f(1, 1), 154.0f);
    ASSERT_EQ(RectifyUtil_laTranspose(&at.image, &a.image), TL_OK);
    EXPECT_EQ(at.f(0, 1), 4.0f);
    EXPECT_EQ(at.f(2, 0), 3.0f);
    EXPECT_EQ(at.f(2, 1), 6.0f);
    // The padding after each row is untouched.
    EXPECT_EQ(out.storage[8], 0xEE);

    Matrix ai(2, 2, IMAGE_FORMAT_INT32), bi(2, 1, IMAGE_FORMAT_INT32), oi(2, 1, IMAGE_FORMAT_INT32);
    ai.i(0, 0) = 3;
    ai.i(0, 1) = -2;
    ai.i(1, 0) = 100000;
    ai.i(1, 1) = 7;
    bi.i(0, 0) = 5;
    bi.i(1, 0) = 40000;
    ASSERT_EQ(RectifyUtil_laDot(&oi.image, &ai.image, &bi.image), TL_OK);
    EXPECT_EQ(oi.i(0, 0), 15 - 80000);
    EXPECT_EQ(oi.i(1, 0), 500000 + 280000);
}

TEST(RectifyUtil, MismatchedAndForeignMatrices) {
    Matrix a(2, 3), b(2, 2), out(2, 2), wrongOut(3, 3);
    EXPECT_EQ(RectifyUtil_laDot(&out.image, &a.image, &b.image), TL_ERROR_GENERAL);  // 3 != 2
    Matrix b3(3, 2);
    EXPECT_EQ(RectifyUtil_laDot(&wrongOut.image, &a.image, &b3.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laTranspose(&out.image, &a.image), TL_ERROR_GENERAL);
    Matrix ints(3, 2, IMAGE_FORMAT_INT32);
    EXPECT_EQ(RectifyUtil_laDot(&out.image, &a.image, &ints.image), TL_ERROR_GENERAL);
    EXPECT_EQ(RectifyUtil_laDot(nullptr, &a.image, &b3.image), TL_ERROR_PARAM);
    EXPECT_EQ(RectifyUtil_laTranspose(&out.image, nullptr), TL_ERROR_PARAM);
    // Another element type: nothing is done and the result is still TL_OK.
    Matrix u8a(2, 2, IMAGE_FORMAT_UINT8), u8b(2, 2, IMAGE_FORMAT_UINT8), u8o(2, 2, IMAGE_FORMAT_UINT8);
    const std::vector<uint8_t> before = u8o.storage;
    EXPECT_EQ(RectifyUtil_laDot(&u8o.image, &u8a.image, &u8b.image), TL_OK);
    EXPECT_EQ(RectifyUtil_laTranspose(&u8o.image, &u8a.image), TL_OK);
    EXPECT_EQ(u8o.storage, before);
}

TEST(RectifyUtil, GaussianEliminationWorkedByHand) {
    // 2x + y - z = 8, -3x - y + 2z = -11, -2x + y + 2z = -3: x = 2, y = 3, z = -1.
    Matrix a(3, 3), b(3, 1);
    a.set({2, 1, -1, -3, -1, 2, -2, 1, 2});
    b.set({8, -11, -3});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
    EXPECT_NEAR(b.f(0, 0), 2.0f, 1e-5f);
    EXPECT_NEAR(b.f(1, 0), 3.0f, 1e-5f);
    EXPECT_NEAR(b.f(2, 0), -1.0f, 1e-5f);

    // A zero diagonal needs the row swap; b is swapped over its whole width.
    Matrix s(2, 2), sb(2, 2);
    s.set({0, 1, 1, 0});
    sb.set({5, 50, 7, 70});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&s.image, &sb.image), TL_OK);
    EXPECT_EQ(sb.f(0, 0), 7.0f);
    EXPECT_EQ(sb.f(1, 0), 5.0f);
    EXPECT_EQ(sb.f(0, 1), 70.0f);
    EXPECT_EQ(sb.f(1, 1), 50.0f);
}

TEST(RectifyUtil, GaussianEliminationFailures) {
    struct Case {
        const char* what;
        std::initializer_list<float> a;
    };
    const Case cases[] = {
        {"singular", {1, 2, 2, 4}},
        {"zero column", {0, 1, 0, 3}},
        // The pivot search starts from the signed diagonal: a zero below a
        // negative diagonal entry displaces it and is then a zero pivot.
        {"negative diagonal over a zero", {-5, 1, 0, 2}},
    };
    for (const Case& c : cases) {
        Matrix a(2, 2), b(2, 1);
        a.set(c.a);
        b.set({1, 1});
        EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_ERROR_GENERAL) << c.what;
    }
    Matrix rect(2, 3), b2(2, 1), b3(3, 1);
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&rect.image, &b2.image), TL_ERROR_GENERAL);
    Matrix sq(2, 2);
    sq.set({1, 0, 0, 1});
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&sq.image, &b3.image), TL_ERROR_GENERAL);
    Matrix ints(2, 2, IMAGE_FORMAT_INT32), bi(2, 1, IMAGE_FORMAT_INT32);
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&ints.image, &bi.image), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(nullptr, &b2.image), TL_ERROR_PARAM);
    // A negative diagonal with a non-zero entry below still solves.
    Matrix a(2, 2), b(2, 1);
    a.set({-5, 1, 1, 2});
    b.set({-3, 5});  // x = 1, y = 2
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
    EXPECT_NEAR(b.f(0, 0), 1.0f, 1e-6f);
    EXPECT_NEAR(b.f(1, 0), 2.0f, 1e-6f);
}

TEST(RectifyUtil, RandomSystemsMatchADoubleSolve) {
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
        // Right-hand side from a known solution, in double, stored as float.
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) rhs[i] += m[i * n + j] * x[j];
            b.f(i, 0) = static_cast<float>(rhs[i]);
        }
        ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(b.f(i, 0), x[i], 1e-4) << "n " << n << " row " << i;
    }
}
