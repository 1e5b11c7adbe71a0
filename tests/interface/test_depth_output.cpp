// Live sessions on the synthetic stereo shot, through the public interface:
// the depth picture against the scene's truth, the same bytes whatever the
// frame handling and the number of workers, calibration changes and
// refine-only frames, pictures at any size and on another thread, refused
// input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>

#include "interface/live_shot.h"
#include "interface/twin_lens_session.h"
#include "runtime/memory.h"

using namespace vq_tl_test;

namespace {

// A depth picture (mode 1) with its limits.
struct Depth {
    std::vector<uint8_t> pixels;
    float nearDepth = -1, farDepth = -1;
    int32_t width = 0;
    uint8_t at(int32_t x, int32_t y) const { return pixels[static_cast<size_t>(y) * width + x]; }
    bool operator==(const Depth& o) const = default;
};

Depth readDepth(TwinLensHandle* handle, int32_t width = kDepthWidth, int32_t height = kDepthHeight) {
    Depth d{std::vector<uint8_t>(static_cast<size_t>(width) * height), -1, -1, width};
    const TwinLensImage image{width, height, d.pixels.data(), nullptr, nullptr};
    EXPECT_EQ(velquin_TwinLens_getDepthImage(handle, &image, &d.nearDepth, &d.farDepth, 1), TL_OK);
    return d;
}

}  // namespace

// In mode 1, 1 / depth runs linearly from 1 / near at level 0 to 1 / far at
// level 255. The table behind the limits takes the disparity as the matcher
// stores it, counted from its lowest candidate (-4 pixels in normal mode),
// so a true depth z reads as f B / (f B / z + 4), f B from the estimator's
// rectified frame. Scored: pixels the estimator found consistent (its
// confidence map, half the depth size) on textured surfaces both cameras see.
TEST(DepthOutput, PictureReadsAsTheScenesDepth) {
    const Scene& s = shot();
    OpenSession session(shotParams(0).get());
    ASSERT_EQ(offerShot(session), TL_OK);
    const Depth d = readDepth(&session.handle);
    ASSERT_TRUE(d.nearDepth > 0 && d.farDepth > d.nearDepth) << d.nearDepth << " to " << d.farDepth;
    const vq_tl::DisparityEstimator& e = session.s()->estimator;
    const double fb = double{e.focalLength} * e.baseline;
    const int32_t W = s.main->image.width, H = s.main->image.height;
    int64_t scored = 0, close = 0;
    for (int32_t y = 0; y < kDepthHeight; ++y) {
        for (int32_t x = 0; x < kDepthWidth; ++x) {
            const size_t t =
                size_t((2 * y + 1) * H / (2 * kDepthHeight)) * W + (2 * x + 1) * W / (2 * kDepthWidth);
            const uint8_t* c =
                e.confidence.plane[0] + (y * e.confidence.height / kDepthHeight) * e.confidence.pitch[0];
            if (c[x * e.confidence.width / kDepthWidth] != 255 || !s.textured[t] || s.occluded[t]) continue;
            const double z = 1 / (1 / d.nearDepth + (1 / d.farDepth - 1 / d.nearDepth) * d.at(x, y) / 255);
            const double want = fb / (fb / s.depth[t] - e.minDisparity);
            ++scored;
            close += std::fabs(z - want) <= 0.05 * want;
        }
    }
    EXPECT_GT(scored, kDepthWidth * kDepthHeight / 3);
    EXPECT_GE(double(close) / double(scored), 0.8)
        << close << " of " << scored << " pixels read within 5 %; limits " << d.nearDepth << " to "
        << d.farDepth << " m";
}

// Synchronous and asynchronous sessions, and Pels of 1, 2 and 4 workers:
// the same picture, limits and status.
TEST(DepthOutput, SameBytesWhateverTheFrameHandlingAndWorkers) {
    Depth first;
    int32_t firstStatus = -1;
    const std::pair<int32_t, int32_t> cases[] = {{0, 0}, {1, 0}, {2, 0}, {0, 1}, {0, 2}, {0, 4}};
    for (const auto& [asyncMode, workers] : cases) {
        SCOPED_TRACE(testing::Message() << "asyncMode " << asyncMode << ", workers " << workers);
        Completions done;
        OpenSession session(shotParams(asyncMode, &done).get());
        if (workers > 0) {
            session.s()->pel.params.numberOfWorkers = workers;
            ASSERT_EQ(vq_tl::Pel_init(&session.s()->pel), TL_OK);
        }
        ASSERT_EQ(offerShot(session, asyncMode != 0 ? &done : nullptr, 1), TL_OK);
        const Depth d = readDepth(&session.handle);
        int32_t status = -1;
        ASSERT_EQ(velquin_TwinLens_getEstimateStatus(&session.handle, &status), TL_OK);
        if (first.pixels.empty()) first = d, firstStatus = status;
        EXPECT_TRUE(d == first);
        EXPECT_EQ(status, firstStatus);
    }
}

// asyncMode 1 matches frames 0, 2, 4 and only refines in between. New camera
// matrices before frame 1 rebuild the grids there, but frame 1 refines frame
// 0's map under the same main image: the same picture. Frame 2 matches with
// the new grids: the sub camera's principal point moved by 2 working pixels'
// worth takes 2 pixels from every disparity, and the near limit goes from
// f B / d to f B / (d - 2).
TEST(DepthOutput, CalibrationChangesTakeEffectAtTheNextEstimate) {
    Completions done;
    OpenSession session(shotParams(1, &done).get());
    ASSERT_EQ(offerShot(session, &done, 1), TL_OK);
    const Depth before = readDepth(&session.handle);
    TwinLensSession* s = session.s();
    const double fb = double{s->estimator.focalLength} * s->estimator.baseline;
    TwinLensCameraParam row;
    ASSERT_EQ(velquin_TwinLens_getCurrentCameraParam(&session.handle, &row), TL_OK);
    row.subCameraMatrix[2] -= 2.0 * row.subCameraMatrix[0] / s->estimator.focalLength;
    ASSERT_EQ(velquin_TwinLens_setCameraMatrix(&session.handle, &row), TL_OK);
    ASSERT_EQ(offerShot(session, &done, 2), TL_OK);
    EXPECT_TRUE(readDepth(&session.handle) == before) << "the refine-only frame";
    ASSERT_EQ(offerShot(session, &done, 3), TL_OK);
    const float nearDepth = readDepth(&session.handle).nearDepth;
    EXPECT_NEAR(nearDepth, fb / (fb / before.nearDepth - 2.0), 0.02 * nearDepth)
        << "before: " << before.nearDepth;
}

// Before the first frame the picture is the far end with both limits 0.
// Pictures smaller and larger than the depth size are resampled from it:
// each pixel within the range of the depth pixels round its source, the
// limits the same. The pitched form fills its rows and leaves the padding.
TEST(DepthOutput, PicturesAtAnySize) {
    OpenSession session(shotParams(0).get());
    const Depth empty = readDepth(&session.handle, 200, 150);
    EXPECT_TRUE(empty == (Depth{std::vector<uint8_t>(200 * 150, 255), 0, 0, 200}));
    ASSERT_EQ(offerShot(session), TL_OK);
    const Depth full = readDepth(&session.handle);
    for (const int32_t w : {200, 960}) {
        const int32_t h = w * 3 / 4;
        const Depth d = readDepth(&session.handle, w, h);
        EXPECT_TRUE(d.nearDepth == full.nearDepth && d.farDepth == full.farDepth);
        int64_t outside = 0;
        for (int32_t i = 0; i < w * h; ++i) {
            const int32_t x = i % w, y = i / w;
            uint8_t lo = 255, hi = 0;
            for (int32_t v = std::max(y * kDepthHeight / h - 1, 0);
                 v <= std::min((y + 1) * kDepthHeight / h + 1, kDepthHeight - 1); ++v) {
                for (int32_t u = std::max(x * kDepthWidth / w - 1, 0);
                     u <= std::min((x + 1) * kDepthWidth / w + 1, kDepthWidth - 1); ++u)
                    lo = std::min(lo, full.at(u, v)), hi = std::max(hi, full.at(u, v));
            }
            outside += d.at(x, y) + 1 < lo || d.at(x, y) > hi + 1;
        }
        EXPECT_EQ(outside, 0) << w << " by " << h;
    }
    constexpr int32_t kPitch = kDepthWidth + 24;
    std::vector<uint8_t> pitched(size_t{kPitch} * kDepthHeight, 0xA5);
    const TwinLensImageEx ex{kDepthWidth, kDepthHeight, pitched.data(), nullptr, nullptr, kPitch, 0, 0};
    float nearDepth, farDepth;
    ASSERT_EQ(velquin_TwinLens_getDepthImageEx(&session.handle, &ex, &nearDepth, &farDepth, 1), TL_OK);
    for (int32_t y = 0; y < kDepthHeight; ++y) {
        const uint8_t* row = pitched.data() + size_t{kPitch} * y;
        ASSERT_TRUE(std::equal(row, row + kDepthWidth, &full.pixels[size_t{kDepthWidth} * y])) << y;
        ASSERT_TRUE(std::all_of(row + kDepthWidth, row + kPitch, [](uint8_t v) { return v == 0xA5; })) << y;
    }
}

// A reader on another thread while an asynchronous session runs frames: every
// picture is whole, the empty one or the shot's (refine-only frames repeat
// it). The reader holds `turn` in each call and the frame loop takes it
// before each offer, so no call outlasts two frames, as the interface asks.
TEST(DepthOutput, ReaderOnAnotherThreadWhileFramesRun) {
    Completions done;
    OpenSession session(shotParams(1, &done).get()), reference(shotParams(0).get());
    ASSERT_EQ(offerShot(reference), TL_OK);
    const Depth want = readDepth(&reference.handle, 120, 90), empty = readDepth(&session.handle, 120, 90);
    std::mutex turn;
    std::atomic<bool> stop{false};
    std::atomic<int32_t> reads{0}, torn{0};
    std::thread reader([&] {
        while (!stop) {
            std::lock_guard<std::mutex> lock(turn);
            const Depth d = readDepth(&session.handle, 120, 90);
            int32_t status = -1;
            torn += !(d == empty || d == want) ||
                    velquin_TwinLens_getEstimateStatus(&session.handle, &status) != TL_OK;
            ++reads;
        }
    });
    for (uint32_t i = 1; i <= 6; ++i) {
        std::unique_lock<std::mutex> lock(turn);
        const TwinLensImage main = frameOf(*shot().main), sub = frameOf(*shot().sub);
        EXPECT_EQ(velquin_TwinLens_process(&session.handle, &main, &sub, nullptr), TL_OK);
        lock.unlock();
        done.waitFor(i);
    }
    stop = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0) << "of " << reads.load() << " reads";
    EXPECT_TRUE(readDepth(&session.handle, 120, 90) == want);
}

// Rows initialize refuses (in the row in force or the one beside it), frames
// and arguments the calls refuse: their codes, the last good picture still
// served, every block given back.
TEST(DepthOutput, RefusedInput) {
    const int64_t live = vq_tl::Memory_getLiveCount();
    using Spoil = void (*)(TwinLensCameraParam&);
    const std::pair<Spoil, TLResult> rows[] = {
        {[](TwinLensCameraParam& r) { r.mainCameraMatrix[2] = kNaN; }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { r.stereoTranslation[1] = INFINITY; }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { r.subLensDist.u.coeff.k[1] = kNaN; }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { r.subCameraMatrix[0] = 0; }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { r.mainCameraMatrix[4] = -3000; }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) {
             std::for_each(r.stereoRotation, r.stereoRotation + 9, [](double& v) { v *= 1.001; });
         },
         TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) {
             std::for_each(r.stereoRotation, r.stereoRotation + 3, [](double& v) { v = -v; });
         },
         TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { std::fill_n(r.stereoTranslation, 3, 0.0); }, TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) {
             r.mainLensDist.kind = 1, r.mainLensDist.u.data.count = 1, r.mainLensDist.u.data.maxRadius = 1;
         },
         TL_ERROR_PARAM},
        {[](TwinLensCameraParam& r) { r.subLensDist.kind = 2; }, TL_ERROR_GENERAL},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        for (const int32_t spoiled : {0, 1}) {
            auto p = shotParams(0);
            p->cameraParamCount = 2;
            p->cameraParams[1] = p->cameraParams[0];
            rows[i].first(p->cameraParams[spoiled]);
            OpenSession session(p.get());
            EXPECT_TRUE(session.opened == rows[i].second && session.s() == nullptr)
                << "case " << i << ", row " << spoiled;
        }
    }
    auto beyondCount = shotParams(0);  // rows beyond the count are not read
    beyondCount->cameraParams[1].subCameraMatrix[0] = kNaN;
    EXPECT_EQ(OpenSession(beyondCount.get()).opened, TL_OK);

    OpenSession session(shotParams(0).get());
    ASSERT_EQ(offerShot(session), TL_OK);
    const Depth good = readDepth(&session.handle);
    TwinLensImage main = frameOf(*shot().main), sub = frameOf(*shot().sub), noChroma = main, shortSub = sub;
    noChroma.plane1 = nullptr, shortSub.height -= 2;
    const TwinLensImageEx flatMain{main.width, main.height, main.plane0, main.plane1,
                                   nullptr,    0,           main.width,  0},
        exSub{sub.width, sub.height, sub.plane0, sub.plane1, nullptr, sub.width, sub.width, 0};
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &sub, &sub, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &main, &shortSub, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &noChroma, &sub, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_processEx(&session.handle, &flatMain, &exSub, nullptr), TL_ERROR_PARAM);
    EXPECT_TRUE(readDepth(&session.handle) == good);
    float depth;
    std::vector<uint8_t> pixels(100 * 75);
    const TwinLensImage picture{100, 75, pixels.data(), nullptr, nullptr},
        noPlane{100, 75, nullptr, nullptr, nullptr};
    EXPECT_EQ(velquin_TwinLens_getDepthImage(&session.handle, &picture, nullptr, &depth, 1), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_getDepthImage(&session.handle, &noPlane, &depth, &depth, 1), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_getEstimateStatus(&session.handle, nullptr), TL_ERROR_PARAM);
    ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
    EXPECT_EQ(velquin_TwinLens_getDepthImage(&session.handle, &picture, &depth, &depth, 1), TL_ERROR_PARAM);
    EXPECT_EQ(vq_tl::Memory_getLiveCount(), live);
}
