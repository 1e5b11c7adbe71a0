// twinlens demo: the built-in synthetic shot through the library, with the
// depth error against the scene's truth.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "calibration.h"
#include "commands.h"
#include "io.h"
#include "report.h"
#include "support/scene.h"

namespace vq_tl::twinlens {

namespace {

struct DepthError {
    int64_t scored = 0;
    double medianRelative = 0, within5Percent = 0, withinOnePixel = 0;
};

// Scored: depth pixels whose centre in the main frame sees a textured
// surface that the sub camera sees too. A pixel without a depth counts as
// wrong. One working pixel of disparity is f B / z.
DepthError compareWithTruth(const ShotResult& r, const vq_tl_test::Scene& scene) {
    const int32_t W = scene.mainCamera.width, H = scene.mainCamera.height;
    std::vector<double> relative;
    int64_t within5 = 0, withinPixel = 0;
    for (int32_t y = 0; y < r.depthHeight; ++y) {
        for (int32_t x = 0; x < r.depthWidth; ++x) {
            const size_t t = static_cast<size_t>((2 * y + 1) * H / (2 * r.depthHeight)) * W +
                             (2 * x + 1) * W / (2 * r.depthWidth);
            if (!scene.textured[t] || scene.occluded[t]) continue;
            const double truth = scene.depth[t], z = r.metres[static_cast<size_t>(y) * r.depthWidth + x];
            const double e = z > 0 ? std::fabs(z - truth) / truth : 1.0;
            relative.push_back(e);
            within5 += e <= 0.05;
            withinPixel += z > 0 && std::fabs(r.focalBaseline / z - r.focalBaseline / truth) <= 1.0;
        }
    }
    DepthError d;
    d.scored = static_cast<int64_t>(relative.size());
    if (d.scored == 0) return d;
    std::nth_element(relative.begin(), relative.begin() + d.scored / 2, relative.end());
    d.medianRelative = relative[d.scored / 2];
    d.within5Percent = static_cast<double>(within5) / d.scored;
    d.withinOnePixel = r.focalBaseline > 0 ? static_cast<double>(withinPixel) / d.scored : NAN;
    return d;
}

Frame frameOf(const vq_tl_test::Picture& p) {
    Frame f;
    f.allocate(p.image.width, p.image.height, Layout::kNv21);
    const int32_t w = p.image.width, h = p.image.height;
    for (int32_t y = 0; y < h; ++y) std::memcpy(f.luma() + static_cast<size_t>(y) * w, p.row(0, y), w);
    for (int32_t y = 0; y < h / 2; ++y)
        std::memcpy(f.luma() + static_cast<size_t>(w) * h + static_cast<size_t>(y) * w, p.row(1, y), w);
    return f;
}

bool encodePicture(const Frame& frame, std::vector<uint8_t>* png) {
    Bgr bgr;
    frameToBgr(frame, &bgr);
    return encodePng(bgr.bytes.data(), bgr.width, bgr.height, 3, 8, png);
}

}  // namespace

int demoCommand(const std::vector<std::string>& words) {
    std::vector<OptionRule> rules = kCommonOptions;
    rules.push_back({"size", true});
    rules.push_back({"save-pair", false});
    Args args;
    CommonOptions common;
    Problem problem;
    if (!parseArgs(words, rules, &args, &problem) || !parseCommon(args, &common, &problem))
        return reportProblem("demo", problem, args.has("json"));
    if (!args.operands.empty())
        return reportProblem("demo", {kExitUsage, "", "demo takes no operand: \"" + args.operands[0] + "\""},
                             common.json);
    // The scene's frames are 4:3; heights follow the width.
    int32_t width = 4000, height = 3000;
    if (args.has("size")) {
        if (!parseSize("size", args.value("size"), &width, &height, &problem))
            return reportProblem("demo", problem, common.json);
        const int32_t want = 2 * static_cast<int32_t>(std::lround(0.375 * width));
        if (width % 2 != 0 || width < 320 || width > 8000 || height != want) {
            return reportProblem("demo",
                                 {kExitUsage, "",
                                  "--size of the built-in scene: an even width from 320 to 8000 and a 4:3 "
                                  "height, e.g. 1000x750"},
                                 common.json);
        }
    }

    // The scene at the asked size. The baseline grows as the frame shrinks
    // (16 mm at 4000 by 3000), so that every size sees the same disparities
    // in working pixels: 6 to 16, the background at 2 m, the box at 0.8 m.
    vq_tl_test::SceneConfig config;
    config.scale = width / 4000.0;
    config.mainWidth = width;
    config.backgroundDepth = 2.0;
    config.subCentre[0] = 0.016 * 4000.0 / width;
    config.threads = common.threads > 0 ? common.threads
                                        : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    std::vector<Timing> times;
    const auto start = std::chrono::steady_clock::now();
    const vq_tl_test::Scene scene(config);
    times.push_back(
        {"render",
         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count()});
    const Frame main = frameOf(*scene.main), sub = frameOf(*scene.sub);

    ShotSetup setup;
    setup.mainWidth = main.width, setup.mainHeight = main.height;
    setup.subWidth = sub.width, setup.subHeight = sub.height;
    depthSizeFor(main.width, main.height, &setup.depthWidth, &setup.depthHeight);
    setup.matchingMode = common.matchingMode;
    setup.threads = common.threads;
    setup.rows.resize(1);
    scene.cameraParam(&setup.rows[0]);
    setup.calibrationName = "the built-in scene's calibration";

    // Focus on the middle of the box's front face.
    ShotOptions options;
    options.strength = common.strength;
    const vq_tl_test::SceneBox& box = scene.config.box;
    const double centre[3] = {box.x, box.y, box.z};
    double u, v;
    vq_tl_test::Scene::project(scene.mainCamera, centre, &u, &v);
    options.focusX = u / (main.width - 1), options.focusY = v / (main.height - 1);
    const Frame background = makeBackground(main.width / 2 & ~1, main.height / 2 & ~1, Layout::kNv21);
    options.background = &background;

    Session session;
    ShotResult result;
    if (!session.open(setup, &times, &problem) || !session.shot(main, sub, options, &result, &problem))
        return reportProblem("demo", problem, common.json);
    session.close(&result.times);
    times.insert(times.end(), result.times.begin(), result.times.end());
    result.times = times;
    const DepthError error = compareWithTruth(result, scene);

    std::vector<OutputFile> extras;
    const std::string row = rowToJson(setup.rows[0]);
    extras.emplace_back("calibration.json", std::vector<uint8_t>(row.begin(), row.end()));
    if (args.has("save-pair")) {
        std::vector<uint8_t> a, b;
        if (!encodePicture(main, &a) || !encodePicture(sub, &b))
            return reportProblem("demo", {kExitFailed, "main.png", "cannot be encoded"}, common.json);
        extras.emplace_back("main.png", std::move(a));
        extras.emplace_back("sub.png", std::move(b));
    }
    std::vector<std::string> written;
    if (!writeShot(common.out, &result, main, setup.rows[0], common.range, extras, &written, &problem))
        return reportProblem("demo", problem, common.json);

    if (common.json) {
        JsonObject e;
        e.add("scored", static_cast<double>(error.scored))
            .add("medianRelative", error.medianRelative)
            .add("within5Percent", error.within5Percent)
            .add("withinOnePixel", error.withinOnePixel);
        std::printf("%s\n",
                    JsonObject()
                        .text("command", "demo")
                        .add("ok", true)
                        .add("main", jsonArray({std::to_string(main.width), std::to_string(main.height)}))
                        .add("sub", jsonArray({std::to_string(sub.width), std::to_string(sub.height)}))
                        .text("mode", common.matchingMode != 0 ? "fine" : "normal")
                        .add("times", jsonTimes(result.times))
                        .add("depth", depthJson(result))
                        .add("error", e.str())
                        .text("out", common.out)
                        .add("files", jsonStrings(written))
                        .str()
                        .c_str());
        return kExitOk;
    }
    std::printf("twinlens demo: the built-in scene, main %dx%d, sub %dx%d, %s mode\n", main.width,
                main.height, sub.width, sub.height, common.matchingMode != 0 ? "fine" : "normal");
    printTimes(stdout, result.times);
    printDepth(result);
    std::printf("depth against the scene's truth, %lld pixels: median error %.2f %%, %.1f %% within 5 %%",
                static_cast<long long>(error.scored), 100 * error.medianRelative, 100 * error.within5Percent);
    if (std::isfinite(error.withinOnePixel))
        std::printf(", %.1f %% within one working pixel of disparity", 100 * error.withinOnePixel);
    std::printf("\nwrote %s/:", common.out.c_str());
    for (const std::string& name : written) std::printf(" %s", name.c_str());
    std::printf("\n");
    return kExitOk;
}

}  // namespace vq_tl::twinlens
