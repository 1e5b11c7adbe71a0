#include "commands.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "io.h"
#include "report.h"

namespace vq_tl::twinlens {

const std::vector<OptionRule> kCommonOptions = {{"out", true},      {"mode", true},  {"threads", true},
                                                {"strength", true}, {"range", true}, {"json", false}};

bool parseCommon(const Args& args, CommonOptions* c, Problem* problem) {
    c->json = args.has("json");
    c->out = args.value("out", c->out);
    if (c->out.empty()) return fail(problem, kExitUsage, "", "--out needs a folder");
    const std::string mode = args.value("mode", "normal");
    if (mode != "normal" && mode != "fine")
        return fail(problem, kExitUsage, "", "--mode takes normal or fine, not \"" + mode + "\"");
    c->matchingMode = mode == "fine";
    if (args.has("threads") && !parseCount("threads", args.value("threads"), 1, 16, &c->threads, problem))
        return false;
    if (args.has("strength") && !parseReal("strength", args.value("strength"), 0, 300, &c->strength, problem))
        return false;
    if (args.has("range")) {
        if (!parsePair("range", args.value("range"), &c->range.nearest, &c->range.farthest, problem))
            return false;
        if (!(c->range.nearest > 0 && c->range.farthest > c->range.nearest))
            return fail(problem, kExitUsage, "", "--range takes NEAR,FAR in metres with 0 < NEAR < FAR");
    }
    return true;
}

void depthSizeFor(int32_t width, int32_t height, int32_t* depthWidth, int32_t* depthHeight) {
    // The estimator's map has half the depth picture's size: at half the main
    // size it is about the working frame's, where the pair is matched. At
    // most 1920 wide: larger pictures only interpolate.
    double scale = std::min(0.5, 1920.0 / width);
    scale = std::max(scale, std::sqrt(19200.0 / (static_cast<double>(width) * height)));
    *depthWidth = 2 * static_cast<int32_t>(std::ceil(0.5 * scale * width));
    *depthHeight = 2 * static_cast<int32_t>(std::ceil(0.5 * scale * height));
}

Frame makeBackground(int32_t width, int32_t height, Layout layout) {
    Bgr sky;
    sky.width = width, sky.height = height;
    sky.bytes.resize(static_cast<size_t>(width) * height * 3);
    for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = 0; x < width; ++x) {
            // Deep blue at the top to a pale horizon, with slanted soft bands.
            const double t = static_cast<double>(y) / height, u = static_cast<double>(x) / width;
            const double band = 0.5 + 0.5 * std::sin(2 * M_PI * (3 * t + 0.8 * u));
            uint8_t* p = &sky.bytes[(static_cast<size_t>(y) * width + x) * 3];
            p[0] = static_cast<uint8_t>(170 + 60 * t + 20 * band);
            p[1] = static_cast<uint8_t>(90 + 110 * t + 25 * band);
            p[2] = static_cast<uint8_t>(40 + 150 * t + 30 * band);
        }
    }
    Frame frame;
    bgrToFrame(sky, layout, &frame);
    return frame;
}

const TwinLensCameraParam& rowInForce(const std::vector<TwinLensCameraParam>& rows) {
    return rows[(rows.size() - 1) / 2];
}

bool writeShot(const std::string& dir, ShotResult* result, const Frame& main, const TwinLensCameraParam& row,
               const ColourRange& range, const std::vector<OutputFile>& extras,
               std::vector<std::string>* written, Problem* problem) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<OutputFile> files;
    if (!encodeShot(*result, main, row, range, &files, problem)) return false;
    files.insert(files.end(), extras.begin(), extras.end());
    OutputSet set(dir);
    if (!set.begin(problem)) return false;
    for (const OutputFile& f : files) {
        if (!set.add(f.first, f.second, problem)) return false;
    }
    if (!set.commit(problem)) return false;
    *written = set.names();
    result->times.push_back(
        {"write",
         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count()});
    return true;
}

std::string depthJson(const ShotResult& r) {
    return JsonObject()
        .add("width", r.depthWidth)
        .add("height", r.depthHeight)
        .add("near", r.nearDepth)
        .add("far", r.farDepth)
        .add("status", r.status)
        .add("focalBaseline", r.focalBaseline)
        .str();
}

void printDepth(const ShotResult& r) {
    static const char* const kStatus[] = {"usable", "subject too near", "subject too far"};
    std::printf("depth %dx%d, %.3f to %.3f m as the library reads it, status %d (%s)\n", r.depthWidth,
                r.depthHeight, r.nearDepth, r.farDepth, r.status,
                kStatus[r.status >= 0 && r.status <= 2 ? r.status : 0]);
}

int reportProblem(const std::string& command, const Problem& problem, bool json) {
    std::fprintf(stderr, "twinlens: %s\n", problem.text().c_str());
    if (json) {
        std::printf("%s\n", JsonObject()
                                .text("command", command)
                                .add("ok", false)
                                .add("exitCode", problem.code)
                                .text("file", problem.file)
                                .text("error", problem.what)
                                .str()
                                .c_str());
    }
    return problem.code;
}

}  // namespace vq_tl::twinlens
