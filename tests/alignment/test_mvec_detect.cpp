// The multi-scale motion search on textured pictures moved by known maps: what the depth pipeline asks of
// it (six parameters at a quarter of the working width), the other models, sequences, the settings of its
// table, flat pictures and refused input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "alignment/mvec_detect_multi2.h"
#include "runtime/memory.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"
#include "support/texture.h"

using namespace vq_tl;
using vq_tl_test::Picture;
using vq_tl_test::Texture;

namespace {

// The size the depth pipeline measures at: a quarter of the working width 1080 by the full height 810.
constexpr int32_t kWidth = 270, kHeight = 810;

struct Detector {
    Env env{};
    MvecDetectMulti2 d;
    explicit Detector(int32_t dof = 6, Pel* pel = nullptr) {
        construct_MvecDetectMulti2(&d, &env);
        MvecDetectMulti2_setPel(&d, pel);
        EXPECT_EQ(MvecDetectMulti2_setDof(&d, dof), TL_OK);
    }
    ~Detector() { destruct_MvecDetectMulti2(&d); }
};

// The reference shows the texture as it is; each later picture the texture under the inverse of its motion,
// so that the motion carries a reference point onto the same texture point.
std::unique_ptr<Picture> moved(const Texture& t, int32_t w, int32_t h, const double motion[6], double noise,
                               uint32_t seed) {
    auto p = std::make_unique<Picture>(w, h, IMAGE_FORMAT_UINT8);
    double inverse[6];
    vq_tl_test::invertAffine(motion, inverse);
    t.render(*p, inverse, noise, seed);
    return p;
}

const double kIdentity[6] = {1, 0, 0, 0, 1, 0};

// A 64-byte aligned block of `size` bytes, so that an arena over it has exactly the room asked for less the
// line Arena_init keeps for alignment.
struct AlignedBlock {
    std::vector<uint8_t> bytes;
    uint8_t* data;
    explicit AlignedBlock(size_t size) : bytes(size + kArenaAlign) {
        data = bytes.data() +
               (kArenaAlign - reinterpret_cast<uintptr_t>(bytes.data()) % kArenaAlign) % kArenaAlign;
    }
};

// Runs a detector over the pictures and returns the output; `setup` adjusts its settings before init. Each
// run is made twice, on the system allocator and in an arena of the size the detector asks for: the same
// output and code both ways, and the arena whole again once a fresh init has given its pieces back.
template <typename Setup>
std::vector<int32_t> detect(const std::vector<const Picture*>& pictures, int32_t dof, Setup setup,
                            Pel* pel = nullptr, uint32_t* code = nullptr) {
    std::vector<int32_t> out[2];
    uint32_t codes[2] = {0, 0};
    const Image& first = pictures[0]->image;
    const int32_t n = static_cast<int32_t>(pictures.size());
    for (int carved = 0; carved < 2; ++carved) {
        Detector det(dof, pel);
        setup(&det.d);
        const int32_t size = MvecDetectMulti2_getArenaSize(&det.d, first.width, first.height, n);
        EXPECT_GT(size, 0);
        AlignedBlock block(static_cast<size_t>(size > 0 ? size : 0));
        Arena arena;
        Arena_init(&arena, block.data, static_cast<size_t>(size > 0 ? size : 0));
        if (carved != 0) MvecDetectMulti2_setArena(&det.d, &arena);
        EXPECT_EQ(MvecDetectMulti2_init(&det.d, first.width, first.height, n), TL_OK);
        for (const Picture* p : pictures) EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, &p->image), TL_OK);
        out[carved].assign(9, 0);
        EXPECT_EQ(MvecDetectMulti2_outputMvec(&det.d, out[carved].data()), TL_OK);
        codes[carved] = MvecDetectMulti2_getFailureCode(&det.d);
        MvecDetectMulti2_setArena(&det.d, nullptr);
        EXPECT_EQ(MvecDetectMulti2_init(&det.d, first.width, first.height, n), TL_OK);
        EXPECT_EQ(arena.used, 0u);
    }
    EXPECT_EQ(out[1], out[0]) << "in an arena";
    EXPECT_EQ(codes[1], codes[0]) << "in an arena";
    if (code != nullptr) *code = codes[0];
    return out[0];
}

std::vector<int32_t> detect(const std::vector<const Picture*>& pictures, int32_t dof = 6) {
    return detect(pictures, dof, [](MvecDetectMulti2*) {});
}

// Farthest disagreement in pixels of six Q15 elements and a real affine map over the frame's corners.
double affineError(const std::vector<int32_t>& got, const double m[6], int32_t w, int32_t h) {
    double worst = 0;
    for (double y : {0.0, 1.0 * h}) {
        for (double x : {0.0, 1.0 * w}) {
            const double gx = (got[0] * x + got[1] * y + got[2]) / 32768.0,
                         gy = (got[3] * x + got[4] * y + got[5]) / 32768.0;
            worst = std::fmax(
                worst, std::hypot(gx - (m[0] * x + m[1] * y + m[2]), gy - (m[3] * x + m[4] * y + m[5])));
        }
    }
    return worst;
}

}  // namespace

// Horizontal scale 0.99 to 1.01, up to half a degree of rotation, shifts up to 20 pixels, noise of 1.5
// levels: the scales within 3e-4, the centre's shift within 0.1 pixels.
TEST(MvecDetectMulti2, RecoversAffineMotionAtThePipelineSize) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> scale(0.99, 1.01), angle(-0.5, 0.5), shift(-20.0, 20.0);
    const int rounds = vq_tl_test_scaled(8, 2);
    for (int round = 0; round < rounds; ++round) {
        const Texture texture(100 + round);
        double m[6];
        vq_tl_test::motionAboutCentre(kWidth, kHeight, scale(rng), 1.0, angle(rng) * M_PI / 180.0, shift(rng),
                                      shift(rng), m);
        const auto reference = moved(texture, kWidth, kHeight, kIdentity, 1.5, 2 * round);
        const auto other = moved(texture, kWidth, kHeight, m, 1.5, 2 * round + 1);
        uint32_t code = ~0u;
        const std::vector<int32_t> got = detect(
            {reference.get(), other.get()}, 6, [](MvecDetectMulti2*) {}, nullptr, &code);
        EXPECT_EQ(code, 0u) << round;
        for (int i : {0, 1, 3, 4})
            EXPECT_NEAR(got[i] / 32768.0, m[i], 3e-4) << "round " << round << " element " << i;
        const double cx = 0.5 * kWidth, cy = 0.5 * kHeight;
        EXPECT_NEAR((got[0] * cx + got[1] * cy + got[2]) / 32768.0, m[0] * cx + m[1] * cy + m[2], 0.1)
            << round;
        EXPECT_NEAR((got[3] * cx + got[4] * cy + got[5]) / 32768.0, m[3] * cx + m[4] * cy + m[5], 0.1)
            << round;
    }
}

// Identical pictures give the identity exactly; a flat one has no features: the failure code and the
// identity.
TEST(MvecDetectMulti2, IdentityForStillAndFlatPictures) {
    const auto textured = moved(Texture(1), kWidth, kHeight, kIdentity, 1.0, 1);
    Picture flat(kWidth, kHeight, IMAGE_FORMAT_UINT8);
    flat.fillPlanes(120);
    for (const Picture* p : {textured.get(), &flat}) {
        uint32_t code = 0;
        const std::vector<int32_t> got = detect(
            {p, p}, 6, [](MvecDetectMulti2*) {}, nullptr, &code);
        const int32_t identity[6] = {32768, 0, 0, 0, 32768, 0};
        for (int i = 0; i < 6; ++i) EXPECT_EQ(got[i], identity[i]) << i;
        EXPECT_EQ(code, p == &flat ? MVEC_LSM_FAILURE_TOO_FEW_POINTS : 0u);
    }
}

// Halvings while the area is at least 600 pixels, by hand: 270 x 810 -> 134 x 404 -> 66 x 201 -> 32 x 99 ->
// 15 x 48 (720) -> 6 x 23; 640 x 480 -> 319 x 239 -> ... -> 38 x 28 (1064) -> 18 x 13. One fewer without
// coarsest matching, but not below 1.
TEST(MvecDetectMulti2, PyramidDepth) {
    const struct {
        int32_t w, h, coarsest, ratio, want;
    } cases[] = {{270, 810, 1, 1, 5}, {270, 810, 0, 1, 4}, {640, 480, 1, 1, 5},
                 {640, 480, 1, 2, 4}, {20, 20, 1, 1, 0},   {20, 20, 0, 1, 1}};
    for (const auto& c : cases) {
        Detector det;
        MvecDetectMulti2_setCoarsestMatchingActivated(&det.d, c.coarsest);
        MvecDetectMulti2_setShrinkRatio(&det.d, c.ratio);
        EXPECT_EQ(MvecDetectMulti2_calcLevels(&det.d, c.w, c.h), c.want) << c.w << "x" << c.h;
    }
}

// Every setting of the table still finds a moderate motion: scale 1.005 across, 0.3 degrees, (3.3, -2.7).
TEST(MvecDetectMulti2, EverySetting) {
    const int32_t w = 200, h = 300;
    double m[6];
    vq_tl_test::motionAboutCentre(w, h, 1.005, 0.998, 0.3 * M_PI / 180.0, 3.3, -2.7, m);
    const Texture texture(42);
    const auto a = moved(texture, w, h, kIdentity, 1.0, 1), b = moved(texture, w, h, m, 1.0, 2);
    const struct {
        const char* name;
        void (*setup)(MvecDetectMulti2*);
        double tolerance;  // pixels at the corners
    } cases[] = {
        {"defaults", [](MvecDetectMulti2*) {}, 0.1},
        {"5 by 5 blocks", [](MvecDetectMulti2* d) { MvecDetectMulti2_setHalfBlockMatchSize(d, 2); }, 0.2},
        {"plain SAD", [](MvecDetectMulti2* d) { MvecDetectMulti2_setSimpleSadModeActivated(d, 1); }, 0.15},
        {"box shrink",
         [](MvecDetectMulti2* d) { MvecDetectMulti2_setSimpleShrink2ForMvecDetectModeActivated(d, 1); }, 0.1},
        {"whole pixels", [](MvecDetectMulti2* d) { MvecDetectMulti2_setSubpixelMatchingActivated(d, 0); },
         0.6},
        {"adaptive features",
         [](MvecDetectMulti2* d) { MvecDetectMulti2_setAdaptiveFeatPntsActivated(d, 1); }, 0.1},
        {"3 by 3 window", [](MvecDetectMulti2* d) { MvecDetectMulti2_setFeatPntWindowSize(d, 3); }, 0.1},
        {"shrunk by 2", [](MvecDetectMulti2* d) { MvecDetectMulti2_setShrinkRatio(d, 2); }, 0.2},
        {"no coarsest level",
         [](MvecDetectMulti2* d) { MvecDetectMulti2_setCoarsestMatchingActivated(d, 0); }, 0.1},
        {"wide search, 64 features",
         [](MvecDetectMulti2* d) {
             MvecDetectMulti2_setHalfSearchSize(d, 8), MvecDetectMulti2_setMaxFeatPntsNum(d, 64);
         },
         0.15},
        {"one level", [](MvecDetectMulti2* d) { d->levels = 1, MvecDetectMulti2_setHalfSearchSize(d, 8); },
         0.1},
        {"tight outliers", [](MvecDetectMulti2* d) { MvecDetectMulti2_setOutlierThresh(d, 0.5); }, 0.1},
    };
    for (const auto& c : cases) {
        uint32_t code = ~0u;
        const std::vector<int32_t> got = detect({a.get(), b.get()}, 6, c.setup, nullptr, &code);
        EXPECT_EQ(code, 0u) << c.name;
        EXPECT_LT(affineError(got, m, w, h), c.tolerance) << c.name;
    }
}

// Sequences of five pictures drifting by a known motion per step, matched against the first picture or
// against earlier ones (every picture, or every second one as reference): the last picture's motion.
TEST(MvecDetectMulti2, Sequences) {
    const int32_t w = 240, h = 320;
    const Texture texture(77);
    std::vector<std::unique_ptr<Picture>> pictures;
    std::vector<const Picture*> view;
    double total[6] = {1, 0, 0, 0, 1, 0};
    for (int32_t i = 0; i < 5; ++i) {
        if (i > 0) {
            double step[6], next[6];
            vq_tl_test::motionAboutCentre(w, h, 1.002, 0.999, 0.1 * M_PI / 180.0, 1.7, -2.3, step);
            next[0] = step[0] * total[0] + step[1] * total[3],
            next[1] = step[0] * total[1] + step[1] * total[4];
            next[2] = step[0] * total[2] + step[1] * total[5] + step[2];
            next[3] = step[3] * total[0] + step[4] * total[3],
            next[4] = step[3] * total[1] + step[4] * total[4];
            next[5] = step[3] * total[2] + step[4] * total[5] + step[5];
            std::copy(next, next + 6, total);
        }
        pictures.push_back(moved(texture, w, h, total, 1.0, 10 + i));
        view.push_back(pictures.back().get());
    }
    const struct { int32_t base, interval; } cases[] = {{1, 1}, {0, 1}, {0, 2}};
    for (const auto& c : cases) {
        uint32_t code = ~0u;
        const std::vector<int32_t> got = detect(
            view, 6,
            [&](MvecDetectMulti2* d) {
                MvecDetectMulti2_setBaseImageMatchingActivated(d, c.base);
                MvecDetectMulti2_setReferenceFrameUpdateInterval(d, c.interval);
            },
            nullptr, &code);
        EXPECT_EQ(code, 0u) << c.base << " " << c.interval;
        EXPECT_LT(affineError(got, total, w, h), 0.25) << "base " << c.base << ", interval " << c.interval;
    }
}

// The same result with no Pel, an unset one and Pels of 3 and 4 workers.
TEST(MvecDetectMulti2, SameResultOnEveryLayer) {
    double m[6];
    vq_tl_test::motionAboutCentre(kWidth, kHeight, 1.004, 1.0, 0.2 * M_PI / 180.0, -6.5, 4.25, m);
    const Texture texture(5);
    const auto a = moved(texture, kWidth, kHeight, kIdentity, 1.5, 3),
               b = moved(texture, kWidth, kHeight, m, 1.5, 4);
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    Pel unset;
    construct_Pel(&unset, nullptr);
    const std::vector<int32_t> serial = detect({a.get(), b.get()});
    for (Pel* pel : {&unset, &layers.pel, &layers.balanced})
        EXPECT_EQ(detect(
                      {a.get(), b.get()}, 6, [](MvecDetectMulti2*) {}, pel),
                  serial);
    destruct_Pel(&unset);
}

// Refused arguments and states: the code as documented, the settings and the last result unchanged.
TEST(MvecDetectMulti2, RefusedInput) {
    const auto a = moved(Texture(8), 64, 48, kIdentity, 0.0, 1);
    Picture other(64, 50, IMAGE_FORMAT_UINT8), rgb(64, 48, IMAGE_FORMAT_RGB888);
    Detector det;
    const TLResult limits[] = {MvecDetectMulti2_setDof(&det.d, 7),
                               MvecDetectMulti2_setHalfSearchSize(&det.d, 9),
                               MvecDetectMulti2_setHalfBlockMatchSize(&det.d, 4),
                               MvecDetectMulti2_setFeatPntWindowSize(&det.d, 5),
                               MvecDetectMulti2_setCoarsestPixsNum(&det.d, 255),
                               MvecDetectMulti2_setReliabilitySensitivity(&det.d, 1.5),
                               MvecDetectMulti2_setOutlierThresh(&det.d, 0.0),
                               MvecDetectMulti2_setViewAngle(&det.d, 60.0, 3)};
    for (TLResult r : limits) EXPECT_EQ(r, TL_ERROR_PARAM);
    EXPECT_TRUE(det.d.dof == 6 && det.d.halfSearchSize == 3 && det.d.halfBlockMatchSize == 3 &&
                det.d.coarsestPixsNum == 600);
    int32_t out[6];
    EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, &a->image), TL_ERROR_STATE);
    EXPECT_EQ(MvecDetectMulti2_outputMvec(&det.d, out), TL_ERROR_STATE);
    EXPECT_EQ(MvecDetectMulti2_init(&det.d, 64, 48, 17), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(MvecDetectMulti2_init(&det.d, 64, 48, 1), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_init(&det.d, 0, 48, 2), TL_ERROR_PARAM);
    det.d.halfBlockMatchSize = 4;
    EXPECT_EQ(MvecDetectMulti2_init(&det.d, 64, 48, 2), TL_ERROR_UNSUPPORTED);
    det.d.halfBlockMatchSize = 3;
    ASSERT_EQ(MvecDetectMulti2_init(&det.d, 64, 48, 2), TL_OK);
    ASSERT_EQ(MvecDetectMulti2_addImage(&det.d, &a->image), TL_OK);
    ASSERT_EQ(MvecDetectMulti2_addImage(&det.d, &a->image), TL_OK);
    int32_t before[6];
    ASSERT_EQ(MvecDetectMulti2_outputMvec(&det.d, before), TL_OK);
    EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, &a->image), TL_ERROR_STATE);  // the sequence is full
    EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, &other.image), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, &rgb.image), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(MvecDetectMulti2_addImage(&det.d, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(MvecDetectMulti2_outputMvec(&det.d, nullptr), TL_ERROR_PARAM);
    ASSERT_EQ(MvecDetectMulti2_outputMvec(&det.d, out), TL_OK);
    EXPECT_TRUE(std::equal(out, out + 6, before));
}

namespace {

void invert3(const double m[9], double out[9]) {
    const double a[9] = {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                         m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                         m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
    const double det = m[0] * a[0] + m[1] * a[3] + m[2] * a[6];
    for (int i = 0; i < 9; ++i) out[i] = a[i] / det;
}

}  // namespace

// Every model through the search: a motion of its own kind, as a homography of top-left pixels; the camera
// turns of dof 3 and 18 at the detector's focal length (60 degrees across the width).
TEST(MvecDetectMulti2, EveryModel) {
    const int32_t w = 240, h = 320;
    const double cx = 0.5 * w, cy = 0.5 * h, f = 0.5 * w / std::tan(M_PI / 6);
    // A turn by one degree about (0.3, -0.5, 0.8), K R K^-1 about the centre.
    const double ax = 0.3 / std::sqrt(0.98), ay = -0.5 / std::sqrt(0.98), az = 0.8 / std::sqrt(0.98);
    const double c = std::cos(M_PI / 180), s = std::sin(M_PI / 180);
    const double r[9] = {c + ax * ax * (1 - c),      ax * ay * (1 - c) - az * s, ax * az * (1 - c) + ay * s,
                         ay * ax * (1 - c) + az * s, c + ay * ay * (1 - c),      ay * az * (1 - c) - ax * s,
                         az * ax * (1 - c) - ay * s, az * ay * (1 - c) + ax * s, c + az * az * (1 - c)};
    const double kr[9] = {r[0], r[1], f * r[2], r[3], r[4], f * r[5], r[6] / f, r[7] / f, r[8]};
    // About the centre: T(c) K R K^-1 T(-c).
    double turn[9];
    for (int i = 0; i < 3; ++i) {
        const double row[3] = {kr[3 * i] + (i < 2 ? (i == 0 ? cx : cy) * kr[6] : 0),
                               kr[3 * i + 1] + (i < 2 ? (i == 0 ? cx : cy) * kr[7] : 0),
                               kr[3 * i + 2] + (i < 2 ? (i == 0 ? cx : cy) * kr[8] : 0)};
        turn[3 * i] = row[0], turn[3 * i + 1] = row[1], turn[3 * i + 2] = row[2] - row[0] * cx - row[1] * cy;
    }
    const struct {
        int32_t dof;
        double m[9];
    } cases[] = {
        {2, {1, 0, 3.3, 0, 1, -2.7, 0, 0, 1}},
        {14, {1.006, 0.004, -1.4 - 0.006 * cx - 0.004 * cy, 0, 1, 2.2, 0, 0, 1}},
        {24, {1, 0, 1.9, 0.003, 0.995, 2.5 - 0.003 * cx + 0.005 * cy, 0, 0, 1}},
        {8, {1.003, -0.002, 1.5, 0.001, 0.998, -1.0, 3e-5, -2e-5, 1}},
        {3, {turn[0], turn[1], turn[2], turn[3], turn[4], turn[5], turn[6], turn[7], turn[8]}},
        {18, {turn[0], turn[1], turn[2], turn[3], turn[4], turn[5], turn[6], turn[7], turn[8]}},
    };
    const Texture texture(31);
    const auto reference = moved(texture, w, h, kIdentity, 1.0, 1);
    for (const auto& k : cases) {
        Picture other(w, h, IMAGE_FORMAT_UINT8);
        double inverse[9];
        invert3(k.m, inverse);
        texture.renderProjective(other, inverse, 1.0, 2);
        Detector det(k.dof);
        ASSERT_EQ(MvecDetectMulti2_init(&det.d, w, h, 2), TL_OK);
        ASSERT_EQ(MvecDetectMulti2_addImage(&det.d, &reference->image), TL_OK);
        ASSERT_EQ(MvecDetectMulti2_addImage(&det.d, &other.image), TL_OK);
        EXPECT_EQ(MvecDetectMulti2_getFailureCode(&det.d), 0u) << k.dof;
        MvecDetectMulti2_Mvec got;
        ASSERT_EQ(MvecDetectMulti2_getMvec(&det.d, &got), TL_OK);
        const double ox = got.kind == MVEC_KIND_QUATERNION ? cx : 0,
                     oy = got.kind == MVEC_KIND_QUATERNION ? cy : 0;
        double worst = 0;
        for (double y = 0; y <= h; y += h / 4.0) {
            for (double x = 0; x <= w; x += w / 4.0) {
                int32_t gx, gy;
                ASSERT_EQ(
                    MvecDetectMulti2_Mvec_transF32(&got, &gx, &gy, static_cast<int32_t>((x - ox) * 32768),
                                                   static_cast<int32_t>((y - oy) * 32768)),
                    TL_OK);
                const double wz = k.m[6] * x + k.m[7] * y + k.m[8];
                worst =
                    std::fmax(worst, std::hypot(gx / 32768.0 + ox - (k.m[0] * x + k.m[1] * y + k.m[2]) / wz,
                                                gy / 32768.0 + oy - (k.m[3] * x + k.m[4] * y + k.m[5]) / wz));
            }
        }
        // Eight free elements reach the corners, beyond the last features, with more play.
        EXPECT_LT(worst, k.dof == 8 ? 0.25 : 0.15) << "dof " << k.dof;
    }
}

// The picture of the next image, filled in place, gives what a copy gives (the reference run of detect);
// there is none before init, once the sequence is full or when level 0 is shrunk. An arena a byte short of
// the size asked for refuses init and is left whole, and the detector as construct left it.
TEST(MvecDetectMulti2, ArenaAndPicturesFilledInPlace) {
    const int32_t w = 200, h = 300;
    double m[6];
    vq_tl_test::motionAboutCentre(w, h, 1.003, 0.997, 0.0, 1.5, -2.0, m);
    const Texture texture(9);
    const auto a = moved(texture, w, h, kIdentity, 1.0, 1), b = moved(texture, w, h, m, 1.0, 2);
    const std::vector<int32_t> want = detect({a.get(), b.get()});
    // The arena's block outlives the detector, whose records lie in it.
    std::unique_ptr<AlignedBlock> block;
    Detector det;
    EXPECT_EQ(MvecDetectMulti2_getNextImage(&det.d), nullptr);
    const int32_t size = MvecDetectMulti2_getArenaSize(&det.d, w, h, 2);
    block = std::make_unique<AlignedBlock>(static_cast<size_t>(size));
    Arena arena;
    Arena_init(&arena, block->data, static_cast<size_t>(size - kArenaAlign - 1));
    MvecDetectMulti2_setArena(&det.d, &arena);
    EXPECT_EQ(MvecDetectMulti2_init(&det.d, w, h, 2), TL_ERROR_MEMORY);
    EXPECT_EQ(arena.used, 0u);
    EXPECT_EQ(det.d.levelCount, 0);
    Arena_init(&arena, block->data, static_cast<size_t>(size - kArenaAlign));
    ASSERT_EQ(MvecDetectMulti2_init(&det.d, w, h, 2), TL_OK);
    for (const Picture* p : {a.get(), b.get()}) {
        Image* next = MvecDetectMulti2_getNextImage(&det.d);
        ASSERT_NE(next, nullptr);
        for (int32_t y = 0; y < h; ++y)
            std::memcpy(next->plane[0] + y * next->pitch[0], p->image.plane[0] + y * p->image.pitch[0], w);
        ASSERT_EQ(MvecDetectMulti2_addImage(&det.d, next), TL_OK);
    }
    EXPECT_EQ(MvecDetectMulti2_getNextImage(&det.d), nullptr);
    std::vector<int32_t> got(9, 0);
    ASSERT_EQ(MvecDetectMulti2_outputMvec(&det.d, got.data()), TL_OK);
    EXPECT_EQ(got, want);
    Detector halved;
    MvecDetectMulti2_setShrinkRatio(&halved.d, 2);
    ASSERT_EQ(MvecDetectMulti2_init(&halved.d, w, h, 2), TL_OK);
    EXPECT_EQ(MvecDetectMulti2_getNextImage(&halved.d), nullptr);
}

// In an arena a run takes from the system only the solvers' blocks: against a run on the system allocator it
// spares the two records, per level the two pictures and the matches, and for the reference's levels the
// feature list, the sort's second copy and the corner responses. Every block it still takes, failed in turn,
// ends the run with TL_ERROR_MEMORY (or is absorbed, as a pair the solver could not store is) and leaves the
// arena whole and no block alive.
TEST(MvecDetectMulti2, ArenaFailurePaths) {
    if (!Memory_canInjectFaults()) GTEST_SKIP() << "built without VQ_TL_ALLOC_FAULTS";
    const int32_t w = 160, h = 240;
    const Texture texture(12);
    const auto a = moved(texture, w, h, kIdentity, 1.0, 1), b = moved(texture, w, h, kIdentity, 1.0, 2);
    Detector probe;
    const int32_t size = MvecDetectMulti2_getArenaSize(&probe.d, w, h, 2);
    AlignedBlock block(static_cast<size_t>(size));
    int64_t blocks[2] = {0, 0};  // taken by a whole run: on the system allocator, in the arena
    int32_t levels = 0;
    for (int carved = 0; carved < 2; ++carved) {
        for (int64_t n = carved == 0 ? 0 : 1;; ++n) {
            const int64_t live = Memory_getLiveCount();
            Detector det;
            Arena arena;
            Arena_init(&arena, block.data, static_cast<size_t>(size));
            if (carved != 0) MvecDetectMulti2_setArena(&det.d, &arena);
            Memory_failAt(n);
            TLResult r = MvecDetectMulti2_init(&det.d, w, h, 2);
            levels = det.d.levelCount > 0 ? det.d.levelCount : levels;
            for (const Picture* p : {a.get(), b.get()}) {
                if (r == TL_OK) r = MvecDetectMulti2_addImage(&det.d, &p->image);
            }
            const int64_t count = Memory_getAllocCount();
            Memory_failAt(0);
            EXPECT_TRUE(r == TL_OK || r == TL_ERROR_MEMORY) << std::hex << r << " at allocation " << n;
            destruct_MvecDetectMulti2(&det.d);
            EXPECT_EQ(arena.used, 0u) << "allocation " << n;
            EXPECT_EQ(Memory_getLiveCount(), live) << "allocation " << n;
            construct_MvecDetectMulti2(&det.d, nullptr);
            if (count < n || n == 0) {
                blocks[carved] = count;
                break;
            }
        }
    }
    EXPECT_EQ(levels, 3);
    EXPECT_EQ(blocks[0] - blocks[1], 2 + 3 * levels + 3 * levels) << blocks[0] << " and " << blocks[1];
}
