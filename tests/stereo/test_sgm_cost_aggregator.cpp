// The aggregation: a hand-worked recurrence, and the three execution shapes
// on every Pel against a plain recurrence written here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "runtime/pel.h"
#include "stereo/sgm_cost_aggregator.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

const int kDx[8] = {-1, +1, 0, 0, -1, +1, +1, -1};
const int kDy[8] = {0, 0, -1, +1, -1, +1, -1, +1};

// Costs, an optional guide (1 or 2 channels, bordered), an optional penalty image.
struct Problem {
    int32_t W, H, D;
    uint8_t P1 = 2, P2 = 20;
    Picture cost;                      // W * D by H, slot k of x at x * D + k
    std::unique_ptr<Picture> guide;    // (W + 2) by (H + 2); null: none
    std::unique_ptr<Picture> penalty;  // W by H; null: the constant P2
    Problem(int32_t w, int32_t h, int32_t d) : W(w), H(h), D(d), cost(w * d, h, IMAGE_FORMAT_UINT8) {}
    void setGuide(int channels, const std::vector<uint8_t>& g) {
        guide =
            std::make_unique<Picture>(W + 2, H + 2, channels == 1 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_UINT88);
        for (int32_t y = 0; y < H + 2; ++y)
            for (int32_t i = 0; i < (W + 2) * channels; ++i)
                guide->row(0, y)[i] =
                    g[(std::clamp(y - 1, 0, H - 1) * W + std::clamp(i / channels - 1, 0, W - 1)) * channels +
                      i % channels];
    }
    const Image* guideImage() const { return guide ? &guide->image : nullptr; }
};

// P2 with a guide: max(round(P2 / (1 + g)), P1 + 1), g the guide step to the
// previous pixel (the border at the edges); UINT88 averages both steps.
int penaltyAt(Problem& p, int32_t x, int32_t y, int dir) {
    const int base = p.penalty ? p.penalty->u8(x, y) : p.P2;
    if (!p.guide) return base;
    const int c = p.guide->image.format == IMAGE_FORMAT_UINT8 ? 1 : 2;
    auto g = [&](int32_t gx, int32_t gy, int ch) { return p.guide->row(0, gy + 1)[(gx + 1) * c + ch]; };
    int step = std::abs(g(x, y, 0) - g(x + kDx[dir], y + kDy[dir], 0));
    if (c == 2) step = (step + std::abs(g(x, y, 1) - g(x + kDx[dir], y + kDy[dir], 1))) >> 1;
    const int q = (base + (1 + step) / 2) / (1 + step);
    return (q > p.P1 + 1 ? q : p.P1 + 1) & 0xFF;
}

// L' of every pixel for one direction.
std::vector<uint8_t> referencePath(Problem& p, int dir) {
    const int32_t W = p.W, H = p.H, D = p.D;
    std::vector<uint8_t> L(static_cast<size_t>(W) * H * D, 0);
    const std::vector<uint8_t> zeros(D, 0);
    const bool forward = (dir & 1) == 0;
    for (int32_t n = 0; n < W * H; ++n) {
        const int32_t y = forward ? n / W : H - 1 - n / W, x = forward ? n % W : W - 1 - n % W;
        const int32_t qx = x + kDx[dir], qy = y + kDy[dir];
        const uint8_t* prev = (qx < 0 || qy < 0 || qx >= W || qy >= H)
                                  ? zeros.data()
                                  : &L[(static_cast<size_t>(qy) * W + qx) * D];
        const int p2 = penaltyAt(p, x, y, dir);
        uint8_t* out = &L[(static_cast<size_t>(y) * W + x) * D];
        int lowest = 255;
        for (int k = 0; k < D; ++k) {
            const int a = std::min(k > 0 ? prev[k - 1] : 255, k < D - 1 ? prev[k + 1] : 255);
            out[k] = static_cast<uint8_t>(std::min({(a + p.P1) & 0xFF, p2, int{prev[k]}}) +
                                          p.cost.u8(x * D + k, y));
            lowest = std::min(lowest, int{out[k]});
        }
        for (int k = 0; k < D; ++k) out[k] = static_cast<uint8_t>(out[k] - lowest);
    }
    return L;
}

// The aggregated volume with its pads, entries (y * W + x) * (D + 2) + e.
std::vector<uint16_t> referenceVolume(Problem& p, int paths) {
    const size_t pixels = static_cast<size_t>(p.W) * p.H, E = p.D + 2;
    std::vector<uint16_t> v(pixels * E, 0);
    for (int dir = 0; dir < paths; ++dir) {
        const std::vector<uint8_t> L = referencePath(p, dir);
        for (size_t px = 0; px < pixels; ++px)
            for (int k = 0; k < p.D; ++k)
                v[px * E + k + 1] = static_cast<uint16_t>(v[px * E + k + 1] + L[px * p.D + k]);
    }
    for (size_t px = 0; px < pixels; ++px) v[px * E] = v[px * E + 2], v[px * E + E - 1] = v[px * E + E - 3];
    return v;
}

struct Aggregator {
    SgmCostAggregator a;
    Aggregator(int32_t w, int32_t h, Pel* pel = nullptr) {
        construct_SgmCostAggregator(&a, nullptr), SgmCostAggregator_init(&a, w, h),
            SgmCostAggregator_setPel(&a, pel);
    }
    ~Aggregator() { destruct_SgmCostAggregator(&a); }
};

// The path work image: every (D + 1)-th byte a 255 separator, the rest 0 when
// prepared; aggregation leaves separators, border rows and columns alone.
void expectLayout(const Picture& pc, const Problem& p, bool used) {
    const int32_t S = p.D + 1;
    for (int32_t row = 0; row < pc.image.height; ++row)
        for (int32_t b = 0; b < pc.image.width; ++b)
            ASSERT_TRUE((used && row % (p.H + 1) != 0 && b >= S && b <= (p.W + 1) * S && b % S != 0) ||
                        pc.row(0, row)[b] == (b % S == 0 ? 255 : 0))
                << row << " " << b;
}

std::unique_ptr<Picture> preparedPathCosts(const Problem& p, int32_t rows) {
    auto pc =
        std::make_unique<Picture>(SgmCostAggregator_getPathCostsWidth(p.W, p.D), rows, IMAGE_FORMAT_UINT8);
    pc->fillPlanes(0x77);
    EXPECT_EQ(SgmCostAggregator_preparePathCosts(nullptr, &pc->image, p.D), TL_OK);
    expectLayout(*pc, p, false);
    return pc;
}

// Runs shape 0 (parallel), 1 (2-way) or 2 (serial): the volume in 16-bit entries.
std::vector<uint16_t> runShape(Problem& p, int shape, int paths, Pel* pel, TLResult* r) {
    Aggregator agg(p.W, p.H, pel);
    const int32_t E = p.D + 2;
    Picture out(p.W * E, p.H, IMAGE_FORMAT_UINT16), second(p.W * E, p.H, IMAGE_FORMAT_UINT16);
    auto pc = preparedPathCosts(p, shape == 0 ? paths * (p.H + 1) + 1 : 2 * paths);
    const int32_t rpWidth = shape == 0 ? p.W : shape == 1 ? p.W * paths : p.W * 4;
    Picture rowPenalty(rpWidth, shape == 0 ? paths : 1, IMAGE_FORMAT_UINT8);
    Image* rp = p.guide ? &rowPenalty.image : nullptr;
    const Image *cost = &p.cost.image, *penalty = p.penalty ? &p.penalty->image : nullptr;
    if (shape == 0) {
        *r = penalty ? SgmCostAggregator_aggregateParallelVariablePenalty(
                           &agg.a, &pc->image, cost, p.guideImage(), p.P1, penalty, rp, p.D, paths)
                     : SgmCostAggregator_aggregateParallel(&agg.a, &pc->image, cost, p.guideImage(), rp, p.D,
                                                           p.P1, p.P2, paths);
        if (*r == TL_OK) *r = SgmCostAggregator_sumPaths(&agg.a, &out.image, &pc->image, p.D, paths);
        expectLayout(*pc, p, true);
    } else if (shape == 1) {
        *r = SgmCostAggregator_aggregate2wayParallel(&agg.a, &out.image, &second.image, cost, p.guideImage(),
                                                     &pc->image, rp, p.D, p.P1, p.P2, paths);
    } else {
        *r = penalty
                 ? SgmCostAggregator_aggregateSerialVariablePenalty(&agg.a, &out.image, cost, p.guideImage(),
                                                                    &pc->image, p.P1, penalty, rp, p.D, paths)
                 : SgmCostAggregator_aggregateSerial(&agg.a, &out.image, cost, p.guideImage(), &pc->image, rp,
                                                     p.D, p.P1, p.P2, paths);
    }
    EXPECT_TRUE(pc->canariesIntact() && out.canariesIntact() && rowPenalty.canariesIntact());
    std::vector<uint16_t> v(static_cast<size_t>(p.W) * p.H * E);
    for (size_t i = 0; i < v.size(); ++i) {  // with 8 paths the 2-way shape's backward half is in `second`
        const int32_t x = static_cast<int32_t>(i % (p.W * E)), y = static_cast<int32_t>(i / (p.W * E));
        v[i] = static_cast<uint16_t>(out.at<uint16_t>(x, y) +
                                     (shape == 1 && paths == 8 ? second.at<uint16_t>(x, y) : 0));
    }
    return v;
}

// Census costs 0 to 24; a guide of flat areas and steps; P2 sometimes below P1.
std::unique_ptr<Problem> randomProblem(std::mt19937& rng, int guideChannels, bool variable) {
    auto p =
        std::make_unique<Problem>(11 + static_cast<int32_t>(rng() % 9), 5 + static_cast<int32_t>(rng() % 7),
                                  8 * (1 + static_cast<int32_t>(rng() % 3)));
    for (int32_t i = 0; i < p->W * p->D * p->H; ++i)
        p->cost.u8(i % (p->W * p->D), i / (p->W * p->D)) = rng() % 25;
    if (guideChannels != 0) {
        std::vector<uint8_t> g(static_cast<size_t>(p->W) * p->H * guideChannels);
        for (auto& v : g) v = static_cast<uint8_t>((rng() % 4) * 40 + rng() % 3);
        p->setGuide(guideChannels, g);
    }
    if (variable) {
        p->penalty = std::make_unique<Picture>(p->W, p->H, IMAGE_FORMAT_UINT8);
        for (int32_t i = 0; i < p->W * p->H; ++i) p->penalty->u8(i % p->W, i / p->W) = 10 + rng() % 120;
    }
    p->P1 = static_cast<uint8_t>(1 + rng() % 6);
    p->P2 = static_cast<uint8_t>(rng() % 3 == 0 ? p->P1 - 1 : 10 + rng() % 60);
    return p;
}

}  // namespace

TEST(SgmCostAggregator, HandWorkedRecurrence) {
    // Two pixels, direction 0. C0 = 3 0 5 5..: L' = C0. C1 = 0 9 9 .. 9 1, P1 2, P2 4:
    //   k 0: min(min(sep, 0) + 2, 4, 3) + 0 = 2; k 1: min(3 + 2, 4, 0) + 9 = 9;
    //   k 2: min(0 + 2, 4, 5) + 9 = 11; k 3..6: 4 + 9 = 13; k 7: 4 + 1 = 5; minus 2.
    // P1 10, P2 3: the clamp comes after the penalty, a step of one costs P2:
    //   k 0: min(10, 3, 3) + 0 = 3; k 1: 0 + 9; k 2..6: 3 + 9 = 12; k 7: 3 + 1 = 4; minus 3.
    Problem p(2, 1, 8);
    const uint8_t cost[16] = {3, 0, 5, 5, 5, 5, 5, 5, 0, 9, 9, 9, 9, 9, 9, 1};
    for (int i = 0; i < 16; ++i) p.cost.u8(i, 0) = cost[i];
    Aggregator agg(2, 1);
    const struct {
        uint8_t P1, P2, want[8];
    } cases[] = {{2, 4, {0, 7, 9, 11, 11, 11, 11, 3}}, {10, 3, {0, 6, 9, 9, 9, 9, 9, 1}}};
    for (const auto& c : cases) {
        auto pc = preparedPathCosts(p, 4 * 2 + 1);
        ASSERT_EQ(SgmCostAggregator_aggregateParallel(&agg.a, &pc->image, &p.cost.image, nullptr, nullptr, 8,
                                                      c.P1, c.P2, 4),
                  TL_OK);
        // Pixel x of direction 0 at row 1, from byte (x + 1) * (D + 1) + 1.
        for (int k = 0; k < 8; ++k)
            EXPECT_TRUE(pc->u8(10 + k, 1) == cost[k] && pc->u8(19 + k, 1) == c.want[k]) << k;
        p.P1 = c.P1, p.P2 = c.P2;
        EXPECT_EQ(referencePath(p, 0)[8 + 7], c.want[7]);  // the reference agrees by hand
    }
}

TEST(SgmCostAggregator, ThreeShapesAgreeWithTheReferenceOnEveryPel) {
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    std::mt19937 rng(2026);
    for (int i = 0; i < 12 * vq_tl_test_scaled(3, 1); ++i) {  // guide channels 0 to 2, variable, 4 or 8 paths
        const int guide = i / 4 % 3, paths = i & 1 ? 8 : 4;
        const bool variable = (i & 2) != 0;
        auto p = randomProblem(rng, guide, variable);
        const std::vector<uint16_t> want = referenceVolume(*p, paths);
        for (int shape = 0; shape < 3; ++shape) {
            if (shape == 1 && variable) continue;  // the 2-way shape has no variable form
            for (Pel* pel : {static_cast<Pel*>(nullptr), &layers.pel, &layers.balanced}) {
                TLResult r;
                ASSERT_TRUE(runShape(*p, shape, paths, pel, &r) == want && r == TL_OK)
                    << "case " << i << " shape " << shape << " on pel " << (pel != nullptr);
            }
        }
    }
}

TEST(SgmCostAggregator, RefusalsWriteNothing) {
    // Layout, lane and path-count checks guard every write; a guide of another
    // format is passed over with TL_OK.
    Problem p(4, 3, 8);
    p.cost.fillPlanes(1);
    p.setGuide(1, std::vector<uint8_t>(12, 5));
    Aggregator agg(4, 3), fresh(4, 3);
    fresh.a.width = 0;  // as before init
    auto pc = preparedPathCosts(p, 8 * 4 + 1);
    auto ring = preparedPathCosts(p, 16);
    Picture rows(4, 8, IMAGE_FORMAT_UINT8), wideRows(4 * 8, 1, IMAGE_FORMAT_UINT8),
        floats(6, 5, IMAGE_FORMAT_FLOAT), v16(4 * 10, 3, IMAGE_FORMAT_UINT16),
        second(4 * 10, 3, IMAGE_FORMAT_UINT16), v8(4 * 10, 3, IMAGE_FORMAT_UINT8);
    const std::vector<uint8_t> planes = pc->storage, volume = v16.storage, bytes = v8.storage;
    const Image *cost = &p.cost.image, *g = p.guideImage();
    Image *r = &rows.image, *wr = &wideRows.image, *pl = &pc->image;
    auto par = [&](const Image* g, Image* rp, uint8_t D, uint8_t n, Image* pathCosts) {
        return SgmCostAggregator_aggregateParallel(&agg.a, pathCosts, cost, g, rp, D, 2, 20, n);
    };
    auto ser = [&](SgmCostAggregator* a, Image* out, const Image* g, Image* rp, uint8_t n) {
        return SgmCostAggregator_aggregateSerial(a, out, cost, g, &ring->image, rp, 8, 2, 20, n);
    };
    auto two = [&](Image* second, const Image* g, Image* rp) {
        return SgmCostAggregator_aggregate2wayParallel(&agg.a, &v16.image, second, cost, g, &ring->image, rp,
                                                       8, 2, 20, 8);
    };
    // Paths 3 and 16, D 12, guide and row penalty without each other, too few plane rows, 2-way ones.
    const TLResult got[] = {par(g, r, 8, 3, pl),
                            par(g, r, 8, 16, pl),
                            par(g, r, 12, 4, pl),
                            par(g, nullptr, 8, 4, pl),
                            par(nullptr, r, 8, 4, pl),
                            par(nullptr, nullptr, 8, 4, &ring->image),
                            two(nullptr, nullptr, nullptr),
                            two(&second.image, g, r)};
    for (TLResult e : got) EXPECT_EQ(e, TL_ERROR_PARAM) << &e - got;
    EXPECT_EQ(ser(&agg.a, &v16.image, g, wr, 16), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(ser(&agg.a, &v8.image, nullptr, nullptr, 8), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(ser(&fresh.a, &v16.image, nullptr, nullptr, 4), TL_ERROR_STATE);
    EXPECT_EQ(ser(&agg.a, &v16.image, &floats.image, wr, 8), TL_OK);
    EXPECT_TRUE(pc->storage == planes && v16.storage == volume && v8.storage == bytes);
}
