// twinlens: depth and synthetic bokeh from a stereo pair, on the command
// line. docs/usage.md tells the commands, the files they write and their
// units.
#include <cstdio>
#include <cstring>
#include <opencv2/core/utils/logger.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "report.h"
#include "tsan_gdal.h"
#include "velquin/twin_lens.h"

namespace {

constexpr const char* kUsage =
    "usage: twinlens COMMAND [options]\n"
    "\n"
    "  demo   the built-in synthetic shot, no input files\n"
    "         [--size WxH] [--save-pair]\n"
    "  run    one pair of your own\n"
    "         --main FILE --sub FILE --calib FILE [--calib FILE] [--focus X,Y]\n"
    "         [--format nv21|nv12|i420 --size WxH [--sub-size WxH]] [--background FILE]\n"
    "         [--calib-unit auto|m|cm|mm] [--calib-main 1|2]\n"
    "  batch  every pair NAME_main.EXT + NAME_sub.EXT of a folder\n"
    "         --calib FILE DIR, and the options of run but --main and --sub\n"
    "  convert a calibration (OpenCV's, a factory record, a row) as the library's\n"
    "         JSON row on the standard output: --calib FILE [--calib FILE]\n"
    "         [--calib-unit ...] [--calib-main ...]\n"
    "\n"
    "options of demo, run and batch:\n"
    "  --out DIR          where the files go (default out; batch: DIR/NAME/)\n"
    "  --mode normal|fine matching mode (default normal)\n"
    "  --strength S       blur strength, 0 to 300 (default 200)\n"
    "  --range NEAR,FAR   depths in metres at the ends of the colour map (default 0.5,5)\n"
    "  --threads N        worker threads (default: every processor)\n"
    "  --json             results as one JSON object on the standard output\n"
    "\n"
    "twinlens --version, twinlens --help. Exit codes: 0 done, 1 failed, 2 usage,\n"
    "3 input file, 4 calibration. More in docs/usage.md.\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace vq_tl::twinlens;
    // OpenCV's own log lines would break the one-line reports.
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    const std::vector<std::string> words(argv + (argc > 1 ? 2 : 1), argv + argc);
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "demo") return demoCommand(words);
    if (command == "run") return runCommand(words);
    if (command == "batch") return batchCommand(words);
    if (command == "convert") return convertCommand(words);
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (command == "--version") {
        std::printf("twinlens, %s\n", velquin_TwinLens_getVersion());
        return kExitOk;
    }
    std::fprintf(stderr, "twinlens: %s\n%s",
                 command.empty() ? "a command is missing" : ("unknown command \"" + command + "\"").c_str(),
                 kUsage);
    return kExitUsage;
}
