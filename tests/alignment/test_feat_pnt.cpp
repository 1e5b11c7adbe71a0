// Feature points: the corner response against answers worked by hand and a plain model, the cell grid, the
// strip to the strongest, adaptive splitting and the parallel form.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "alignment/feat_pnt.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/texture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

struct List {
    FeatPntList l;
    List() { construct_FeatPntList(&l, nullptr); }
    ~List() { destruct_FeatPntList(&l); }
};

// The response by its definition, in 64-bit arithmetic, with the window's top-left at (x - w / 2, y - w / 2).
int64_t plainResponse(Picture& p, int32_t x, int32_t y, int32_t w) {
    int64_t sxx = 0, syy = 0, sxy = 0;
    for (int32_t v = y - w / 2; v < y - w / 2 + w; ++v) {
        for (int32_t u = x - w / 2; u < x - w / 2 + w; ++u) {
            const int64_t ix = p.u8(u + 1, v) - p.u8(u - 1, v), iy = p.u8(u, v + 1) - p.u8(u, v - 1);
            sxx += ix * ix, syy += iy * iy, sxy += ix * iy;
        }
    }
    const int64_t a = sxx >> 2, b = syy >> 2, c = sxy >> 2, r = a * b - c * c - (((a + b) * (a + b)) >> 4);
    return r < 0 ? 0 : r > INT32_MAX ? INT32_MAX : r;
}

void fillTexture(Picture& p, uint32_t seed, double noise = 0.0) {
    const double m[6] = {1, 0, 0, 0, 1, 0};
    vq_tl_test::Texture(seed).render(p, m, noise, seed);
}

}  // namespace

// A bright quadrant from (6, 6): at (6, 6) the window (4..7)^2 holds Ix = 100 at (5, 6), (5, 7), (6, 6),
// (6, 7) and Iy = 100 at (6, 5), (7, 5), (6, 6), (7, 6): A = B = 40000 / 4, C = 10000 / 4, response 10^8 -
// 6.25 10^6 - (2 10^4)^2 / 16 = 68750000. Along the straight edge at (6, 2), B = C = 0 and the response
// -A^2 / 16 is clipped to 0; near the border nothing is computed.
TEST(FeatPnt, ResponseWorkedByHandAndAgainstAPlainModel) {
    Picture img(12, 12, IMAGE_FORMAT_UINT8), feat(12, 12, IMAGE_FORMAT_INT32);
    img.fillPlanes(0);
    for (int32_t y = 6; y < 12; ++y) {
        for (int32_t x = 6; x < 12; ++x) img.u8(x, y) = 100;
    }
    ASSERT_EQ(calcFeatImage(&feat.image, &img.image, 1, 4, IMAGE_FORMAT_INT32), TL_OK);
    EXPECT_EQ(feat.at<int32_t>(6, 6), 68750000);
    EXPECT_EQ(feat.at<int32_t>(6, 3), 0);
    EXPECT_EQ(feat.at<int32_t>(2, 6), 0);
    EXPECT_TRUE(feat.canariesIntact());
    // Random textures at several steps and both windows against the model.
    for (int32_t step : {1, 2, 3, 7}) {
        for (int32_t window : {3, 4}) {
            Picture p(61, 47, IMAGE_FORMAT_UINT8);
            std::mt19937 rng(step * 10 + window);
            p.fillRandom(rng);
            Picture f((61 - 1) / step + 1, (47 - 1) / step + 1, IMAGE_FORMAT_INT32);
            ASSERT_EQ(calcFeatImage(&f.image, &p.image, step, window, IMAGE_FORMAT_INT32), TL_OK);
            for (int32_t j = 0; j < f.image.height; ++j) {
                for (int32_t i = 0; i < f.image.width; ++i) {
                    const int32_t x = i * step, y = j * step, lo = window / 2 + 1, hi = window - window / 2;
                    const bool inside = x >= lo && y >= lo && x + hi <= 60 && y + hi <= 46;
                    ASSERT_EQ(f.at<int32_t>(i, j), inside ? plainResponse(p, x, y, window) : 0)
                        << "step " << step << " window " << window << " at " << x << "," << y;
                }
            }
        }
    }
    const struct {
        int32_t step, window, w;
        uint32_t format;
    } refused[] = {{0, 4, 12, IMAGE_FORMAT_INT32},
                   {1, 5, 12, IMAGE_FORMAT_INT32},
                   {1, 4, 12, IMAGE_FORMAT_UINT16},
                   {2, 4, 12, IMAGE_FORMAT_INT32}};  // the last: a response image of the wrong size
    for (const auto& c : refused)
        EXPECT_EQ(calcFeatImage(&feat.image, &img.image, c.step, c.window, c.format), TL_ERROR_PARAM)
            << c.step;
}

// Strip keeps the strongest, in order of falling strength, the earlier of equal ones first: with a block of
// its own (room for 8) and in the list's spare room (16); a list borrowing its room is left with it.
TEST(FeatPnt, StripIsAStableSortByStrength) {
    for (int32_t capacity : {8, 16, -16}) {
        List list;
        std::vector<FeatPnt> room(16);
        if (capacity > 0) {
            ASSERT_EQ(FeatPntList_init(&list.l, capacity), TL_OK);
        } else {
            ASSERT_EQ(FeatPntList_initWithBuffer(&list.l, room.data(), -capacity), TL_OK);
        }
        const int32_t strengths[] = {5, 200, 5, 17, 200, 0, 17};
        for (int32_t i = 0; i < 7; ++i) {
            FeatPnt p{};
            p.x = i, p.strength = strengths[i];
            ASSERT_EQ(FeatPntList_add(&list.l, &p), TL_OK);
        }
        ASSERT_EQ(FeatPntList_strip(&list.l, 5), TL_OK);
        const int32_t order[] = {1, 4, 3, 6, 0};
        ASSERT_EQ(list.l.count, 5);
        for (int32_t i = 0; i < 5; ++i) EXPECT_EQ(list.l.points[i].x, order[i]) << capacity << ", " << i;
        FeatPnt p{};
        while (list.l.count < list.l.capacity) ASSERT_EQ(FeatPntList_add(&list.l, &p), TL_OK);
        EXPECT_EQ(FeatPntList_add(&list.l, &p), TL_ERROR_STATE);  // full
        EXPECT_TRUE(capacity > 0 || list.l.points == room.data());
    }
}

// The grid: at most one point per cell, each at its cell's largest response; more points than cells only in
// adaptive mode; nothing from flat or small pictures; the parallel form gives the same list.
TEST(FeatPnt, CellGrid) {
    Picture p(200, 150, IMAGE_FORMAT_UINT8);
    fillTexture(p, 3, 2.0);
    // 200 x 150 / 100 = 300: cells of 17 pixels, step 4; 12 by 9 cells.
    List plain, adaptive;
    ASSERT_EQ(calcFeatPntList(&plain.l, &p.image, 100, 4, 0, 32768, IMAGE_FORMAT_INT32), TL_OK);
    ASSERT_EQ(plain.l.count, 100);
    Picture feat(50, 38, IMAGE_FORMAT_INT32);
    ASSERT_EQ(calcFeatImage(&feat.image, &p.image, 4, 4, IMAGE_FORMAT_INT32), TL_OK);
    std::vector<int> taken(12 * 9, 0);
    for (int32_t i = 0; i < plain.l.count; ++i) {
        const FeatPnt& f = plain.l.points[i];
        ASSERT_EQ(f.left % 17, 0);
        ASSERT_TRUE(f.x >= f.left && f.x < f.right && f.y >= f.top && f.y < f.bottom && f.x % 4 == 0);
        EXPECT_EQ(++taken[f.top / 17 * 12 + f.left / 17], 1);
        EXPECT_LE(f.strength, plain.l.points[i > 0 ? i - 1 : 0].strength);
        for (int32_t y = (f.top + 3) / 4 * 4; y < f.bottom; y += 4) {
            for (int32_t x = (f.left + 3) / 4 * 4; x < f.right; x += 4)
                EXPECT_LE(feat.at<int32_t>(x / 4, y / 4), feat.at<int32_t>(f.x / 4, f.y / 4));
        }
    }
    // 5000 wanted: cells of isqrt(6) = 2 become 4 by 4, 50 by 38 of them, one point each at most without
    // adaptive splitting, more with it.
    ASSERT_EQ(calcFeatPntList(&plain.l, &p.image, 5000, 4, 0, 32768, IMAGE_FORMAT_INT32), TL_OK);
    ASSERT_EQ(calcFeatPntList(&adaptive.l, &p.image, 5000, 4, 1, 32768, IMAGE_FORMAT_INT32), TL_OK);
    EXPECT_LE(plain.l.count, 1900);
    EXPECT_GT(adaptive.l.count, plain.l.count);
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    for (Pel* pel : {static_cast<Pel*>(nullptr), &layers.pel, &layers.balanced}) {
        for (int32_t mode : {0, 1}) {
            List serial, parallel;
            ASSERT_EQ(calcFeatPntList(&serial.l, &p.image, 400, 4, mode, 32768, IMAGE_FORMAT_INT32), TL_OK);
            ASSERT_EQ(
                MvecDetectMulti2_calcFeatPntListWithPel(pel, &parallel.l, &p.image, 400, 4, mode, 32768),
                TL_OK);
            ASSERT_EQ(serial.l.count, parallel.l.count);
            EXPECT_EQ(std::memcmp(serial.l.points, parallel.l.points, sizeof(FeatPnt) * serial.l.count), 0);
            // With the response image and the list in the caller's room, of the sizes asked for.
            const int32_t capacity = FeatPntList_getCapacity(200, 150, 400, mode),
                          bytes = FeatPnt_getResponseSize(200, 150, 400);
            std::vector<FeatPnt> room(2 * static_cast<size_t>(capacity));
            std::vector<uint8_t> work(static_cast<size_t>(bytes));
            List borrowed;
            ASSERT_EQ(FeatPntList_initWithBuffer(&borrowed.l, room.data(), 2 * capacity), TL_OK);
            ASSERT_EQ(MvecDetectMulti2_calcFeatPntListWithWork(pel, &borrowed.l, &p.image, 400, 4, mode,
                                                               32768, work.data(), bytes),
                      TL_OK);
            ASSERT_EQ(borrowed.l.points, room.data());
            ASSERT_EQ(borrowed.l.count, serial.l.count);
            EXPECT_EQ(std::memcmp(serial.l.points, room.data(), sizeof(FeatPnt) * serial.l.count), 0);
        }
    }
    Picture flat(200, 150, IMAGE_FORMAT_UINT8), narrow(23, 150, IMAGE_FORMAT_UINT8);
    flat.fillPlanes(90);
    fillTexture(narrow, 4);
    for (const Picture* q : {&flat, &narrow}) {
        List l;
        EXPECT_EQ(calcFeatPntList(&l.l, &q->image, 100, 4, 1, 32768, IMAGE_FORMAT_INT32), TL_OK);
        EXPECT_EQ(l.l.count, 0);
    }
    EXPECT_EQ(calcFeatPntList(&plain.l, nullptr, 100, 4, 0, 32768, IMAGE_FORMAT_INT32), TL_OK);
    EXPECT_EQ(plain.l.count, 0);
}
