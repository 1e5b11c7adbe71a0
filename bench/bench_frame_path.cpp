// Cost of handing a pair of frames to a session with an empty estimation step.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "interface/twin_lens_session.h"

namespace {

std::atomic<uint32_t> gCompleted{0};

int32_t countCompletion(void*, uint32_t, int32_t) {
    gCompleted.fetch_add(1, std::memory_order_release);
    return 0;
}

// Takes the place of the estimator, so that only the frame path is timed.
TLResult emptyStep(TwinLensSession*, const TwinLensCameraParam*, int32_t, int32_t, vq_tl::Image*,
                   vq_tl::Image*) {
    return TL_OK;
}

struct BenchSession {
    std::vector<uint8_t> buffer;
    TwinLensHandle handle{nullptr};
    std::vector<uint8_t> y, uv;
    TwinLensImage frame;

    explicit BenchSession(int32_t asyncMode) : y(1440 * 1080), uv(1440 * 540) {
        static TwinLensParams p;
        std::memset(&p, 0, sizeof p);
        p.mainWidth = p.subWidth = 1440;
        p.mainHeight = p.subHeight = 1080;
        p.depthWidth = 480;
        p.depthHeight = 360;
        p.format = "YUV420_SEMIPLANAR";
        p.asyncMode = asyncMode;
        p.completionCallback = countCompletion;
        // A calibration that initialize takes: two undistorted cameras 10 mm apart.
        p.cameraParamCount = 1;
        TwinLensCameraParam& row = p.cameraParams[0];
        row.extrinsicsForward = 1;
        row.mainCalibWidth = row.subCalibWidth = 1440;
        row.mainCalibHeight = row.subCalibHeight = 1080;
        for (double* m : {row.mainCameraMatrix, row.subCameraMatrix}) {
            m[0] = m[4] = 1200.0;
            m[2] = 720.0;
            m[5] = 540.0;
            m[8] = 1.0;
        }
        row.stereoRotation[0] = row.stereoRotation[4] = row.stereoRotation[8] = 1.0;
        row.stereoTranslation[0] = -0.010;
        buffer.resize(velquin_TwinLens_getBufferSize(&p));
        if (velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), &p) ==
            TL_OK)
            handle.session->estimationStep = emptyStep;
        frame = {1440, 1080, y.data(), uv.data(), nullptr};
    }
    ~BenchSession() { velquin_TwinLens_finalize(&handle); }
};

// One asynchronous frame from process to its completion callback.
void BM_ProcessAsyncRoundTrip(benchmark::State& state) {
    BenchSession session(1);
    for (auto _ : state) {
        const uint32_t before = gCompleted.load(std::memory_order_acquire);
        int32_t sequence = -1;
        while (sequence < 0)
            velquin_TwinLens_process(&session.handle, &session.frame, &session.frame, &sequence);
        while (gCompleted.load(std::memory_order_acquire) == before) {
        }
    }
}
BENCHMARK(BM_ProcessAsyncRoundTrip)->UseRealTime();

// A synchronous frame: the whole frame path on the caller's thread.
void BM_ProcessSync(benchmark::State& state) {
    BenchSession session(0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            velquin_TwinLens_process(&session.handle, &session.frame, &session.frame, nullptr));
    }
}
BENCHMARK(BM_ProcessSync);

}  // namespace
