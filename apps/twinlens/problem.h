// What went wrong, as the one line the program prints, and its exit code.
#pragma once

#include <string>

namespace vq_tl::twinlens {

// Exit codes; docs/usage.md lists them for users.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,       // the library failed, or an output could not be written
    kExitUsage = 2,        // unknown option, bad or missing value
    kExitInput = 3,        // a file is missing or unreadable, a picture does not decode, sizes mismatch
    kExitCalibration = 4,  // the calibration does not parse, or cannot be used for this pair
};

struct Problem {
    int code = kExitOk;
    std::string file;  // the file concerned, or empty
    std::string what;
    bool failed() const { return code != kExitOk; }
    // "FILE: what", or "what" without a file.
    std::string text() const { return file.empty() ? what : file + ": " + what; }
};

// Records a problem and returns false, for `return fail(...)` in functions that report success.
inline bool fail(Problem* p, int code, std::string file, std::string what) {
    p->code = code, p->file = std::move(file), p->what = std::move(what);
    return false;
}

}  // namespace vq_tl::twinlens
