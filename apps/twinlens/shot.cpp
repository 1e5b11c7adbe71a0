#include "shot.h"

#include <chrono>
#include <cmath>
#include <cstring>

#include "interface/twin_lens_session.h"
#include "runtime/pel.h"

namespace vq_tl::twinlens {

namespace {

// Depths beyond this many metres saturate at level 255 of the library's
// depth picture.
constexpr float kFarSaturation = 10.0f;

// The lowest disparity candidate of the matcher in working pixels, by
// matching mode; the library's depth readings count disparity from it.
constexpr int32_t kLowestCandidate[2] = {-4, -10};

class Stopwatch {
public:
    double ms() const { return std::chrono::duration<double, std::milli>(Clock::now() - start_).count(); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
};

// The public interface has no setting for the number of workers: a session
// takes every processor online. The program's --threads reaches into the
// session record for it, as the library's own tests do; results are the same
// bytes whatever the count.
TLResult setWorkers(TwinLensHandle* handle, int threads) {
    TwinLensSession* s = handle->session;
    s->pel.params.numberOfWorkers = threads;
    return Pel_init(&s->pel);
}

}  // namespace

std::string resultName(TLResult r) {
    const std::pair<TLResult, const char*> names[] = {{TL_OK, "TL_OK"},
                                                      {TL_ERROR_GENERAL, "TL_ERROR_GENERAL"},
                                                      {TL_ERROR_PARAM, "TL_ERROR_PARAM"},
                                                      {TL_ERROR_STATE, "TL_ERROR_STATE"},
                                                      {TL_ERROR_MEMORY, "TL_ERROR_MEMORY"},
                                                      {TL_ERROR_UNSUPPORTED, "TL_ERROR_UNSUPPORTED"},
                                                      {TL_ERROR_EMPTY, "TL_ERROR_EMPTY"},
                                                      {TL_ERROR_TIMEOUT, "TL_ERROR_TIMEOUT"},
                                                      {TL_ERROR_SYSTEM, "TL_ERROR_SYSTEM"}};
    for (const auto& [code, name] : names) {
        if (code == r) return name;
    }
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", r);
    return text;
}

float metricDepth(uint8_t level, float nearDepth, float farDepth, double focalBaseline,
                  int32_t lowestCandidate) {
    if (!(nearDepth > 0) || !(farDepth > 0)) return 0;
    if (level == 255 && farDepth > kFarSaturation) return 0;
    const double inverse = 1.0 / nearDepth + (1.0 / farDepth - 1.0 / nearDepth) * level / 255.0;
    if (focalBaseline <= 0) return static_cast<float>(1.0 / inverse);
    // A level reads as f B / (d - lowest) for a disparity d in working pixels.
    const double disparity = focalBaseline * inverse + lowestCandidate;
    return disparity > 0 ? static_cast<float>(focalBaseline / disparity) : 0.0f;
}

bool Session::sameSetup(const ShotSetup& s) const {
    const ShotSetup& o = setup_;
    if (s.mainWidth != o.mainWidth || s.mainHeight != o.mainHeight || s.subWidth != o.subWidth ||
        s.subHeight != o.subHeight || s.depthWidth != o.depthWidth || s.depthHeight != o.depthHeight ||
        s.layout != o.layout || s.matchingMode != o.matchingMode || s.threads != o.threads ||
        s.rows.size() != o.rows.size())
        return false;
    return std::memcmp(s.rows.data(), o.rows.data(), s.rows.size() * sizeof s.rows[0]) == 0;
}

bool Session::open(const ShotSetup& setup, std::vector<Timing>* times, Problem* problem) {
    if (handle_.session != nullptr && sameSetup(setup)) return true;
    close(times);
    setup_ = setup;
    params_ = std::make_unique<TwinLensParams>();
    TwinLensParams& p = *params_;
    std::memset(&p, 0, sizeof p);
    p.mainWidth = setup.mainWidth, p.mainHeight = setup.mainHeight;
    p.subWidth = setup.subWidth, p.subHeight = setup.subHeight;
    p.depthWidth = setup.depthWidth, p.depthHeight = setup.depthHeight;
    p.matchingMode = setup.matchingMode;
    // Refinement level 2 and the CPU pyramid blur: the choices of a phone's still capture.
    p.refineLevel = 2;
    p.blurBackend = 0;
    p.format = sessionFormat(setup.layout);
    p.asyncMode = 0;
    p.cameraParamCount = static_cast<int32_t>(setup.rows.size());
    std::memcpy(p.cameraParams, setup.rows.data(), setup.rows.size() * sizeof setup.rows[0]);
    const int32_t size = velquin_TwinLens_getBufferSize(&p);
    if (size < 0) return fail(problem, kExitInput, "", "the library refuses the sizes of the pair");
    buffer_.assign(static_cast<size_t>(size), 0);
    const Stopwatch watch;
    TLResult r = velquin_TwinLens_initialize(&handle_, buffer_.data(), size, &p);
    if (r == TL_OK && setup.threads > 0) r = setWorkers(&handle_, setup.threads);
    if (times != nullptr) times->push_back({"initialize", watch.ms()});
    if (r == TL_OK) return true;
    close(nullptr);
    // Sizes were checked before: a refused parameter set is the calibration's.
    if (r == TL_ERROR_PARAM || r == TL_ERROR_GENERAL)
        return fail(problem, kExitCalibration, setup.calibrationName,
                    "the library refuses the calibration for this pair (" + resultName(r) + ")");
    return fail(problem, kExitFailed, "", "the session cannot start (" + resultName(r) + ")");
}

void Session::close(std::vector<Timing>* times) {
    if (handle_.session == nullptr) return;
    const Stopwatch watch;
    velquin_TwinLens_finalize(&handle_);
    if (times != nullptr) times->push_back({"finalize", watch.ms()});
    handle_.session = nullptr;
}

bool Session::shot(const Frame& main, const Frame& sub, const ShotOptions& options, ShotResult* result,
                   Problem* problem) {
    const ShotSetup& s = setup_;
    auto failed = [&](const char* stage, TLResult r) {
        return fail(problem, kExitFailed, "", std::string(stage) + " failed: " + resultName(r));
    };
    const TwinLensImage mainImage = main.record(), subImage = sub.record();

    Stopwatch watch;
    TLResult r = velquin_TwinLens_process(&handle_, &mainImage, &subImage, nullptr);
    result->times.push_back({"process", watch.ms()});
    if (r == TL_ERROR_UNSUPPORTED || r == TL_ERROR_MEMORY) {
        return fail(problem, kExitFailed, "",
                    "processing failed: " + resultName(r) +
                        (r == TL_ERROR_MEMORY ? " (out of memory)"
                                              : " (this build lacks a step of the chosen mode)"));
    }
    if (r != TL_OK) {
        // Else the frames were refused or the grids could not be built: a
        // calibration far from the pair's geometry leaves nothing to match.
        return fail(problem, kExitCalibration, s.calibrationName,
                    "the pair cannot be rectified and matched with this calibration (" + resultName(r) + ")");
    }

    watch = Stopwatch();
    result->depthWidth = s.depthWidth, result->depthHeight = s.depthHeight;
    result->levels.assign(static_cast<size_t>(s.depthWidth) * s.depthHeight, 0);
    const TwinLensImage depth{s.depthWidth, s.depthHeight, result->levels.data(), nullptr, nullptr};
    r = velquin_TwinLens_getDepthImage(&handle_, &depth, &result->nearDepth, &result->farDepth, 1);
    if (r == TL_OK) r = velquin_TwinLens_getEstimateStatus(&handle_, &result->status);
    // The far end of the valid range stands at one working pixel of disparity: f B itself.
    float nearest = 0, farthest = 0;
    if (r == TL_OK) r = velquin_TwinLens_getValidDepthRange(&handle_, &nearest, &farthest);
    result->focalBaseline = farthest;
    result->lowestCandidate = kLowestCandidate[s.matchingMode != 0];
    result->metres.resize(result->levels.size());
    for (size_t k = 0; k < result->levels.size(); ++k) {
        result->metres[k] = metricDepth(result->levels[k], result->nearDepth, result->farDepth,
                                        result->focalBaseline, result->lowestCandidate);
    }
    result->times.push_back({"depth", watch.ms()});
    if (r != TL_OK) return failed("the depth picture", r);

    watch = Stopwatch();
    r = velquin_TwinLens_setFocusCoord(&handle_, options.focusX, options.focusY);
    if (r != TL_OK) return failed("the focus point", r);
    result->bokeh.allocate(main.width, main.height, main.layout);
    const TwinLensImage bokeh = result->bokeh.record();
    r = velquin_TwinLens_blur(&handle_, &bokeh, &mainImage, options.strength);
    result->times.push_back({"blur", watch.ms()});
    if (r != TL_OK) return failed("the blur", r);

    watch = Stopwatch();
    if (options.background != nullptr) {
        const TwinLensImage background = options.background->record();
        r = velquin_TwinLens_setBackgroundImage(&handle_, &background);
    }
    result->replaced.allocate(main.width, main.height, main.layout);
    const TwinLensImage replaced = result->replaced.record();
    if (r == TL_OK) r = velquin_TwinLens_replaceBackground(&handle_, &replaced, &mainImage);
    result->times.push_back({"background", watch.ms()});
    if (r != TL_OK) return failed("the background replacement", r);
    return true;
}

}  // namespace vq_tl::twinlens
