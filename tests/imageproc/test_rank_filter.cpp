// Rank filters against a brute-force reference written here: every pixel's
// window part inside the image, gathered and sorted. Odd sizes, every element
// layout, plane masks, in place and not. Other layers: test_kernels_on_layers.cpp.
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

// Each filter, its twin on ImageProc2 where there is one, the window's
// radius and what it picks: the largest, the smallest or the middle.
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

// Channels of the single-plane views the formats split into.
int channelsOf(uint32_t f) {
    switch (f) {
        case IMAGE_FORMAT_UINT88:
        case IMAGE_FORMAT_UINT1616: return 2;
        case IMAGE_FORMAT_RGB888: return 3;
        case IMAGE_FORMAT_ARGB8888: return 4;
        default: return 1;
    }
}

double reference(const Image& v, int channels, const Op& op, int32_t x, int32_t y, int ch) {
    std::vector<double> s;
    for (int dy = -op.radius; dy <= op.radius; ++dy) {
        for (int dx = -op.radius; dx <= op.radius; ++dx) {
            const int32_t xx = x + dx, yy = y + dy;
            if ((op.pick == 'c' && dx != 0 && dy != 0) || xx < 0 || yy < 0 || xx >= v.width || yy >= v.height)
                continue;
            s.push_back(elementOf(v, xx * channels + ch, yy));
        }
    }
    std::sort(s.begin(), s.end());
    return op.pick == '+' ? s.back() : op.pick == '-' ? s.front() : s[(s.size() - 1) / 2];  // lower middle
}

// Random pixels; about one picture in eight sits at the extremes instead,
// one in eight is a checkerboard of them. Floats are finite, with repeats.
void fill(Picture& p, std::mt19937& rng) {
    const int kind = static_cast<int>(rng() % 8);
    for (int k = 0; k < 3; ++k) {
        for (int32_t r = 0; r < p.rows[k]; ++r) {
            for (int32_t i = 0; i < p.rowBytes[k]; ++i)
                p.row(k, r)[i] = kind == 0   ? 0
                                 : kind == 1 ? 0xFF
                                 : kind == 2 ? ((i + r) & 1 ? 0xFF : 0)
                                             : rng();
        }
    }
    if (p.image.format != IMAGE_FORMAT_FLOAT) return;
    for (int32_t r = 0; r < p.rows[0]; ++r) {
        for (int32_t x = 0; x < p.image.width; ++x)
            p.at<float>(x, r) = static_cast<float>(static_cast<int>(rng() % 41) - 20) * 0.25f;
    }
}

// Compares every selected plane of out with the reference over src, and
// every other plane with src itself.
void expectFiltered(const Picture& src, const Picture& out, const Op& op, uint32_t mask, const char* where) {
    PlaneViews sv, ov;
    ASSERT_EQ(PlaneViews_split(&sv, &src.image), TL_OK);
    ASSERT_EQ(PlaneViews_split(&ov, &out.image), TL_OK);
    for (int k = 0; k < sv.count; ++k) {
        const int n = channelsOf(sv.plane[k].format);
        const bool selected = mask == 0 || ((mask >> k) & 1) != 0;
        int errors = 0;
        for (int32_t y = 0; y < sv.plane[k].height; ++y) {
            for (int32_t x = 0; x < sv.plane[k].width; ++x) {
                for (int ch = 0; ch < n; ++ch) {
                    const double want = selected ? reference(sv.plane[k], n, op, x, y, ch)
                                                 : elementOf(sv.plane[k], x * n + ch, y);
                    const double got = elementOf(ov.plane[k], x * n + ch, y);
                    if (got != want && errors++ < 3) {
                        ADD_FAILURE()
                            << where << " " << op.name << " format " << src.image.format << " "
                            << src.image.width << "x" << src.image.height << " plane " << k << " at (" << x
                            << ", " << y << ") channel " << ch << ": " << got << " want " << want;
                    }
                }
            }
        }
    }
    EXPECT_TRUE(out.canariesIntact()) << where << " " << op.name << " format " << src.image.format;
}

struct Objects {
    ImageProc proc;
    ImageProc2 proc2;
    Objects() {
        construct_ImageProc(&proc, nullptr);
        construct_ImageProc2(&proc2, nullptr);
    }
    ~Objects() {
        destruct_ImageProc2(&proc2);
        destruct_ImageProc(&proc);
    }
};

}  // namespace

TEST(RankFilter, MatchesBruteForceOnEveryLayout) {
    Objects o;
    const uint32_t formats[] = {IMAGE_FORMAT_UINT8,        IMAGE_FORMAT_UINT88,
                                IMAGE_FORMAT_UINT16,       IMAGE_FORMAT_UINT1616,
                                IMAGE_FORMAT_INT16,        IMAGE_FORMAT_INT32,
                                IMAGE_FORMAT_FLOAT,        IMAGE_FORMAT_RGB888,
                                IMAGE_FORMAT_ARGB8888,     IMAGE_FORMAT_YUV420_SEMIPLANAR,
                                IMAGE_FORMAT_YUV420_PLANAR};
    // Single rows and columns, sizes below the window, and stripes of one
    // row (ImageProc2 cuts four stripes even on the calling thread).
    const int32_t sizes[][2] = {
        {1, 1}, {1, 6}, {7, 1}, {2, 2}, {3, 5}, {17, 13}, {vq_tl_test_scaled(41, 21), 9}};
    std::mt19937 rng(20261121);
    for (uint32_t f : formats) {
        const bool yuv = f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YUV420_PLANAR;
        for (const auto& s : sizes) {
            // YUV 4:2:0 has even sizes.
            const int32_t w = yuv ? (s[0] + 1) & ~1 : s[0], h = yuv ? (s[1] + 1) & ~1 : s[1];
            Picture src(w, h, f);
            fill(src, rng);
            for (const Op& op : kOps) {
                for (bool two : {false, true}) {
                    if (two && op.filter2 == nullptr) continue;
                    const char* who = two ? "ImageProc2" : "ImageProc";
                    auto apply = [&](Image* dst, const Image* in, uint32_t mask) {
                        return two ? op.filter2(&o.proc2, dst, in, mask) : op.filter(&o.proc, dst, in, mask);
                    };
                    // The planes of 4:2:0 by a random mask: unselected ones are copied
                    // (or left in place), 0 selects all.
                    const uint32_t mask = yuv ? rng() % 8 : 0, maskInPlace = yuv ? rng() % 8 : 0;
                    Picture out(w, h, f), inPlace(w, h, f);
                    ASSERT_EQ(apply(&out.image, &src.image, mask), TL_OK) << who;
                    expectFiltered(src, out, op, mask, who);
                    inPlace.copyPixels(src);
                    ASSERT_EQ(apply(&inPlace.image, &inPlace.image, maskInPlace), TL_OK);
                    expectFiltered(src, inPlace, op, maskInPlace, who);
                }
            }
        }
    }
}

TEST(RankFilter, HandWorkedMedianAndBorders) {
    // 3 by 3 picture: the centre takes the fifth of nine; a corner the lower
    // middle of its four; an edge pixel the lower middle of six.
    Objects o;
    Picture src(3, 3, IMAGE_FORMAT_UINT8), out(3, 3, IMAGE_FORMAT_UINT8);
    const uint8_t v[9] = {9, 1, 8, 2, 7, 3, 6, 4, 5};
    for (int i = 0; i < 9; ++i) src.u8(i % 3, i / 3) = v[i];
    ASSERT_EQ(ImageProc_filterMedian3x3(&o.proc, &out.image, &src.image, 0), TL_OK);
    EXPECT_EQ(out.u8(1, 1), 5);  // sorted 1..9
    EXPECT_EQ(out.u8(0, 0), 2);  // {9, 1, 2, 7}: 1 2 7 9
    EXPECT_EQ(out.u8(1, 0), 3);  // {9, 1, 8, 2, 7, 3}: 1 2 3 7 8 9
    ASSERT_EQ(ImageProc_filterMedianCross(&o.proc, &out.image, &src.image, 0), TL_OK);
    EXPECT_EQ(out.u8(1, 1), 3);  // {1, 2, 7, 3, 4}
    EXPECT_EQ(out.u8(0, 0), 2);  // {9, 1, 2}
}

TEST(RankFilter, RefusalsWriteNothing) {
    Objects o;
    Picture a(8, 6, IMAGE_FORMAT_UINT8), b(8, 6, IMAGE_FORMAT_UINT8), narrow(7, 6, IMAGE_FORMAT_UINT8);
    Picture wide(8, 6, IMAGE_FORMAT_UINT16), yuyv(8, 6, IMAGE_FORMAT_YUV422_YUYV),
        rgb565(8, 6, IMAGE_FORMAT_RGB565);
    std::mt19937 rng(3);
    a.fillRandom(rng);
    b.fillRandom(rng);
    // A view one row down overlaps its source without being it.
    Image shifted, top;
    construct_Image(&shifted, nullptr);
    construct_Image(&top, nullptr);
    ASSERT_EQ(Image_initSubImage(&shifted, &a.image, 0, 1, 8, 5), TL_OK);
    ASSERT_EQ(Image_initSubImage(&top, &a.image, 0, 0, 8, 5), TL_OK);
    const struct {
        const char* what;
        TLResult result;
        Image* dst;
        const Image* src;
    } cases[] = {
        {"sizes differ", TL_ERROR_PARAM, &narrow.image, &b.image},
        {"formats differ", TL_ERROR_PARAM, &wide.image, &b.image},
        {"no kernel for YUYV", TL_ERROR_UNSUPPORTED, &yuyv.image, &yuyv.image},
        {"no kernel for RGB565", TL_ERROR_UNSUPPORTED, &rgb565.image, &rgb565.image},
        {"overlapping views", TL_ERROR_PARAM, &shifted, &top},
    };
    const std::vector<uint8_t> before = a.storage;
    for (const auto& c : cases) {
        EXPECT_EQ(ImageProc_filterMax3x3(&o.proc, c.dst, c.src, 0), c.result) << c.what;
        EXPECT_EQ(ImageProc2_filterMin3x3(&o.proc2, c.dst, c.src, 0), c.result) << c.what;
        EXPECT_EQ(ImageProc_filterRankMax5x5(&o.proc, c.dst, c.src, 0), c.result) << c.what;
        EXPECT_EQ(a.storage, before) << c.what;
        EXPECT_TRUE(narrow.canariesIntact() && wide.canariesIntact()) << c.what;
    }
}
