// Census transforms and the Hamming cost against plain implementations
// written here, hand-worked census words, the row window and the bounds.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "support/picture.h"
#include "stereo/sgm_cost_matcher.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

int32_t clampTo(int32_t v, int32_t n) { return v < 0 ? 0 : (v >= n ? n - 1 : v); }

uint32_t referenceCensus(Picture& view, int32_t x, int32_t y, int r) {
    const int32_t w = view.image.width, h = view.image.height;
    const uint8_t c = view.u8(x, y);
    uint32_t word = 0;
    for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
            if (dx == 0 && dy == 0) continue;
            word = (word << 1) | (view.u8(clampTo(x + dx, w), clampTo(y + dy, h)) > c ? 1u : 0u);
        }
    }
    return word;
}

uint32_t censusWord(Picture& census, int32_t x, int32_t y) {
    return census.image.format == IMAGE_FORMAT_UINT8 ? census.u8(x, y) : census.at<uint32_t>(x, y);
}

// The cost volume as the rule states it, one candidate at a time.
std::vector<uint8_t> referenceCost(Picture& c1, Picture& c2, Picture* mask, int D, int m, int window,
                                   bool swapped) {
    const int32_t w = c1.image.width, h = c1.image.height;
    Picture& base = swapped ? c1 : c2;
    Picture& match = swapped ? c2 : c1;
    const int dLow = swapped ? 1 - (m + D) : m, dHigh = dLow + D - 1, r = window / 2;
    std::vector<uint8_t> out(static_cast<size_t>(w) * D * h);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            for (int k = 0; k < D; ++k) {
                uint8_t& o = out[(static_cast<size_t>(y) * w + x) * D + k];
                if (x < -dLow || x >= w - dHigh) {
                    o = 24;
                    continue;
                }
                int best = 99;
                for (int j = -r; j <= r; ++j) {
                    const int pc = __builtin_popcount(censusWord(base, x, y) ^
                                                      censusWord(match, x + dLow + k, clampTo(y + j, h)));
                    best = pc < best ? pc : best;
                }
                o = static_cast<uint8_t>(mask != nullptr ? best & mask->u8(x, y) : best);
            }
        }
    }
    return out;
}

struct Matcher {
    Env env{};
    SgmCostMatcher m;
    Matcher() {
        construct_SgmCostMatcher(&m, &env);
        SgmCostMatcher_init(&m);
    }
    ~Matcher() { destruct_SgmCostMatcher(&m); }
};

}  // namespace

TEST(SgmCostMatcher, Census3x3HandWorked) {
    // Centre 50; neighbours greater than it set their bits, equal ones not.
    //   60 50 10        bit 7 (60 > 50) = 1, bit 6 (50) = 0, bit 5 (10) = 0
    //   51 50 49        bit 4 (51) = 1, bit 3 (49) = 0
    //   90 50 70        bit 2 (90) = 1, bit 1 (50) = 0, bit 0 (70) = 1
    Matcher t;
    Picture view(3, 3, IMAGE_FORMAT_UINT8), census(3, 3, IMAGE_FORMAT_UINT8);
    const uint8_t v[9] = {60, 50, 10, 51, 50, 49, 90, 50, 70};
    for (int i = 0; i < 9; ++i) view.u8(i % 3, i / 3) = v[i];
    ASSERT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, &census.image, &view.image), TL_OK);
    EXPECT_EQ(census.u8(1, 1), 0b10010101);
    // Corner (2, 0), centre 10, with the row above and the column right
    // repeated: 50 10 10 / 50 _ 10 / 50 49 49 gives 1001 0111.
    EXPECT_EQ(census.u8(2, 0), 0b10010111);
    // The largest value of the picture has no greater neighbour.
    EXPECT_EQ(census.u8(0, 2), 0);
    EXPECT_TRUE(census.canariesIntact());
}

TEST(SgmCostMatcher, CensusMatchesReferenceWithBorders) {
    Matcher t;
    std::mt19937 rng(3);
    const int32_t sizes[][2] = {{1, 1}, {2, 5}, {4, 3}, {5, 5}, {19, 7}, {33, 21}};
    for (const auto& s : sizes) {
        Picture view(s[0], s[1], IMAGE_FORMAT_UINT8);
        view.fillRandom(rng);
        // Few grey levels, so that equal neighbours are common.
        for (int32_t y = 0; y < s[1]; ++y)
            for (int32_t x = 0; x < s[0]; ++x) view.u8(x, y) &= 0xC0;
        Picture c3(s[0], s[1], IMAGE_FORMAT_UINT8), c5(s[0], s[1], IMAGE_FORMAT_INT32);
        ASSERT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, &c3.image, &view.image), TL_OK);
        ASSERT_EQ(SgmCostMatcher_censusTransform5x5(&t.m, &c5.image, &view.image), TL_OK);
        for (int32_t y = 0; y < s[1]; ++y) {
            for (int32_t x = 0; x < s[0]; ++x) {
                ASSERT_EQ(c3.u8(x, y), referenceCensus(view, x, y, 1))
                    << s[0] << "x" << s[1] << " at " << x << "," << y;
                ASSERT_EQ(c5.at<uint32_t>(x, y), referenceCensus(view, x, y, 2)) << s[0] << "x" << s[1];
            }
        }
        EXPECT_TRUE(c3.canariesIntact());
        EXPECT_TRUE(c5.canariesIntact());
    }
}

TEST(SgmCostMatcher, HammingMatchesReferenceForEveryWindow) {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.numberOfWorkers = 3;
    ASSERT_EQ(Pel_init(pel.get()), TL_OK);
    Matcher serial, threaded;
    SgmCostMatcher_setPel(&threaded.m, pel.get());
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
        if (c.format == IMAGE_FORMAT_INT32) {
            for (int32_t y = 0; y < h; ++y) {
                for (int32_t x = 0; x < w; ++x) {
                    c1.at<uint32_t>(x, y) &= 0xFFFFFF;
                    c2.at<uint32_t>(x, y) &= 0xFFFFFF;
                }
            }
        }
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) mask.u8(x, y) = rng() % 3 == 0 ? 0 : 255;
        const std::vector<uint8_t> want =
            referenceCost(c1, c2, c.masked ? &mask : nullptr, c.D, c.m, c.window, c.swapped);
        for (SgmCostMatcher* m : {&serial.m, &threaded.m}) {
            Picture cost(w * c.D, h, IMAGE_FORMAT_UINT8);
            ASSERT_EQ(SgmCostMatcher_calculateHammingDistance(m, &cost.image, &c1.image, &c2.image,
                                                              c.masked ? &mask.image : nullptr, c.D, c.m,
                                                              c.window, c.swapped),
                      TL_OK);
            int errors = 0;
            for (int32_t y = 0; y < h; ++y) {
                for (int32_t i = 0; i < w * c.D; ++i) {
                    if (cost.u8(i, y) != want[static_cast<size_t>(y) * w * c.D + i] && errors++ < 3) {
                        ADD_FAILURE()
                            << "D " << c.D << " m " << c.m << " window " << c.window << " swapped "
                            << c.swapped << " at x " << i / c.D << " slot " << i % c.D << " y " << y;
                    }
                }
            }
            EXPECT_TRUE(cost.canariesIntact());
        }
    }
    destruct_Pel(pel.get());
}

TEST(SgmCostMatcher, RowWindowAbsorbsVerticalShift) {
    // The match view is the base view moved 3 columns and v rows. With a
    // window of 9 the true slot costs 0 for v up to 4, away from the top and
    // bottom where clamped rows stand in; a shift of 5 rows is not absorbed.
    Matcher t;
    std::mt19937 rng(5);
    const int32_t w = 40, h = 30, D = 8;
    Picture base(w, h + 10, IMAGE_FORMAT_UINT8);
    base.fillRandom(rng);
    for (int v : {0, 4, 5}) {
        Picture c1(w, h, IMAGE_FORMAT_UINT8), c2(w, h, IMAGE_FORMAT_UINT8);
        for (int32_t y = 0; y < h; ++y) {
            for (int32_t x = 0; x < w; ++x) {
                c2.u8(x, y) = base.u8(x, y + 5);
                c1.u8(x, y) = base.u8(x >= 3 ? x - 3 : 0, y + 5 + v);
            }
        }
        Picture cost(w * D, h, IMAGE_FORMAT_UINT8);
        // Not swapped: census2 is the base, slot k is shift k: the truth is 3.
        ASSERT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &c2.image, nullptr, D,
                                                          0, 9, 0),
                  TL_OK);
        int zeros = 0, pixels = 0;
        for (int32_t y = 5; y < h - 5; ++y) {
            for (int32_t x = 3; x < w - D; ++x, ++pixels) zeros += cost.u8(x * D + 3, y) == 0;
        }
        if (v <= 4) {
            EXPECT_EQ(zeros, pixels) << "vertical shift " << v;
        } else {
            EXPECT_LT(zeros, pixels / 10) << "vertical shift " << v;
        }
    }
}

TEST(SgmCostMatcher, OutsideColumnsGetTheConstantAndUniformCostsZero) {
    // minDisparity -4 and 24 candidates: shifts -19 to 4 when swapped, so the
    // first 19 and the last 4 columns are outside; -4 to 19 when not, the
    // first 4 and the last 19. The constant ignores the mask; inside, a
    // uniform picture has census 0 and costs 0.
    Matcher t;
    const int32_t w = 50, h = 3, D = 24;
    Picture view(w, h, IMAGE_FORMAT_UINT8), census(w, h, IMAGE_FORMAT_UINT8), mask(w, h, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) view.u8(x, y) = 77, mask.u8(x, y) = 0;
    ASSERT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, &census.image, &view.image), TL_OK);
    for (int32_t x = 0; x < w; ++x) EXPECT_EQ(census.u8(x, 1), 0);
    for (int swapped = 0; swapped <= 1; ++swapped) {
        for (Picture* m : {static_cast<Picture*>(nullptr), &mask}) {
            Picture cost(w * D, h, IMAGE_FORMAT_UINT8);
            ASSERT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &census.image, &census.image,
                                                              m != nullptr ? &m->image : nullptr, D, -4, 3,
                                                              swapped),
                      TL_OK);
            const int32_t left = swapped ? 19 : 4, right = swapped ? 4 : 19;
            for (int32_t x = 0; x < w; ++x) {
                const bool outside = x < left || x >= w - right;
                for (int k = 0; k < D; ++k)
                    ASSERT_EQ(cost.u8(x * D + k, 2), outside ? 24 : 0) << x << " " << swapped;
            }
        }
    }
}

TEST(SgmCostMatcher, BadArguments) {
    Matcher t;
    Picture c1(16, 4, IMAGE_FORMAT_UINT8), c2(16, 4, IMAGE_FORMAT_UINT8), cost(16 * 8, 4, IMAGE_FORMAT_UINT8);
    Picture wideCensus(16, 4, IMAGE_FORMAT_INT32), floats(16, 4, IMAGE_FORMAT_FLOAT),
        small(15, 4, IMAGE_FORMAT_UINT8);
    Picture view16(16, 4, IMAGE_FORMAT_UINT16);
    for (int window : {0, 2, 8, -1, 257}) {
        EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &c2.image, nullptr, 8,
                                                          0, window, 1),
                  TL_ERROR_PARAM)
            << window;
    }
    // A census of neither format: nothing written, TL_OK.
    cost.fillPlanes(0xAB);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &floats.image, &c2.image, nullptr, 8,
                                                      0, 3, 1),
              TL_OK);
    EXPECT_EQ(cost.u8(5, 2), 0xAB);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &wideCensus.image,
                                                      nullptr, 8, 0, 3, 1),
              TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &small.image, nullptr, 8,
                                                      0, 3, 1),
              TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &c2.image, nullptr, 12, 0,
                                                      3, 1),
              TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &c2.image, nullptr, 16, 0,
                                                      3, 1),
              TL_ERROR_PARAM);  // volume too narrow for 16
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(&t.m, &cost.image, &c1.image, &c2.image, &small.image,
                                                      8, 0, 3, 1),
              TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_calculateHammingDistance(nullptr, &cost.image, &c1.image, &c2.image, nullptr, 8,
                                                      0, 3, 1),
              TL_ERROR_PARAM);
    // Views of another format leave the census as it was.
    c1.fillPlanes(0x11);
    EXPECT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, &c1.image, &view16.image), TL_OK);
    EXPECT_EQ(c1.u8(3, 3), 0x11);
    EXPECT_EQ(SgmCostMatcher_censusTransform5x5(&t.m, &c1.image, &c2.image), TL_OK);  // census not INT32
    EXPECT_EQ(c1.u8(3, 3), 0x11);
    EXPECT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, &small.image, &c2.image), TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_censusTransform3x3(&t.m, nullptr, &c2.image), TL_ERROR_PARAM);
    EXPECT_EQ(SgmCostMatcher_getBufferSize(), 0);
}
