// The public blur on a live session: the synthetic 12 MP shot (4000 x 3000
// NV21) estimated once in normal mode, then velquin_TwinLens_blur at full
// strength with the focus on the near box, on the session's own parallel
// layers. The sigma it reaches is the cap of 15 pixels at the reference
// size scaled to the frame, 13.0 pixels; BM_OpenCvGaussianBlur/2 of
// bench_bokeh.cpp blurs the same size of frame at that sigma. Counters give
// the two stages' shares: the blur map from the depth map, and the pyramid
// bokeh.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "image/public_image.h"
#include "interface/twin_lens_session.h"
#include "live_shot.h"

namespace {

// The shot with a depth picture of 1000 x 750, a destination frame, and the
// focus on the near box (left of centre, a little below the middle).
struct LiveShot : BenchLiveShot {
    std::vector<uint8_t> out;
    TwinLensImage dst{};
    LiveShot() : BenchLiveShot(1000, 750) {
        const size_t pixels = static_cast<size_t>(main.width) * main.height;
        out.resize(pixels * 3 / 2);
        dst = {main.width, main.height, out.data(), out.data() + pixels, nullptr};
        ready = ready && velquin_TwinLens_setFocusCoord(&session->handle, 0.27, 0.62) == TL_OK;
    }
};

double millisecondsOf(const std::function<void()>& f, int runs) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i) f();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() / runs;
}

void BM_SessionBlur(benchmark::State& state) {
    static LiveShot live;
    if (!live.ready) {
        state.SkipWithError("session or shot failed");
        return;
    }
    for (auto _ : state) {
        if (velquin_TwinLens_blur(&live.session->handle, &live.dst, &live.main, 300.0) != TL_OK) {
            state.SkipWithError("blur failed");
        }
    }
    // The stages by themselves, as the blur runs them on the finished slot.
    TwinLensSession* s = live.session->s();
    const int32_t f = 1 - s->writeSlot;
    float maxCoc = 0;
    const double mapMs = millisecondsOf(
        [&] {
            vq_tl::Cocmap_getCocMapFromDisparityByCoord(&s->cocmap, &s->cocImage[f], &maxCoc,
                                                        &s->depthImage[f], s->slotInverseDepthTable[f], 30.0f,
                                                        3000.0f, 0.01f, 0.27f, 0.62f, 1);
        },
        5);
    vq_tl::Image src, dst;
    vq_tl::construct_Image(&src, &s->env);
    vq_tl::construct_Image(&dst, &s->env);
    vq_tl::IF_initImage(&src, &live.main, s->formatCode);
    vq_tl::IF_initImage(&dst, &live.dst, s->formatCode);
    const double sigma = maxCoc * std::sqrt(12000000.0 / 15925248.0);
    const double bokehMs = millisecondsOf(
        [&] {
            vq_tl::DefocusFaceBokeh_getBlurImage(&s->defocusFaceBokeh, &dst, &src, &s->cocImage[f], sigma);
        },
        5);
    vq_tl::destruct_Image(&dst);
    vq_tl::destruct_Image(&src);
    state.counters["map_ms"] = mapMs;
    state.counters["bokeh_ms"] = bokehMs;
    state.SetLabel("sigma " + std::to_string(sigma).substr(0, 5));
}
BENCHMARK(BM_SessionBlur)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace
