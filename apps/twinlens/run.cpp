// twinlens run and twinlens batch: the user's own pairs.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "calibration.h"
#include "commands.h"
#include "io.h"
#include "report.h"

namespace vq_tl::twinlens {

namespace {

// How the pictures of a pair are read: decoded by OpenCV and turned into
// NV21, or raw frames of a layout and size.
struct InputOptions {
    bool raw = false;
    Layout layout = Layout::kNv21;
    int32_t width = 0, height = 0, subWidth = 0, subHeight = 0;
};

struct PairSettings {
    CommonOptions common;
    InputOptions input;
    CalibrationOptions calibrationOptions;
    std::vector<std::string> calibrationFiles;
    std::string backgroundFile;
    double focusX = 0.5, focusY = 0.5;
};

std::vector<OptionRule> pairOptions(bool single) {
    std::vector<OptionRule> s = kCommonOptions;
    if (single) s.push_back({"main", true}), s.push_back({"sub", true});
    for (const OptionRule& o : std::vector<OptionRule>{{"calib", true, true},
                                                       {"focus", true},
                                                       {"format", true},
                                                       {"size", true},
                                                       {"sub-size", true},
                                                       {"background", true},
                                                       {"calib-unit", true},
                                                       {"calib-main", true}})
        s.push_back(o);
    return s;
}

bool parsePairSettings(const Args& args, PairSettings* s, Problem* problem) {
    if (!parseCommon(args, &s->common, problem)) return false;
    s->calibrationFiles = args.values("calib");
    if (s->calibrationFiles.empty()) return fail(problem, kExitUsage, "", "--calib FILE is missing");
    if (s->calibrationFiles.size() > 2)
        return fail(problem, kExitUsage, "", "--calib takes one or two files");
    if (args.has("focus")) {
        if (!parsePair("focus", args.value("focus"), &s->focusX, &s->focusY, problem)) return false;
        if (s->focusX < 0 || s->focusX > 1 || s->focusY < 0 || s->focusY > 1)
            return fail(problem, kExitUsage, "", "--focus takes X,Y as fractions of the frame, from 0 to 1");
    }
    InputOptions& in = s->input;
    if (args.has("format")) {
        in.raw = true;
        if (!parseLayout(args.value("format"), &in.layout))
            return fail(problem, kExitUsage, "",
                        "--format takes nv21, nv12 or i420, not \"" + args.value("format") + "\"");
        if (!args.has("size")) return fail(problem, kExitUsage, "", "raw frames (--format) need --size WxH");
        if (!parseSize("size", args.value("size"), &in.width, &in.height, problem)) return false;
        in.subWidth = in.width, in.subHeight = in.height;
        if (args.has("sub-size") &&
            !parseSize("sub-size", args.value("sub-size"), &in.subWidth, &in.subHeight, problem))
            return false;
        for (const int32_t v : {in.width, in.height, in.subWidth, in.subHeight}) {
            if (v % 2 != 0) return fail(problem, kExitUsage, "", "YUV 4:2:0 frames have even sizes");
        }
    } else if (args.has("size") || args.has("sub-size")) {
        return fail(problem, kExitUsage, "", "--size and --sub-size are for raw frames, with --format");
    }
    s->backgroundFile = args.value("background");
    if (!parseLengthUnit(args.value("calib-unit", "auto"), &s->calibrationOptions.unit))
        return fail(problem, kExitUsage, "", "--calib-unit takes auto, m, cm or mm");
    if (args.has("calib-main") &&
        !parseCount("calib-main", args.value("calib-main"), 1, 2, &s->calibrationOptions.mainCamera, problem))
        return false;
    return true;
}

// A picture as a frame of the session's layout; odd sizes lose their last
// column or row, since 4:2:0 chroma pairs pixels.
bool loadFrame(const std::string& path, const InputOptions& in, bool isSub, Frame* frame, Problem* problem) {
    if (in.raw)
        return readRawFrame(path, isSub ? in.subWidth : in.width, isSub ? in.subHeight : in.height, in.layout,
                            frame, problem);
    Bgr bgr;
    if (!readPicture(path, &bgr, problem)) return false;
    if (bgr.width % 2 != 0 || bgr.height % 2 != 0) {
        Bgr even;
        even.width = bgr.width & ~1, even.height = bgr.height & ~1;
        for (int32_t y = 0; y < even.height; ++y) {
            const uint8_t* row = &bgr.bytes[static_cast<size_t>(y) * bgr.width * 3];
            even.bytes.insert(even.bytes.end(), row, row + static_cast<size_t>(even.width) * 3);
        }
        bgr = std::move(even);
    }
    bgrToFrame(bgr, Layout::kNv21, frame);
    return true;
}

std::string sizeText(int32_t w, int32_t h) { return std::to_string(w) + "x" + std::to_string(h); }

// The sizes a session takes, and the aspect of each frame against its
// calibration: a calibration scales to a frame of its own aspect only.
bool checkPair(const Frame& main, const Frame& sub, const std::string& mainPath, const std::string& subPath,
               const TwinLensCameraParam& row, const std::string& calibration, Problem* problem) {
    for (const auto& [frame, path] : {std::pair{&main, &mainPath}, {&sub, &subPath}}) {
        if (int64_t{frame->width} * frame->height < 76800 || frame->width > 16384 || frame->height > 16384)
            return fail(problem, kExitInput, *path,
                        sizeText(frame->width, frame->height) +
                            ": frames need at least 76800 pixels and at most 16384 on a side");
    }
    const double mainAspect = static_cast<double>(main.width) / main.height,
                 subAspect = static_cast<double>(sub.width) / sub.height;
    if (std::fabs(subAspect - mainAspect) > 0.1)
        return fail(problem, kExitInput, subPath,
                    sizeText(sub.width, sub.height) + " does not match the main picture's " +
                        sizeText(main.width, main.height) + " (aspect ratios differ by more than 0.1)");
    if (sub.width * 4 < main.width || sub.height * 4 < main.height)
        return fail(problem, kExitInput, subPath,
                    sizeText(sub.width, sub.height) + " is under a quarter of the main picture's " +
                        sizeText(main.width, main.height) + " on a side");
    const std::pair<const Frame*, int32_t> frames[] = {{&main, 0}, {&sub, 1}};
    for (const auto& [frame, which] : frames) {
        const int32_t cw = which == 0 ? row.mainCalibWidth : row.subCalibWidth;
        const int32_t ch = which == 0 ? row.mainCalibHeight : row.subCalibHeight;
        // One percent: a crop of a few rows to an even size stays within.
        if (std::fabs(static_cast<double>(frame->width) / frame->height - static_cast<double>(cw) / ch) >
            0.01 * cw / ch)
            return fail(problem, kExitInput, which == 0 ? mainPath : subPath,
                        sizeText(frame->width, frame->height) +
                            " does not have the aspect of the calibration's " + sizeText(cw, ch) + " (" +
                            calibration + ")");
    }
    return true;
}

// One pair: load, check, shot, files. `session` stays open for the next pair.
struct PairReport {
    std::string name, mainPath, subPath, dir;
    ShotResult result;
    std::vector<std::string> files;
    Problem problem;
};

bool runPair(const PairSettings& s, const Calibration& calibration, Session* session,
             std::vector<Timing>* openTimes, PairReport* report) {
    Problem* problem = &report->problem;
    Frame main, sub, background;
    const auto start = std::chrono::steady_clock::now();
    if (!loadFrame(report->mainPath, s.input, false, &main, problem) ||
        !loadFrame(report->subPath, s.input, true, &sub, problem))
        return false;
    const std::string calibrationName = s.calibrationFiles.size() == 1
                                            ? s.calibrationFiles[0]
                                            : s.calibrationFiles[0] + " + " + s.calibrationFiles[1];
    if (!checkPair(main, sub, report->mainPath, report->subPath, rowInForce(calibration.rows),
                   calibrationName, problem))
        return false;
    if (!s.backgroundFile.empty()) {
        if (!loadFrame(s.backgroundFile, InputOptions(), false, &background, problem)) return false;
        if (background.layout != main.layout) {
            Frame converted;
            convertFrame(background, main.layout, &converted);
            background = std::move(converted);
        }
    } else {
        background = makeBackground(main.width / 2 & ~1, main.height / 2 & ~1, main.layout);
    }
    report->result.times.push_back(
        {"load",
         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count()});

    ShotSetup setup;
    setup.mainWidth = main.width, setup.mainHeight = main.height;
    setup.subWidth = sub.width, setup.subHeight = sub.height;
    depthSizeFor(main.width, main.height, &setup.depthWidth, &setup.depthHeight);
    setup.layout = main.layout;
    setup.matchingMode = s.common.matchingMode;
    setup.threads = s.common.threads;
    setup.rows = calibration.rows;
    setup.calibrationName = calibrationName;
    ShotOptions options;
    options.strength = s.common.strength;
    options.focusX = s.focusX, options.focusY = s.focusY;
    options.background = &background;
    if (!session->open(setup, openTimes, problem)) return false;
    report->result.times.insert(report->result.times.end(), openTimes->begin(), openTimes->end());
    openTimes->clear();
    if (!session->shot(main, sub, options, &report->result, problem)) return false;
    return writeShot(report->dir, &report->result, main, rowInForce(calibration.rows), s.common.range, {},
                     &report->files, problem);
}

std::string pairJson(const PairReport& p) {
    JsonObject o;
    o.text("name", p.name).text("main", p.mainPath).text("sub", p.subPath).add("ok", !p.problem.failed());
    if (p.problem.failed())
        return o.add("exitCode", p.problem.code)
            .text("file", p.problem.file)
            .text("error", p.problem.what)
            .str();
    return o.add("times", jsonTimes(p.result.times))
        .add("depth", depthJson(p.result))
        .text("out", p.dir)
        .add("files", jsonStrings(p.files))
        .str();
}

void printNotes(const Calibration& c) {
    for (const std::string& note : c.notes) std::printf("note: %s\n", note.c_str());
}

}  // namespace

int runCommand(const std::vector<std::string>& words) {
    Args args;
    PairSettings s;
    Calibration calibration;
    Problem problem;
    const bool json = std::find(words.begin(), words.end(), "--json") != words.end();
    if (!parseArgs(words, pairOptions(true), &args, &problem) || !parsePairSettings(args, &s, &problem))
        return reportProblem("run", problem, json);
    if (!args.operands.empty())
        return reportProblem("run", {kExitUsage, "", "run takes no operand: \"" + args.operands[0] + "\""},
                             json);
    if (!args.has("main") || !args.has("sub"))
        return reportProblem("run", {kExitUsage, "", "run needs --main FILE and --sub FILE"}, json);
    if (!loadCalibration(s.calibrationFiles, s.calibrationOptions, &calibration, &problem))
        return reportProblem("run", problem, json);
    PairReport report;
    report.name = "pair";
    report.mainPath = args.value("main"), report.subPath = args.value("sub"), report.dir = s.common.out;
    Session session;
    std::vector<Timing> openTimes;
    if (!runPair(s, calibration, &session, &openTimes, &report))
        return reportProblem("run", report.problem, json);
    session.close(&report.result.times);
    if (json) {
        std::printf("%s\n", JsonObject()
                                .text("command", "run")
                                .add("ok", true)
                                .text("calibration", calibration.kind)
                                .add("notes", jsonStrings(calibration.notes))
                                .add("pair", pairJson(report))
                                .str()
                                .c_str());
        return kExitOk;
    }
    std::printf("twinlens run: %s and %s, %s from %s\n", report.mainPath.c_str(), report.subPath.c_str(),
                calibration.kind.c_str(), s.calibrationFiles[0].c_str());
    printNotes(calibration);
    printTimes(stdout, report.result.times);
    printDepth(report.result);
    std::printf("wrote %s/:", report.dir.c_str());
    for (const std::string& name : report.files) std::printf(" %s", name.c_str());
    std::printf("\n");
    return kExitOk;
}

int convertCommand(const std::vector<std::string>& words) {
    const std::vector<OptionRule> rules = {
        {"calib", true, true}, {"calib-unit", true}, {"calib-main", true}, {"json", false}};
    Args args;
    PairSettings s;
    Calibration calibration;
    Problem problem;
    const bool json = std::find(words.begin(), words.end(), "--json") != words.end();
    if (!parseArgs(words, rules, &args, &problem) || !parsePairSettings(args, &s, &problem) ||
        !loadCalibration(s.calibrationFiles, s.calibrationOptions, &calibration, &problem))
        return reportProblem("convert", problem, json);
    if (!args.operands.empty())
        return reportProblem(
            "convert", {kExitUsage, "", "convert takes no operand: \"" + args.operands[0] + "\""}, json);
    // The rows on the standard output, notes on the standard error: the
    // output is a calibration file as it stands.
    for (const std::string& note : calibration.notes) std::fprintf(stderr, "note: %s\n", note.c_str());
    if (calibration.rows.size() == 1) {
        std::fputs(rowToJson(calibration.rows[0]).c_str(), stdout);
        return kExitOk;
    }
    std::printf("[\n");
    for (size_t k = 0; k < calibration.rows.size(); ++k) {
        const std::string row = rowToJson(calibration.rows[k]);
        std::printf("%s%s", row.substr(0, row.size() - 1).c_str(),
                    k + 1 < calibration.rows.size() ? ",\n" : "\n");
    }
    std::printf("]\n");
    return kExitOk;
}

int batchCommand(const std::vector<std::string>& words) {
    Args args;
    PairSettings s;
    Calibration calibration;
    Problem problem;
    const bool json = std::find(words.begin(), words.end(), "--json") != words.end();
    if (!parseArgs(words, pairOptions(false), &args, &problem) || !parsePairSettings(args, &s, &problem))
        return reportProblem("batch", problem, json);
    if (args.operands.size() != 1)
        return reportProblem("batch", {kExitUsage, "", "batch takes one folder of pairs"}, json);
    const std::string folder = args.operands[0];
    if (!loadCalibration(s.calibrationFiles, s.calibrationOptions, &calibration, &problem))
        return reportProblem("batch", problem, json);

    // Pairs: NAME_main.EXT beside NAME_sub.EXT (any extensions, any case of "main" and "sub").
    DIR* d = opendir(folder.c_str());
    if (d == nullptr)
        return reportProblem(
            "batch", {kExitInput, folder, "cannot read the folder: " + std::string(std::strerror(errno))},
            json);
    std::map<std::string, std::pair<std::string, std::string>> pairs;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        const size_t dot = name.rfind('.');
        std::string stem = name.substr(0, dot == std::string::npos || dot == 0 ? name.size() : dot);
        std::string lower = stem;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        for (const auto& [suffix, sub] : {std::pair{"_main", false}, {"_sub", true}}) {
            const size_t n = std::strlen(suffix);
            if (lower.size() > n && lower.compare(lower.size() - n, n, suffix) == 0) {
                auto& entry = pairs[stem.substr(0, stem.size() - n)];
                (sub ? entry.second : entry.first) = folder + "/" + name;
            }
        }
    }
    closedir(d);
    if (pairs.empty())
        return reportProblem(
            "batch", {kExitInput, folder, "holds no pairs (NAME_main.jpg beside NAME_sub.jpg)"}, json);

    const bool progress = !json && isatty(2);
    Session session;
    std::vector<Timing> openTimes;
    std::vector<PairReport> reports;
    const auto start = std::chrono::steady_clock::now();
    size_t done = 0;
    for (const auto& [name, files] : pairs) {
        if (progress) {
            constexpr int kWidth = 30;
            const int filled = static_cast<int>(kWidth * done / pairs.size());
            std::fprintf(stderr, "\r[%s%s] %zu/%zu %s\x1b[K", std::string(filled, '#').c_str(),
                         std::string(kWidth - filled, '.').c_str(), done, pairs.size(), name.c_str());
        }
        PairReport& report = reports.emplace_back();
        report.name = name, report.mainPath = files.first, report.subPath = files.second;
        report.dir = s.common.out + "/" + name;
        if (files.first.empty() || files.second.empty()) {
            fail(&report.problem, kExitInput, files.first.empty() ? files.second : files.first,
                 std::string("has no ") + (files.first.empty() ? "main" : "sub") + " picture beside it");
        } else {
            runPair(s, calibration, &session, &openTimes, &report);
        }
        if (report.problem.failed() && !json) {
            if (progress) std::fprintf(stderr, "\r\x1b[K");
            std::fprintf(stderr, "twinlens: %s\n", report.problem.text().c_str());
        }
        ++done;
    }
    std::vector<Timing> finalTimes;
    session.close(&finalTimes);
    const double total =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (progress)
        std::fprintf(stderr, "\r[%s] %zu/%zu\x1b[K\n", std::string(30, '#').c_str(), done, pairs.size());

    // Mean time of each stage over the pairs that went through.
    std::vector<Timing> means;
    std::vector<int> counts;
    int failed = 0;
    for (const PairReport& r : reports) {
        if (r.problem.failed()) {
            ++failed;
            continue;
        }
        for (const Timing& t : r.result.times) {
            auto it =
                std::find_if(means.begin(), means.end(), [&](const Timing& m) { return m.stage == t.stage; });
            if (it == means.end()) {
                means.push_back({t.stage, 0}), counts.push_back(0);
                it = means.end() - 1;
            }
            it->ms += t.ms, ++counts[it - means.begin()];
        }
    }
    for (size_t k = 0; k < means.size(); ++k) means[k].ms /= counts[k];
    const int succeeded = static_cast<int>(reports.size()) - failed;
    const int code = failed > 0 ? kExitFailed : kExitOk;
    if (json) {
        std::vector<std::string> items;
        for (const PairReport& r : reports) items.push_back(pairJson(r));
        std::printf("%s\n", JsonObject()
                                .text("command", "batch")
                                .add("ok", failed == 0)
                                .add("exitCode", code)
                                .text("calibration", calibration.kind)
                                .add("notes", jsonStrings(calibration.notes))
                                .add("pairs", jsonArray(items))
                                .add("summary", JsonObject()
                                                    .add("pairs", static_cast<int>(reports.size()))
                                                    .add("succeeded", succeeded)
                                                    .add("failed", failed)
                                                    .add("totalMs", total)
                                                    .add("meanMs", jsonTimes(means))
                                                    .str())
                                .str()
                                .c_str());
        return code;
    }
    printNotes(calibration);
    std::printf("twinlens batch: %d of %zu pairs done in %.1f s, %d failed; results in %s/NAME/\n", succeeded,
                reports.size(), total / 1000, failed, s.common.out.c_str());
    if (succeeded > 0) {
        std::printf("mean per pair:\n");
        printTimes(stdout, means);
    }
    return code;
}

}  // namespace vq_tl::twinlens
