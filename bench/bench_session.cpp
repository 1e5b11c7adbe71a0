// A live synchronous session on the synthetic 12 MP shot (4000 x 3000 main,
// 2592 x 1944 sub, NV21), normal mode, refine level 2, depth size
// 1920 x 1440, with the parallel layers the session builds for itself (a Pel
// of one worker per processor and an executor over it).
//
// BM_SessionShot times one whole shot through velquin_TwinLens_process on
// the calling thread: grids already built, estimate, lift, publication.
// BM_SessionDepthImage times velquin_TwinLens_getDepthImage into a
// 1000 x 750 picture after that shot. The shares of the shot's stages come
// from BM_EstimatorStages in bench_estimator.cpp, which runs the same frame
// step by step.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "support/scene.h"
#include "support/session_params.h"

namespace {

struct Live {
    vq_tl_test::Scene scene;
    std::unique_ptr<vq_tl_test::OpenSession> session;
    TwinLensImage main{}, sub{};
    bool ready = false;

    static vq_tl_test::SceneConfig config() {
        vq_tl_test::SceneConfig c;
        c.threads = 4;
        c.truth = false;
        return c;
    }
    Live() : scene(config()) {
        const vq_tl::Image &m = scene.main->image, &s = scene.sub->image;
        auto p = vq_tl_test::makeParams(m.width, m.height, 1920, 1440);
        p->subWidth = s.width;
        p->subHeight = s.height;
        p->format = "YVU420_SEMIPLANAR";
        p->refineLevel = 2;
        scene.cameraParam(&p->cameraParams[0]);
        session = std::make_unique<vq_tl_test::OpenSession>(p.get());
        main = {m.width, m.height, m.plane[0], m.plane[1], nullptr};
        sub = {s.width, s.height, s.plane[0], s.plane[1], nullptr};
        // The first shot builds the grids, which later shots keep.
        ready = session->opened == TL_OK && shot() == TL_OK;
    }
    TLResult shot() { return velquin_TwinLens_process(&session->handle, &main, &sub, nullptr); }
};

Live& live() {
    static const std::unique_ptr<Live> l = std::make_unique<Live>();
    return *l;
}

void BM_SessionShot(benchmark::State& state) {
    Live& l = live();
    if (!l.ready) {
        state.SkipWithError("session or first shot failed");
        return;
    }
    for (auto _ : state) {
        if (l.shot() != TL_OK) state.SkipWithError("shot failed");
    }
}
BENCHMARK(BM_SessionShot)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SessionDepthImage(benchmark::State& state) {
    Live& l = live();
    if (!l.ready) {
        state.SkipWithError("session or first shot failed");
        return;
    }
    std::vector<uint8_t> pixels(1000 * 750);
    const TwinLensImage picture{1000, 750, pixels.data(), nullptr, nullptr};
    float nearDepth = 0, farDepth = 0;
    for (auto _ : state) {
        if (velquin_TwinLens_getDepthImage(&l.session->handle, &picture, &nearDepth, &farDepth, 1) != TL_OK)
            state.SkipWithError("depth picture failed");
        benchmark::DoNotOptimize(pixels.data());
    }
}
BENCHMARK(BM_SessionDepthImage)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
