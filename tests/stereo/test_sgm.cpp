// Sgm: census, Hamming costs, the aggregation in three shapes on every Pel and the winners against plain
// implementations; the driver on a stereogram in both modes on every layer; left-right checks and radial
// penalties by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/rank_filter.h"
#include "runtime/pel.h"
#include "stereo/sgm.h"
#include "stereo/sgm_cost_aggregator.h"
#include "stereo/sgm_cost_matcher.h"
#include "support/layers.h"
#include "support/owned.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Layers;
using vq_tl_test::Owned;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

int32_t clampTo(int32_t v, int32_t n) { return std::clamp(v, 0, n - 1); }

// Bits in raster order, set where a neighbour (edges repeated) exceeds the centre.
uint32_t referenceCensus(Picture& view, int32_t x, int32_t y, int r) {
    const int32_t w = view.image.width, h = view.image.height;
    const uint8_t c = view.u8(x, y);
    uint32_t word = 0;
    for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
            if (dx != 0 || dy != 0)
                word = (word << 1) | (view.u8(clampTo(x + dx, w), clampTo(y + dy, h)) > c ? 1u : 0u);
        }
    }
    return word;
}

uint32_t censusWord(Picture& census, int32_t x, int32_t y) {
    return static_cast<uint32_t>(vq_tl_test::elementOf(census.image, x, y));  // 24 bits at most
}

// Outside columns 24 (unmasked); inside the row window's least distance ANDed with the mask.
std::vector<uint8_t> referenceCost(Picture& c1, Picture& c2, Picture* mask, int D, int m, int window,
                                   bool swapped) {
    const int32_t w = c1.image.width, h = c1.image.height;
    Picture& base = swapped ? c1 : c2;
    Picture& match = swapped ? c2 : c1;
    const int dLow = swapped ? 1 - (m + D) : m, dHigh = dLow + D - 1, r = window / 2;
    std::vector<uint8_t> out(static_cast<size_t>(w) * D * h);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            const bool outside = x < -dLow || x >= w - dHigh;
            for (int k = 0; k < D; ++k) {
                int best = outside ? 24 : 99;
                for (int j = -r; j <= r && !outside; ++j) {
                    const int pc = __builtin_popcount(censusWord(base, x, y) ^
                                                      censusWord(match, x + dLow + k, clampTo(y + j, h)));
                    best = pc < best ? pc : best;
                }
                if (!outside && mask != nullptr) best &= mask->u8(x, y);
                out[(static_cast<size_t>(y) * w + x) * D + k] = static_cast<uint8_t>(best);
            }
        }
    }
    return out;
}

struct Matcher : Owned<SgmCostMatcher, construct_SgmCostMatcher, destruct_SgmCostMatcher> {
    explicit Matcher(Pel* pel = nullptr) { SgmCostMatcher_setPel(this, pel); }
};

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

// P2 with a guide: max(round(P2 / (1 + g)), P1 + 1), g the step to the previous pixel; UINT88 averages two.
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

struct Aggregator : Owned<SgmCostAggregator, construct_SgmCostAggregator, destruct_SgmCostAggregator> {
    Aggregator(int32_t w, int32_t h, Pel* pel = nullptr) {
        SgmCostAggregator_init(this, w, h), SgmCostAggregator_setPel(this, pel);
    }
};

// The path work image: a 255 separator every D + 1 bytes, the rest 0; aggregation leaves borders alone.
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
                           &agg, &pc->image, cost, p.guideImage(), p.P1, penalty, rp, p.D, paths)
                     : SgmCostAggregator_aggregateParallel(&agg, &pc->image, cost, p.guideImage(), rp, p.D,
                                                           p.P1, p.P2, paths);
        if (*r == TL_OK) *r = SgmCostAggregator_sumPaths(&agg, &out.image, &pc->image, p.D, paths);
        expectLayout(*pc, p, true);
    } else if (shape == 1) {
        *r = SgmCostAggregator_aggregate2wayParallel(&agg, &out.image, &second.image, cost, p.guideImage(),
                                                     &pc->image, rp, p.D, p.P1, p.P2, paths);
    } else {
        *r = penalty ? SgmCostAggregator_aggregateSerialVariablePenalty(
                           &agg, &out.image, cost, p.guideImage(), &pc->image, p.P1, penalty, rp, p.D, paths)
                     : SgmCostAggregator_aggregateSerial(&agg, &out.image, cost, p.guideImage(), &pc->image,
                                                         rp, p.D, p.P1, p.P2, paths);
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
std::unique_ptr<Problem> randomProblem(std::mt19937& rng, int guideChannels, bool variable, int32_t W,
                                       int32_t H, int32_t D) {
    auto p = std::make_unique<Problem>(W, H, D);
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

std::unique_ptr<Problem> randomProblem(std::mt19937& rng, int guideChannels, bool variable) {
    const int32_t W = 11 + static_cast<int32_t>(rng() % 9), H = 5 + static_cast<int32_t>(rng() % 7);
    return randomProblem(rng, guideChannels, variable, W, H, 8 * (1 + static_cast<int32_t>(rng() % 3)));
}

// Base-view disparity: top half 9.25, bottom half slanted 5 to 13, a rectangle at 16 in front. The
// match camera sees world column u at u + sign * disparity (sign -1: swapped), `vShift` rows off.
// Texture: a random grid of 2.5 px, bilinear: both views sample one continuous picture.
struct Scene {
    int32_t W, H, gw;
    int sign, vShift;
    float rx0, rx1, ry0, ry1;
    std::vector<float> grid;  // covers [-2 W, 3 W) by [-2 H, 3 H)
    Picture base, match, guide;

    Scene(std::mt19937& rng, int32_t w, int32_t h, int swapped, int v)
        : base(w, h, IMAGE_FORMAT_UINT8), match(w, h, IMAGE_FORMAT_UINT8), guide(w, h, IMAGE_FORMAT_UINT88) {
        W = w, H = h, gw = 2 * w + 3, sign = swapped ? -1 : 1, vShift = v;
        grid.resize(static_cast<size_t>(gw) * (2 * h + 3));
        for (float& g : grid) g = static_cast<float>(rng() % 256);
        // Room for the occluded band beside the rectangle, inside the columns.
        rx0 = (sign < 0 ? 0.55f : 0.2f) * W, rx1 = rx0 + 0.25f * W, ry0 = 0.3f * H, ry1 = 0.7f * H;
        for (int32_t y = 0; y < H; ++y) {
            for (int32_t x = 0; x < W; ++x) {
                base.u8(x, y) = static_cast<uint8_t>(texture(x, y) + 0.5f);
                match.u8(x, y) = static_cast<uint8_t>(texture(seenByMatch(x, y + vShift), y + vShift) + 0.5f);
                const bool rect = inRectangle(static_cast<float>(x), y);
                guide.at<uint8_t>(2 * x, y) = rect ? 90 : slanted(y) ? 128 : 140;
                guide.at<uint8_t>(2 * x + 1, y) = rect ? 170 : slanted(y) ? 128 : 110;
            }
        }
    }
    float texture(float u, float v) const {
        const float fu = (u + 2.0f * W) / 2.5f, fv = (v + 2.0f * H) / 2.5f;
        const int32_t i = static_cast<int32_t>(std::floor(fu)), j = static_cast<int32_t>(std::floor(fv));
        const float s = fu - i, t = fv - j;
        auto g = [&](int32_t a, int32_t b) { return grid[static_cast<size_t>(b) * gw + a]; };
        return (1 - t) * ((1 - s) * g(i, j) + s * g(i + 1, j)) +
               t * ((1 - s) * g(i, j + 1) + s * g(i + 1, j + 1));
    }
    bool inRectangle(float u, int32_t y) const { return y >= ry0 && y < ry1 && u >= rx0 && u < rx1; }
    bool slanted(int32_t y) const { return y >= H / 2; }
    float truth(int32_t x, int32_t y) const {
        return inRectangle(static_cast<float>(x), y) ? 16.0f : slanted(y) ? 5.0f + 8.0f * x / W : 9.25f;
    }
    // World column the match camera sees at x (nearest surface).
    float seenByMatch(float x, int32_t y) const {
        const float u = x - sign * 16.0f;
        return inRectangle(u, y) ? u
               : slanted(y)      ? (x - sign * 5.0f) / (1.0f + sign * 8.0f / W)
                                 : x - sign * 9.25f;
    }
    bool inMatchView(int32_t x, int32_t y) const {
        const float xm = x + sign * truth(x, y);
        return xm >= 0 && xm <= W - 1 && y - vShift >= 0 && y - vShift < H;
    }
    bool visible(int32_t x, int32_t y) const {
        return inMatchView(x, y) && std::fabs(seenByMatch(x + sign * truth(x, y), y) - x) < 0.01f;
    }
    bool occluded(int32_t x, int32_t y) const { return inMatchView(x, y) && !visible(x, y); }
    Image* view1() { return sign < 0 ? &base.image : &match.image; }
    Image* view2() { return sign < 0 ? &match.image : &base.image; }
};

using SgmObject = Owned<Sgm, construct_Sgm, destruct_Sgm>;

}  // namespace

TEST(SgmCostMatcher, CensusMatchesReferenceWithBorders) {
    Matcher t(&sharedLayers().pel);
    std::mt19937 rng(3);
    const int32_t sizes[][2] = {{1, 1}, {2, 5}, {4, 3}, {5, 5}, {19, 7}, {33, 21}};
    for (const auto& s : sizes) {
        Picture view(s[0], s[1], IMAGE_FORMAT_UINT8);
        view.fillRandom(rng);
        // Few grey levels, so that equal neighbours are common.
        for (int32_t i = 0; i < s[0] * s[1]; ++i) view.u8(i % s[0], i / s[0]) &= 0xC0;
        Picture c3(s[0], s[1], IMAGE_FORMAT_UINT8), c5(s[0], s[1], IMAGE_FORMAT_INT32);
        ASSERT_TRUE(SgmCostMatcher_censusTransform3x3(&t, &c3.image, &view.image) == TL_OK &&
                    SgmCostMatcher_censusTransform5x5(&t, &c5.image, &view.image) == TL_OK);
        for (int32_t i = 0; i < s[0] * s[1]; ++i) {
            const int32_t x = i % s[0], y = i / s[0];
            ASSERT_TRUE(c3.u8(x, y) == referenceCensus(view, x, y, 1) &&
                        c5.at<uint32_t>(x, y) == referenceCensus(view, x, y, 2))
                << s[0] << "x" << s[1] << " at " << x << "," << y;
        }
        EXPECT_TRUE(c3.canariesIntact() && c5.canariesIntact());
    }
}

TEST(SgmCostMatcher, HammingMatchesReferenceForEveryWindow) {
    Layers& layers = sharedLayers();
    Matcher serial, onPel(&layers.pel), onBalanced(&layers.balanced);
    std::mt19937 rng(11);
    const int32_t w = 37, h = vq_tl_test_scaled(15, 9);
    const struct {
        uint32_t format;
        int D, m, window;
        bool swapped, masked;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, 8, 0, 1, true, false},   {IMAGE_FORMAT_UINT8, 16, -4, 3, true, true},
        {IMAGE_FORMAT_UINT8, 24, -4, 5, false, true}, {IMAGE_FORMAT_UINT8, 8, 3, 7, false, false},
        {IMAGE_FORMAT_UINT8, 16, 2, 9, true, true},   {IMAGE_FORMAT_UINT8, 8, -2, 11, false, true},
        {IMAGE_FORMAT_INT32, 8, 0, 1, false, true},   {IMAGE_FORMAT_INT32, 16, -3, 9, true, false},
        {IMAGE_FORMAT_INT32, 24, 1, 21, true, true},  {IMAGE_FORMAT_INT32, 8, -9, 13, false, false},
        {IMAGE_FORMAT_INT32, 40, 0, 3, false, true},  // whole rows outside: W < D
    };
    for (const auto& c : cases) {
        Picture c1(w, h, c.format), c2(w, h, c.format), mask(w, h, IMAGE_FORMAT_UINT8);
        c1.fillRandom(rng);
        c2.fillRandom(rng);
        for (int32_t i = 0; i < w * h; ++i) {
            if (c.format == IMAGE_FORMAT_INT32)  // 24 significant bits
                c1.at<uint32_t>(i % w, i / w) &= 0xFFFFFF, c2.at<uint32_t>(i % w, i / w) &= 0xFFFFFF;
            mask.u8(i % w, i / w) = rng() % 3 == 0 ? 0 : 255;
        }
        const std::vector<uint8_t> want =
            referenceCost(c1, c2, c.masked ? &mask : nullptr, c.D, c.m, c.window, c.swapped);
        for (SgmCostMatcher* m : {&serial, &onPel, &onBalanced}) {
            Picture cost(w * c.D, h, IMAGE_FORMAT_UINT8);
            ASSERT_EQ(SgmCostMatcher_calculateHammingDistance(m, &cost.image, &c1.image, &c2.image,
                                                              c.masked ? &mask.image : nullptr, c.D, c.m,
                                                              c.window, c.swapped),
                      TL_OK);
            for (int32_t y = 0; y < h; ++y)
                for (int32_t i = 0; i < w * c.D; ++i)
                    ASSERT_EQ(cost.u8(i, y), want[static_cast<size_t>(y) * w * c.D + i])
                        << &c - cases << " " << i << "," << y;
            EXPECT_TRUE(cost.canariesIntact());
        }
    }
}

TEST(SgmCostAggregator, ThreeShapesAgreeWithTheReferenceOnEveryPel) {
    Layers& layers = sharedLayers();
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

// Rows of more than 512 pixels: the aggregator walks the chain directions in runs of 512, two rows at a
// time, and the runs must join up as one walk; odd heights leave a single last row.
TEST(SgmCostAggregator, LongRowsAgreeWithTheReference) {
    Layers& layers = sharedLayers();
    std::mt19937 rng(1123);
    const struct {
        int guide;
        bool variable;
        int32_t W, H, D, paths;
    } cases[] = {{2, false, 1100, 3, 24, 4}, {0, true, 1030, 4, 64, 8}, {1, false, 513, 3, 8, 8}};
    for (const auto& c : cases) {
        auto p = randomProblem(rng, c.guide, c.variable, c.W, c.H, c.D);
        const std::vector<uint16_t> want = referenceVolume(*p, c.paths);
        for (int shape = 0; shape < 3; ++shape) {
            if (shape == 1 && c.variable) continue;
            TLResult r;
            EXPECT_TRUE(runShape(*p, shape, c.paths, &layers.pel, &r) == want && r == TL_OK)
                << "width " << c.W << " shape " << shape;
        }
    }
}

TEST(SgmCostAggregator, RefusalsWriteNothing) {
    // Layout, lane and path-count checks guard every write; a guide of another format passes with TL_OK.
    Problem p(4, 3, 8);
    p.cost.fillPlanes(1);
    p.setGuide(1, std::vector<uint8_t>(12, 5));
    Aggregator agg(4, 3), fresh(4, 3);
    fresh.width = 0;  // as before init
    auto pc = preparedPathCosts(p, 8 * 4 + 1);
    auto ring = preparedPathCosts(p, 16);
    Picture rows(4, 8, IMAGE_FORMAT_UINT8), wideRows(4 * 8, 1, IMAGE_FORMAT_UINT8),
        floats(6, 5, IMAGE_FORMAT_FLOAT), v16(4 * 10, 3, IMAGE_FORMAT_UINT16),
        second(4 * 10, 3, IMAGE_FORMAT_UINT16), v8(4 * 10, 3, IMAGE_FORMAT_UINT8);
    const std::vector<uint8_t> planes = pc->storage, volume = v16.storage, bytes = v8.storage;
    const Image *cost = &p.cost.image, *g = p.guideImage();
    Image *r = &rows.image, *wr = &wideRows.image, *pl = &pc->image;
    auto par = [&](const Image* g, Image* rp, uint8_t D, uint8_t n, Image* pathCosts) {
        return SgmCostAggregator_aggregateParallel(&agg, pathCosts, cost, g, rp, D, 2, 20, n);
    };
    auto ser = [&](SgmCostAggregator* a, Image* out, const Image* g, Image* rp, uint8_t n) {
        return SgmCostAggregator_aggregateSerial(a, out, cost, g, &ring->image, rp, 8, 2, 20, n);
    };
    auto two = [&](Image* second, const Image* g, Image* rp) {
        return SgmCostAggregator_aggregate2wayParallel(&agg, &v16.image, second, cost, g, &ring->image, rp, 8,
                                                       2, 20, 8);
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
    EXPECT_EQ(ser(&agg, &v16.image, g, wr, 16), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(ser(&agg, &v8.image, nullptr, nullptr, 8), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(ser(&fresh, &v16.image, nullptr, nullptr, 4), TL_ERROR_STATE);
    EXPECT_EQ(ser(&agg, &v16.image, &floats.image, wr, 8), TL_OK);
    EXPECT_TRUE(pc->storage == planes && v16.storage == volume && v8.storage == bytes);
}

TEST(Sgm, RecoversPiecewisePlanarStereogram) {
    const struct {
        uint32_t mode, swapped;
        int m, D, f, window, vShift;
    } cases[] = {
        {0, 1, -4, 24, 3, 9, 3}, {1, 1, 0, 32, 2, 21, -7}, {0, 0, 2, 24, 3, 9, -2}, {1, 0, -3, 24, 2, 21, 6}};
    std::mt19937 rng(424242);
    const int32_t W = vq_tl_test_scaled(200, 120), H = vq_tl_test_scaled(120, 72);
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Scene scene(rng, W, H, c.swapped, c.vShift);
        Picture mask(W, H, IMAGE_FORMAT_UINT8), d1(W, H, IMAGE_FORMAT_UINT8), d2(W, H, IMAGE_FORMAT_UINT8),
            conf(W, H, IMAGE_FORMAT_UINT8), s1(W, H, IMAGE_FORMAT_FLOAT), s2(W, H, IMAGE_FORMAT_FLOAT);
        mask.fillPlanes(255);
        const int8_t m = static_cast<int8_t>(c.m);
        SgmObject o;
        Sgm* g = &o;
        const Image *v1 = scene.view1(), *v2 = scene.view2(), *guide = &scene.guide.image;
        ASSERT_EQ(Sgm_init(g, W, H, c.D, c.mode), TL_OK);
        ASSERT_EQ(Sgm_createDisparityU8(g, &d1.image, &d2.image, v1, v2, &mask.image, guide, c.D, m, c.window,
                                        c.f, 5, 40, 1, c.swapped),
                  TL_OK);
        ASSERT_EQ(
            Sgm_createConfidenceU8(g, &conf.image, &d1.image, &d2.image, c.D, m, c.f, 1, 0, 255, c.swapped),
            TL_OK);
        // The same maps on two of the shared layers by turns, from an object made for more candidates than
        // asked and called twice.
        for (const int turn : {0, 1}) {
            const ImageStripeExec e =
                sharedLayers().exec((2 * static_cast<int>(&c - cases) + turn) % Layers::kCount);
            SgmObject other;
            Sgm_setPel(&other, e.pel), Sgm_setParallelExecutor(&other, e.executor);
            ASSERT_EQ(Sgm_init(&other, W, H, c.D + 8, c.mode), TL_OK);
            for (int call = 0; call < 2; ++call) {
                Picture e1(W, H, IMAGE_FORMAT_UINT8), e2(W, H, IMAGE_FORMAT_UINT8);
                EXPECT_TRUE(Sgm_createDisparityU8(&other, &e1.image, &e2.image, v1, v2, &mask.image, guide,
                                                  c.D, m, c.window, c.f, 5, 40, 1, c.swapped) == TL_OK &&
                            e1.samePixels(d1) && e2.samePixels(d2))
                    << turn << " " << call;
            }
        }
        // One map at a time gives the same map as both together; one picture
        // given as both ends as the match view's map (written second).
        {
            Picture e1(W, H, IMAGE_FORMAT_UINT8), e2(W, H, IMAGE_FORMAT_UINT8),
                same(W, H, IMAGE_FORMAT_UINT8);
            const auto run = [&](Image* a, Image* b) {
                return Sgm_createDisparityU8(g, a, b, v1, v2, &mask.image, guide, c.D, m, c.window, c.f, 5,
                                             40, 1, c.swapped);
            };
            EXPECT_TRUE(run(&e1.image, nullptr) == TL_OK && run(nullptr, &e2.image) == TL_OK &&
                        run(&same.image, &same.image) == TL_OK);
            EXPECT_TRUE(e1.samePixels(d1) && e2.samePixels(d2) && same.samePixels(c.swapped ? d2 : d1));
            // The steps one at a time (the volume summed in its own pass, each view's winners in theirs,
            // then the medians) give the same maps as the call that sums and selects row by row.
            Picture cost(W * c.D, H, IMAGE_FORMAT_UINT8),
                volume(W * (c.D + 2), H, c.mode == 0 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_UINT16);
            Owned<ImageProc, construct_ImageProc, destruct_ImageProc> proc;
            ASSERT_TRUE(ImageProc_init(&proc) == TL_OK &&
                        Sgm_computeCost(g, &cost.image, v1, v2, &mask.image, c.D, m, c.window, c.swapped) ==
                            TL_OK &&
                        Sgm_aggregate(g, &volume.image, &cost.image, guide, 1, c.D, 5, 40) == TL_OK);
            for (const int matchView : {0, 1}) {
                Picture& step = (matchView != 0) == (c.swapped != 0) ? e2 : e1;
                EXPECT_TRUE(Sgm_selectDisparity(g, &step.image, &volume.image, c.D, m, c.f, 0, c.swapped,
                                                matchView) == TL_OK &&
                            ImageProc_filterMedian3x3(&proc, &step.image, &step.image, 0) == TL_OK);
            }
            EXPECT_TRUE(e1.samePixels(d1) && e2.samePixels(d2));
        }
        Picture& map = c.swapped ? d1 : d2;
        // Columns whose every candidate lies inside the match view.
        const int dLow = c.swapped ? 1 - (c.m + c.D) : c.m, dHigh = dLow + c.D - 1;
        int good = 0, counted = 0, occludedCount = 0, occludedFailed = 0, visiblePassed = 0;
        std::vector<float> slantErrors;
        for (int32_t y = 0; y < H; ++y) {
            for (int32_t x = std::max(0, -dLow); x < std::min(W, W - dHigh); ++x) {
                // The band without its edge pixels, whose visibility turns within a pixel.
                if (scene.occluded(x - 1, y) && scene.occluded(x, y) && scene.occluded(x + 1, y))
                    ++occludedCount, occludedFailed += conf.u8(x, y) == 0;
                if (!scene.visible(x, y)) continue;
                const float error =
                    std::fabs(c.m + map.u8(x, y) / static_cast<float>(1 << c.f) - scene.truth(x, y));
                ++counted, good += error <= 1.0f, visiblePassed += conf.u8(x, y) == 255;
                if (scene.slanted(y) && !scene.inRectangle(static_cast<float>(x), y))
                    slantErrors.push_back(error);
            }
        }
        std::nth_element(slantErrors.begin(), slantErrors.begin() + slantErrors.size() / 2,
                         slantErrors.end());
        EXPECT_TRUE(good >= 0.95 * counted && visiblePassed >= 0.9 * counted)
            << good << " " << visiblePassed << " " << counted;
        EXPECT_LT(slantErrors[slantErrors.size() / 2], 0.25f) << "median error on the slanted plane";
        // The few that pass sit next to the occluder's edge column in the match view.
        EXPECT_TRUE(occludedCount > 0 && occludedFailed >= 0.85 * occludedCount)
            << occludedFailed << " " << occludedCount;
        // The float maps are the byte maps before truncation.
        ASSERT_EQ(Sgm_createDisparityF32(g, &s1.image, &s2.image, v1, v2, &mask.image, guide, c.D, m,
                                         c.window, 5, 40, 1, c.swapped, 1),
                  TL_OK);
        auto fixed = [&](Picture& p, int32_t i) {
            return static_cast<uint8_t>(static_cast<int32_t>(p.at<float>(i % W, i / W) * (1 << c.f)));
        };
        for (int32_t i = 0; i < W * H; ++i)
            ASSERT_TRUE(d1.u8(i % W, i / W) == fixed(s1, i) && d2.u8(i % W, i / W) == fixed(s2, i)) << i;
    }
}

namespace {

// An aggregated volume of W pixels by H rows, D + 2 entries each (pads mirrored).
struct Volume {
    Picture p;
    int32_t D;
    bool u8;
    Volume(int32_t w, int32_t h, int32_t d, uint32_t f)
        : p(w * (d + 2), h, f), D(d), u8(f == IMAGE_FORMAT_UINT8) {}
    uint32_t get(int32_t x, int32_t y, int32_t e) {
        return u8 ? p.u8(x * (D + 2) + e, y) : p.at<uint16_t>(x * (D + 2) + e, y);
    }
    void set(int32_t x, int32_t y, int32_t e, uint32_t v) {
        u8 ? void(p.u8(x * (D + 2) + e, y) = static_cast<uint8_t>(v))
           : void(p.at<uint16_t>(x * (D + 2) + e, y) = static_cast<uint16_t>(v));
    }
    void pads() {
        for (int32_t y = 0; y < p.image.height; ++y)
            for (int32_t x = 0; x < p.image.width / (D + 2); ++x)
                set(x, y, 0, get(x, y, 2)), set(x, y, D + 1, get(x, y, D - 1));
    }
};

// The winner: smallest key of the valid slots, neighbours mirrored at the run's ends, fit in float.
float referenceWinner(Volume& v, int32_t x, int32_t y, int32_t W, int m, int f, int swapped, bool matchView,
                      bool asFloat) {
    const int D = v.D;
    std::vector<int> slots;
    std::vector<uint32_t> cost(D);
    for (int k = 0; k < D; ++k) {
        const int32_t xb = !matchView ? x : swapped ? x + m + D - 1 - k : x - m - k;
        if (xb >= 0 && xb < W) slots.push_back(k), cost[k] = v.get(xb, y, k + 1);
    }
    int value = 0, a = 0, b = 0;
    if (!slots.empty()) {
        uint64_t best = ~0ull;
        for (int k : slots) best = std::min(best, (uint64_t{cost[k]} << 8) + (swapped ? D - 1 - k : k));
        value = static_cast<int>(best & 0xFF);
        const int ks = swapped ? D - 1 - value : value, lo = slots.front(), hi = slots.back();
        const int left = ks > lo ? ks - 1 : (ks < hi ? ks + 1 : ks),
                  right = ks < hi ? ks + 1 : (ks > lo ? ks - 1 : ks);
        const uint32_t wrap = v.u8 ? 0xFF : 0xFFFF;
        a = static_cast<int>((cost[left] - cost[ks]) & wrap),
        b = static_cast<int>((cost[right] - cost[ks]) & wrap);
    }
    if (asFloat) {
        if (f == 0) return static_cast<float>(swapped ? D + m - 1 - value : value);
        const float o = static_cast<float>(a - b) * 0.5f / (static_cast<float>(a + b) + 1e-9f);
        return swapped ? value - o : value + o;
    }
    if (f == 0) return static_cast<float>(value);
    const float o = static_cast<float>((a - b) * (1 << (f - 1))) / (static_cast<float>(a + b) + 1e-9f);
    const float whole = static_cast<float>(value << f);
    return static_cast<float>(static_cast<uint8_t>(static_cast<int32_t>(swapped ? whole - o : whole + o)));
}

}  // namespace

TEST(Sgm, WinnerMatchesReferenceInBothViews) {
    std::mt19937 rng(99);
    const int32_t W = 23, H = 3;
    for (uint32_t format : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16}) {
        for (int D : {8, 16}) {
            SgmObject o;
            ASSERT_EQ(Sgm_init(&o, W, H, D, 1), TL_OK);
            for (int m : {-5, 0, 3}) {
                Volume v(W, H, D, format);
                // Three levels at m 0: ties for the least cost, flat neighbours (a fit of 0 / 0).
                for (int32_t i = 0; i < W * H * D; ++i)
                    v.set(i / D % W, i / D / W, 1 + i % D, rng() % (m == 0 ? 3 : v.u8 ? 40 : 300));
                v.pads();
                for (int mode = 0; mode < 8; ++mode) {
                    const int swapped = mode & 1, matchView = (mode >> 1) & 1, f = mode & 4 ? 3 : 0;
                    Picture map(W, H, IMAGE_FORMAT_UINT8), fmap(W, H, IMAGE_FORMAT_FLOAT);
                    ASSERT_TRUE(Sgm_selectDisparity(&o, &map.image, &v.p.image, D, m, f, 0, swapped,
                                                    matchView) == TL_OK &&
                                Sgm_selectDisparity(&o, &fmap.image, &v.p.image, D, m, 0, f != 0, swapped,
                                                    matchView) == TL_OK);
                    for (int32_t i = 0; i < W * H; ++i) {
                        const int32_t x = i % W, y = i / W;
                        ASSERT_TRUE(map.u8(x, y) ==
                                        referenceWinner(v, x, y, W, m, f, swapped, matchView, false) &&
                                    fmap.at<float>(x, y) ==
                                        referenceWinner(v, x, y, W, m, f, swapped, matchView, true))
                            << format << " D " << D << " m " << m << " mode " << mode << " x " << x;
                    }
                    EXPECT_TRUE(map.canariesIntact() && fmap.canariesIntact());
                }
            }
        }
    }
}

TEST(Sgm, LeftRightCheckHandWorked) {
    SgmObject o;
    ASSERT_EQ(Sgm_init(&o, 8, 1, 8, 0), TL_OK);
    const struct {
        int swapped, m, f;
        uint8_t base[8], match[8], want[8];  // want: 1 pass, 0 fail
    } cases[] = {
        // Swapped, f 3: x 3, u 16 (2 px) reads o(1) = 17: e 1 <= 8; x 4 reads 25: e 9. x 5, u 13
        // (1.625 px) reads o(3) = 9: e 4. x 1 (u 16) and x 6 (u 255) fall outside. u 0: o(x).
        {1, 0, 3, {0, 16, 0, 16, 16, 13, 255, 0}, {0, 17, 25, 9, 0, 0, 0, 30}, {1, 0, 0, 1, 0, 1, 0, 0}},
        // m 1: x 1, u 12 (1.5 px): (4 o(4) + 4 o(3)) >> 3 = 12: e 0; x 2 from 0 and 14: 7, e 5;
        // x 0, u 40 reads o(6) = 30: e 10; x 6 (u 8) and x 7 (u 0) read column 8: fail.
        {0, 1, 3, {40, 12, 12, 0, 0, 0, 8, 0}, {0, 0, 0, 10, 14, 0, 30, 0}, {0, 1, 1, 0, 1, 0, 0, 0}},
        // f 0 passes only strictly below the threshold: e 1 at x 2 fails.
        {0, 0, 0, {1, 2, 3, 4, 0, 0, 0, 0}, {0, 1, 2, 4, 0, 4, 0, 0}, {1, 0, 0, 0, 1, 0, 1, 1}},
        // Swapped, m -2: u 0 at x 6 and 7 would read columns 8 and 9: fail.
        {1, -2, 0, {0, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 0, 0}},
        // m -1: x 0, u 6 (0.75 px): floor column -1 outside, the edge pixel stands in: 6.
        {0, -1, 3, {6, 0, 0, 0, 0, 0, 0, 0}, {6, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 1, 1}},
        // With fraction bits e equal to the limit passes: x 0, u 8 reads o(1) = 0: e 8.
        {0, 0, 3, {8, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 1, 1}},
    };
    for (const auto& c : cases) {
        Picture base(8, 1, IMAGE_FORMAT_UINT8), match(8, 1, IMAGE_FORMAT_UINT8),
            conf(8, 1, IMAGE_FORMAT_UINT8);
        for (int x = 0; x < 8; ++x) base.u8(x, 0) = c.base[x], match.u8(x, 0) = c.match[x];
        ASSERT_EQ(Sgm_createConfidenceU8(&o, &conf.image, c.swapped ? &base.image : &match.image,
                                         c.swapped ? &match.image : &base.image, 8, static_cast<int8_t>(c.m),
                                         c.f, 1, 0, 255, c.swapped),
                  TL_OK);
        for (int x = 0; x < 8; ++x) EXPECT_EQ(conf.u8(x, 0), c.want[x] ? 255 : 0) << &c - cases << " x " << x;
        EXPECT_TRUE(conf.canariesIntact());
    }
}

TEST(Sgm, RadialPenaltyHandWorked) {
    // 8 by 4, rows stretched by 2; norm hypot(4, 4) = 5.657. (4, 0, 1): corner at dist norm: scale 4, 160;
    // (0, 2) at dist 4: 1 + 3 * 4 / 5.657 = 3.121: 124.85 -> 125; centre 40. (4, 0.4, 0.8): slope 7.5; (0,
    // 2): 1 - 3 + 7.5 * 0.7071 = 3.303: 132.1 -> 132; centre clamps to 1, corner to 4. P2 100 saturates.
    SgmObject o;
    ASSERT_EQ(Sgm_init(&o, 8, 4, 8, 1), TL_OK);
    Picture p(8, 4, IMAGE_FORMAT_UINT8);
    const struct {
        uint8_t P2;
        float lo, hi;
        int corner, edge, centre;
    } cases[] = {
        {40, 0.0f, 1.0f, 160, 125, 40}, {40, 0.4f, 0.8f, 160, 132, 40}, {100, 0.0f, 1.0f, 255, 255, 100}};
    for (const auto& c : cases) {
        ASSERT_EQ(Sgm_makeRadialPenalty(&o, &p.image, c.P2, 4.0f, c.lo, c.hi), TL_OK);
        EXPECT_TRUE(p.u8(0, 0) == c.corner && p.u8(0, 2) == c.edge && p.u8(4, 2) == c.centre)
            << c.P2 << " " << c.lo;
    }
    EXPECT_EQ(Sgm_makeRadialPenalty(&o, &p.image, 40, 4.0f, 0.5f, 0.5f), TL_ERROR_PARAM);
    EXPECT_TRUE(p.canariesIntact());
}

// The driver's and the cost matcher's refusals write nothing. The matcher's lanes of 8 candidates and the
// volume's width bound its writes; a census of another format passes with TL_OK.
TEST(Sgm, RefusalsWriteNothing) {
    const int32_t W = 32, H = 8;
    Picture v1(W, H, IMAGE_FORMAT_UINT8), v2(W, H, IMAGE_FORMAT_UINT8), d1(W, H, IMAGE_FORMAT_UINT8),
        d2(W, H, IMAGE_FORMAT_UINT8), f1(W, H, IMAGE_FORMAT_FLOAT), small(W - 1, H, IMAGE_FORMAT_UINT8),
        conf(W, H, IMAGE_FORMAT_UINT8), cost(W * 8, H, IMAGE_FORMAT_UINT8), wide(W, H, IMAGE_FORMAT_INT32);
    d1.fillPlanes(0xEE);
    conf.fillPlanes(0xEE);
    cost.fillPlanes(0xEE);
    const std::vector<uint8_t> map = d1.storage, confidence = conf.storage, costs = cost.storage;
    Matcher t;
    auto hamming = [&](const Picture& a, const Picture& b, const Picture* mask, uint8_t D, int window) {
        return SgmCostMatcher_calculateHammingDistance(&t, &cost.image, &a.image, &b.image,
                                                       mask ? &mask->image : nullptr, D, 0, window, 1);
    };
    EXPECT_EQ(hamming(f1, v2, nullptr, 8, 3), TL_OK);
    const TLResult matcher[] = {hamming(v1, v2, nullptr, 8, 0),    hamming(v1, v2, nullptr, 8, 2),
                                hamming(v1, v2, nullptr, 8, 257),  hamming(v1, wide, nullptr, 8, 3),
                                hamming(v1, small, nullptr, 8, 3), hamming(v1, v2, nullptr, 12, 3),
                                hamming(v1, v2, nullptr, 16, 3),   hamming(v1, v2, &small, 8, 3)};
    for (TLResult r : matcher) EXPECT_EQ(r, TL_ERROR_PARAM) << "matcher " << &r - matcher;
    SgmObject o;
    const Image *v = &v1.image, *sm = &small.image;
    auto run = [&](const Image* x1, const Image* mask, int useGuide, uint32_t n, int window, int f) {
        return Sgm_createDisparityU8(&o, &d1.image, nullptr, x1, &v2.image, mask, nullptr, n, 0, window, f, 5,
                                     40, useGuide, 1);
    };
    EXPECT_EQ(run(v, nullptr, 0, 24, 3, 3), TL_ERROR_STATE);  // before init
    EXPECT_EQ(Sgm_init(&o, W, H, 129, 0), TL_ERROR_PARAM);
    ASSERT_EQ(Sgm_init(&o, W, H, 21, 1), TL_OK);  // 21 rounds to 24
    // 25 candidates round to 32 > 24; window 10; 8 fraction bits; sizes; a guide asked, none given.
    const TLResult got[] = {run(v, nullptr, 0, 25, 3, 3), run(v, nullptr, 0, 24, 10, 3),
                            run(v, nullptr, 0, 24, 3, 8), run(sm, nullptr, 0, 24, 3, 3),
                            run(v, sm, 0, 24, 3, 3),      run(v, nullptr, 1, 24, 3, 3)};
    for (TLResult r : got) EXPECT_EQ(r, TL_ERROR_PARAM) << &r - got;
    EXPECT_TRUE(Sgm_createConfidenceU8(&o, &conf.image, &f1.image, &d2.image, 24, 0, 3, 1, 0, 255, 1) ==
                    TL_ERROR_UNSUPPORTED &&
                Sgm_createConfidenceU8(&o, &conf.image, &d2.image, sm, 24, 0, 3, 1, 0, 255, 1) ==
                    TL_ERROR_PARAM);
    EXPECT_TRUE(d1.storage == map && conf.storage == confidence && cost.storage == costs);
    EXPECT_EQ(Sgm_recycle(&o), TL_OK);
    EXPECT_EQ(run(v, nullptr, 0, 24, 3, 3), TL_ERROR_STATE);
}
