// The disparity estimator: its frame sizes, the depth tables, status and
// depth image on answers worked by hand, and the whole pipeline on the
// synthetic stereo shot against the scene's ground truth.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "stereo/disparity_estimator.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// An estimator set up for a small normal-mode frame, for the steps that
// need only its fields.
struct Fixture {
    Env env{};
    DisparityEstimator e;
    Fixture() {
        construct_DisparityEstimator(&e, &env);
        EXPECT_EQ(DisparityEstimator_init(&e, 640, 480, 640, 480, 320, 240, 10.0f,
                                          IMAGE_FORMAT_YVU420_SEMIPLANAR, 0, 0),
                  TL_OK);
    }
    ~Fixture() { destruct_DisparityEstimator(&e); }
};

void fill(Picture& p, uint8_t value) {
    for (int32_t y = 0; y < p.image.height; ++y) std::memset(p.row(0, y), value, p.image.width);
}

}  // namespace

TEST(DisparityEstimator, FrameSizes) {
    // Working side: trunc(27 % (18 % fine) + 0.5), even; disparity side:
    // half the depth side rounded up to even; refine side: the depth side, even.
    const struct {
        int32_t mainW, mainH, depthW, depthH;
        uint32_t rotation, fine;
        int32_t workW, workH, matchW, matchH, dispW, dispH, refineW, refineH;
    } cases[] = {
        {4000, 3000, 1920, 1440, 0, 0, 1080, 810, 1080, 810, 960, 720, 1920, 1440},
        {4000, 3000, 1921, 1441, 0, 1, 720, 540, 720, 540, 960, 720, 1920, 1440},
        {4000, 3004, 1922, 1080, 1, 0, 1080, 810, 810, 1080, 962, 540, 1922, 1080},  // 811.08 -> 810
        {640, 480, 320, 240, 3, 0, 172, 130, 130, 172, 160, 120, 320, 240},
        {641, 479, 321, 239, 0, 1, 114, 86, 114, 86, 160, 120, 320, 238},  // 115.88 -> 114,
    };
    for (const auto& c : cases) {
        Env env{};
        DisparityEstimator e;
        construct_DisparityEstimator(&e, &env);
        ASSERT_EQ(DisparityEstimator_init(&e, c.mainW, c.mainH, c.mainW, c.mainH, c.depthW, c.depthH, 10.0f,
                                          IMAGE_FORMAT_YUV420_SEMIPLANAR, c.rotation, c.fine),
                  TL_OK)
            << c.mainW << "x" << c.mainH;
        const int32_t got[] = {e.workWidth,      e.workHeight,      e.matchWidth,  e.matchHeight,
                               e.disparityWidth, e.disparityHeight, e.refineWidth, e.refineHeight};
        const int32_t want[] = {c.workW, c.workH, c.matchW, c.matchH, c.dispW, c.dispH, c.refineW, c.refineH};
        for (int i = 0; i < 8; ++i) EXPECT_EQ(got[i], want[i]) << c.mainW << "x" << c.mainH << " field " << i;
        EXPECT_EQ(e.disparity.width, c.dispW);
        EXPECT_EQ(e.validMask.width, c.matchW);
        EXPECT_GT(DisparityEstimator_getBufferSize(c.mainW, c.mainH, c.mainW, c.mainH, c.depthW, c.depthH,
                                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, c.rotation, c.fine),
                  0);
        destruct_DisparityEstimator(&e);
    }
}

// Raw map values 32 to 160 at 3 fraction bits: 4 to 20 pixels. Level i has
// d(i) = 4 + 16 i / 255; with f B = 100 * 10, depth(i) = 1000 / d(i).
TEST(DisparityEstimator, StretchAndTables) {
    Fixture f;
    f.e.focalLength = 100.0f;
    Picture map(4, 1, IMAGE_FORMAT_UINT8);
    const uint8_t raw[4] = {32, 33, 96, 160};
    std::memcpy(map.row(0, 0), raw, 4);
    uint8_t low = 0, high = 0;
    ASSERT_EQ(DisparityEstimator_getDisparityRange(&f.e, &low, &high, &map.image), TL_OK);
    EXPECT_EQ(low, 32);
    EXPECT_EQ(high, 160);
    ASSERT_EQ(DisparityEstimator_stretchDisparity(&f.e, &map.image, low, high), TL_OK);
    // (v - 32) * 255 / 128 + 0.5: 1.99 + 0.5 -> 2, 127.5 + 0.5 -> 128.
    const uint8_t levels[4] = {0, 2, 128, 255};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(map.row(0, 0)[i], levels[i]) << i;
    DisparityEstimator_updateDepthTables(&f.e, low, high);
    EXPECT_FLOAT_EQ(f.e.minDisparityPx, 4.0f);
    EXPECT_FLOAT_EQ(f.e.maxDisparityPx, 20.0f);
    EXPECT_FLOAT_EQ(f.e.depthTable[0], 250.0f);
    EXPECT_FLOAT_EQ(f.e.depthTable[51], 1000.0f / 7.2f);
    EXPECT_FLOAT_EQ(f.e.depthTable[255], 50.0f);
    EXPECT_FLOAT_EQ(f.e.inverseDepthTable[0], 0.04f);
    EXPECT_FLOAT_EQ(f.e.inverseDepthTable[255], 0.2f);
    float table[256];
    ASSERT_EQ(DisparityEstimator_getDepthTable(&f.e, table), TL_OK);
    EXPECT_EQ(std::memcmp(table, f.e.depthTable, sizeof table), 0);
    // A flat map has no range: every pixel becomes level 0.
    fill(map, 77);
    ASSERT_EQ(DisparityEstimator_stretchDisparity(&f.e, &map.image, 77, 77), TL_OK);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(map.row(0, 0)[i], 0);
}

// A 20 by 20 map; the focus window at the centre is columns and rows 8 to 11
// (0.5 + 0.4 * 20 = 8.5 to 0.5 + 0.6 * 20 = 12.5, truncated), 16 pixels.
TEST(DisparityEstimator, StatusFromTheFocusWindow) {
    Fixture f;
    f.e.focalLength = 100.0f;
    // Ranges: 4 to 20 px, where the near limit 18 = 24 - 4 - 2 starts at level
    // 224 (d(223) = 17.99) and nothing is far; and 0 to 2 px, where levels up to
    // 127 (d = 0.996) lie at or below one pixel, so levels 0 to 126 count as far.
    const struct {
        const char* name;
        uint8_t low, high;
        float focusX, focusY;
        uint8_t level;
        int32_t confidentInWindow;  // in raster order; the rest unconfident at level 0
        int32_t want;
        uint32_t total;
    } cases[] = {
        {"all at the top", 32, 160, 0.5f, 0.5f, 240, 16, 1, 16},
        {"none confident", 32, 160, 0.5f, 0.5f, 100, 0, 1, 16},
        {"11 of 16 unconfident", 32, 160, 0.5f, 0.5f, 100, 5, 0, 16},
        {"12 of 16 unconfident", 32, 160, 0.5f, 0.5f, 100, 4, 1, 16},
        {"at level 224, not near", 32, 160, 0.5f, 0.5f, 224, 16, 0, 16},
        {"at level 225, near", 32, 160, 0.5f, 0.5f, 225, 16, 1, 16},
        {"far", 0, 16, 0.5f, 0.5f, 126, 16, 2, 16},
        {"level 127 is not far", 0, 16, 0.5f, 0.5f, 127, 16, 0, 16},
        // Corner focus: columns and rows 0 to 1 (trunc(0.5 + 0.1 * 20) = 2).
        {"corner", 32, 160, 0.0f, 0.0f, 240, 4, 1, 4},
    };
    for (const auto& c : cases) {
        Picture map(20, 20, IMAGE_FORMAT_UINT8), confidence(20, 20, IMAGE_FORMAT_UINT8);
        fill(map, 50);  // outside the window: neither near nor far
        fill(confidence, 255);
        const int32_t first = c.total == 4 ? 0 : 8, side = c.total == 4 ? 2 : 4;
        for (int32_t i = 0; i < side * side; ++i) {
            const int32_t x = first + i % side, y = first + i / side;
            const bool confident = i < c.confidentInWindow;
            map.u8(x, y) = confident ? c.level : 0;
            confidence.u8(x, y) = confident ? 255 : 0;
        }
        DisparityEstimator_updateDepthTables(&f.e, c.low, c.high);
        ASSERT_EQ(DisparityEstimator_setFocusCoord(&f.e, c.focusX, c.focusY), TL_OK);
        int32_t status = -1;
        ASSERT_EQ(DisparityEstimator_updateStatus(&f.e, &status, &map.image, &confidence.image, 255), TL_OK);
        EXPECT_EQ(status, c.want) << c.name;
        EXPECT_EQ(f.e.roiTotal, c.total) << c.name;
        EXPECT_EQ(f.e.roiHistogram[256], static_cast<uint32_t>(side * side - c.confidentInWindow)) << c.name;
    }
}

// fB = 100 * 0.1 = 10 and 0.5 to 20.5 px (raw 4 to 164): depth(i) = 10 / (0.5
// + 20 i / 255) exceeds 10 up to level 6, so levels below 6 saturate: low =
// 6, high = 255.
TEST(DisparityEstimator, DepthImage) {
    Fixture f;
    f.e.focalLength = 100.0f;
    f.e.baseline = 0.1f;
    DisparityEstimator_updateDepthTables(&f.e, 4, 164);
    const uint8_t levels[6] = {0, 3, 6, 10, 128, 255};
    Picture map(6, 1, IMAGE_FORMAT_UINT8), out(6, 1, IMAGE_FORMAT_UINT8);
    std::memcpy(map.row(0, 0), levels, 6);
    const struct {
        int32_t mode;
        uint8_t want[6];
    } cases[] = {
        // Linear in disparity: (255 - v) * 255 / 249, clamped.
        {1, {255, 255, 255, 250, 130, 0}},
        // Linear in depth: s * 255 / v - s with s = 6 * 255 / 249; level 6
        // lands on 255 up to float rounding and is left out.
        {0, {255, 255, 0, 150, 6, 0}},
    };
    for (const auto& c : cases) {
        float nearDepth = 0, farDepth = 0;
        ASSERT_EQ(
            DisparityEstimator_getDepthImage(&f.e, &out.image, &nearDepth, &farDepth, &map.image, c.mode),
            TL_OK);
        EXPECT_FLOAT_EQ(farDepth, f.e.depthTable[6]);
        EXPECT_FLOAT_EQ(nearDepth, 10.0f / 20.5f);
        for (int i = 0; i < 6; ++i) {
            if (c.mode == 0 && i == 2) continue;
            EXPECT_EQ(out.row(0, 0)[i], c.want[i]) << "mode " << c.mode << " level " << int{levels[i]};
        }
    }
    // Another mode writes only the two depths.
    fill(out, 7);
    float nearDepth = 0, farDepth = 0;
    EXPECT_EQ(DisparityEstimator_getDepthImage(&f.e, &out.image, &nearDepth, &farDepth, &map.image, 2),
              TL_OK);
    EXPECT_EQ(out.row(0, 0)[0], 7);
    EXPECT_GT(farDepth, 10.0f);
}

// Fine mode's radial lowering on a 5 by 5 map of 100: the centre (2, 2) and
// the normaliser sqrt(2^2 + 2^2). Factor form, rate 0.5 over radii 0 to 1:
// the corner (r = 1) halves, (2, 0) at r = 0.707 keeps 1 - 0.5 * 0.707.
TEST(DisparityEstimator, RadialLowering) {
    Fixture f;
    Picture map(5, 5, IMAGE_FORMAT_UINT8);
    fill(map, 100);
    f.e.lowerRate = 0.5f;
    f.e.lowerInnerRadius = 0.0f;
    f.e.lowerOuterRadius = 1.0f;
    ASSERT_EQ(DisparityEstimator_lowerDisparity(&f.e, &map.image), TL_OK);
    EXPECT_EQ(map.u8(2, 2), 100);
    EXPECT_EQ(map.u8(0, 0), 50);
    EXPECT_EQ(map.u8(4, 4), 50);
    EXPECT_EQ(map.u8(2, 0), 65);  // 64.64 + 0.5
    // Subtractive form: trunc(min(0.5 + r, amount)), amount = 1 << 3.
    fill(map, 100);
    f.e.lowerRate = 0.0f;
    f.e.lowerAmount = 1;
    ASSERT_EQ(DisparityEstimator_lowerDisparity(&f.e, &map.image), TL_OK);
    EXPECT_EQ(map.u8(2, 2), 100);  // 0.5
    EXPECT_EQ(map.u8(0, 0), 99);   // 1.5
}
