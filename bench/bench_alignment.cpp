// Stage 7 of the estimator, the scale estimates of the tilt correction, on a
// working pair of 1080 by 810 (three full-height strips, each measured at a
// quarter of its width), beside the usual OpenCV chain on the same strips:
// goodFeaturesToTrack, calcOpticalFlowPyrLK and estimateAffine2D. OpenCV is
// linked into this program only.
//
// The pairs are textured pictures and copies of them magnified about the
// centre (0.996 to 1.004) and moved 3 pixels across, as a sub camera with a
// focal length off its calibration sees them. Besides the time, every
// benchmark reports the error of the vertical scale it recovers over all
// strips of all pairs, mean and worst.
//
// The last argument is the thread count: 1 runs the library on the calling
// thread and OpenCV with one thread; 0 gives both every processor.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>
#include <vector>

#include "runtime/pel.h"
#include "stereo/disparity_estimator.h"
#include "support/picture.h"
#include "support/texture.h"

using namespace vq_tl;

namespace {

constexpr int32_t kWidth = 1080, kHeight = 810;
constexpr int kPairs = 4;

struct Pair {
    std::unique_ptr<vq_tl_test::Picture> main, sub;
    double scale;
};

// Pair k: texture k, and its copy magnified by 0.996, 0.998, 1.002 or 1.004.
const std::vector<Pair>& pairs() {
    static const std::vector<Pair> all = [] {
        std::vector<Pair> v;
        const double scales[kPairs] = {0.996, 0.998, 1.002, 1.004};
        for (int k = 0; k < kPairs; ++k) {
            const vq_tl_test::Texture texture(500 + k);
            Pair p{std::make_unique<vq_tl_test::Picture>(kWidth, kHeight, IMAGE_FORMAT_UINT8),
                   std::make_unique<vq_tl_test::Picture>(kWidth, kHeight, IMAGE_FORMAT_UINT8), scales[k]};
            const double identity[6] = {1, 0, 0, 0, 1, 0};
            double motion[6], inverse[6];
            vq_tl_test::motionAboutCentre(kWidth, kHeight, scales[k], scales[k], 0.0, -3.0, 0.0, motion);
            vq_tl_test::invertAffine(motion, inverse);
            texture.render(*p.main, identity, 1.0, 2 * k);
            texture.render(*p.sub, inverse, 1.0, 2 * k + 1);
            v.push_back(std::move(p));
        }
        return v;
    }();
    return all;
}

struct PelHolder {
    Env env{};
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    explicit PelHolder(int64_t threads) {
        construct_Pel(pel.get(), &env);  // one worker per processor, the caller among them
        if (threads != 1) Pel_init(pel.get());
    }
    Pel* get() { return Pel_getNumberOfWorkers(pel.get()) > 1 ? pel.get() : nullptr; }
    ~PelHolder() { destruct_Pel(pel.get()); }
};

// The estimator's stage 7 needs no more of it than its mode and its Pel.
struct Stage7 {
    Env env{};
    DisparityEstimator e;
    explicit Stage7(Pel* pel) {
        construct_DisparityEstimator(&e, &env);
        DisparityEstimator_setPel(&e, pel);
        DisparityEstimator_setDisparityCorrectionMode(&e, 3);
    }
    ~Stage7() { destruct_DisparityEstimator(&e); }
    // Left, centre and right scales.
    void run(const Pair& p, double out[3]) {
        DisparityEstimator_estimateScales(&e, &p.main->image, &p.sub->image);
        out[0] = e.leftScale, out[1] = e.centreScale, out[2] = e.rightScale;
    }
};

// The same strips through OpenCV: each shrunk to a quarter of its width by
// area, up to 256 corners of quality 0.01, pyramidal Lucas-Kanade, a robust
// affine fit; the vertical scale is element (1, 1).
void openCvScales(const Pair& p, double out[3]) {
    const cv::Mat main(kHeight, kWidth, CV_8UC1, p.main->image.plane[0],
                       static_cast<size_t>(p.main->image.pitch[0]));
    const cv::Mat sub(kHeight, kWidth, CV_8UC1, p.sub->image.plane[0],
                      static_cast<size_t>(p.sub->image.pitch[0]));
    const int32_t w = kWidth / 6;
    const cv::Rect strips[3] = {
        {0, 0, w, kHeight}, {w, 0, kWidth - 2 * w, kHeight}, {kWidth - w, 0, w, kHeight}};
    for (int i = 0; i < 3; ++i) {
        cv::Mat a, b;
        const cv::Size size(strips[i].width / 4, kHeight);
        cv::resize(main(strips[i]), a, size, 0, 0, cv::INTER_AREA);
        cv::resize(sub(strips[i]), b, size, 0, 0, cv::INTER_AREA);
        std::vector<cv::Point2f> from, to;
        cv::goodFeaturesToTrack(a, from, 256, 0.01, 5);
        std::vector<uint8_t> status;
        std::vector<float> error;
        out[i] = 1.0;
        if (from.empty()) continue;
        cv::calcOpticalFlowPyrLK(a, b, from, to, status, error);
        std::vector<cv::Point2f> kept, found;
        for (size_t k = 0; k < from.size(); ++k) {
            if (status[k] != 0) kept.push_back(from[k]), found.push_back(to[k]);
        }
        if (kept.size() < 3) continue;
        const cv::Mat m = cv::estimateAffine2D(kept, found);
        if (!m.empty()) out[i] = m.at<double>(1, 1);
    }
}

template <typename Run>
void reportErrors(benchmark::State& state, Run run) {
    double sum = 0, worst = 0;
    for (const Pair& p : pairs()) {
        double s[3];
        run(p, s);
        for (double v : s) sum += std::fabs(v - p.scale), worst = std::fmax(worst, std::fabs(v - p.scale));
    }
    state.counters["scale_err_mean"] = sum / (3 * kPairs);
    state.counters["scale_err_max"] = worst;
}

void BM_Stage7ScaleEstimates(benchmark::State& state) {
    PelHolder pel(state.range(0));
    Stage7 stage(pel.get());
    double s[3];
    int k = 0;
    for (auto _ : state) {
        stage.run(pairs()[k++ % kPairs], s);
        benchmark::DoNotOptimize(s);
    }
    reportErrors(state, [&](const Pair& p, double* out) { stage.run(p, out); });
}
double minimum(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

BENCHMARK(BM_Stage7ScaleEstimates)
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->ComputeStatistics("min", minimum);

void BM_OpenCvFeaturesFlowAffine(benchmark::State& state) {
    cv::setNumThreads(state.range(0) == 1 ? 1 : -1);
    cv::setRNGSeed(1);
    double s[3];
    int k = 0;
    for (auto _ : state) {
        openCvScales(pairs()[k++ % kPairs], s);
        benchmark::DoNotOptimize(s);
    }
    reportErrors(state, openCvScales);
    cv::setNumThreads(-1);
}
BENCHMARK(BM_OpenCvFeaturesFlowAffine)
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->ComputeStatistics("min", minimum);

}  // namespace
