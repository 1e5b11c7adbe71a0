// One stereo shot through a session of the library's public interface:
// initialize, process, the depth picture, the blurred picture, the picture
// with its background replaced, finalize; each stage timed. A session is
// kept open while the sizes and the calibration stay, so a folder of
// pairs pays for initialize once.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "frames.h"
#include "problem.h"
#include "velquin/twin_lens.h"

namespace vq_tl::twinlens {

struct Timing {
    std::string stage;
    double ms;
};

struct ShotSetup {
    int32_t mainWidth = 0, mainHeight = 0, subWidth = 0, subHeight = 0, depthWidth = 0, depthHeight = 0;
    Layout layout = Layout::kNv21;
    int32_t matchingMode = 0;  // 0 normal, 1 fine
    int threads = 0;           // workers of the library; 0 leaves its choice (every processor)
    std::vector<TwinLensCameraParam> rows;
    std::string calibrationName;  // the calibration's file, for messages
};

struct ShotOptions {
    double strength = 200;              // 0 to 300, see velquin_TwinLens_blur
    double focusX = 0.5, focusY = 0.5;  // the point kept sharp, as fractions of the frame
    const Frame* background = nullptr;  // in the session's layout, any size; null: none
};

struct ShotResult {
    int32_t depthWidth = 0, depthHeight = 0;
    std::vector<uint8_t> levels;        // the depth picture, levels linear in 1 / depth, 0 the nearest
    float nearDepth = 0, farDepth = 0;  // metres of levels 0 and 255 as the library reads them
    // f B, the working focal length in pixels times the baseline (metres), and
    // the matcher's lowest disparity candidate in working pixels: together they
    // turn the library's reading of a level into metric depth. fB 0: unknown.
    double focalBaseline = 0;
    int32_t lowestCandidate = 0;
    int32_t status = 0;
    std::vector<float> metres;  // metric depth of each depth pixel, 0 where unknown
    Frame bokeh, replaced;
    std::vector<Timing> times;
};

// The metric depth of a level (see ShotResult), 0 where unknown: beyond
// the library's far saturation, or at no positive disparity.
float metricDepth(uint8_t level, float nearDepth, float farDepth, double focalBaseline,
                  int32_t lowestCandidate);

class Session {
public:
    Session() = default;
    ~Session() { close(nullptr); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Opens a session unless one with the same setup is open; the time of
    // initialize (and of the finalize of a session replaced) goes to `times`.
    bool open(const ShotSetup& setup, std::vector<Timing>* times, Problem* problem);
    bool shot(const Frame& main, const Frame& sub, const ShotOptions& options, ShotResult* result,
              Problem* problem);
    void close(std::vector<Timing>* times);

private:
    bool sameSetup(const ShotSetup& setup) const;
    ShotSetup setup_;
    std::vector<uint8_t> buffer_;
    std::unique_ptr<TwinLensParams> params_;
    TwinLensHandle handle_{nullptr};
};

// A name for a result code, e.g. "TL_ERROR_PARAM".
std::string resultName(TLResult r);

}  // namespace vq_tl::twinlens
