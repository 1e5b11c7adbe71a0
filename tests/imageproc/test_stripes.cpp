// Row stripes: both division rules, the runner over every layer, and the kernels' pixels whichever layer runs
// them, through the object holding that kind of layer (ImageProc an executor, ImageProc2 a Pel).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/image_stripes.h"
#include "imageproc/rank_filter.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
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
