// The blur family against references written here in doubles: the direct
// Gaussian and the pyramid Gaussian against true Gaussians, the box forms
// exactly against window sums; the same pixels on every parallel layer; bad
// arguments leave the destination untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "imageproc/blur.h"
#include "support/layers.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Layers;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

// A plane of doubles, row-major.
struct Plane {
    int32_t w, h, c;
    std::vector<double> v;
    double& at(int32_t x, int32_t y, int32_t ch) { return v[(static_cast<size_t>(y) * w + x) * c + ch]; }
    double at(int32_t x, int32_t y, int32_t ch) const { return v[(static_cast<size_t>(y) * w + x) * c + ch]; }
};

template <typename T>
Plane toPlane(Picture& p, int32_t channels) {
    Plane out{p.image.width, p.image.height, channels, {}};
    out.v.resize(static_cast<size_t>(out.w) * out.h * channels);
    for (int32_t y = 0; y < out.h; ++y) {
        for (int32_t i = 0; i < out.w * channels; ++i)
            out.v[static_cast<size_t>(y) * out.w * channels + i] = (&p.at<T>(0, y))[i];
    }
    return out;
}

// Separable convolution with a normalised Gaussian of radius r, the edge
// pixel repeated, in doubles without intermediate rounding.
Plane gaussReference(const Plane& in, double sigma, int32_t r) {
    std::vector<double> k(2 * r + 1);
    double sum = 0;
    for (int32_t i = -r; i <= r; ++i) sum += k[i + r] = std::exp(-i * i / (2 * sigma * sigma));
    for (double& x : k) x /= sum;
    Plane mid = in, out = in;
    auto clampTo = [](int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); };
    for (int32_t y = 0; y < in.h; ++y)
        for (int32_t x = 0; x < in.w; ++x)
            for (int32_t ch = 0; ch < in.c; ++ch) {
                double a = 0;
                for (int32_t i = -r; i <= r; ++i) a += k[i + r] * in.at(clampTo(x + i, in.w), y, ch);
                mid.at(x, y, ch) = a;
            }
    for (int32_t y = 0; y < in.h; ++y)
        for (int32_t x = 0; x < in.w; ++x)
            for (int32_t ch = 0; ch < in.c; ++ch) {
                double a = 0;
                for (int32_t i = -r; i <= r; ++i) a += k[i + r] * mid.at(x, clampTo(y + i, in.h), ch);
                out.at(x, y, ch) = a;
            }
    return out;
}

double worstDifference(Plane& a, Plane& b) {
    double worst = 0;
    for (size_t i = 0; i < a.v.size(); ++i) worst = std::max(worst, std::fabs(a.v[i] - b.v[i]));
    return worst;
}

// Bright and dark rectangles on a ramp, with mild noise: structure at every scale.
void fillScene(Picture& p, std::mt19937& rng) {
    for (int32_t y = 0; y < p.image.height; ++y)
        for (int32_t x = 0; x < p.image.width; ++x) {
            int32_t v = 40 + x * 100 / p.image.width + static_cast<int32_t>(rng() % 16);
            if (x > p.image.width / 4 && x < p.image.width / 2 && y > p.image.height / 5) v += 100;
            if (y > p.image.height * 2 / 3 && x > p.image.width * 3 / 5) v -= 35;
            p.u8(x, y) = static_cast<uint8_t>(v);
        }
}

}  // namespace

TEST(Blur, GaussMatchesDoubleConvolution) {
    // The 7-tap path is the Gaussian cut at 3 pixels; the general path is cut
    // where the taps fall to 1/4096 (tails of about 2 / 4096 of the weight).
    // Worst differences measured: 0.94 levels for 8-bit pixels (two roundings
    // and the rounded taps), 17.5 of 65535 for 16-bit ones, 0.059 on floats of
    // up to 250.
    const struct {
        uint32_t format;
        int32_t channels;
        double sigma;
        int32_t refRadius;
        double bound;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, 1, 0.6, 3, 1.0},    {IMAGE_FORMAT_UINT8, 1, 1.5, 3, 1.0},
        {IMAGE_FORMAT_UINT8, 1, 1.8, 3, 1.0},    {IMAGE_FORMAT_UINT88, 2, 3.2, 16, 1.0},
        {IMAGE_FORMAT_UINT8, 1, 7.0, 35, 1.0},   {IMAGE_FORMAT_RGB888, 3, 2.5, 12, 1.0},
        {IMAGE_FORMAT_UINT16, 1, 4.0, 20, 20.0}, {IMAGE_FORMAT_FLOAT, 1, 5.0, 25, 0.08},
    };
    std::mt19937 rng(11);
    for (const auto& c : cases) {
        Picture src(83, 57, c.format), dst(83, 57, c.format);
        src.fillRandom(rng);
        if (c.format == IMAGE_FORMAT_FLOAT) {
            for (int32_t y = 0; y < 57; ++y)
                for (int32_t x = 0; x < 83; ++x)
                    src.at<float>(x, y) = static_cast<float>(rng() % 1000) * 0.25f;
        }
        ASSERT_EQ(Blur_gaussBlur(nullptr, &dst.image, &src.image, 0, c.sigma), TL_OK) << c.sigma;
        EXPECT_TRUE(dst.canariesIntact());
        Plane got, want;
        if (c.format == IMAGE_FORMAT_UINT16) {
            got = toPlane<uint16_t>(dst, 1);
            want = gaussReference(toPlane<uint16_t>(src, 1), c.sigma, c.refRadius);
        } else if (c.format == IMAGE_FORMAT_FLOAT) {
            got = toPlane<float>(dst, 1);
            want = gaussReference(toPlane<float>(src, 1), c.sigma, c.refRadius);
        } else {
            got = toPlane<uint8_t>(dst, c.channels);
            want = gaussReference(toPlane<uint8_t>(src, c.channels), c.sigma, c.refRadius);
        }
        EXPECT_LE(worstDifference(got, want), c.bound) << "format " << c.format << " sigma " << c.sigma;
    }
}

TEST(Blur, PyramidIsDirectUpTo1p8AndGaussianBeyond) {
    std::mt19937 rng(3);
    for (double sigma : {0.5, 1.2, 1.8}) {
        Picture src(120, 90, IMAGE_FORMAT_YUV420_SEMIPLANAR), a(120, 90, IMAGE_FORMAT_YUV420_SEMIPLANAR),
            b(120, 90, IMAGE_FORMAT_YUV420_SEMIPLANAR);
        src.fillRandom(rng);
        ASSERT_EQ(Blur_gaussBlur(nullptr, &a.image, &src.image, 0, sigma), TL_OK);
        ASSERT_EQ(Blur_pgaussBlur(nullptr, &b.image, &src.image, 0, sigma), TL_OK);
        EXPECT_TRUE(a.samePixels(b)) << sigma;
    }
    // Large sigmas: halvings, bilinear enlargements and the final 1.8 pass
    // against the true Gaussian. Worst differences measured on this scene
    // (ramp, steps of 100 and 35 levels): 2.1 levels at sigma 6, 2.3 at 12,
    // 2.7 at 24; mean differences 0.44, 0.70 and 0.74.
    for (double sigma : {6.0, 12.0, 24.0}) {
        Picture src(320, 240, IMAGE_FORMAT_UINT8), dst(320, 240, IMAGE_FORMAT_UINT8);
        fillScene(src, rng);
        ASSERT_EQ(Blur_pgaussBlur(nullptr, &dst.image, &src.image, 0, sigma), TL_OK);
        Plane got = toPlane<uint8_t>(dst, 1);
        Plane want = gaussReference(toPlane<uint8_t>(src, 1), sigma, static_cast<int32_t>(4 * sigma));
        double mean = 0;
        for (size_t i = 0; i < got.v.size(); ++i) mean += std::fabs(got.v[i] - want.v[i]);
        EXPECT_LE(worstDifference(got, want), 3.0) << sigma;
        EXPECT_LE(mean / static_cast<double>(got.v.size()), 0.8) << sigma;
    }
}

TEST(Blur, BoxFormsEqualWindowSums) {
    const struct {
        BlurBoxForm form;
        uint32_t srcFormat, dstFormat;
        int32_t channels, radius;
    } cases[] = {
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 1},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT88, 2, 4},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT16, 1, 7},
        {BLUR_BOX_SUM, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_INT32, 1, 30},
        {BLUR_BOX_MEAN_SQUARES, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16, 1, 2},
        {BLUR_BOX_SUM_SQUARES, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_INT32, 1, 90},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 0},
    };
    std::mt19937 rng(8);
    const int32_t w = 41, h = 29;
    for (const auto& c : cases) {
        Picture src(w, h, c.srcFormat), dst(w, h, c.dstFormat);
        src.fillRandom(rng);
        const ImageStripeExec exec = sharedLayers().exec(3);
        ASSERT_EQ(Blur_boxFilter(&exec, &dst.image, &src.image, c.radius, c.form), TL_OK) << c.form;
        EXPECT_TRUE(dst.canariesIntact());
        const bool squares = c.form == BLUR_BOX_MEAN_SQUARES || c.form == BLUR_BOX_SUM_SQUARES;
        const bool mean = c.form == BLUR_BOX_MEAN || c.form == BLUR_BOX_MEAN_SQUARES;
        const int64_t area = (2 * c.radius + 1) * (2 * c.radius + 1);
        int32_t wrong = 0;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int32_t ch = 0; ch < c.channels; ++ch) {
                    int64_t sum = 0;
                    for (int32_t dy = -c.radius; dy <= c.radius; ++dy)
                        for (int32_t dx = -c.radius; dx <= c.radius; ++dx) {
                            const int32_t xx = std::clamp(x + dx, 0, w - 1),
                                          yy = std::clamp(y + dy, 0, h - 1);
                            const int64_t v = c.srcFormat == IMAGE_FORMAT_UINT16
                                                  ? src.at<uint16_t>(xx, yy)
                                                  : (&src.u8(0, yy))[xx * c.channels + ch];
                            sum += squares ? v * v : v;
                        }
                    const int64_t want = mean ? (sum + area / 2) / area : sum;
                    int64_t got;
                    if (c.dstFormat == IMAGE_FORMAT_INT32)
                        got = dst.at<int32_t>(x, y);
                    else if (c.dstFormat == IMAGE_FORMAT_UINT16)
                        got = dst.at<uint16_t>(x, y);
                    else
                        got = (&dst.u8(0, y))[x * c.channels + ch];
                    wrong += got != want;
                }
        EXPECT_EQ(wrong, 0) << "form " << c.form << " radius " << c.radius;
    }
}

TEST(Blur, SamePixelsOnEveryLayer) {
    Layers& layers = sharedLayers();
    using Op = TLResult (*)(const ImageStripeExec*, Image*, const Image*);
    const struct {
        const char* name;
        Op op;
        uint32_t format;
    } cases[] = {
        {"7-tap gauss",
         [](const ImageStripeExec* e, Image* d, const Image* s) { return Blur_gaussBlur(e, d, s, 0, 1.1); },
         IMAGE_FORMAT_YUV420_PLANAR},
        {"general gauss",
         [](const ImageStripeExec* e, Image* d, const Image* s) { return Blur_gaussBlur(e, d, s, 0, 4.5); },
         IMAGE_FORMAT_UINT88},
        {"pyramid gauss",
         [](const ImageStripeExec* e, Image* d, const Image* s) { return Blur_pgaussBlur(e, d, s, 0, 9.0); },
         IMAGE_FORMAT_YUV420_SEMIPLANAR},
        {"box mean",
         [](const ImageStripeExec* e, Image* d, const Image* s) {
             return Blur_boxFilter(e, d, s, 5, BLUR_BOX_MEAN);
         },
         IMAGE_FORMAT_RGB888},
    };
    std::mt19937 rng(21);
    for (const auto& c : cases) {
        Picture src(150, 97, c.format), reference(150, 97, c.format);
        src.fillRandom(rng);
        ASSERT_EQ(c.op(nullptr, &reference.image, &src.image), TL_OK) << c.name;
        for (int i = 0; i < Layers::kCount; ++i) {
            const ImageStripeExec exec = layers.exec(i);
            Picture dst(150, 97, c.format);
            ASSERT_EQ(c.op(&exec, &dst.image, &src.image), TL_OK) << c.name << " on " << layers.names[i];
            EXPECT_TRUE(dst.samePixels(reference)) << c.name << " on " << layers.names[i];
            EXPECT_TRUE(dst.canariesIntact()) << c.name << " on " << layers.names[i];
        }
    }
}

TEST(Blur, BadArgumentsLeaveDestinationUntouched) {
    Env env{};
    ImageProc2 proc2;
    construct_ImageProc2(&proc2, &env);
    ImageProc proc;
    construct_ImageProc(&proc, &env);
    Picture src(40, 30, IMAGE_FORMAT_UINT8), dst(40, 30, IMAGE_FORMAT_UINT8),
        other(40, 31, IMAGE_FORMAT_UINT8), wide(40, 30, IMAGE_FORMAT_UINT16),
        rgb565(40, 30, IMAGE_FORMAT_RGB565), rgb565dst(40, 30, IMAGE_FORMAT_RGB565);
    std::mt19937 rng(1);
    src.fillRandom(rng);
    const std::vector<uint8_t> before[4] = {dst.storage, other.storage, wide.storage, rgb565dst.storage};
    const int32_t taps[7] = {0, 0, 8192, 16384, 8192, 0, 0};
    Image *d = &dst.image, *s = &src.image;
    const struct {
        const char* name;
        TLResult got, want;
    } cases[] = {
        {"sigma 0", ImageProc2_gaussBlur(&proc2, d, s, 0, 0.0), TL_ERROR_PARAM},
        {"negative sigma", ImageProc2_pgaussBlur(&proc2, d, s, 0, -2.0), TL_ERROR_PARAM},
        {"sigma below 1e-16", ImageProc_pgaussBlur(&proc, d, s, 0, 5e-17), TL_ERROR_PARAM},
        {"sizes differ", ImageProc_gaussBlur2(&proc, &other.image, s, 0, 2.0), TL_ERROR_PARAM},
        {"formats differ", ImageProc2_pgaussBlur(&proc2, &wide.image, s, 0, 5.0), TL_ERROR_PARAM},
        {"no kernel", ImageProc2_gaussBlur(&proc2, &rgb565dst.image, &rgb565.image, 0, 1.0),
         TL_ERROR_UNSUPPORTED},
        {"box radius 91", ImageProc2_boxBlur(&proc2, d, s, 91), TL_ERROR_PARAM},
        {"box sum into UINT8", ImageProc_boxSum(&proc, d, s, 2), TL_ERROR_PARAM},
        {"7x7 of UINT16 on UINT8", ImageProc2_filterGaussianBlur7x7_uint16(&proc2, d, s, taps),
         TL_ERROR_UNSUPPORTED},
        {"no object", ImageProc2_gaussBlur(nullptr, d, s, 0, 1.0), TL_ERROR_PARAM},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.name;
    EXPECT_TRUE(dst.storage == before[0] && other.storage == before[1] && wide.storage == before[2] &&
                rgb565dst.storage == before[3]);
    destruct_ImageProc(&proc);
    destruct_ImageProc2(&proc2);
}
