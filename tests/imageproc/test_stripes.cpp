// Row stripes: both division rules, and the runner over every layer.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <vector>

#include "imageproc/stripes.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

std::vector<int32_t> boundariesOf(StripeRows (*rule)(int32_t, int32_t, int32_t), int32_t rows,
                                  int32_t parts) {
    std::vector<int32_t> b;
    for (int32_t i = 0; i < parts; ++i) {
        const StripeRows s = rule(rows, parts, i);
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
        EXPECT_EQ(boundariesOf(Stripes_getPelRows, c.rows, c.parts), c.boundaries)
            << c.rows << "/" << c.parts;
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
        EXPECT_EQ(boundariesOf(Stripes_getExecutorRows, c.rows, c.parts), c.boundaries)
            << c.rows << "/" << c.parts;
    }
}

TEST(Stripes, OutOfRangeArgumentsGiveEmptyStripes) {
    for (auto rule : {Stripes_getPelRows, Stripes_getExecutorRows}) {
        for (const auto& a :
             {std::vector<int32_t>{10, 4, 4}, {10, 4, -1}, {10, 0, 0}, {0, 4, 0}, {-5, 4, 1}}) {
            const StripeRows s = rule(a[0], a[1], a[2]);
            EXPECT_EQ(s.end - s.begin, 0) << a[0] << " " << a[1] << " " << a[2];
        }
    }
    // Rows near 2^31 do not overflow the products.
    const StripeRows last = Stripes_getExecutorRows(INT32_MAX, 16, 15);
    EXPECT_EQ(last.end, INT32_MAX);
    EXPECT_EQ(Stripes_getPelRows(INT32_MAX, 3, 2).end, INT32_MAX);
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
        int32_t execNext = 0;
        int32_t smallest = INT32_MAX;
        int32_t largest = 0;
        for (int32_t i = 0; i < parts; ++i) {
            const StripeRows p = Stripes_getPelRows(rows, parts, i);
            ASSERT_EQ(p.begin, pelNext);
            ASSERT_LE(p.begin, p.end);
            if (p.end < rows) {
                ASSERT_EQ(p.end - p.begin, c);
            }
            pelNext = p.end;
            const StripeRows e = Stripes_getExecutorRows(rows, parts, i);
            ASSERT_EQ(e.begin, execNext);
            ASSERT_LE(e.begin, e.end);
            smallest = std::min(smallest, e.end - e.begin);
            largest = std::max(largest, e.end - e.begin);
            execNext = e.end;
        }
        ASSERT_EQ(pelNext, rows);
        ASSERT_EQ(execNext, rows);
        ASSERT_LE(largest - smallest, 1) << rows << "/" << parts;
    }
}

TEST(Stripes, ExecutorPartCount) {
    EXPECT_EQ(Stripes_getExecutorParts(nullptr), 1);
    const struct {
        int32_t numberOfThreads, callerWorks, queueCapacity;
        bool pel;
        int32_t parts;
    } cases[] = {
        {3, 0, 64, false, 3},    // a fixed pool
        {2, 1, 64, false, 3},    // and the working caller
        {-1, 0, 64, false, 16},  // the queue, limited to 16
        {-1, 1, 5, false, 5},   {-1, 0, 64, true, 16}, {-1, 0, 6, true, 6},
    };
    for (const auto& c : cases) {
        Pel pel;
        construct_Pel(&pel, nullptr);
        pel.params.numberOfWorkers = 2;
        ParallelExecutor e;
        construct_ParallelExecutor(&e, nullptr);
        e.numberOfThreads = c.numberOfThreads;
        e.callerWorks = c.callerWorks;
        e.setAffinity = 0;
        if (c.pel) {
            ASSERT_EQ(Pel_init(&pel), TL_OK);
            e.pel = &pel;
        }
        ASSERT_EQ(ParallelExecutor_init(&e, 16, c.queueCapacity), TL_OK);
        EXPECT_EQ(Stripes_getExecutorParts(&e), c.parts)
            << c.numberOfThreads << " " << c.callerWorks << " " << c.queueCapacity << " " << c.pel;
        EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
        EXPECT_EQ(destruct_Pel(&pel), TL_OK);
    }
}

namespace {

// A row kernel with a known answer: row r of a width-w image is filled from
// a hash of (r, x); each row counts its visits.
struct Rows {
    int32_t width;
    std::vector<uint32_t> pixels;
    std::vector<std::atomic<int32_t>> visits;
    Rows(int32_t w, int32_t h)
        : width(w), pixels(static_cast<size_t>(w) * h), visits(static_cast<size_t>(h)) {}
};

uint32_t pixelValue(int32_t r, int32_t x) {
    return static_cast<uint32_t>(r) * 2654435761u ^ static_cast<uint32_t>(x);
}

void fillRows(void* arg, int32_t begin, int32_t end) {
    Rows* rows = static_cast<Rows*>(arg);
    for (int32_t r = begin; r < end; ++r) {
        rows->visits[static_cast<size_t>(r)].fetch_add(1);
        for (int32_t x = 0; x < rows->width; ++x) {
            rows->pixels[static_cast<size_t>(r) * rows->width + x] = pixelValue(r, x);
        }
    }
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

}  // namespace

TEST(Stripes, RunnerVisitsEveryRowOnceOnEveryLayer) {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.numberOfWorkers = 3;
    pel->params.callerParticipates = 0;
    ASSERT_EQ(Pel_init(pel.get()), TL_OK);
    auto dynamicPel = std::make_unique<Pel>();
    construct_Pel(dynamicPel.get(), nullptr);
    dynamicPel->params.numberOfWorkers = 2;
    dynamicPel->params.dynamicBalance = 1;
    ASSERT_EQ(Pel_init(dynamicPel.get()), TL_OK);
    ParallelExecutor overPel, pool;
    construct_ParallelExecutor(&overPel, nullptr);
    overPel.pel = pel.get();
    ASSERT_EQ(ParallelExecutor_init(&overPel, 64, 64), TL_OK);
    construct_ParallelExecutor(&pool, nullptr);
    pool.numberOfThreads = 2;
    pool.callerWorks = 1;
    pool.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&pool, 4, 16), TL_OK);

    std::mt19937 random(3);
    for (int round = 0; round < vq_tl_test_scaled(40, 10); ++round) {
        const int32_t h = 1 + static_cast<int32_t>(random() % 300);
        const int32_t w = 1 + static_cast<int32_t>(random() % 33);
        const int32_t parts = static_cast<int32_t>(random() % 20);  // 0: the layer's default
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnPel(nullptr, fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "serial pel");
        }
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnPel(pel.get(), fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "pel");
        }
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnPel(dynamicPel.get(), fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "dynamic pel");
        }
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnExecutor(nullptr, fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "serial executor");
        }
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnExecutor(&overPel, fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "executor over pel");
        }
        {
            Rows rows(w, h);
            ASSERT_EQ(Stripes_runOnExecutor(&pool, fillRows, &rows, h, parts), TL_OK);
            expectFilled(rows, "pool executor");
        }
    }
    // More stripes than a pool's queue holds: refused forks run on the
    // calling thread, and the work is still complete.
    {
        ParallelExecutor small;
        construct_ParallelExecutor(&small, nullptr);
        small.numberOfThreads = 1;
        small.setAffinity = 0;
        ASSERT_EQ(ParallelExecutor_init(&small, 1, 4), TL_OK);
        Rows rows(3, 500);
        ASSERT_EQ(Stripes_runOnExecutor(&small, fillRows, &rows, 500, 200), TL_OK);
        expectFilled(rows, "small pool, 200 stripes");
        EXPECT_EQ(destruct_ParallelExecutor(&small), TL_OK);
    }
    Rows none(4, 1);
    EXPECT_EQ(Stripes_runOnPel(pel.get(), fillRows, &none, 0, 4), TL_OK);
    EXPECT_EQ(none.visits[0].load(), 0);
    EXPECT_EQ(Stripes_runOnPel(pel.get(), nullptr, &none, 1, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Stripes_runOnExecutor(&pool, fillRows, &none, -1, 4), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_ParallelExecutor(&pool), TL_OK);
    EXPECT_EQ(destruct_ParallelExecutor(&overPel), TL_OK);
    EXPECT_EQ(destruct_Pel(dynamicPel.get()), TL_OK);
    EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
}
