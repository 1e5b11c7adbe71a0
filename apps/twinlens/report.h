// What the program tells: JSON for machines (--json), lines for people.
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "shot.h"

namespace vq_tl::twinlens {

std::string jsonString(const std::string& s);
// Six significant digits; not finite: null.
std::string jsonNumber(double v);

// An object built member by member; values are JSON text.
class JsonObject {
public:
    JsonObject& add(const std::string& key, const std::string& json) {
        members_.emplace_back(key, json);
        return *this;
    }
    JsonObject& add(const std::string& key, double v) { return add(key, jsonNumber(v)); }
    JsonObject& add(const std::string& key, int v) { return add(key, std::to_string(v)); }
    JsonObject& add(const std::string& key, bool v) { return add(key, std::string(v ? "true" : "false")); }
    JsonObject& text(const std::string& key, const std::string& s) { return add(key, jsonString(s)); }
    std::string str() const;

private:
    std::vector<std::pair<std::string, std::string>> members_;
};

std::string jsonArray(const std::vector<std::string>& jsonValues);
std::string jsonStrings(const std::vector<std::string>& strings);
// {"stage": ms, ...}
std::string jsonTimes(const std::vector<Timing>& times);

// "  stage   12.3 ms" lines.
void printTimes(FILE* out, const std::vector<Timing>& times);

}  // namespace vq_tl::twinlens
