// The command line: options of the form --name VALUE or --name=VALUE,
// switches, and operands, checked against the options a command knows.
#pragma once

#include <string>
#include <vector>

#include "problem.h"

namespace vq_tl::twinlens {

struct OptionRule {
    const char* name;  // without the dashes
    bool takesValue;
    bool repeatable = false;
};

struct Args {
    std::vector<std::pair<std::string, std::string>> options;  // in command-line order
    std::vector<std::string> operands;

    bool has(const std::string& name) const;
    // The last value given, or `otherwise`.
    std::string value(const std::string& name, const std::string& otherwise = "") const;
    std::vector<std::string> values(const std::string& name) const;
};

// Problems are usage problems (kExitUsage).
bool parseArgs(const std::vector<std::string>& words, const std::vector<OptionRule>& rules, Args* args,
               Problem* problem);

// Values, each with the option's name in its message.
bool parseCount(const std::string& option, const std::string& text, int lowest, int highest, int* out,
                Problem* problem);
bool parseReal(const std::string& option, const std::string& text, double lowest, double highest, double* out,
               Problem* problem);
// "WxH" of two whole numbers from 1 to 65536; the caller checks what the
// sizes must meet besides.
bool parseSize(const std::string& option, const std::string& text, int32_t* width, int32_t* height,
               Problem* problem);
// "A,B" of two reals.
bool parsePair(const std::string& option, const std::string& text, double* a, double* b, Problem* problem);

}  // namespace vq_tl::twinlens
