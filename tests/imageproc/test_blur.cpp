// The blur family against references written here in doubles: Q15 convolution exactly and the true Gaussian
// within stated errors, window sums exactly; cases spread over the parallel layers; bad arguments.
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

// The elements of a picture as doubles, row by row.
std::vector<double> grid(Picture& p, int32_t channels) {
    const uint32_t f = p.image.format;
    std::vector<double> g;
    for (int32_t y = 0; y < p.image.height; ++y)
        for (int32_t i = 0; i < p.image.width * channels; ++i)
            g.push_back(f == IMAGE_FORMAT_FLOAT   ? static_cast<double>(p.at<float>(i, y))
                        : f == IMAGE_FORMAT_INT32 ? p.at<int32_t>(i, y)
                        : f == IMAGE_FORMAT_UINT16 || f == IMAGE_FORMAT_UINT1616 ? p.at<uint16_t>(i, y)
                                                                                 : p.row(0, y)[i]);
    return g;
}

// Row pass then column pass with taps k, the edge pixel repeated. With top >
// 0 each pass ends as the kernels do, (sum + 16384) >> 15 clamped to [0, top]
// (exact in doubles for integer taps); with top 0 the sums stay unrounded.
std::vector<double> convolve(std::vector<double> g, int32_t w, int32_t h, int32_t c,
                             const std::vector<double>& k, double top) {
    const int32_t r = static_cast<int32_t>(k.size() / 2);
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<double> out(g.size());
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int32_t ch = 0; ch < c; ++ch) {
                    double a = 0;
                    for (int32_t i = -r; i <= r; ++i) {
                        const int32_t xx = pass == 0 ? std::clamp(x + i, 0, w - 1) : x;
                        const int32_t yy = pass == 1 ? std::clamp(y + i, 0, h - 1) : y;
                        a += k[i + r] * g[(static_cast<size_t>(yy) * w + xx) * c + ch];
                    }
                    out[(static_cast<size_t>(y) * w + x) * c + ch] =
                        top > 0 ? std::clamp(std::floor((a + 16384) / 32768), 0.0, top) : a;
                }
        g = std::move(out);
    }
    return g;
}

std::vector<double> gaussian(double sigma, int32_t r) {
    std::vector<double> k;
    double sum = 0;
    for (int32_t i = -r; i <= r; ++i) sum += k.emplace_back(std::exp(-i * i / (2 * sigma * sigma)));
    for (double& v : k) v /= sum;
    return k;
}

// Worst and mean absolute difference.
std::pair<double, double> differences(const std::vector<double>& a, const std::vector<double>& b) {
    double worst = 0, sum = 0;
    for (size_t i = 0; i < a.size(); ++i)
        worst = std::max(worst, std::fabs(a[i] - b[i])), sum += std::fabs(a[i] - b[i]);
    return {worst, sum / static_cast<double>(a.size())};
}

}  // namespace

TEST(Blur, GaussIsExactQ15ConvolutionOfANearGaussian) {
    // Integer pixels: exactly the Q15 convolution with the library's taps. To
    // the true Gaussian (cut at 3 on the 7-tap path) the worst differences are
    // 0.94 of 255 for 8-bit pixels, 16.4 of 65535 for 16-bit, 0.065 on floats.
    const struct {
        uint32_t format;
        int32_t channels, refRadius;
        double sigma, top, bound;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, 1, 3, 0.6, 255, 1.0},       {IMAGE_FORMAT_UINT8, 1, 3, 1.8, 255, 1.0},
        {IMAGE_FORMAT_UINT88, 2, 16, 3.2, 255, 1.0},     {IMAGE_FORMAT_UINT8, 1, 35, 7.0, 255, 1.0},
        {IMAGE_FORMAT_RGB888, 3, 12, 2.5, 255, 1.0},     {IMAGE_FORMAT_UINT16, 1, 20, 4.0, 65535, 20.0},
        {IMAGE_FORMAT_UINT1616, 2, 3, 1.2, 65535, 20.0}, {IMAGE_FORMAT_FLOAT, 1, 25, 5.0, 0, 0.08},
    };
    std::mt19937 rng(11);
    const int32_t w = 83, h = 57;
    int32_t i = 0;
    for (const auto& c : cases) {
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        Picture src(w, h, c.format), dst(w, h, c.format);
        src.fillRandom(rng);
        for (int32_t k = 0; c.format == IMAGE_FORMAT_FLOAT && k < w * h; ++k)
            src.at<float>(k % w, k / w) = static_cast<float>(rng() % 1000) * 0.25f;
        ASSERT_EQ(Blur_gaussBlur(&exec, &dst.image, &src.image, 0, c.sigma), TL_OK) << c.sigma;
        EXPECT_TRUE(dst.canariesIntact());
        const std::vector<double> in = grid(src, c.channels), got = grid(dst, c.channels);
        const std::vector<double> want = convolve(in, w, h, c.channels, gaussian(c.sigma, c.refRadius), 0);
        EXPECT_LE(differences(got, want).first, c.bound) << "format " << c.format << " sigma " << c.sigma;
        if (c.top == 0) continue;
        int32_t taps[kBlurTapCount];
        const int32_t r = Blur_makeGaussTaps(taps, c.sigma, w, h, c.sigma <= kBlurDirectSigma ? 3 : 100);
        const std::vector<double> q15(taps + kBlurTapCenter - r, taps + kBlurTapCenter + r + 1);
        EXPECT_EQ(got, convolve(in, w, h, c.channels, q15, c.top)) << "format " << c.format;
        if (c.sigma > kBlurDirectSigma) continue;
        Picture pyramid(w, h, c.format);  // up to 1.8 the pyramid is the direct Gaussian
        ASSERT_EQ(Blur_pgaussBlur(nullptr, &pyramid.image, &src.image, 0, c.sigma), TL_OK);
        EXPECT_TRUE(pyramid.samePixels(dst)) << c.format;
    }
    // Negative taps overshoot both ends; as many rows as taps: thin stripes.
    const std::vector<int32_t> sharpen[] = {
        {-8192, 49152, -8192}, {-4096, 0, 40960, 0, -4096}, {-2048, 1024, 8192, 18432, 8192, 1024, -2048}};
    for (const auto& taps : sharpen) {
        const int32_t size = static_cast<int32_t>(taps.size());
        Picture src(w, size, IMAGE_FORMAT_UINT8), dst(w, size, IMAGE_FORMAT_UINT8);
        src.fillRandom(rng);
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        ASSERT_EQ(Blur_separable(&exec, &dst.image, &src.image, taps.data(), size), TL_OK);
        EXPECT_EQ(grid(dst, 1), convolve(grid(src, 1), w, size, 1, {taps.begin(), taps.end()}, 255)) << size;
    }
}

TEST(Blur, PyramidNearTheTrueGaussian) {
    // Halvings, bilinear enlargements and the final 1.8 pass, on a ramp with
    // steps of 100 and 35 levels and noise of 16: worst differences measured
    // 2.7 levels at sigma 6, 2.8 at 12, 3.1 at 24, means 0.45, 0.70, 0.69.
    std::mt19937 rng(3);
    const int32_t w = 320, h = 240;
    for (double sigma : {6.0, 12.0, 24.0}) {
        Picture src(w, h, IMAGE_FORMAT_UINT8), dst(w, h, IMAGE_FORMAT_UINT8);
        for (int32_t i = 0, x = 0, y = 0; i < w * h; ++i, x = i % w, y = i / w)
            src.u8(x, y) = static_cast<uint8_t>(40 + x * 100 / w + rng() % 16 +
                                                (x > w / 4 && x < w / 2 && y > h / 5) * 100 -
                                                (y > h * 2 / 3 && x > w * 3 / 5) * 35);
        const ImageStripeExec exec = sharedLayers().exec(static_cast<int32_t>(sigma) / 6);
        ASSERT_EQ(Blur_pgaussBlur(&exec, &dst.image, &src.image, 0, sigma), TL_OK);
        const std::vector<double> got = grid(dst, 1),
                                  want = convolve(grid(src, 1), w, h, 1,
                                                  gaussian(sigma, static_cast<int32_t>(4 * sigma)), 0);
        const auto [worst, mean] = differences(got, want);
        EXPECT_LE(worst, 3.5) << sigma;
        EXPECT_LE(mean, 0.8) << sigma;
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
    int32_t i = 0;
    for (const auto& c : cases) {
        Picture src(w, h, c.srcFormat), dst(w, h, c.dstFormat);
        src.fillRandom(rng);
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        ASSERT_EQ(Blur_boxFilter(&exec, &dst.image, &src.image, c.radius, c.form), TL_OK) << c.form;
        EXPECT_TRUE(dst.canariesIntact());
        const bool squares = c.form == BLUR_BOX_MEAN_SQUARES || c.form == BLUR_BOX_SUM_SQUARES;
        const bool mean = c.form == BLUR_BOX_MEAN || c.form == BLUR_BOX_MEAN_SQUARES;
        const double area = (2 * c.radius + 1) * (2 * c.radius + 1);
        std::vector<double> in = grid(src, c.channels);
        for (double& v : in) v = squares ? v * v : v;
        std::vector<double> want =
            convolve(in, w, h, c.channels, std::vector<double>(2 * c.radius + 1, 1.0), 0);
        for (double& v : want) v = mean ? std::floor((v + std::floor(area / 2)) / area) : v;
        EXPECT_EQ(grid(dst, c.channels), want) << "form " << c.form << " radius " << c.radius;
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
