// Row stripes: both division rules, and the one runner over every layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <random>
#include <vector>

#include "imageproc/image_stripes.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/test_env.h"

using namespace vq_tl;

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
