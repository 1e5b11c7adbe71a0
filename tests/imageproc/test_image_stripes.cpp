// Row stripes: both division rules, and the one runner over every layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <memory>
#include <random>
#include <vector>

#include "imageproc/image_stripes.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
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

std::vector<int32_t> boundariesOf(RowsRule rule, int32_t rows, int32_t parts) {
    std::vector<int32_t> b;
    for (int32_t i = 0; i < parts; ++i) {
        const Span s = spanOf(rule, rows, parts, i);
        if (i == 0) b.push_back(s.begin);
        b.push_back(s.end);
    }
    return b;
}

}  // namespace

TEST(Stripes, PelRuleKnownAnswers) {
    const struct {
        int32_t rows, parts;
        std::vector<int32_t> boundaries;
    } cases[] = {
        {10, 4, {0, 3, 6, 9, 10}}, {5, 4, {0, 2, 4, 5, 5}}, {3, 4, {0, 1, 2, 3, 3}}, {7, 1, {0, 7}},
        {8, 4, {0, 2, 4, 6, 8}},   {1, 3, {0, 1, 1, 1}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(boundariesOf(ImageStripe_rows, c.rows, c.parts), c.boundaries) << c.rows << "/" << c.parts;
    }
}

TEST(Stripes, ExecutorRuleKnownAnswers) {
    const struct {
        int32_t rows, parts;
        std::vector<int32_t> boundaries;
    } cases[] = {
        {10, 4, {0, 3, 5, 8, 10}},
        {3, 4, {0, 1, 2, 3, 3}},
        {7, 3, {0, 3, 5, 7}},
        {7, 1, {0, 7}},
        {16, 16, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(boundariesOf(ImageStripe_rowsEven, c.rows, c.parts), c.boundaries)
            << c.rows << "/" << c.parts;
    }
}

TEST(Stripes, EdgeArguments) {
    // No stripe of count, a negative index or no rows: nothing.
    for (RowsRule rule : {ImageStripe_rows, ImageStripe_rowsEven}) {
        for (const auto& a : {std::vector<int32_t>{10, 4, 4}, {10, 4, -1}, {0, 4, 0}, {-5, 4, 1}}) {
            const Span s = spanOf(rule, a[0], a[1], a[2]);
            EXPECT_EQ(s.end - s.begin, 0) << a[0] << " " << a[1] << " " << a[2];
        }
        // A count below 1 is one stripe of all rows.
        const Span all = spanOf(rule, 10, 0, 0);
        EXPECT_EQ(all.begin, 0);
        EXPECT_EQ(all.end, 10);
    }
    // Rows near 2^31 do not overflow the products.
    EXPECT_EQ(spanOf(ImageStripe_rowsEven, INT32_MAX, 16, 15).end, INT32_MAX);
    EXPECT_EQ(spanOf(ImageStripe_rows, INT32_MAX, 3, 2).end, INT32_MAX);
}

// Both rules cut [0, rows) into contiguous ascending stripes; the executor
// rule's sizes differ by one at most, the Pel rule's are all c but the tail.
TEST(Stripes, RulesCoverEveryRowOnce) {
    std::mt19937 random(11);
    for (int round = 0; round < 2000; ++round) {
        const int32_t rows = 1 + static_cast<int32_t>(random() % 5000);
        const int32_t parts = 1 + static_cast<int32_t>(random() % 40);
        const int32_t c = (rows + parts - 1) / parts;
        int32_t pelNext = 0;
        int32_t evenNext = 0;
        int32_t smallest = INT32_MAX;
        int32_t largest = 0;
        for (int32_t i = 0; i < parts; ++i) {
            const Span p = spanOf(ImageStripe_rows, rows, parts, i);
            ASSERT_EQ(p.begin, pelNext);
            ASSERT_LE(p.begin, p.end);
            if (p.end < rows) {
                ASSERT_EQ(p.end - p.begin, c);
            }
            pelNext = p.end;
            const Span e = spanOf(ImageStripe_rowsEven, rows, parts, i);
            ASSERT_EQ(e.begin, evenNext);
            ASSERT_LE(e.end - e.begin, i == 0 ? rows : largest) << "larger stripes first";
            smallest = std::min(smallest, e.end - e.begin);
            largest = std::max(largest, e.end - e.begin);
            evenNext = e.end;
        }
        ASSERT_EQ(pelNext, rows);
        ASSERT_EQ(evenNext, rows);
        ASSERT_LE(largest - smallest, 1) << rows << "/" << parts;
    }
}

TEST(Stripes, ExecutorCountAndWorkerCount) {
    EXPECT_EQ(ImageStripe_getExecutorCount(nullptr), 1);
    EXPECT_EQ(ImageStripeExec_getWorkerCount(nullptr), 1);
    const ImageStripeExec neither{nullptr, nullptr};
    EXPECT_EQ(ImageStripeExec_getWorkerCount(&neither), 1);
    const struct {
        int32_t numberOfThreads, callerWorks, queueCapacity;
        bool pel;
        int32_t count;
    } cases[] = {
        {3, 0, 64, false, 3},    // a fixed pool
        {2, 1, 64, false, 3},    // and the working caller
        {-1, 0, 64, false, 16},  // the queue, limited to 16
        {-1, 1, 5, false, 5},   {-1, 0, 64, true, 16}, {-1, 0, 6, true, 6},
    };
    for (const auto& c : cases) {
        Pel pel;
        construct_Pel(&pel, nullptr);
        pel.params.numberOfWorkers = 3;
        ParallelExecutor e;
        construct_ParallelExecutor(&e, nullptr);
        e.numberOfThreads = c.numberOfThreads;
        e.callerWorks = c.callerWorks;
        e.setAffinity = 0;
        ASSERT_EQ(Pel_init(&pel), TL_OK);
        if (c.pel) e.pel = &pel;
        ASSERT_EQ(ParallelExecutor_init(&e, 16, c.queueCapacity), TL_OK);
        EXPECT_EQ(ImageStripe_getExecutorCount(&e), c.count)
            << c.numberOfThreads << " " << c.callerWorks << " " << c.queueCapacity << " " << c.pel;
        const ImageStripeExec viaExecutor{nullptr, &e};
        EXPECT_EQ(ImageStripeExec_getWorkerCount(&viaExecutor), c.count);
        const ImageStripeExec both{&pel, &e};
        EXPECT_EQ(ImageStripeExec_getWorkerCount(&both), 3) << "the Pel decides";
        EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
        EXPECT_EQ(destruct_Pel(&pel), TL_OK);
    }
}

namespace {

// A stripe kernel with a known answer: row r of a width-w image is filled
// from a hash of (r, x); each row counts its visits; stripe i returns bit
// i % 8, so the run's result is known too.
struct Rows {
    int32_t width;
    RowsRule rule;
    std::vector<uint32_t> pixels;
    std::vector<std::atomic<int32_t>> visits;
    Rows(int32_t w, int32_t h, RowsRule r)
        : width(w), rule(r), pixels(static_cast<size_t>(w) * h), visits(static_cast<size_t>(h)) {}
};

uint32_t pixelValue(int32_t r, int32_t x) {
    return static_cast<uint32_t>(r) * 2654435761u ^ static_cast<uint32_t>(x);
}

TLResult fillStripe(void* arg, int32_t index, int32_t count) {
    Rows* rows = static_cast<Rows*>(arg);
    int32_t first = 0;
    int32_t last = 0;
    rows->rule(static_cast<int32_t>(rows->visits.size()), index, count, &first, &last);
    for (int32_t r = first; r < last; ++r) {
        rows->visits[static_cast<size_t>(r)].fetch_add(1);
        for (int32_t x = 0; x < rows->width; ++x) {
            rows->pixels[static_cast<size_t>(r) * rows->width + x] = pixelValue(r, x);
        }
    }
    return 1u << (index % 8);
}

TLResult expectedResult(int32_t count) {
    TLResult r = 0;
    for (int32_t i = 0; i < count && i < 8; ++i) r |= 1u << i;
    return r;
}

void expectFilled(const Rows& rows, const char* layer) {
    const int32_t h = static_cast<int32_t>(rows.visits.size());
    for (int32_t r = 0; r < h; ++r) {
        ASSERT_EQ(rows.visits[static_cast<size_t>(r)].load(), 1) << layer << " row " << r;
        for (int32_t x = 0; x < rows.width; ++x) {
            ASSERT_EQ(rows.pixels[static_cast<size_t>(r) * rows.width + x], pixelValue(r, x)) << layer;
        }
    }
}

struct Layers {
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    std::unique_ptr<Pel> dynamicPel = std::make_unique<Pel>();
    std::unique_ptr<Pel> idlePel = std::make_unique<Pel>();  // constructed, never initialised
    ParallelExecutor overPel, pool;
    Layers() {
        construct_Pel(pel.get(), nullptr);
        pel->params.numberOfWorkers = 3;
        pel->params.callerParticipates = 0;
        EXPECT_EQ(Pel_init(pel.get()), TL_OK);
        construct_Pel(dynamicPel.get(), nullptr);
        dynamicPel->params.numberOfWorkers = 2;
        dynamicPel->params.dynamicBalance = 1;
        EXPECT_EQ(Pel_init(dynamicPel.get()), TL_OK);
        construct_Pel(idlePel.get(), nullptr);
        construct_ParallelExecutor(&overPel, nullptr);
        overPel.pel = pel.get();
        EXPECT_EQ(ParallelExecutor_init(&overPel, 64, 64), TL_OK);
        construct_ParallelExecutor(&pool, nullptr);
        pool.numberOfThreads = 2;
        pool.callerWorks = 1;
        pool.setAffinity = 0;
        EXPECT_EQ(ParallelExecutor_init(&pool, 4, 16), TL_OK);
    }
    ~Layers() {
        EXPECT_EQ(destruct_ParallelExecutor(&pool), TL_OK);
        EXPECT_EQ(destruct_ParallelExecutor(&overPel), TL_OK);
        EXPECT_EQ(destruct_Pel(idlePel.get()), TL_OK);
        EXPECT_EQ(destruct_Pel(dynamicPel.get()), TL_OK);
        EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
    }
};

}  // namespace

TEST(Stripes, RunnerVisitsEveryRowOnceOnEveryLayer) {
    Layers layers;
    const struct {
        const char* name;
        ImageStripeExec exec;
        RowsRule rule;
    } cases[] = {
        {"calling thread", {nullptr, nullptr}, ImageStripe_rows},
        {"pel", {layers.pel.get(), nullptr}, ImageStripe_rows},
        {"dynamic pel", {layers.dynamicPel.get(), nullptr}, ImageStripe_rows},
        {"uninitialised pel", {layers.idlePel.get(), nullptr}, ImageStripe_rows},
        {"pel and executor", {layers.dynamicPel.get(), &layers.pool}, ImageStripe_rows},
        {"executor over pel", {nullptr, &layers.overPel}, ImageStripe_rowsEven},
        {"pool executor", {nullptr, &layers.pool}, ImageStripe_rowsEven},
    };
    std::mt19937 random(3);
    for (int round = 0; round < vq_tl_test_scaled(30, 8); ++round) {
        const int32_t h = 1 + static_cast<int32_t>(random() % 300);
        const int32_t w = 1 + static_cast<int32_t>(random() % 33);
        const int32_t count = 1 + static_cast<int32_t>(random() % 16);
        for (const auto& c : cases) {
            Rows rows(w, h, c.rule);
            ASSERT_EQ(ImageStripeExec_run(&c.exec, fillStripe, &rows, count), expectedResult(count))
                << c.name;
            expectFilled(rows, c.name);
        }
    }
    Rows none(4, 1, ImageStripe_rows);
    const ImageStripeExec exec{layers.pel.get(), nullptr};
    EXPECT_EQ(ImageStripeExec_run(&exec, fillStripe, &none, 0), TL_OK);
    EXPECT_EQ(none.visits[0].load(), 0);
    EXPECT_EQ(ImageStripeExec_run(&exec, nullptr, &none, 4), TL_ERROR_PARAM);
}

// More stripes than a pool's queue holds: refused forks run on the calling
// thread, and the work is still complete.
TEST(Stripes, RefusedForksRunOnTheCallingThread) {
    ParallelExecutor small;
    construct_ParallelExecutor(&small, nullptr);
    small.numberOfThreads = 1;
    small.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&small, 1, 4), TL_OK);
    const ImageStripeExec exec{nullptr, &small};
    Rows rows(3, 500, ImageStripe_rowsEven);
    ASSERT_EQ(ImageStripeExec_run(&exec, fillStripe, &rows, 200), expectedResult(200));
    expectFilled(rows, "small pool, 200 stripes");
    EXPECT_EQ(destruct_ParallelExecutor(&small), TL_OK);
}
