// The commands of twinlens (demo, run, batch, convert) and what they share.
#pragma once

#include <string>
#include <vector>

#include "args.h"
#include "products.h"
#include "shot.h"

namespace vq_tl::twinlens {

// Each takes the words after the command's name and returns the exit code.
int demoCommand(const std::vector<std::string>& words);
int runCommand(const std::vector<std::string>& words);
int batchCommand(const std::vector<std::string>& words);
// The calibration rows a run would use, as JSON in the library's layout.
int convertCommand(const std::vector<std::string>& words);

// Options every command has.
struct CommonOptions {
    bool json = false;
    int threads = 0;
    int32_t matchingMode = 0;
    double strength = 200;
    ColourRange range;
    std::string out = "out";
};
extern const std::vector<OptionRule> kCommonOptions;
bool parseCommon(const Args& args, CommonOptions* common, Problem* problem);

// The depth picture's size for a main frame: half of each side, at most
// 1920 wide, even, and at least the 19200 pixels a session needs, at the
// main frame's aspect.
void depthSizeFor(int32_t width, int32_t height, int32_t* depthWidth, int32_t* depthHeight);

// A picture to put behind the subject: a sky of soft bands, procedural.
Frame makeBackground(int32_t width, int32_t height, Layout layout);

// The row a session uses of several: the middle one (the lower of two).
const TwinLensCameraParam& rowInForce(const std::vector<TwinLensCameraParam>& rows);

// Encodes the shot's files, adds `extras` and writes all into dir, all or
// nothing; the time goes to result->times as "write".
bool writeShot(const std::string& dir, ShotResult* result, const Frame& main, const TwinLensCameraParam& row,
               const ColourRange& range, const std::vector<OutputFile>& extras,
               std::vector<std::string>* written, Problem* problem);

// The depth part of the JSON report, and its line for people.
std::string depthJson(const ShotResult& result);
void printDepth(const ShotResult& result);

// One line "twinlens: ..." on the standard error and, with --json, an object
// on the standard output. Returns the problem's exit code.
int reportProblem(const std::string& command, const Problem& problem, bool json);

}  // namespace vq_tl::twinlens
