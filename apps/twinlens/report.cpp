#include "report.h"

#include <cmath>

namespace vq_tl::twinlens {

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", c);
                    out += escape;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string jsonNumber(double v) {
    if (!std::isfinite(v)) return "null";
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

std::string JsonObject::str() const {
    std::string s = "{";
    for (size_t k = 0; k < members_.size(); ++k)
        s += (k > 0 ? ", " : "") + jsonString(members_[k].first) + ": " + members_[k].second;
    return s + "}";
}

std::string jsonArray(const std::vector<std::string>& values) {
    std::string s = "[";
    for (size_t k = 0; k < values.size(); ++k) s += (k > 0 ? ", " : "") + values[k];
    return s + "]";
}

std::string jsonStrings(const std::vector<std::string>& strings) {
    std::vector<std::string> quoted;
    for (const std::string& s : strings) quoted.push_back(jsonString(s));
    return jsonArray(quoted);
}

std::string jsonTimes(const std::vector<Timing>& times) {
    JsonObject o;
    for (const Timing& t : times) o.add(t.stage, t.ms);
    return o.str();
}

void printTimes(FILE* out, const std::vector<Timing>& times) {
    for (const Timing& t : times) std::fprintf(out, "  %-11s %9.1f ms\n", t.stage.c_str(), t.ms);
}

}  // namespace vq_tl::twinlens
