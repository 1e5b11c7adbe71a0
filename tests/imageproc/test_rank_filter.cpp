// Rank filters against a brute force over the window's part inside the image (the median the lower middle).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "imageproc/plane_views.h"
#include "imageproc/rank_filter.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::elementOf;
using vq_tl_test::Picture;

namespace {

using Filter = TLResult (*)(ImageProc*, Image*, const Image*, uint32_t);
using Filter2 = TLResult (*)(ImageProc2*, Image*, const Image*, uint32_t);

struct Op {
    const char* name;
    Filter filter;
    Filter2 filter2;
    int radius;
    char pick;  // '+' largest, '-' smallest, 'm' median of the square, 'c' median of the cross
};
const Op kOps[] = {
    {"max3", ImageProc_filterMax3x3, ImageProc2_filterMax3x3, 1, '+'},
    {"min3", ImageProc_filterMin3x3, ImageProc2_filterMin3x3, 1, '-'},
    {"median3", ImageProc_filterMedian3x3, nullptr, 1, 'm'},
    {"cross", ImageProc_filterMedianCross, nullptr, 1, 'c'},
    {"rankMax3", ImageProc_filterRankMax3x3, nullptr, 1, '+'},
    {"rankMin3", ImageProc_filterRankMin3x3, nullptr, 1, '-'},
    {"rankMax5", ImageProc_filterRankMax5x5, nullptr, 2, '+'},
};

int channelsOf(uint32_t f) {
    return f == IMAGE_FORMAT_UINT88 || f == IMAGE_FORMAT_UINT1616 ? 2
           : f == IMAGE_FORMAT_RGB888                             ? 3
           : f == IMAGE_FORMAT_ARGB8888                           ? 4
                                                                  : 1;
}

double reference(const Image& v, int channels, const Op& op, int32_t x, int32_t y, int ch) {
    std::vector<double> s;
    for (int dy = -op.radius; dy <= op.radius; ++dy) {
        for (int dx = -op.radius; dx <= op.radius; ++dx) {
            const int32_t xx = x + dx, yy = y + dy;
            if ((op.pick != 'c' || dx == 0 || dy == 0) && xx >= 0 && yy >= 0 && xx < v.width && yy < v.height)
                s.push_back(elementOf(v, xx * channels + ch, yy));
        }
    }
    std::sort(s.begin(), s.end());
    return op.pick == '+' ? s.back() : op.pick == '-' ? s.front() : s[(s.size() - 1) / 2];
}

// Random; one picture in eight all 0, all 0xFF, or a checkerboard; floats finite, with repeats.
void fill(Picture& p, std::mt19937& rng) {
    const int kind = static_cast<int>(rng() % 8);
    for (int k = 0; k < 3; ++k)
        for (int32_t r = 0; r < p.rows[k]; ++r)
            for (int32_t i = 0; i < p.rowBytes[k]; ++i)
                p.row(k, r)[i] = kind == 2 ? ((i + r) & 1) * 0xFF : kind < 2 ? kind * 0xFF : rng();
    for (int32_t i = 0; p.image.format == IMAGE_FORMAT_FLOAT && i < p.rows[0] * p.image.width; ++i)
        p.at<float>(i % p.image.width, i / p.image.width) =
            static_cast<float>(static_cast<int>(rng() % 41) - 20) * 0.25f;
}

// Selected planes of out against the reference over src, the others against src.
void expectFiltered(const Picture& src, const Picture& out, const Op& op, uint32_t mask, const char* where) {
    PlaneViews sv, ov;
    ASSERT_TRUE(PlaneViews_split(&sv, &src.image) == TL_OK && PlaneViews_split(&ov, &out.image) == TL_OK);
    for (int k = 0; k < sv.count; ++k) {
        const int n = channelsOf(sv.plane[k].format);
        const bool selected = mask == 0 || ((mask >> k) & 1) != 0;
        for (int32_t i = 0; i < sv.plane[k].height * sv.plane[k].width * n; ++i) {
            const int32_t y = i / n / sv.plane[k].width, x = i / n % sv.plane[k].width, ch = i % n;
            ASSERT_EQ(elementOf(ov.plane[k], x * n + ch, y), selected
                                                                 ? reference(sv.plane[k], n, op, x, y, ch)
                                                                 : elementOf(sv.plane[k], x * n + ch, y))
                << where << " " << op.name << " " << src.image.format << " plane " << k << " at " << x << ","
                << y;
        }
    }
    EXPECT_TRUE(out.canariesIntact()) << where << " " << op.name << " format " << src.image.format;
}

struct Objects {
    ImageProc proc;
    ImageProc2 proc2;
    Objects() { construct_ImageProc(&proc, nullptr), construct_ImageProc2(&proc2, nullptr); }
    ~Objects() { destruct_ImageProc2(&proc2), destruct_ImageProc(&proc); }
};

}  // namespace

TEST(RankFilter, MatchesBruteForceOnEveryLayout) {
    Objects o;

    // Single rows and columns, sizes below the window, stripes of one row.
    const int32_t sizes[][2] = {
        {1, 1}, {1, 6}, {7, 1}, {2, 2}, {3, 5}, {17, 13}, {vq_tl_test_scaled(41, 21), 9}};
    std::mt19937 rng(20261121);
    for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT1616,
                       IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_RGB888,
                       IMAGE_FORMAT_ARGB8888, IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YUV420_PLANAR}) {
        const bool yuv = f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YUV420_PLANAR;
        for (const auto& s : sizes) {
            const int32_t w = yuv ? (s[0] + 1) & ~1 : s[0], h = yuv ? (s[1] + 1) & ~1 : s[1];
            Picture src(w, h, f);
            fill(src, rng);
            for (const Op& op : kOps) {
                for (bool two : {false, true}) {
                    if (two && op.filter2 == nullptr) continue;
                    const char* who =
                        two ? "ImageProc2" : "ImageProc";  // 4:2:0 planes by a random mask (0: all)
                    auto apply = [&](Image* dst, const Image* in, uint32_t mask) {
                        return two ? op.filter2(&o.proc2, dst, in, mask) : op.filter(&o.proc, dst, in, mask);
                    };
                    const uint32_t mask = yuv ? rng() % 8 : 0, maskInPlace = yuv ? rng() % 8 : 0;
                    Picture out(w, h, f), inPlace(w, h, f);
                    inPlace.copyPixels(src);
                    ASSERT_TRUE(apply(&out.image, &src.image, mask) == TL_OK &&
                                apply(&inPlace.image, &inPlace.image, maskInPlace) == TL_OK)
                        << who;
                    expectFiltered(src, out, op, mask, who);
                    expectFiltered(src, inPlace, op, maskInPlace, who);
                }
            }
        }
    }
}

TEST(RankFilter, RefusalsWriteNothing) {
    Objects o;
    Picture a(8, 6, IMAGE_FORMAT_UINT8), b(8, 6, IMAGE_FORMAT_UINT8), narrow(7, 6, IMAGE_FORMAT_UINT8),
        wide(8, 6, IMAGE_FORMAT_UINT16), yuyv(8, 6, IMAGE_FORMAT_YUV422_YUYV),
        rgb565(8, 6, IMAGE_FORMAT_RGB565);
    // A view one row down overlaps its source without being it.
    Image shifted, top;
    construct_Image(&shifted, nullptr);
    construct_Image(&top, nullptr);
    ASSERT_EQ(Image_initSubImage(&shifted, &a.image, 0, 1, 8, 5), TL_OK);
    ASSERT_EQ(Image_initSubImage(&top, &a.image, 0, 0, 8, 5), TL_OK);
    const struct {
        TLResult result;
        Image* dst;
        const Image* src;
    } cases[] = {{TL_ERROR_PARAM, &narrow.image, &b.image},
                 {TL_ERROR_PARAM, &wide.image, &b.image},
                 {TL_ERROR_UNSUPPORTED, &yuyv.image, &yuyv.image},
                 {TL_ERROR_UNSUPPORTED, &rgb565.image, &rgb565.image},
                 {TL_ERROR_PARAM, &shifted, &top}};
    const std::vector<uint8_t> before = a.storage;
    for (const auto& c : cases) {
        EXPECT_TRUE(ImageProc_filterMax3x3(&o.proc, c.dst, c.src, 0) == c.result &&
                    ImageProc2_filterMin3x3(&o.proc2, c.dst, c.src, 0) == c.result &&
                    ImageProc_filterRankMax5x5(&o.proc, c.dst, c.src, 0) == c.result)
            << &c - cases;
        EXPECT_TRUE(a.storage == before && narrow.canariesIntact() && wide.canariesIntact()) << &c - cases;
    }
}
