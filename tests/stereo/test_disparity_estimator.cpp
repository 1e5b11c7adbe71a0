// The disparity estimator: frame sizes, depth tables, status and depth image by hand; the whole pipeline on
// the synthetic shot against the scene's truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "runtime/memory.h"
#include "stereo/disparity_estimator.h"
#include "support/layers.h"
#include "support/owned.h"
#include "support/picture.h"
#include "support/scene.h"
#include "support/test_env.h"
#include "support/texture.h"

using namespace vq_tl;
using vq_tl_test::Owned;
using vq_tl_test::Picture;
using vq_tl_test::Scene;
using vq_tl_test::SceneConfig;

namespace {

// An estimator set up for a small normal-mode frame, for the steps that need only its fields.
using Estimator = Owned<DisparityEstimator, construct_DisparityEstimator, destruct_DisparityEstimator>;

struct Fixture : Estimator {
    Fixture() {
        EXPECT_EQ(DisparityEstimator_init(this, 640, 480, 640, 480, 320, 240, 10.0f,
                                          IMAGE_FORMAT_YVU420_SEMIPLANAR, 0, 0),
                  TL_OK);
    }
};

void setRow(Picture& p, std::initializer_list<uint8_t> values) {
    std::copy(values.begin(), values.end(), p.row(0, 0));
}

SceneConfig sceneConfig(double scale) { return {.scale = scale, .threads = 2}; }

// The shot most tests share, rendered once: half size natively, a quarter under emulation and sanitizers.
const Scene& sharedScene() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const bool slow = true;
#else
    const bool slow = vq_tl_test_isEmulated();
#endif
    static const std::unique_ptr<Scene> scene = std::make_unique<Scene>(sceneConfig(slow ? 0.25 : 0.5));
    return *scene;
}

// An estimator for a scene's frames, its work shared out over a Pel and an executor of the shared layers, and
// its grids from the scene's calibration. (The session's tests compare the results across workers.)
struct Rig {
    Env env{};
    DisparityEstimator e;
    int32_t depthWidth, depthHeight;
    // layers: 0 the calling thread, 1 the shared Pel and pool, 2 the balanced Pel and two bands.
    Rig(const Scene& s, int layers = 1, uint32_t fine = 0) {
        vq_tl_test::Layers& l = vq_tl_test::sharedLayers();
        construct_DisparityEstimator(&e, &env);
        DisparityEstimator_setPel(&e, layers == 0 ? nullptr : layers == 1 ? &l.pel : &l.balanced);
        DisparityEstimator_setParallelExecutor(&e, layers == 0   ? nullptr
                                                   : layers == 1 ? &l.pool
                                                                 : &l.twoBands);
        // The depth output at 48 % of the main width, as 1920 is of 4000.
        depthWidth = (s.main->image.width * 12 / 25) & ~1;
        depthHeight = depthWidth * 3 / 4;
        EXPECT_EQ(DisparityEstimator_init(&e, s.main->image.width, s.main->image.height, s.sub->image.width,
                                          s.sub->image.height, depthWidth, depthHeight,
                                          static_cast<float>(s.baseline), s.config.format, 0, fine),
                  TL_OK);
    }
    ~Rig() { destruct_DisparityEstimator(&e); }
    TLResult grids(const Scene& s, double subCentreShift = 0.0) {
        Mvec8Real rotation, subMatrix = s.subCalib.matrix;
        float t[3];
        s.extrinsics(false, &rotation, t);
        subMatrix.m[2] += subCentreShift;
        RectifyLensDist mainLens = s.mainCalib.lens, subLens = s.subCalib.lens;
        return DisparityEstimator_calcGridParams(&e, &s.mainCalib.matrix, &subMatrix, &mainLens, &subLens,
                                                 &rotation, t, 1, s.mainCalib.width, s.mainCalib.height,
                                                 s.subCalib.width, s.subCalib.height);
    }
    TLResult estimate(const Scene& s) {
        return DisparityEstimator_estimateDisparity(&e, &s.main->image, &s.sub->image, 5, 40, 1.0f, 0, 255);
    }
    // A stretched level's disparity in working pixels; the level carries the -minDisparity offset.
    double disparityOf(uint8_t level) const {
        return e.minDisparityPx + (e.maxDisparityPx - e.minDisparityPx) * level / 255.0 + e.minDisparity;
    }
};

// The main frame's pixel under the centre of pixel (x, y) of a w by h map.
size_t truthIndex(const Scene& s, int32_t x, int32_t y, int32_t w, int32_t h) {
    const int32_t W = s.main->image.width, H = s.main->image.height;
    return static_cast<size_t>((y * 2 + 1) * H / (2 * h)) * W + (x * 2 + 1) * W / (2 * w);
}

bool onBox(const Scene& s, size_t i) {
    return s.surface[i] == vq_tl_test::kSceneBoxFront || s.surface[i] == vq_tl_test::kSceneBoxSide;
}

// The result of the last frame: maps, depth table, range and status.
std::vector<uint8_t> resultBytes(const DisparityEstimator& e) {
    std::vector<uint8_t> b;
    for (const Image* m : {&e.disparity, &e.confidence}) {
        for (int32_t y = 0; y < m->height; ++y) {
            const uint8_t* row = m->plane[0] + static_cast<size_t>(m->pitch[0]) * y;
            b.insert(b.end(), row, row + m->width);
        }
    }
    const uint8_t* table = reinterpret_cast<const uint8_t*>(e.depthTable);
    b.insert(b.end(), table, table + kDisparityLevels * sizeof(float));
    const float fields[] = {e.focalLength, e.minDisparityPx, e.maxDisparityPx, static_cast<float>(e.status)};
    b.insert(b.end(), reinterpret_cast<const uint8_t*>(fields), reinterpret_cast<const uint8_t*>(fields + 4));
    return b;
}

}  // namespace

TEST(DisparityEstimator, FrameSizes) {
    // Working side trunc(27 % (18 % fine) + 0.5), even; disparity side half the depth side up to even.
    const struct {
        int32_t mainW, mainH, depthW, depthH;
        uint32_t rotation, fine;
        int32_t workW, workH, matchW, matchH, dispW, dispH, refineW, refineH;
    } cases[] = {
        {4000, 3000, 1920, 1440, 0, 0, 1080, 810, 1080, 810, 960, 720, 1920, 1440},
        {4000, 3000, 1921, 1441, 0, 1, 720, 540, 720, 540, 960, 720, 1920, 1440},
        {1336, 1004, 962, 541, 1, 0, 360, 270, 270, 360, 482, 270, 962, 540},  // 271.58 -> 270
        {640, 480, 320, 240, 3, 0, 172, 130, 130, 172, 160, 120, 320, 240},
        {641, 479, 321, 239, 0, 1, 114, 86, 114, 86, 160, 120, 320, 238},  // 115.88 -> 114,
    };
    for (const auto& c : cases) {
        Estimator e;
        ASSERT_EQ(DisparityEstimator_init(&e, c.mainW, c.mainH, c.mainW, c.mainH, c.depthW, c.depthH, 10.0f,
                                          IMAGE_FORMAT_YUV420_SEMIPLANAR, c.rotation, c.fine),
                  TL_OK)
            << c.mainW << "x" << c.mainH;
        const int32_t got[] = {e.workWidth,      e.workHeight,      e.matchWidth,  e.matchHeight,
                               e.disparityWidth, e.disparityHeight, e.refineWidth, e.refineHeight};
        const int32_t want[] = {c.workW, c.workH, c.matchW, c.matchH, c.dispW, c.dispH, c.refineW, c.refineH};
        for (int i = 0; i < 8; ++i) EXPECT_EQ(got[i], want[i]) << c.mainW << "x" << c.mainH << " field " << i;
    }
}

// A 20 by 20 map; the focus window at the centre is columns and rows 8 to 11 (8.5 to 12.5, truncated).
TEST(DisparityEstimator, StatusFromTheFocusWindow) {
    Fixture f;
    f.focalLength = 100.0f;
    // Ranges: 4 to 20 px, where the near limit 18 = 24 - 4 - 2 starts at level 224 (d(223) = 17.99) and none
    // is far; 0 to 2 px, where levels to 127 (d = 0.996) lie at or below one pixel: 0 to 126 count as far.
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
        map.fillPlanes(50);  // outside the window: neither near nor far
        confidence.fillPlanes(255);
        const int32_t first = c.total == 4 ? 0 : 8, side = c.total == 4 ? 2 : 4;
        for (int32_t i = 0; i < side * side; ++i) {
            const int32_t x = first + i % side, y = first + i / side;
            const bool confident = i < c.confidentInWindow;
            map.u8(x, y) = confident ? c.level : 0;
            confidence.u8(x, y) = confident ? 255 : 0;
        }
        DisparityEstimator_updateDepthTables(&f, c.low, c.high);
        ASSERT_EQ(DisparityEstimator_setFocusCoord(&f, c.focusX, c.focusY), TL_OK);
        int32_t status = -1;
        ASSERT_EQ(DisparityEstimator_updateStatus(&f, &status, &map.image, &confidence.image, 255), TL_OK);
        EXPECT_EQ(status, c.want) << c.name;
    }
}

// Raw values 4 to 164 at 3 fraction bits: 0.5 to 20.5 pixels, level i at d(i) = 0.5 + 20 i / 255. With f B =
// 100 * 0.1, depth(i) = 10 / d(i) exceeds 10 up to level 6: the depth image saturates below.
TEST(DisparityEstimator, StretchTablesAndDepthImage) {
    Fixture f;
    f.focalLength = 100.0f;
    f.baseline = 0.1f;
    Picture raw(4, 1, IMAGE_FORMAT_UINT8);
    setRow(raw, {4, 5, 84, 164});
    uint8_t low = 0, high = 0;
    ASSERT_EQ(DisparityEstimator_getDisparityRange(&f, &low, &high, &raw.image), TL_OK);
    ASSERT_EQ(DisparityEstimator_stretchDisparity(&f, &raw.image, low, high), TL_OK);
    // (v - 4) * 255 / 160 + 0.5: 1.59 + 0.5 -> 2, 127.5 + 0.5 -> 128.
    const uint8_t levels[4] = {0, 2, 128, 255};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(raw.u8(i, 0), levels[i]) << i;
    DisparityEstimator_updateDepthTables(&f, low, high);
    EXPECT_FLOAT_EQ(f.minDisparityPx, 0.5f);
    EXPECT_FLOAT_EQ(f.maxDisparityPx, 20.5f);
    EXPECT_FLOAT_EQ(f.depthTable[0], 20.0f);
    EXPECT_FLOAT_EQ(f.depthTable[51], 10.0f / 4.5f);
    EXPECT_FLOAT_EQ(f.inverseDepthTable[255], 0.205f);
    // A flat map has no range: every pixel becomes level 0.
    EXPECT_TRUE(DisparityEstimator_stretchDisparity(&f, &raw.image, 77, 77) == TL_OK && raw.u8(3, 0) == 0);

    Picture map(6, 1, IMAGE_FORMAT_UINT8), out(6, 1, IMAGE_FORMAT_UINT8);
    setRow(map, {0, 3, 6, 10, 128, 255});
    const struct {
        int32_t mode;
        uint8_t want[6];
    } cases[] = {
        // Linear in disparity between levels 6 and 255: (255 - v) * 255 / 249, clamped.
        {1, {255, 255, 255, 250, 130, 0}},
        // Linear in depth: s * 255 / v - s with s = 6 * 255 / 249; level 6 hits 255 up to rounding: left out.
        {0, {255, 255, 0, 150, 6, 0}},
        {2, {77, 77, 77, 77, 77, 77}},  // another mode writes nothing
    };
    for (const auto& c : cases) {
        setRow(out, {77, 77, 77, 77, 77, 77});
        float nearDepth = 0, farDepth = 0;
        ASSERT_EQ(DisparityEstimator_getDepthImage(&f, &out.image, &nearDepth, &farDepth, &map.image, c.mode),
                  TL_OK);
        EXPECT_FLOAT_EQ(farDepth, 10.0f / (0.5f + 120.0f / 255.0f));
        EXPECT_FLOAT_EQ(nearDepth, 10.0f / 20.5f);
        for (int i = 0; i < 6; ++i) {
            if (c.mode != 0 || i != 2) {
                EXPECT_EQ(out.u8(i, 0), c.want[i]) << "mode " << c.mode << ", " << i;
            }
        }
    }
}

// Fine mode's radial lowering on a 5 by 5 map of 100, centre (2, 2), normaliser sqrt(8). Factor form, rate
// 0.5 over radii 0 to 1: the corner (r = 1) halves, (2, 0) at r = 0.707 keeps 1 - 0.5 * 0.707.
TEST(DisparityEstimator, RadialLowering) {
    Fixture f;
    Picture map(5, 5, IMAGE_FORMAT_UINT8);
    map.fillPlanes(100);
    f.lowerRate = 0.5f;
    f.lowerInnerRadius = 0.0f;
    f.lowerOuterRadius = 1.0f;
    ASSERT_EQ(DisparityEstimator_lowerDisparity(&f, &map.image), TL_OK);
    // The centre, two corners, and (2, 0): 64.64 + 0.5.
    EXPECT_EQ((std::vector<int>{map.u8(2, 2), map.u8(0, 0), map.u8(4, 4), map.u8(2, 0)}),
              (std::vector<int>{100, 50, 50, 65}));
    // Subtractive form: trunc(min(0.5 + r, amount)), amount = 1 << 3: 0.5 at the centre, 1.5 at the corner.
    map.fillPlanes(100);
    f.lowerRate = 0.0f;
    f.lowerAmount = 1;
    ASSERT_EQ(DisparityEstimator_lowerDisparity(&f, &map.image), TL_OK);
    EXPECT_EQ((std::vector<int>{map.u8(2, 2), map.u8(0, 0)}), (std::vector<int>{100, 99}));
}

// Against the scene's truth, in working pixels: disparity = f B / z.
TEST(DisparityEstimator, MatchesTheScene) {
    const Scene& s = sharedScene();
    Rig rig(s);
    ASSERT_TRUE(rig.grids(s) == TL_OK && rig.estimate(s) == TL_OK);
    const DisparityEstimator& e = rig.e;
    const double fb = e.focalLength * e.baseline;
    int64_t confident = 0, close = 0, wanted = 0, covered = 0;
    for (int32_t y = 0; y < e.disparityHeight; ++y) {
        for (int32_t x = 0; x < e.disparityWidth; ++x) {
            const size_t i = truthIndex(s, x, y, e.disparityWidth, e.disparityHeight);
            const bool sure = e.confidence.plane[0][y * e.confidence.pitch[0] + x] == 255;
            const double d = rig.disparityOf(e.disparity.plane[0][y * e.disparity.pitch[0] + x]);
            confident += sure;
            close += sure && std::fabs(d - fb / s.depth[i]) <= 1.0;
            const bool textured = s.textured[i] != 0 && s.occluded[i] == 0;
            wanted += textured;
            covered += textured && sure;
        }
    }
    const double accuracy = static_cast<double>(close) / confident,
                 cover = static_cast<double>(covered) / wanted;
    EXPECT_GE(accuracy, 0.9) << "confident pixels within one pixel of the truth: " << accuracy;
    EXPECT_GE(cover, 0.8) << "share of the textured, unoccluded area that is confident: " << cover;
    // The refined map must cross the middle disparity within two pixels where the truth leaves the box.
    for (uint8_t window : {5, 7, 15}) {
        Picture out(rig.depthWidth, rig.depthHeight, IMAGE_FORMAT_UINT8);
        ASSERT_EQ(
            DisparityEstimator_refineDisparity(&rig.e, &out.image, &s.main->image, window, 3, 10.0f, 15.0f),
            TL_OK);
        const int32_t w = rig.depthWidth, h = rig.depthHeight, reach = 4;
        int64_t edges = 0, kept = 0;
        for (int32_t dx = 0; dx < 2; ++dx) {
            const int32_t dy = 1 - dx;
            for (int32_t y = reach * dy; y + (reach + 1) * dy < h; ++y) {
                for (int32_t x = reach * dx; x + (reach + 1) * dx < w; ++x) {
                    auto truth = [&](int32_t k) { return truthIndex(s, x + k * dx, y + k * dy, w, h); };
                    auto above = [&](int32_t k, double mid) {
                        return rig.disparityOf(out.u8(x + k * dx, y + k * dy)) > mid;
                    };
                    if (onBox(s, truth(0)) == onBox(s, truth(1))) continue;
                    const double mid = 0.5 * (fb / s.depth[truth(-3)] + fb / s.depth[truth(4)]);
                    bool found = false;
                    for (int32_t k = -2; k <= 2 && !found; ++k) found = above(k, mid) != above(k + 1, mid);
                    ++edges;
                    kept += found;
                }
            }
        }
        const double share = static_cast<double>(kept) / edges;
        EXPECT_GE(share, 0.9) << "window " << int{window} << ": box edges kept within two pixels: " << share;
    }
}

// With the tilt correction of three strips, its motion searches spread over the Pel too; layer 3 is a Pel of
// two workers.
TEST(DisparityEstimator, SameBytesOnEveryLayer) {
    const Scene& s = sharedScene();
    std::vector<uint8_t> serial;
    Pel two;
    construct_Pel(&two, nullptr);
    two.params.numberOfWorkers = 2;
    ASSERT_EQ(Pel_init(&two), TL_OK);
    for (int layers : {0, 1, 2, 3}) {
        Rig rig(s, layers % 3);
        if (layers == 3) DisparityEstimator_setPel(&rig.e, &two);
        DisparityEstimator_setDisparityCorrectionMode(&rig.e, 3);
        DisparityEstimator_setCorrectDispParams(&rig.e, -1.0, 1.0);
        ASSERT_TRUE(rig.grids(s) == TL_OK && rig.estimate(s) == TL_OK);
        Picture out(rig.depthWidth, rig.depthHeight, IMAGE_FORMAT_UINT8);
        ASSERT_EQ(DisparityEstimator_refineDisparity(&rig.e, &out.image, &s.main->image, 7, 3, 10.0f, 15.0f),
                  TL_OK);
        std::vector<uint8_t> bytes = resultBytes(rig.e);
        bytes.insert(bytes.end(), out.storage.begin(), out.storage.end());
        if (layers == 0) serial = bytes;
        EXPECT_TRUE(bytes == serial) << "layers " << layers;
    }
    destruct_Pel(&two);
}

// The normal shot focused on the box is usable; the box brought to 10 cm, at the top of the matching range or
// beyond, is too near. Far needs disparities within a pixel of the lowest candidate, -4: the sub camera's
// calibrated centre is moved so that the background at 3.5 m (under a pixel) lands at -3.5.
TEST(DisparityEstimator, StatusOfShots) {
    const double scale = 0.25;
    SceneConfig nearConfig = sceneConfig(scale), farConfig = sceneConfig(scale);
    nearConfig.box = {0.0, 0.0, 0.1, 0.4, 0.4, 0.1};
    farConfig.box.z = 5.0;
    const Scene nearShot(nearConfig), farShot(farConfig);
    const Scene& normal = sharedScene();
    const struct {
        const char* name;
        const Scene& scene;
        float focusX, focusY;
        bool shifted;
        int32_t want;
    } cases[] = {
        // The box's front face is centred at (-0.25, 0.1) m, 0.8 m away.
        {"normal", normal, static_cast<float>((3000.0 * -0.25 / 0.8 + 2011.5) / 4000),
         static_cast<float>((3000.0 * 0.1 / 0.8 + 1493.25) / 3000), false, 0},
        {"near", nearShot, 0.5f, 0.5f, false, 1},
        {"far", farShot, 0.5f, 0.5f, true, 2},
    };
    for (const auto& c : cases) {
        Rig rig(c.scene);
        ASSERT_EQ(rig.grids(c.scene), TL_OK);
        if (c.shifted) {
            // A shift of the calibrated centre by u sub pixels slides the rectified sub frame by u f / f_sub
            // working pixels and adds that to every disparity: -3.5 pixels at the background.
            const double background = rig.e.focalLength * c.scene.baseline / 3.5;
            ASSERT_EQ(
                rig.grids(c.scene, (-3.5 - background) * c.scene.subCalib.matrix.m[0] / rig.e.focalLength),
                TL_OK);
        }
        ASSERT_EQ(DisparityEstimator_setFocusCoord(&rig.e, c.focusX, c.focusY), TL_OK);
        ASSERT_EQ(rig.estimate(c.scene), TL_OK) << c.name;
        int32_t status = -1;
        ASSERT_EQ(DisparityEstimator_getStatus(&rig.e, &status), TL_OK);
        EXPECT_EQ(status, c.want) << c.name << ": range " << rig.e.minDisparityPx << " to "
                                  << rig.e.maxDisparityPx;
    }
}

// Extrinsics given the other way round are turned back in the caller's records, and give the same grids.
TEST(DisparityEstimator, ReversedExtrinsics) {
    const Scene& s = sharedScene();
    Rig forward(s), reversed(s);
    ASSERT_EQ(forward.grids(s), TL_OK);
    Mvec8Real rotation, want;
    float t[3], wantT[3];
    s.extrinsics(true, &rotation, t);
    s.extrinsics(false, &want, wantT);
    RectifyLensDist mainLens = s.mainCalib.lens, subLens = s.subCalib.lens;
    ASSERT_EQ(DisparityEstimator_calcGridParams(&reversed.e, &s.mainCalib.matrix, &s.subCalib.matrix,
                                                &mainLens, &subLens, &rotation, t, 0, s.mainCalib.width,
                                                s.mainCalib.height, s.subCalib.width, s.subCalib.height),
              TL_OK);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(rotation.m[i], want.m[i], 1e-12) << i;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(t[i], wantT[i]) << i;
    for (auto grid :
         {&DisparityEstimator::mainGrid, &DisparityEstimator::subGrid, &DisparityEstimator::disparityGrid}) {
        const Renderer2_Params &a = forward.e.*grid, &b = reversed.e.*grid;
        for (int32_t v = 0; v < a.cols * a.rows; ++v)
            ASSERT_TRUE(std::fabs(b.x[v] - a.x[v]) < 1e-6 && std::fabs(b.y[v] - a.y[v]) < 1e-6) << v;
    }
}

// Refused input changes nothing: the last map, tables and status stay. Fine mode lacks filler and filter.
TEST(DisparityEstimator, BadInputLeavesTheLastResult) {
    const Scene& s = sharedScene();
    Rig rig(s), fine(s, 1, 1);
    DisparityEstimator* e = &rig.e;
    ASSERT_TRUE(rig.grids(s) == TL_OK && fine.grids(s) == TL_OK);
    ASSERT_EQ(rig.estimate(s), TL_OK);
    const std::vector<uint8_t> before = resultBytes(*e), fineBefore = resultBytes(fine.e);
    const Image *main = &s.main->image, *sub = &s.sub->image;
    Picture small(main->width / 2, main->height / 2, main->format), luma(main->width, main->height, 60),
        rgb(sub->width, sub->height, IMAGE_FORMAT_RGB888), out(rig.depthWidth, rig.depthHeight, 60),
        outOdd(rig.depthWidth + 1, rig.depthHeight, 60);
    Fixture noGrids;
    auto est = [&](DisparityEstimator* x, const Image* m, const Image* su, float threshold) {
        return DisparityEstimator_estimateDisparity(x, m, su, 5, 40, threshold, 0, 255);
    };
    auto refine = [&](Picture* o, const Image* guide, int32_t mode, float sigmaRange, Rig& r, uint8_t w = 7) {
        return DisparityEstimator_refineDisparity(&r.e, &o->image, guide, w, mode, 10.0f, sigmaRange);
    };
    // Calibrations that cannot be rectified.
    Mvec8Real rotation, flat = s.mainCalib.matrix, skewed = s.subCalib.matrix, singular{};
    float t[3], zero[3] = {0, 0, 0};
    s.extrinsics(false, &rotation, t);
    flat.m[0] = 0.0;
    skewed.m[1] = 0.5;
    RectifyLensDist mainLens = s.mainCalib.lens, subLens = s.subCalib.lens, kind2 = subLens;
    kind2.kind = 2;
    auto grid = [&](const Mvec8Real* mc, const Mvec8Real* sc, RectifyLensDist* sl, Mvec8Real* r, float* tr,
                    int32_t forward) {
        return DisparityEstimator_calcGridParams(e, mc, sc, &mainLens, sl, r, tr, forward, 4000, 3000, 2592,
                                                 1944);
    };
    const Mvec8Real *mc = &s.mainCalib.matrix, *sc = &s.subCalib.matrix;
    const struct {
        const char* name;
        std::function<TLResult()> call;
        TLResult want;
    } cases[] = {
        {"main of half size", [&] { return est(e, &small.image, sub, 1.0f); }, TL_ERROR_PARAM},
        {"sub of the main's size", [&] { return est(e, main, main, 1.0f); }, TL_ERROR_PARAM},
        {"main in UINT8", [&] { return est(e, &luma.image, sub, 1.0f); }, TL_ERROR_UNSUPPORTED},
        {"sub in RGB", [&] { return est(e, main, &rgb.image, 1.0f); }, TL_ERROR_UNSUPPORTED},
        {"threshold NaN", [&] { return est(e, main, sub, NAN); }, TL_ERROR_PARAM},
        {"before the grids", [&] { return est(&noGrids, main, sub, 1.0f); }, TL_ERROR_STATE},
        {"fine mode's filler", [&] { return est(&fine.e, main, sub, 1.0f); }, TL_ERROR_UNSUPPORTED},
        {"fine mode's filter", [&] { return refine(&out, main, 3, 15.0f, fine); }, TL_ERROR_UNSUPPORTED},
        {"fine mode, no filter", [&] { return refine(&out, main, 0, 15.0f, fine, 0); }, TL_OK},
        {"sigmaRange 64.5", [&] { return refine(&out, main, 3, 64.5f, rig); }, TL_ERROR_PARAM},
        {"output of another size", [&] { return refine(&outOdd, main, 3, 15.0f, rig); }, TL_ERROR_PARAM},
        {"guide mode 0 with a window", [&] { return refine(&out, main, 0, 15.0f, rig); }, TL_ERROR_PARAM},
        {"guide in UINT8", [&] { return refine(&out, &luma.image, 3, 15.0f, rig); }, TL_ERROR_UNSUPPORTED},
        {"focus 1.0001", [&] { return DisparityEstimator_setFocusCoord(e, 1.0001f, 0.5f); }, TL_ERROR_PARAM},
        {"focal length 0", [&] { return grid(&flat, sc, &subLens, &rotation, t, 1); }, TL_ERROR_GENERAL},
        {"skewed sub camera", [&] { return grid(mc, &skewed, &subLens, &rotation, t, 1); }, TL_ERROR_GENERAL},
        {"zero baseline", [&] { return grid(mc, sc, &subLens, &rotation, zero, 1); }, TL_ERROR_GENERAL},
        {"singular rotation to invert", [&] { return grid(mc, sc, &subLens, &singular, t, 0); },
         TL_ERROR_PARAM},
        {"lens of kind 2", [&] { return grid(mc, sc, &kind2, &rotation, t, 1); }, TL_ERROR_UNSUPPORTED},
    };
    for (const auto& c : cases) EXPECT_EQ(c.call(), c.want) << c.name;
    EXPECT_TRUE(resultBytes(*e) == before && resultBytes(fine.e) == fineBefore);
    EXPECT_TRUE(e->focusX == 0.5f && e->focusY == 0.5f);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(singular.m[i], 0.0);
    EXPECT_EQ(t[0], static_cast<float>(s.translation[0]));
    EXPECT_EQ(DisparityEstimator_setFocusCoord(e, 1.0f, 0.0f), TL_OK);
    EXPECT_EQ(DisparityEstimator_init(e, 640, 480, 640, 480, 320, 240, 10.0f, IMAGE_FORMAT_UINT8, 0, 0),
              TL_ERROR_UNSUPPORTED);
    // A sub frame below the working frame (172 by 130) could not be shrunk to it.
    EXPECT_EQ(DisparityEstimator_init(e, 640, 480, 160, 120, 320, 240, 10.0f, main->format, 0, 0),
              TL_ERROR_PARAM);
}

// Stage 12 on a 12 by 2 map of 100 with g = 100 / ((12 / 12) * 100) = 1 and levels = 255 / 25.5 = 10 per
// pixel; at rotation 0 the sub camera is right of the main one, so a scale s ramps by -(s - 1) * 10 per
// column about column 6, out = trunc(in + slope * (pivot - x) + 0.5). Sixths are 2 columns wide.
TEST(DisparityEstimator, TiltRampsWorkedByHand) {
    const struct {
        const char* name;
        uint32_t mode, rotation;
        double scales[3];  // left, centre, right
        double limit;      // minSlope -limit, maxSlope limit; a negative limit: both -limit
        bool trend;        // the map rises by 2 per column
        int8_t want[12];   // less 100
    } cases[] = {
        {"mode 0", 0, 0, {1.1, 1.012, 0.9}, 1, false, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        // -0.12 per column: 100 - 0.72 + 0.5 at column 0, 100 - 0.48 + 0.5 at column 2, 100 + 0.6 + 0.5
        // at 11.
        {"mode 2", 2, 0, {1, 1.012, 1}, 1, false, {-1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
        {"upside down", 2, 2, {1, 1.012, 1}, 1, false, {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1}},
        // Clamped to 0.005 * 10 per column: 100 - 0.3 + 0.5 to 100 + 0.25 + 0.5.
        {"clamped", 2, 0, {1, 1.012, 1}, 0.005, false, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        // Limits of 0 stop the centre; the strips still act: -1 per column about column 2 on the left, +1
        // about column 10 on the right.
        {"mode 3", 3, 0, {1.1, 1.012, 0.9}, 0, false, {-2, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1}},
        // Slopes under 1e-6 do nothing.
        {"tiny", 3, 0, {1 + 1e-8, 1, 1 - 1e-8}, 0, false, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        // The column minima rise by 2: a ramp of 2 about column 6 levels the map at 112.
        {"mode 1", 1, 0, {1, 1, 1}, 5, true, {12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12}},
        // Equal limits of -0.05: their value, -0.5 per column, whatever the map.
        {"equal limits", 1, 0, {1, 1, 1}, -0.05, true, {-3, 0, 2, 5, 7, 10, 12, 15, 17, 20, 22, 25}},
    };
    for (const auto& c : cases) {
        Fixture f;
        f.focalLength = f.calibFocalLength = 100.0f;
        f.calibWidth = 12;
        f.rotation = c.rotation;
        f.leftScale = c.scales[0], f.centreScale = c.scales[1], f.rightScale = c.scales[2];
        DisparityEstimator_setDisparityCorrectionMode(&f, c.mode);
        DisparityEstimator_setCorrectDispParams(&f, -std::fabs(c.limit), c.limit);
        Picture map(12, 2, IMAGE_FORMAT_UINT8);
        for (int32_t y = 0; y < 2; ++y) {
            for (int32_t x = 0; x < 12; ++x)
                map.u8(x, y) = static_cast<uint8_t>(c.trend ? 100 + 2 * x + y : 100);
        }
        ASSERT_EQ(DisparityEstimator_correctDisparity(&f, &map.image, 0.0f, 25.5f), TL_OK) << c.name;
        for (int32_t x = 0; x < 12; ++x)
            EXPECT_EQ(map.u8(x, 0), 100 + c.want[x]) << c.name << ", column " << x;
        EXPECT_TRUE(map.canariesIntact());
    }
}

// The ramp's sign on a flat 48 by 2 map of 100 (sixths of 8 columns), the range 0 to 25.5 px and g = 350 /
// ((48 / 48) * 10) = 35. Mode 3 with both limits 0 holds the centre; a left scale of 1.001 ramps the left
// sixth by 0.001 levels g per column about its pivot, column 8: the disparity x_main - x_sub of rotation 0
// fell where the sub view grew, so the ramp falls towards the left edge to take that out; at rotation 2
// (x_sub - x_main) it rises. A strip slope under 1e-6 does nothing; rotations 1 and 3 leave the map alone in
// every mode, even with scales and limits that ramp the whole map at rotation 0.
TEST(DisparityEstimator, TiltRampSign) {
    const struct {
        const char* name;
        uint32_t rotation, mode;
        double left, centre, minSlope, maxSlope;
        int sign;  // of the left sixth's ramp; 0: the map stays flat
    } cases[] = {
        {"rotation 0", 0, 3, 1.001, 1.0, 0.0, 0.0, -1},
        {"rotation 2", 2, 3, 1.001, 1.0, 0.0, 0.0, 1},
        {"strip slope 7e-7", 0, 3, 1.0 + 2e-9, 1.0, 0.0, 0.0, 0},
        {"rotation 1, mode 1", 1, 1, 1.001, 1.001, -0.001, -0.001, 0},
        {"rotation 1, mode 2", 1, 2, 1.001, 1.001, -1.0, 1.0, 0},
        {"rotation 1, mode 3", 1, 3, 1.001, 1.001, -1.0, 1.0, 0},
        {"rotation 3, mode 1", 3, 1, 1.001, 1.001, -0.001, -0.001, 0},
        {"rotation 3, mode 2", 3, 2, 1.001, 1.001, -1.0, 1.0, 0},
        {"rotation 3, mode 3", 3, 3, 1.001, 1.001, -1.0, 1.0, 0},
    };
    for (const auto& c : cases) {
        Fixture f;
        f.focalLength = 350.0f, f.calibFocalLength = 10.0f, f.calibWidth = 48;
        f.rotation = c.rotation;
        f.leftScale = c.left, f.centreScale = c.centre, f.rightScale = 1.0;
        DisparityEstimator_setDisparityCorrectionMode(&f, c.mode);
        DisparityEstimator_setCorrectDispParams(&f, c.minSlope, c.maxSlope);
        Picture map(48, 2, IMAGE_FORMAT_UINT8);
        map.fillPlanes(100);
        ASSERT_EQ(DisparityEstimator_correctDisparity(&f, &map.image, 0.0f, 25.5f), TL_OK) << c.name;
        const double levels = 255.0 / 25.5, g = f.focalLength / ((48.0 / f.calibWidth) * f.calibFocalLength);
        for (int32_t x = 0; x < 48; ++x) {
            const double ramp = x < 8 ? c.sign * (c.left - 1.0) * levels * g * (8 - x) : 0.0;
            EXPECT_EQ(map.u8(x, 1), static_cast<int>(std::floor(100.0 + ramp + 0.5)))
                << c.name << ", column " << x;
        }
    }
}

// Stage 11 (range, stretch, tables, status) comes before stage 12: the same frame with and without a strong
// correction (mode 2, scale 1.05, about half a level per column) gives the same range, tables, focus-window
// histogram and status, while the maps differ. And a frame that fails anywhere in stages 8 to 12, the
// correction's column minima of mode 1 included, leaves the last frame's maps, tables, histogram and status.
TEST(DisparityEstimator, StatusBeforeCorrectionAndFailuresLeaveTheLastResult) {
    std::mt19937 rng(11);
    std::vector<std::unique_ptr<Picture>> maps;
    Picture confidence(172, 130, IMAGE_FORMAT_UINT8);  // the working frame of the 640 by 480 fixture
    confidence.fillPlanes(255);
    for (int k = 0; k < 2; ++k) {
        maps.push_back(std::make_unique<Picture>(172, 130, IMAGE_FORMAT_UINT8));
        for (int32_t y = 0; y < 130; ++y) {
            for (int32_t x = 0; x < 172; ++x)
                maps[k]->u8(x, y) = static_cast<uint8_t>(40 + rng() % (k == 0 ? 150 : 90));
        }
    }
    auto prepared = [](Fixture& f, uint32_t mode) {
        f.focalLength = f.calibFocalLength = 100.0f;
        f.calibWidth = f.disparityWidth;
        f.centreScale = 1.05;
        DisparityEstimator_setDisparityCorrectionMode(&f, mode);
        DisparityEstimator_setCorrectDispParams(&f, -1.0, 1.0);
    };
    auto published = [](const Fixture& f) {
        std::vector<uint8_t> b = resultBytes(f);
        const uint8_t* h = reinterpret_cast<const uint8_t*>(f.roiHistogram);
        b.insert(b.end(), h, h + (kDisparityLevels + 1) * sizeof(uint32_t));
        return b;
    };
    Fixture plain, corrected;
    prepared(plain, 0);
    prepared(corrected, 2);
    for (Fixture* f : {&plain, &corrected})
        ASSERT_EQ(DisparityEstimator_finishDisparity(f, &maps[0]->image, &confidence.image, 255), TL_OK);
    std::vector<uint8_t> a = published(plain), b = published(corrected);
    const size_t mapBytes = 2 * static_cast<size_t>(plain.disparityWidth) * plain.disparityHeight;
    EXPECT_FALSE(std::equal(a.begin(), a.begin() + mapBytes / 2, b.begin()));
    EXPECT_TRUE(std::equal(a.begin() + mapBytes, a.end(), b.begin() + mapBytes));
    if (!Memory_canInjectFaults()) return;
    Fixture f;
    prepared(f, 1);
    ASSERT_EQ(DisparityEstimator_finishDisparity(&f, &maps[0]->image, &confidence.image, 255), TL_OK);
    const std::vector<uint8_t> before = published(f);
    int64_t n = 1;
    for (;; ++n) {
        Memory_failAt(n);
        const TLResult r = DisparityEstimator_finishDisparity(&f, &maps[1]->image, &confidence.image, 255);
        const int64_t count = Memory_getAllocCount();
        Memory_failAt(0);
        if (count < n) break;
        EXPECT_EQ(r, TL_ERROR_MEMORY) << "allocation " << n;
        EXPECT_TRUE(published(f) == before) << "allocation " << n;
    }
    EXPECT_EQ(n, 4);  // the new map, its confidence, and stage 12's column minima
}

// Stage 7 carves each estimate's detector from a work area it keeps: after a wider pair the same area serves
// a narrower one, whose scales are those a fresh estimator measures (the sub view magnified by 1.003, read
// within 3e-4). Every allocation of a first estimate failed in turn gives TL_ERROR_MEMORY and leaves the
// scales; the estimator's destruct gives every block back.
TEST(DisparityEstimator, ScaleEstimatesKeepTheirWorkArea) {
    auto pair = [](int32_t w, int32_t h) {
        const vq_tl_test::Texture texture(21);
        std::array<std::unique_ptr<Picture>, 2> p{std::make_unique<Picture>(w, h, IMAGE_FORMAT_UINT8),
                                                  std::make_unique<Picture>(w, h, IMAGE_FORMAT_UINT8)};
        const double identity[6] = {1, 0, 0, 0, 1, 0};
        double motion[6], inverse[6];
        vq_tl_test::motionAboutCentre(w, h, 1.003, 1.003, 0.0, -3.0, 0.0, motion);
        vq_tl_test::invertAffine(motion, inverse);
        texture.render(*p[0], identity, 1.0, 1);
        texture.render(*p[1], inverse, 1.0, 2);
        return p;
    };
    const auto wide = pair(1080, 400), narrow = pair(720, 400);
    auto scales = [](const DisparityEstimator& e) {
        return std::vector<double>{e.leftScale, e.centreScale, e.rightScale};
    };
    Estimator fresh, reused;
    for (Estimator* e : {&fresh, &reused}) DisparityEstimator_setDisparityCorrectionMode(e, 3);
    ASSERT_EQ(DisparityEstimator_estimateScales(&reused, &wide[0]->image, &wide[1]->image), TL_OK);
    const uint8_t* area = reused.scaleWork;
    ASSERT_EQ(DisparityEstimator_estimateScales(&reused, &narrow[0]->image, &narrow[1]->image), TL_OK);
    ASSERT_EQ(DisparityEstimator_estimateScales(&fresh, &narrow[0]->image, &narrow[1]->image), TL_OK);
    EXPECT_EQ(reused.scaleWork, area);
    EXPECT_EQ(scales(reused), scales(fresh));
    for (double s : scales(fresh)) EXPECT_NEAR(s, 1.003, 3e-4);
    if (!Memory_canInjectFaults()) return;
    const int64_t live = Memory_getLiveCount();
    for (int64_t n = 1;; ++n) {
        Estimator e;
        DisparityEstimator_setDisparityCorrectionMode(&e, 3);
        e.leftScale = e.centreScale = e.rightScale = 7.0;
        Memory_failAt(n);
        const TLResult r = DisparityEstimator_estimateScales(&e, &narrow[0]->image, &narrow[1]->image);
        const int64_t count = Memory_getAllocCount();
        Memory_failAt(0);
        if (count < n) break;
        EXPECT_EQ(r, TL_ERROR_MEMORY) << "allocation " << n;
        EXPECT_EQ(scales(e), std::vector<double>(3, 7.0)) << "allocation " << n;
    }
    EXPECT_EQ(Memory_getLiveCount(), live);
}

namespace {

// Least-squares slope against x of the disparity error of confident, textured, unoccluded pixels, in working
// pixels of disparity per pixel of the map.
double errorSlope(const Scene& s, const DisparityEstimator& e, const Rig& rig) {
    const double fb = e.focalLength * e.baseline;
    double n = 0, sx = 0, se = 0, sxe = 0, sxx = 0;
    for (int32_t y = 0; y < e.disparityHeight; ++y) {
        for (int32_t x = 0; x < e.disparityWidth; ++x) {
            const size_t i = truthIndex(s, x, y, e.disparityWidth, e.disparityHeight);
            if (e.confidence.plane[0][y * e.confidence.pitch[0] + x] != 255 || s.textured[i] == 0 ||
                s.occluded[i] != 0)
                continue;
            const double error =
                rig.disparityOf(e.disparity.plane[0][y * e.disparity.pitch[0] + x]) - fb / s.depth[i];
            n += 1, sx += x, se += error, sxe += x * error, sxx += static_cast<double>(x) * x;
        }
    }
    return (sxe / n - sx / n * se / n) / (sxx / n - sx / n * sx / n);
}

}  // namespace

// A sub camera whose focal length is 0.5 % longer than its calibration says magnifies the rectified sub view:
// without correction the disparity error falls across the picture by 0.005 working pixels per working pixel;
// mode 3 with wide limits takes at least two thirds of that slope out, and on the pair as calibrated changes
// the map by one level at most. At the full size: a sixth of the working width less the uncovered border of
// the rectified frame, at a quarter, keeps the side strips above the 24 pixels that feature points need. The
// baseline lies along x: with a vertical part, the rectification leaves vertical disparity in proportion to
// the horizontal one, which the scale estimate reads as a tilt of its own.
TEST(DisparityEstimator, TiltCorrection) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // A full-size frame's stripes outlast the Pel's wait limit of 3 s under sanitizers: the calling thread.
    const int kFullSizeLayers = 0;
#else
    const int kFullSizeLayers = 1;
#endif
    SceneConfig config = sceneConfig(1.0);
    config.subCentre[1] = config.subCentre[2] = 0.0;
    config.rotationDegrees = 0.0;
    config.truth = false;
    const Scene calibrated(config);
    config.subFocalError = 0.005;
    config.truth = true;
    const Scene moved(config);
    std::vector<uint8_t> maps[2];  // the calibrated pair's, without and with the correction
    double slopes[2] = {0, 0};     // the moved pair's error slopes, likewise
    for (int scene = 0; scene < 2; ++scene) {
        const Scene& s = scene == 0 ? calibrated : moved;
        for (int corrected = 0; corrected < 2; ++corrected) {
            Rig rig(s, kFullSizeLayers);
            ASSERT_EQ(rig.grids(s), TL_OK);
            ASSERT_EQ(DisparityEstimator_setDisparityCorrectionMode(&rig.e, corrected != 0 ? 3 : 0), TL_OK);
            ASSERT_EQ(DisparityEstimator_setCorrectDispParams(&rig.e, -1.0, 1.0), TL_OK);
            ASSERT_EQ(rig.estimate(s), TL_OK);
            const Image& d = rig.e.disparity;
            for (int32_t y = 0; scene == 0 && y < d.height; ++y)
                maps[corrected].insert(maps[corrected].end(), d.plane[0] + y * d.pitch[0],
                                       d.plane[0] + y * d.pitch[0] + d.width);
            if (scene == 1) slopes[corrected] = errorSlope(s, rig.e, rig);
            // The magnification's slope, in working pixels per pixel of the map.
            const double magnified = -0.005 * rig.e.workWidth / rig.e.disparityWidth;
            EXPECT_NEAR(scene == 1 && corrected == 0 ? slopes[0] : magnified, magnified, 0.001);
            const double want = corrected == 0 ? 0.0 : scene == 1 ? 1.005 : 1.0;
            for (double scale : {rig.e.leftScale, rig.e.centreScale, rig.e.rightScale})
                EXPECT_NEAR(scale, want, 3e-4) << "scene " << scene;
        }
    }
    EXPECT_LE(std::fabs(slopes[1]), std::fabs(slopes[0]) / 3) << slopes[0] << " corrected to " << slopes[1];
    int worst = 0;
    for (size_t i = 0; i < maps[0].size(); ++i) worst = std::max(worst, std::abs(maps[1][i] - maps[0][i]));
    EXPECT_LE(worst, 1);
}
