// Census transforms and the Hamming cost against plain implementations.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "stereo/sgm_cost_matcher.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

int32_t clampTo(int32_t v, int32_t n) { return v < 0 ? 0 : (v >= n ? n - 1 : v); }

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
    return census.image.format == IMAGE_FORMAT_UINT8 ? census.u8(x, y) : census.at<uint32_t>(x, y);
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

struct Matcher {
    SgmCostMatcher m;
    explicit Matcher(Pel* pel = nullptr) {
        construct_SgmCostMatcher(&m, nullptr), SgmCostMatcher_setPel(&m, pel);
    }
    ~Matcher() { destruct_SgmCostMatcher(&m); }
};

}  // namespace

TEST(SgmCostMatcher, CensusMatchesReferenceWithBorders) {
    Matcher t(&vq_tl_test::sharedLayers().pel);
    std::mt19937 rng(3);
    const int32_t sizes[][2] = {{1, 1}, {2, 5}, {4, 3}, {5, 5}, {19, 7}, {33, 21}};
    for (const auto& s : sizes) {
        Picture view(s[0], s[1], IMAGE_FORMAT_UINT8);
        view.fillRandom(rng);
        // Few grey levels, so that equal neighbours are common.
        for (int32_t i = 0; i < s[0] * s[1]; ++i) view.u8(i % s[0], i / s[0]) &= 0xC0;
        Picture c3(s[0], s[1], IMAGE_FORMAT_UINT8), c5(s[0], s[1], IMAGE_FORMAT_INT32);
        ASSERT_TRUE(SgmCostMatcher_censusTransform3x3(&t.m, &c3.image, &view.image) == TL_OK &&
                    SgmCostMatcher_censusTransform5x5(&t.m, &c5.image, &view.image) == TL_OK);
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
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    Matcher serial, onPel(&layers.pel), onBalanced(&layers.balanced);
    std::mt19937 rng(11);
    const int32_t w = 37, h = vq_tl_test_scaled(15, 9);
    struct Case {
        uint32_t format;
        int D, m, window;
        bool swapped, masked;
    };
    const Case cases[] = {
        {IMAGE_FORMAT_UINT8, 8, 0, 1, true, false},   {IMAGE_FORMAT_UINT8, 16, -4, 3, true, true},
        {IMAGE_FORMAT_UINT8, 24, -4, 5, false, true}, {IMAGE_FORMAT_UINT8, 8, 3, 7, false, false},
        {IMAGE_FORMAT_UINT8, 16, 2, 9, true, true},   {IMAGE_FORMAT_UINT8, 8, -2, 11, false, true},
        {IMAGE_FORMAT_INT32, 8, 0, 1, false, true},   {IMAGE_FORMAT_INT32, 16, -3, 9, true, false},
        {IMAGE_FORMAT_INT32, 24, 1, 21, true, true},  {IMAGE_FORMAT_INT32, 8, -9, 13, false, false},
        {IMAGE_FORMAT_INT32, 40, 0, 3, false, true},  // whole rows outside: W < D
    };
    for (const Case& c : cases) {
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
        for (SgmCostMatcher* m : {&serial.m, &onPel.m, &onBalanced.m}) {
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

TEST(SgmCostMatcher, RefusalsWriteNothing) {
    // Lanes of 8 candidates and the volume's width bound every write. Census of
    // another format is passed over with TL_OK (the driver calls both widths).
    Matcher t;
    Picture c1(16, 4, IMAGE_FORMAT_UINT8), c2(16, 4, IMAGE_FORMAT_UINT8), cost(16 * 8, 4, IMAGE_FORMAT_UINT8),
        wide(16, 4, IMAGE_FORMAT_INT32), floats(16, 4, IMAGE_FORMAT_FLOAT), narrow(15, 4, IMAGE_FORMAT_UINT8);
    std::mt19937 rng(2);
    cost.fillRandom(rng);
    const std::vector<uint8_t> before = cost.storage;
    auto run = [&](const Picture& a, const Picture& b, const Picture* mask, uint8_t D, int window) {
        return SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &a.image, &b.image,
                                                       mask ? &mask->image : nullptr, D, 0, window, 1);
    };
    EXPECT_EQ(run(floats, c2, nullptr, 8, 3), TL_OK);
    const TLResult got[] = {run(c1, c2, nullptr, 8, 0),     run(c1, c2, nullptr, 8, 2),
                            run(c1, c2, nullptr, 8, 257),   run(c1, wide, nullptr, 8, 3),
                            run(c1, narrow, nullptr, 8, 3), run(c1, c2, nullptr, 12, 3),
                            run(c1, c2, nullptr, 16, 3),    run(c1, c2, &narrow, 8, 3)};
    for (TLResult r : got) EXPECT_EQ(r, TL_ERROR_PARAM) << &r - got;
    EXPECT_EQ(cost.storage, before);
}
