// Row stripes: both division rules, the runner over every layer, and the kernels' pixels whichever layer runs
// them, through the object holding that kind of layer (ImageProc an executor, ImageProc2 a Pel).
#include <gtest/gtest.h>
// Rank filters against a brute force over the window's part inside the image (the median the lower middle).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/image_stripes.h"
#include "imageproc/plane_views.h"
#include "imageproc/rank_filter.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::elementOf;
using vq_tl_test::Layers;
using vq_tl_test::Picture;

namespace {

using RowsRule = void (*)(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);

struct Span {
    int32_t begin, end;
};

Span spanOf(RowsRule rule, int32_t rows, int32_t parts, int32_t index) {
    Span s{-1, -1};
    rule(rows, index, parts, &s.begin, &s.end);
    return s;
}

// Each row of the rule's stripe counts its visits; stripe i returns bit i % 8.
struct Rows {
    RowsRule rule;
    std::vector<std::atomic<int32_t>> visits;
    Rows(int32_t h, RowsRule r) : rule(r), visits(static_cast<size_t>(h)) {}
    bool visitedOnce() const {
        return std::all_of(visits.begin(), visits.end(),
                           [](const std::atomic<int32_t>& v) { return v.load() == 1; });
    }
};

TLResult visitStripe(void* arg, int32_t index, int32_t count) {
    Rows* rows = static_cast<Rows*>(arg);
    int32_t first = 0, last = 0;
    rows->rule(static_cast<int32_t>(rows->visits.size()), index, count, &first, &last);
    for (int32_t r = first; r < last; ++r) rows->visits[static_cast<size_t>(r)].fetch_add(1);
    return 1u << (index % 8);
}

TLResult expectedResult(int32_t count) { return (1u << std::min(count, 8)) - 1; }

// Operation `op` via the object holding e's layer (none: the caller); ImageProc's rank filters on a Pel too.
TLResult apply(int op, const ImageStripeExec* e, Image* d, const Image* s) {
    ImageProc proc;
    ImageProc2 proc2;
    construct_ImageProc(&proc, nullptr), ImageProc_setParallelExecutor(&proc, e ? e->executor : nullptr);
    construct_ImageProc2(&proc2, nullptr), ImageProc2_setPel(&proc2, e ? e->pel : nullptr);
    TLResult r = ImageProc_init(&proc) | ImageProc2_init(&proc2);
    const bool p = e != nullptr && e->pel != nullptr;
    switch (op) {
        case 0: r |= p ? ImageProc2_resizeImage(&proc2, d, s) : ImageProc_resizeImage(&proc, d, s); break;
        case 1: r |= p ? Resize_shrink2(e, d, s) : ImageProc_shrink2(&proc, d, s); break;
        case 2: r |= p ? ImageProc2_averageShrink(&proc2, d, s) : ImageProc_shrinkImage(&proc, d, s); break;
        case 3:
            r |= p ? ImageProc2_rotateImageEx(&proc2, d, s, 1, 6) : Rotate_rotateImageEx(e, d, s, 1, 6);
            break;
        case 4:
            r |= p ? ImageProc2_filterMax3x3(&proc2, d, s, 0) : ImageProc_filterMax3x3(&proc, d, s, 0);
            break;
        case 5:
            r |= p ? ImageProc2_filterMin3x3(&proc2, d, s, 0) : ImageProc_filterMin3x3(&proc, d, s, 0);
            break;
        case 6: r |= ImageProc_filterMedian3x3(&proc, d, s, 0); break;
        case 7: r |= ImageProc_filterMedianCross(&proc, d, s, 0); break;
        case 8: r |= ImageProc_filterRankMax5x5(&proc, d, s, 0); break;
        default: r |= ImageProc_filterRankMin3x3(&proc, d, s, 0);
    }
    destruct_ImageProc2(&proc2), destruct_ImageProc(&proc);
    return r;
}

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

TEST(Stripes, RulesCoverEveryRowOnce) {
    // Contiguous ascending stripes over [0, rows); the Pel rule's all ceil(rows / parts) but the
    // tail, the executor rule's within one of each other, larger first.
    std::mt19937 random(11);
    for (int round = 0; round < 2000; ++round) {
        const int32_t rows = 1 + static_cast<int32_t>(random() % 5000),
                      parts = 1 + static_cast<int32_t>(random() % 40);
        const int32_t c = (rows + parts - 1) / parts;
        int32_t pelNext = 0, evenNext = 0, smallest = INT32_MAX, largest = 0;
        for (int32_t i = 0; i < parts; ++i) {
            const Span p = spanOf(ImageStripe_rows, rows, parts, i),
                       e = spanOf(ImageStripe_rowsEven, rows, parts, i);
            ASSERT_TRUE(p.begin == pelNext && p.begin <= p.end && (p.end == rows || p.end - p.begin == c));
            ASSERT_EQ(e.begin, evenNext);
            ASSERT_LE(e.end - e.begin, i == 0 ? rows : largest) << "larger stripes first";
            smallest = std::min(smallest, e.end - e.begin), largest = std::max(largest, e.end - e.begin);
            pelNext = p.end, evenNext = e.end;
        }
        ASSERT_TRUE(pelNext == rows && evenNext == rows && largest - smallest <= 1) << rows << "/" << parts;
    }
    // Rows near 2^31 do not overflow the products.
    EXPECT_EQ(spanOf(ImageStripe_rowsEven, INT32_MAX, 16, 15).end, INT32_MAX);
    EXPECT_EQ(spanOf(ImageStripe_rows, INT32_MAX, 3, 2).end, INT32_MAX);
}

TEST(Stripes, RunnerVisitsEveryRowOnceOnEveryLayer) {
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    Pel idle;  // constructed, never initialised: the calling thread runs the stripes
    construct_Pel(&idle, nullptr);
    // A pool whose queue holds fewer stripes than asked: refused forks run on the caller.
    ParallelExecutor small;
    construct_ParallelExecutor(&small, nullptr);
    small.numberOfThreads = 1;
    small.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&small, 1, 4), TL_OK);
    std::vector<ImageStripeExec> execs = {
        {nullptr, nullptr}, {&idle, nullptr}, {&layers.balanced, &layers.pool}};
    for (int i = 0; i < vq_tl_test::Layers::kCount; ++i) execs.push_back(layers.exec(i));
    std::mt19937 random(3);
    for (int round = 0; round < vq_tl_test_scaled(30, 8); ++round) {
        const int32_t h = 1 + static_cast<int32_t>(random() % 300),
                      count = 1 + static_cast<int32_t>(random() % 16);
        for (const ImageStripeExec& e : execs) {
            Rows rows(h, e.pel != nullptr ? ImageStripe_rows : ImageStripe_rowsEven);
            ASSERT_EQ(ImageStripeExec_run(&e, visitStripe, &rows, count), expectedResult(count))
                << &e - &execs[0];
            ASSERT_TRUE(rows.visitedOnce()) << &e - &execs[0];
        }
    }
    const ImageStripeExec pool{nullptr, &small};
    Rows many(500, ImageStripe_rowsEven), none(1, ImageStripe_rows);
    ASSERT_EQ(ImageStripeExec_run(&pool, visitStripe, &many, 200), expectedResult(200));
    EXPECT_TRUE(many.visitedOnce());
    EXPECT_EQ(ImageStripeExec_run(&execs[3], visitStripe, &none, 0), TL_OK);
    EXPECT_EQ(none.visits[0].load(), 0);
    EXPECT_EQ(ImageStripeExec_run(&execs[3], nullptr, &none, 4), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_ParallelExecutor(&small), TL_OK);
    EXPECT_EQ(destruct_Pel(&idle), TL_OK);
}

TEST(KernelsOnLayers, SamePixelsOnEveryLayer) {
    Layers& layers = vq_tl_test::sharedLayers();
    // In place: stripes must keep the rows their neighbours still read.
    const struct {
        int op;
        int32_t sw, sh, dw, dh;
        uint32_t format;
        bool inPlace;
    } cases[] = {
        {0, 123, 77, 301, 190, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {0, 200, 150, 97, 61, IMAGE_FORMAT_UINT88, false},
        {1, 251, 181, 126, 91, IMAGE_FORMAT_UINT8, false},
        {2, 240, 170, 71, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {3, 130, 70, 70, 130, IMAGE_FORMAT_UINT16, false},
        {4, 41, 9, 41, 9, IMAGE_FORMAT_UINT8, false},
        {5, 37, 23, 37, 23, IMAGE_FORMAT_YUV420_SEMIPLANAR, true},
        {5, 7, 2, 7, 2, IMAGE_FORMAT_UINT1616, true},  // more stripes than rows
        {6, 41, 9, 41, 9, IMAGE_FORMAT_RGB888, true},
        {7, 30, 20, 30, 20, IMAGE_FORMAT_INT16, false},
        {8, 29, 17, 29, 17, IMAGE_FORMAT_INT32, true},
        {9, 33, 12, 33, 12, IMAGE_FORMAT_YUV420_PLANAR, false},
    };
    std::mt19937 rng(5);
    for (int round = 0; round < vq_tl_test_scaled(3, 1); ++round) {
        for (const auto& c : cases) {
            Picture src(c.sw, c.sh, c.format), reference(c.dw, c.dh, c.format);
            src.fillRandom(rng);
            for (int i = -1; i < Layers::kCount; ++i) {
                const ImageStripeExec exec = i < 0 ? ImageStripeExec{} : layers.exec(i);
                Picture dst(c.dw, c.dh, c.format);
                if (c.inPlace) dst.copyPixels(src);
                ASSERT_EQ(
                    apply(c.op, i < 0 ? nullptr : &exec, &dst.image, c.inPlace ? &dst.image : &src.image),
                    TL_OK)
                    << &c - cases << " " << i;
                if (i < 0) reference.copyPixels(dst);
                EXPECT_TRUE(dst.samePixels(reference) && dst.canariesIntact()) << &c - cases << " on " << i;
            }
        }
    }
}

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
