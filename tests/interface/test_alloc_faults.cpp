// Every allocation of a scenario is made to fail in turn, from the first
// until a run needs no more: each failure must give the documented code, no
// crash, and every block taken must be given back.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "alignment/mvec_detect_multi2.h"
#include "runtime/memory.h"
#include "stereo/disparity_estimator.h"
#include "support/scene.h"
#include "support/session_params.h"
#include "support/texture.h"
#include "velquin/rectify_data_converter.h"

using namespace vq_tl;

namespace {

// Runs `scenario(n)` with the n-th allocation failing, for n = 1, 2, ...
// until a run asks for fewer than n allocations, checking after each run
// that no block is left. Returns the number of runs.
int walk(const std::function<void(int64_t n)>& scenario) {
    for (int64_t n = 1;; ++n) {
        const int64_t live = Memory_getLiveCount();
        Memory_failAt(n);
        scenario(n);
        const int64_t asked = Memory_getAllocCount();
        Memory_failAt(0);
        EXPECT_EQ(Memory_getLiveCount(), live) << "blocks left when allocation " << n << " failed";
        if (asked < n || ::testing::Test::HasFailure()) return static_cast<int>(n);
    }
}

std::atomic<int> gCallbacks{0};
int32_t countCallback(void*, uint32_t, int32_t) {
    ++gCallbacks;
    return 0;
}

// A small shot for the session walk: both frames at 320 by 240.
const vq_tl_test::Scene& smallShot() {
    static const std::unique_ptr<vq_tl_test::Scene> scene = [] {
        vq_tl_test::SceneConfig c;
        c.mainWidth = c.subWidth = 320;
        c.truth = false;
        return std::make_unique<vq_tl_test::Scene>(c);
    }();
    return *scene;
}

// A session's life with one estimated frame and a depth picture. A frame
// that fails keeps the picture of before the first frame (255 throughout).
void sessionScenario(int32_t asyncMode, int64_t n) {
    const vq_tl_test::Scene& shot = smallShot();
    auto p = vq_tl_test::makeParams(320, 240, 160, 120);
    p->format = "YVU420_SEMIPLANAR";
    p->asyncMode = asyncMode;
    p->completionCallback = countCallback;
    shot.cameraParam(&p->cameraParams[0]);
    std::vector<uint8_t> buffer(static_cast<size_t>(velquin_TwinLens_getBufferSize(p.get())));
    TwinLensHandle handle{nullptr};
    const TLResult init =
        velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p.get());
    if (init != TL_OK) {
        ASSERT_EQ(init, TL_ERROR_GENERAL) << "allocation " << n;
        ASSERT_EQ(handle.session, nullptr);
        return;
    }
    const Image &main = shot.main->image, &sub = shot.sub->image;
    const TwinLensImage mainFrame = {320, 240, main.plane[0], main.plane[1], nullptr},
                        subFrame = {320, 240, sub.plane[0], sub.plane[1], nullptr};
    gCallbacks = 0;
    const int64_t before = Memory_getAllocCount();
    int32_t sequence = -2;
    const TLResult processed = velquin_TwinLens_process(&handle, &mainFrame, &subFrame, &sequence);
    const bool failedHere = before < n && Memory_getAllocCount() >= n;
    if (asyncMode == 0) {
        // The estimator's own failures come back as they are.
        ASSERT_TRUE(processed == TL_OK || (failedHere && processed == TL_ERROR_MEMORY))
            << std::hex << processed << " at allocation " << std::dec << n;
        EXPECT_EQ(sequence, processed == TL_OK ? 0 : -2);
    } else {
        ASSERT_EQ(processed, TL_OK) << "allocation " << n;
        EXPECT_EQ(sequence, 0);
    }
    // The job record is the one allocation of the hand-off; without it the
    // frame stays in progress for good, as documented.
    const bool jobRefused = asyncMode != 0 && before + 1 == n;
    if (jobRefused) {
        EXPECT_EQ(velquin_TwinLens_process(&handle, &mainFrame, &subFrame, &sequence), TL_OK);
        EXPECT_EQ(sequence, -1);
    }
    // finalize lets the worker finish a queued frame before it stops.
    if (asyncMode == 0) {
        std::vector<uint8_t> pixels(80 * 60);
        const TwinLensImage picture = {80, 60, pixels.data(), nullptr, nullptr};
        float nearDepth = 0, farDepth = 0;
        const int64_t reading = Memory_getAllocCount();
        const TLResult read = velquin_TwinLens_getDepthImage(&handle, &picture, &nearDepth, &farDepth, 1);
        const bool readFailed = reading < n && Memory_getAllocCount() >= n;
        EXPECT_EQ(read, readFailed ? TL_ERROR_MEMORY : TL_OK) << "allocation " << n;
        if (read == TL_OK && processed != TL_OK) {
            EXPECT_TRUE(nearDepth == 0 && farDepth == 0 && pixels[0] == 255) << "allocation " << n;
        }
        // The picture calls answer TL_ERROR_MEMORY only when their own
        // allocation failed; one the executor can do without (a fork record)
        // leaves TL_OK.
        std::vector<uint8_t> out(320 * 240 * 3 / 2);
        const TwinLensImage dst = {320, 240, out.data(), out.data() + 320 * 240, nullptr};
        const std::function<TLResult()> calls[] = {
            [&] { return velquin_TwinLens_blur(&handle, &dst, &mainFrame, 200.0); },
            [&] { return velquin_TwinLens_setBackgroundImage(&handle, &subFrame); },
            [&] { return velquin_TwinLens_replaceBackground(&handle, &dst, &mainFrame); },
        };
        for (const auto& call : calls) {
            const int64_t start = Memory_getAllocCount();
            const TLResult r = call();
            const bool failed = start < n && Memory_getAllocCount() >= n;
            EXPECT_TRUE(r == TL_OK || (failed && r == TL_ERROR_MEMORY))
                << std::hex << r << std::dec << " at allocation " << n << ", call " << (&call - calls);
        }
    }
    ASSERT_EQ(velquin_TwinLens_finalize(&handle), TL_OK) << "allocation " << n;
    // A job record that could not be allocated is never run and never called back.
    if (asyncMode != 0) {
        EXPECT_EQ(gCallbacks.load(), jobRefused ? 0 : 1) << "allocation " << n;
    }
}

}  // namespace

class AllocFaults : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Memory_canInjectFaults()) GTEST_SKIP() << "built without VQ_TL_ALLOC_FAULTS";
    }
};

TEST_F(AllocFaults, SessionLifeCycle) {
    for (int32_t asyncMode : {0, 1}) {
        const int runs = walk([&](int64_t n) { sessionScenario(asyncMode, n); });
        // The session takes its queues, locks, result images and the
        // estimator's members; the frame takes the estimator's work images.
        EXPECT_GT(runs, 100) << "asyncMode " << asyncMode;
    }
}

TEST_F(AllocFaults, Converter) {
    // A kind-0 table on both cameras: the fit is where the converter allocates.
    const float table[9] = {0.0f, 0.126f, 0.252f, 0.379f, 0.507f, 0.636f, 0.766f, 0.898f, 1.031f};
    RectifyDataConverterParam param{};
    param.mainPixelPitch = param.subPixelPitch = 1.12f;
    param.mainFocalLength = param.subFocalLength = 4.2f;
    param.mainSensorWidth = param.subSensorWidth = 4000;
    param.mainSensorHeight = param.subSensorHeight = 3000;
    param.mainCropWidth = param.subCropWidth = 4000.0f;
    param.mainCropHeight = param.subCropHeight = 3000.0f;
    param.mainDistCount = param.subDistCount = 9;
    param.mainDistTable = param.subDistTable = table;
    param.translationX = 10.0f;
    const int runs = walk([&](int64_t n) {
        std::vector<uint8_t> buffer(velquin_RectifyDataConverter_getBufferSize(41, 3));
        RectifyDataConverterHandle handle{nullptr};
        ASSERT_EQ(velquin_RectifyDataConverter_initialize(&handle, buffer.data(),
                                                          static_cast<int32_t>(buffer.size()), 41, 3),
                  TL_OK);
        TwinLensCameraParam row{};
        const TLResult r = velquin_RectifyDataConverter_convert(&handle, &row, &param);
        EXPECT_TRUE(r == TL_OK || r == TL_ERROR_MEMORY) << std::hex << r << " at allocation " << n;
        EXPECT_EQ(velquin_RectifyDataConverter_finalize(&handle), TL_OK);
    });
    EXPECT_GT(runs, 10);
}

// The estimator's life on a small shot: init, grids, a frame and its
// refinement, on a Pel (an executor would add its forks' copies to the walk).
// A frame that fails leaves the map of init (level 0, confidence 1).
TEST_F(AllocFaults, DisparityEstimator) {
    vq_tl_test::SceneConfig config;
    config.scale = 0.16;  // 640 by 480 and 414 by 310
    const vq_tl_test::Scene s(config);
    const Image &main = s.main->image, &sub = s.sub->image;
    Env env{};
    Pel pel;
    construct_Pel(&pel, &env);
    pel.params.numberOfWorkers = 2;
    ASSERT_EQ(Pel_init(&pel), TL_OK);
    const int runs = walk([&](int64_t n) {
        DisparityEstimator e;
        construct_DisparityEstimator(&e, &env);
        DisparityEstimator_setPel(&e, &pel);
        TLResult r = DisparityEstimator_init(&e, main.width, main.height, sub.width, sub.height, 320, 240,
                                             static_cast<float>(s.baseline), main.format, 0, 0);
        if (r == TL_OK) {
            Mvec8Real rotation;
            float t[3];
            s.extrinsics(false, &rotation, t);
            RectifyLensDist mainLens = s.mainCalib.lens, subLens = s.subCalib.lens;
            r = DisparityEstimator_calcGridParams(&e, &s.mainCalib.matrix, &s.subCalib.matrix, &mainLens,
                                                  &subLens, &rotation, t, 1, 4000, 3000, 2592, 1944);
        }
        if (r == TL_OK) {
            r = DisparityEstimator_estimateDisparity(&e, &main, &sub, 5, 40, 1.0f, 0, 255);
            for (int32_t y = 0; r != TL_OK && y < e.disparityHeight; ++y) {
                for (int32_t x = 0; x < e.disparityWidth; ++x) {
                    ASSERT_EQ(e.disparity.plane[0][y * e.disparity.pitch[0] + x], 0) << "allocation " << n;
                    ASSERT_EQ(e.confidence.plane[0][y * e.confidence.pitch[0] + x], 1) << "allocation " << n;
                }
            }
        }
        if (r == TL_OK) {
            Image out;
            construct_Image(&out, &env);
            r = Image_init(&out, 320, 240, nullptr, IMAGE_FORMAT_UINT8);
            if (r == TL_OK) r = DisparityEstimator_refineDisparity(&e, &out, &main, 7, 3, 10.0f, 15.0f);
            destruct_Image(&out);
        }
        EXPECT_TRUE(r == TL_OK || r == TL_ERROR_MEMORY) << std::hex << r << " at allocation " << n;
        destruct_DisparityEstimator(&e);
    });
    EXPECT_GT(runs, 30);
    destruct_Pel(&pel);
}

// The motion search over three pictures: a failure in init leaves nothing, one
// while adding a picture leaves the result of the pictures before it.
TEST_F(AllocFaults, MvecDetectMulti2) {
    const vq_tl_test::Texture texture(3);
    std::vector<std::unique_ptr<vq_tl_test::Picture>> pictures;
    for (int i = 0; i < 3; ++i) {
        const double m[6] = {1, 0, 1.5 * i, 0, 1, -0.5 * i};
        pictures.push_back(std::make_unique<vq_tl_test::Picture>(96, 128, IMAGE_FORMAT_UINT8));
        texture.render(*pictures.back(), m, 1.0, i);
    }
    const int runs = walk([&](int64_t n) {
        MvecDetectMulti2 d;
        construct_MvecDetectMulti2(&d, nullptr);
        MvecDetectMulti2_setDof(&d, 6);
        TLResult r = MvecDetectMulti2_init(&d, 96, 128, 3);
        int32_t before[6] = {}, after[6] = {};
        for (int i = 0; r == TL_OK && i < 3; ++i) {
            if (i > 0) MvecDetectMulti2_outputMvec(&d, before);
            r = MvecDetectMulti2_addImage(&d, &pictures[i]->image);
            if (r != TL_OK && i > 0) {
                EXPECT_EQ(MvecDetectMulti2_outputMvec(&d, after), TL_OK);
                EXPECT_TRUE(std::equal(before, before + 6, after)) << "allocation " << n;
            }
        }
        EXPECT_TRUE(r == TL_OK || r == TL_ERROR_MEMORY) << std::hex << r << " at allocation " << n;
        destruct_MvecDetectMulti2(&d);
    });
    EXPECT_GT(runs, 20);
}
