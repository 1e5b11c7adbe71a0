#include "args.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace vq_tl::twinlens {

bool Args::has(const std::string& name) const {
    for (const auto& [key, value] : options) {
        if (key == name) return true;
    }
    return false;
}

std::string Args::value(const std::string& name, const std::string& otherwise) const {
    std::string found = otherwise;
    for (const auto& [key, value] : options) {
        if (key == name) found = value;
    }
    return found;
}

std::vector<std::string> Args::values(const std::string& name) const {
    std::vector<std::string> found;
    for (const auto& [key, value] : options) {
        if (key == name) found.push_back(value);
    }
    return found;
}

bool parseArgs(const std::vector<std::string>& words, const std::vector<OptionRule>& rules, Args* args,
               Problem* problem) {
    bool operandsOnly = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (operandsOnly || word.size() < 2 || word[0] != '-') {
            args->operands.push_back(word);
            continue;
        }
        if (word == "--") {
            operandsOnly = true;
            continue;
        }
        if (word.compare(0, 2, "--") != 0) return fail(problem, kExitUsage, "", "unknown option " + word);
        const size_t equals = word.find('=');
        const std::string name = word.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
        const OptionRule* rule = nullptr;
        for (const OptionRule& s : rules) {
            if (name == s.name) rule = &s;
        }
        if (rule == nullptr) return fail(problem, kExitUsage, "", "unknown option --" + name);
        if (!rule->repeatable && args->has(name))
            return fail(problem, kExitUsage, "", "--" + name + " is given twice");
        std::string value;
        if (rule->takesValue) {
            if (equals != std::string::npos) {
                value = word.substr(equals + 1);
            } else if (i + 1 < words.size()) {
                value = words[++i];
            } else {
                return fail(problem, kExitUsage, "", "--" + name + " needs a value");
            }
        } else if (equals != std::string::npos) {
            return fail(problem, kExitUsage, "", "--" + name + " takes no value");
        }
        args->options.emplace_back(name, value);
    }
    return true;
}

bool parseCount(const std::string& option, const std::string& text, int lowest, int highest, int* out,
                Problem* problem) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < lowest || v > highest)
        return fail(problem, kExitUsage, "",
                    "--" + option + " takes a whole number from " + std::to_string(lowest) + " to " +
                        std::to_string(highest) + ", not \"" + text + "\"");
    *out = static_cast<int>(v);
    return true;
}

bool parseReal(const std::string& option, const std::string& text, double lowest, double highest, double* out,
               Problem* problem) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v >= lowest && v <= highest)) {
        char range[96];
        std::snprintf(range, sizeof range, " takes a number from %g to %g, not \"", lowest, highest);
        return fail(problem, kExitUsage, "", "--" + option + range + text + "\"");
    }
    *out = v;
    return true;
}

bool parseSize(const std::string& option, const std::string& text, int32_t* width, int32_t* height,
               Problem* problem) {
    const size_t x = text.find('x');
    int w = 0, h = 0;
    Problem ignored;
    if (x == std::string::npos || !parseCount(option, text.substr(0, x), 1, 65536, &w, &ignored) ||
        !parseCount(option, text.substr(x + 1), 1, 65536, &h, &ignored))
        return fail(problem, kExitUsage, "",
                    "--" + option + " takes a size WIDTHxHEIGHT, not \"" + text + "\"");
    *width = w, *height = h;
    return true;
}

bool parsePair(const std::string& option, const std::string& text, double* a, double* b, Problem* problem) {
    const size_t comma = text.find(',');
    char* end = nullptr;
    if (comma != std::string::npos) {
        const std::string first = text.substr(0, comma), second = text.substr(comma + 1);
        *a = std::strtod(first.c_str(), &end);
        const bool firstOk = !first.empty() && *end == '\0';
        *b = std::strtod(second.c_str(), &end);
        if (firstOk && !second.empty() && *end == '\0' && std::isfinite(*a) && std::isfinite(*b)) return true;
    }
    return fail(problem, kExitUsage, "", "--" + option + " takes two numbers A,B, not \"" + text + "\"");
}

}  // namespace vq_tl::twinlens
