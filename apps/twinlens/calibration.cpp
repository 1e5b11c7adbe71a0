#include "calibration.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "io.h"
#include "velquin/rectify_data_converter.h"

namespace vq_tl::twinlens {

bool parseLengthUnit(const std::string& name, LengthUnit* unit) {
    const std::pair<const char*, LengthUnit> units[] = {{"auto", LengthUnit::kAuto},
                                                        {"m", LengthUnit::kMetre},
                                                        {"cm", LengthUnit::kCentimetre},
                                                        {"mm", LengthUnit::kMillimetre}};
    for (const auto& [spelling, value] : units) {
        if (name == spelling) return *unit = value, true;
    }
    return false;
}

namespace {

// The shortest of 15 to 17 digits that reads back as the same double.
std::string number(double v) {
    char text[32];
    for (int digits = 15; digits <= 17; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, v);
        if (std::strtod(text, nullptr) == v) break;
    }
    return text;
}

std::string located(const Node& n, const std::string& what) {
    return n.line > 0 ? "line " + std::to_string(n.line) + ": " + what : what;
}

// The values of a matrix node: OpenCV's (rows, cols, dt, data), a list of
// numbers, or a list of equal rows. `name` is for messages.
bool matrixValues(const Node& n, const std::string& name, std::vector<double>* values, std::string* why) {
    if (n.kind == Node::kMap) {
        const Node *rows = n.find("rows"), *cols = n.find("cols"), *data = n.find("data"), *dt = n.find("dt");
        if (rows == nullptr || cols == nullptr || data == nullptr)
            return *why = located(n, name + " is a mapping without rows, cols and data"), false;
        // Several channels ("3d") or a type that is not a number is not a calibration matrix.
        const bool single =
            dt == nullptr || (dt->kind == Node::kString &&
                              (dt->text.size() == 1 || (dt->text.size() == 2 && dt->text[0] == '1')) &&
                              std::strchr("ucwsifd", dt->text.back()) != nullptr);
        if (!single)
            return *why =
                       located(*dt, name + " has elements of type \"" + dt->text + "\", not single numbers"),
                   false;
        if (!data->numbers(values)) return *why = located(*data, name + ": data must be numbers"), false;
        if (rows->kind != Node::kNumber || cols->kind != Node::kNumber ||
            static_cast<double>(values->size()) != rows->number * cols->number)
            return *why = located(n, name + ": rows times cols is not the number of data values"), false;
        return true;
    }
    if (n.kind == Node::kList && !n.items.empty() && n.items[0].kind == Node::kList) {
        values->clear();
        std::vector<double> row;
        for (const Node& r : n.items) {
            if (!r.numbers(&row) || row.size() != n.items[0].items.size())
                return *why = located(r, name + ": rows must be lists of numbers of one length"), false;
            values->insert(values->end(), row.begin(), row.end());
        }
        return true;
    }
    if (!n.numbers(values)) return *why = located(n, name + " must be numbers"), false;
    return true;
}

bool fixedValues(const Node& n, const std::string& name, size_t count, double* out, std::string* why) {
    std::vector<double> v;
    if (!matrixValues(n, name, &v, why)) return false;
    if (v.size() != count)
        return *why = located(
                   n, name + " needs " + std::to_string(count) + " values, not " + std::to_string(v.size())),
               false;
    for (size_t k = 0; k < count; ++k) out[k] = v[k];
    return true;
}

bool integer(const Node& n, const std::string& name, int32_t* out, std::string* why) {
    if (n.kind != Node::kNumber || n.number != std::floor(n.number) || std::fabs(n.number) > 2147483647.0)
        return *why = located(n, name + " must be a whole number"), false;
    *out = static_cast<int32_t>(n.number);
    return true;
}

bool real(const Node& n, const std::string& name, double* out, std::string* why) {
    if (n.kind != Node::kNumber) return *why = located(n, name + " must be a number"), false;
    *out = n.number;
    return true;
}

// ---- The library's row ----

bool readLens(const Node& n, const std::string& name, TwinLensLensDist* lens, std::string* why) {
    if (n.kind != Node::kMap) return *why = located(n, name + " must be a mapping"), false;
    std::memset(lens, 0, sizeof *lens);
    for (const auto& [key, value] : n.fields) {
        const std::string field = name + "." + key;
        std::vector<double> v;
        if (key == "kind") {
            if (!integer(value, field, &lens->kind, why)) return false;
        } else if (key == "k" || key == "p" || key == "table") {
            const size_t most = key == "k" ? 6 : key == "p" ? 2 : 41;
            if (!matrixValues(value, field, &v, why)) return false;
            if (v.size() > most)
                return *why = located(value, field + " takes at most " + std::to_string(most) + " values"),
                       false;
            double* to = key == "k" ? lens->u.coeff.k : key == "p" ? lens->u.coeff.p : nullptr;
            if (to != nullptr) {
                for (size_t i = 0; i < v.size(); ++i) to[i] = v[i];
            }
        } else if (key == "maxRadius") {
            if (!real(value, field, &lens->u.data.maxRadius, why)) return false;
        } else {
            return *why = located(value, "unknown key " + field), false;
        }
    }
    // The two forms share their storage: the table goes in last.
    if (lens->kind == 1) {
        const Node* k = n.find("k");
        const Node* p = n.find("p");
        if (k != nullptr || p != nullptr)
            return *why = located(n, name + " of kind 1 takes a table, not k or p"), false;
        const Node* table = n.find("table");
        std::vector<double> v;
        if (table == nullptr || !matrixValues(*table, name + ".table", &v, why))
            return *why = located(n, name + " of kind 1 needs a table"), false;
        const double maxRadius = lens->u.data.maxRadius;
        std::memset(&lens->u, 0, sizeof lens->u);
        for (size_t i = 0; i < v.size(); ++i) lens->u.data.table[i] = v[i];
        lens->u.data.count = static_cast<int32_t>(v.size());
        lens->u.data.maxRadius = maxRadius;
    } else if (n.find("table") != nullptr || n.find("maxRadius") != nullptr) {
        return *why = located(n, name + ": a table needs kind 1"), false;
    }
    return true;
}

bool readRow(const Node& n, TwinLensCameraParam* row, std::string* why) {
    if (n.kind != Node::kMap) return *why = located(n, "a calibration row must be a mapping"), false;
    std::memset(row, 0, sizeof *row);
    row->extrinsicsForward = 1;
    struct Matrix {
        const char* name;
        double* to;
        size_t count;
    };
    const Matrix matrices[] = {{"mainCameraMatrix", row->mainCameraMatrix, 9},
                               {"subCameraMatrix", row->subCameraMatrix, 9},
                               {"mainRectRotation", row->mainRectRotation, 9},
                               {"subRectRotation", row->subRectRotation, 9},
                               {"mainRectCameraMatrix", row->mainRectCameraMatrix, 9},
                               {"subRectCameraMatrix", row->subRectCameraMatrix, 9},
                               {"stereoRotation", row->stereoRotation, 9},
                               {"stereoTranslation", row->stereoTranslation, 3}};
    const std::pair<const char*, int32_t*> integers[] = {
        {"extrinsicsForward", &row->extrinsicsForward}, {"mainCalibWidth", &row->mainCalibWidth},
        {"mainCalibHeight", &row->mainCalibHeight},     {"subCalibWidth", &row->subCalibWidth},
        {"subCalibHeight", &row->subCalibHeight},       {"mainRectWidth", &row->mainRectWidth},
        {"mainRectHeight", &row->mainRectHeight},       {"subRectWidth", &row->subRectWidth},
        {"subRectHeight", &row->subRectHeight}};
    for (const auto& [key, value] : n.fields) {
        bool known = false;
        for (const Matrix& m : matrices) {
            if (key != m.name) continue;
            if (!fixedValues(value, key, m.count, m.to, why)) return false;
            known = true;
        }
        for (const auto& [name, to] : integers) {
            if (key != name) continue;
            if (!integer(value, key, to, why)) return false;
            known = true;
        }
        if (key == "focusPosition") {
            if (!real(value, key, &row->focusPosition, why)) return false;
            known = true;
        } else if (key == "mainLensDist" || key == "subLensDist") {
            if (!readLens(value, key, key == "mainLensDist" ? &row->mainLensDist : &row->subLensDist, why))
                return false;
            known = true;
        }
        if (!known) return *why = located(value, "unknown key \"" + key + "\""), false;
    }
    for (const char* required :
         {"mainCalibWidth", "mainCalibHeight", "subCalibWidth", "subCalibHeight", "mainCameraMatrix",
          "subCameraMatrix", "stereoRotation", "stereoTranslation"}) {
        if (n.find(required) == nullptr)
            return *why = located(n, std::string("\"") + required + "\" is missing"), false;
    }
    return true;
}

// ---- A factory record ----

bool readFactory(const Node& n, RectifyDataConverterParam* p, std::vector<float> tables[2],
                 double* focusPosition, std::string* why) {
    if (n.kind != Node::kMap) return *why = located(n, "a factory record must be a mapping"), false;
    std::memset(p, 0, sizeof *p);
    const std::pair<const char*, int32_t*> integers[] = {{"extrinsicsForward", &p->extrinsicsForward},
                                                         {"mainSensorWidth", &p->mainSensorWidth},
                                                         {"mainSensorHeight", &p->mainSensorHeight},
                                                         {"subSensorWidth", &p->subSensorWidth},
                                                         {"subSensorHeight", &p->subSensorHeight},
                                                         {"mainDistKind", &p->mainDistKind},
                                                         {"subDistKind", &p->subDistKind},
                                                         {"mainDistCount", &p->mainDistCount},
                                                         {"subDistCount", &p->subDistCount}};
    const std::pair<const char*, float*> reals[] = {{"mainPixelPitch", &p->mainPixelPitch},
                                                    {"subPixelPitch", &p->subPixelPitch},
                                                    {"mainFocalLength", &p->mainFocalLength},
                                                    {"subFocalLength", &p->subFocalLength},
                                                    {"mainCenterOffsetX", &p->mainCenterOffsetX},
                                                    {"mainCenterOffsetY", &p->mainCenterOffsetY},
                                                    {"subCenterOffsetX", &p->subCenterOffsetX},
                                                    {"subCenterOffsetY", &p->subCenterOffsetY},
                                                    {"mainCropLeft", &p->mainCropLeft},
                                                    {"mainCropTop", &p->mainCropTop},
                                                    {"mainCropWidth", &p->mainCropWidth},
                                                    {"mainCropHeight", &p->mainCropHeight},
                                                    {"subCropLeft", &p->subCropLeft},
                                                    {"subCropTop", &p->subCropTop},
                                                    {"subCropWidth", &p->subCropWidth},
                                                    {"subCropHeight", &p->subCropHeight},
                                                    {"translationX", &p->translationX},
                                                    {"translationY", &p->translationY},
                                                    {"translationZ", &p->translationZ},
                                                    {"rotationX", &p->rotationX},
                                                    {"rotationY", &p->rotationY},
                                                    {"rotationZ", &p->rotationZ}};
    bool counted[2] = {false, false};
    for (const auto& [key, value] : n.fields) {
        bool known = false;
        for (const auto& [name, to] : integers) {
            if (key != name) continue;
            if (!integer(value, key, to, why)) return false;
            counted[0] |= key == "mainDistCount", counted[1] |= key == "subDistCount";
            known = true;
        }
        for (const auto& [name, to] : reals) {
            if (key != name) continue;
            double v = 0;
            if (!real(value, key, &v, why)) return false;
            *to = static_cast<float>(v);
            known = true;
        }
        if (key == "mainDistTable" || key == "subDistTable") {
            std::vector<double> v;
            if (!matrixValues(value, key, &v, why)) return false;
            tables[key == "subDistTable"].assign(v.begin(), v.end());
            known = true;
        } else if (key == "focusPosition") {
            if (!real(value, key, focusPosition, why)) return false;
            known = true;
        }
        if (!known) return *why = located(value, "unknown key \"" + key + "\""), false;
    }
    int32_t* counts[2] = {&p->mainDistCount, &p->subDistCount};
    for (int c = 0; c < 2; ++c) {
        const int32_t size = static_cast<int32_t>(tables[c].size());
        if (counted[c] && *counts[c] != size)
            return *why = located(n, std::string(c == 0 ? "mainDistCount" : "subDistCount") + " is " +
                                         std::to_string(*counts[c]) + " but the table holds " +
                                         std::to_string(size)),
                   false;
        *counts[c] = size;
        // The fit divides by the table's length less one.
        if (size == 1)
            return *why = located(
                       n, std::string(c == 0 ? "main" : "sub") + "DistTable needs at least 2 entries"),
                   false;
    }
    p->mainDistTable = tables[0].empty() ? nullptr : tables[0].data();
    p->subDistTable = tables[1].empty() ? nullptr : tables[1].data();
    for (const char* required : {"mainPixelPitch", "subPixelPitch", "mainFocalLength", "subFocalLength",
                                 "mainSensorWidth", "mainSensorHeight", "subSensorWidth", "subSensorHeight",
                                 "mainCropWidth", "mainCropHeight", "subCropWidth", "subCropHeight"}) {
        if (n.find(required) == nullptr)
            return *why = located(n, std::string("\"") + required + "\" is missing"), false;
    }
    if (!(p->mainPixelPitch > 0) || !(p->subPixelPitch > 0) || !(p->mainFocalLength > 0) ||
        !(p->subFocalLength > 0))
        return *why = located(n, "pixel pitches and focal lengths must be above 0"), false;
    return true;
}

bool convertFactory(const RectifyDataConverterParam& p, TwinLensCameraParam* row, std::string* why) {
    const int32_t capacity = std::max({p.mainDistCount, p.subDistCount, 2});
    const uint32_t size = velquin_RectifyDataConverter_getBufferSize(capacity, 3);
    if (TL_FAILED(size))
        return *why = "the converter refuses a table of " + std::to_string(capacity) + " entries", false;
    std::vector<uint8_t> buffer(size);
    RectifyDataConverterHandle handle{nullptr};
    TLResult r = velquin_RectifyDataConverter_initialize(&handle, buffer.data(), static_cast<int32_t>(size),
                                                         capacity, 3);
    if (r != TL_OK) return *why = "the converter cannot start (" + std::to_string(r) + ")", false;
    std::memset(row, 0, sizeof *row);
    r = velquin_RectifyDataConverter_convert(&handle, row, &p);
    velquin_RectifyDataConverter_finalize(&handle);
    if (r == TL_OK) return true;
    // The converter refuses only tables: of an unknown kind, or kept tables over 41 entries.
    *why = "the converter refuses the distortion tables (kinds 0 or 1; a kept table has at most 41 entries)";
    return false;
}

// ---- OpenCV's stereo calibration ----

const Node* findAny(const Node& n, std::initializer_list<const char*> names, std::string* found) {
    for (const char* name : names) {
        if (const Node* v = n.find(name)) return *found = name, v;
    }
    return nullptr;
}

// A rotation vector (axis times angle in radians) as a matrix, by Rodrigues' formula.
void rotationFromVector(const double v[3], double r[9]) {
    const double angle = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (angle == 0) {
        for (int k = 0; k < 9; ++k) r[k] = k % 4 == 0;
        return;
    }
    const double x = v[0] / angle, y = v[1] / angle, z = v[2] / angle;
    const double c = std::cos(angle), s = std::sin(angle), t = 1 - c;
    const double m[9] = {t * x * x + c,     t * x * y - s * z, t * x * z + s * y,
                         t * x * y + s * z, t * y * y + c,     t * y * z - s * x,
                         t * x * z - s * y, t * y * z + s * x, t * z * z + c};
    std::memcpy(r, m, sizeof m);
}

// OpenCV's distortion vector (k1, k2, p1, p2[, k3[, k4, k5, k6[, s1..s4[, tx, ty]]]]) as the
// library's k1, k2, k3, p1, p2. The forward models agree term by term: x' = x (1 + k1 r^2 + k2
// r^4 + k3 r^6) + 2 p1 x y + p2 (r^2 + 2 x^2), and alike for y. The rational model's divisor
// (1 + k4 r^2 + k5 r^4 + k6 r^6) is refitted as three radial terms over the radii of the frame,
// where `radius` is the normalised radius of the farthest corner.
bool convertDistortion(const std::vector<double>& d, const std::string& name, double radius, double focal,
                       TwinLensLensDist* lens, std::vector<std::string>* notes, std::string* why) {
    std::memset(lens, 0, sizeof *lens);
    const size_t n = d.size();
    if (n != 0 && n != 4 && n != 5 && n != 8 && n != 12 && n != 14)
        return *why = name + " has " + std::to_string(n) + " values; OpenCV's models have 4, 5, 8, 12 or 14",
               false;
    for (size_t k = 8; k < n; ++k) {
        if (d[k] != 0)
            return *why = name +
                          ": thin-prism and tilted-sensor terms (values 9 to 14) have no counterpart here",
                   false;
    }
    double k[3] = {n > 0 ? d[0] : 0, n > 1 ? d[1] : 0, n > 4 ? d[4] : 0};
    const double below[3] = {n > 5 ? d[5] : 0, n > 6 ? d[6] : 0, n > 7 ? d[7] : 0};
    if (below[0] != 0 || below[1] != 0 || below[2] != 0) {
        // Least squares over radii 0 to 1.1 times the corner's, weighted by the radius so that the
        // residual is a distance in the picture: r (g(r) - sum a_i r^(2i)).
        constexpr int kSamples = 200;
        double ata[3][4] = {};
        auto excess = [&](double r) {
            const double r2 = r * r;
            return (1 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]))) /
                       (1 + r2 * (below[0] + r2 * (below[1] + r2 * below[2]))) -
                   1;
        };
        for (int i = 1; i <= kSamples; ++i) {
            const double r = 1.1 * radius * i / kSamples, r2 = r * r;
            const double basis[3] = {r * r2, r * r2 * r2, r * r2 * r2 * r2};
            for (int a = 0; a < 3; ++a) {
                for (int b = 0; b < 3; ++b) ata[a][b] += basis[a] * basis[b];
                ata[a][3] += basis[a] * r * excess(r);
            }
        }
        // Gaussian elimination with partial pivoting on the 3 by 4 system.
        for (int c = 0; c < 3; ++c) {
            int pivot = c;
            for (int r = c + 1; r < 3; ++r)
                pivot = std::fabs(ata[r][c]) > std::fabs(ata[pivot][c]) ? r : pivot;
            std::swap(ata[c], ata[pivot]);
            for (int r = 0; r < 3; ++r) {
                if (r == c || ata[c][c] == 0) continue;
                const double f = ata[r][c] / ata[c][c];
                for (int m = c; m < 4; ++m) ata[r][m] -= f * ata[c][m];
            }
        }
        double fitted[3];
        for (int c = 0; c < 3; ++c) fitted[c] = ata[c][c] != 0 ? ata[c][3] / ata[c][c] : 0;
        double worst = 0;
        for (int i = 1; i <= kSamples; ++i) {
            const double r = radius * i / kSamples, r2 = r * r;
            worst = std::max(
                worst,
                std::fabs(r * (excess(r) - r2 * (fitted[0] + r2 * (fitted[1] + r2 * fitted[2])))) * focal);
        }
        // Half a pixel: about what the matcher resolves at the working size and far below a calibration's own
        // error.
        if (!(worst <= 0.5)) {
            char text[160];
            std::snprintf(
                text, sizeof text,
                "%s: the rational terms k4 to k6 differ from k1 to k3 by up to %.2f pixels at the corners",
                name.c_str(), worst);
            return *why = text, false;
        }
        char text[160];
        std::snprintf(text, sizeof text,
                      "%s: rational terms k4 to k6 refitted as k1 to k3, within %.3f pixels", name.c_str(),
                      worst);
        notes->push_back(text);
        std::memcpy(k, fitted, sizeof k);
    }
    lens->kind = 0;
    std::memcpy(lens->u.coeff.k, k, sizeof k);
    lens->u.coeff.p[0] = n > 2 ? d[2] : 0;
    lens->u.coeff.p[1] = n > 3 ? d[3] : 0;
    return true;
}

bool readSize(const Node& n, std::initializer_list<const char*> names,
              std::initializer_list<const char*> widths, std::initializer_list<const char*> heights,
              int32_t size[2], bool* found, std::string* why) {
    std::string name;
    *found = false;
    if (const Node* v = findAny(n, names, &name)) {
        std::vector<double> values;
        if (!matrixValues(*v, name, &values, why)) return false;
        if (values.size() != 2 || values[0] != std::floor(values[0]) || values[1] != std::floor(values[1]) ||
            values[0] < 1 || values[1] < 1 || values[0] > 65536 || values[1] > 65536)
            return *why = located(*v, name + " must be two whole numbers: width and height"), false;
        size[0] = static_cast<int32_t>(values[0]), size[1] = static_cast<int32_t>(values[1]);
        return *found = true, true;
    }
    std::string widthName, heightName;
    const Node *w = findAny(n, widths, &widthName), *h = findAny(n, heights, &heightName);
    if (w == nullptr || h == nullptr) return true;
    if (!integer(*w, widthName, &size[0], why) || !integer(*h, heightName, &size[1], why)) return false;
    if (size[0] < 1 || size[1] < 1) return *why = located(*w, "the image size must be above 0"), false;
    return *found = true, true;
}

bool convertOpenCv(const Node& n, const CalibrationOptions& options, TwinLensCameraParam* row,
                   std::vector<std::string>* notes, std::string* why) {
    std::memset(row, 0, sizeof *row);
    std::string names[6];
    const Node* nodes[6] = {findAny(n, {"M1", "K1", "cameraMatrix1"}, &names[0]),
                            findAny(n, {"D1", "distCoeffs1"}, &names[1]),
                            findAny(n, {"M2", "K2", "cameraMatrix2"}, &names[2]),
                            findAny(n, {"D2", "distCoeffs2"}, &names[3]),
                            findAny(n, {"R"}, &names[4]),
                            findAny(n, {"T"}, &names[5])};
    const char* wanted[6] = {"M1 (or K1, cameraMatrix1)",
                             "D1 (or distCoeffs1)",
                             "M2 (or K2, cameraMatrix2)",
                             "D2 (or distCoeffs2)",
                             "R",
                             "T"};
    for (int i = 0; i < 6; ++i) {
        if (nodes[i] == nullptr) return *why = std::string(wanted[i]) + " is missing", false;
    }
    double camera[2][9], rotation[9], translation[3];
    std::vector<double> distortion[2];
    for (int c = 0; c < 2; ++c) {
        if (!fixedValues(*nodes[2 * c], names[2 * c], 9, camera[c], why)) return false;
        if (!matrixValues(*nodes[2 * c + 1], names[2 * c + 1], &distortion[c], why)) return false;
        const double* m = camera[c];
        if (m[3] != 0 || m[6] != 0 || m[7] != 0 || m[8] != 1 || !(m[0] > 0) || !(m[4] > 0))
            return *why = located(*nodes[2 * c],
                                  names[2 * c] + " is not a camera matrix (fx 0 cx; 0 fy cy; 0 0 1)"),
                   false;
        if (m[1] != 0)
            return *why =
                       located(*nodes[2 * c], names[2 * c] + " has a skew, which the library does not model"),
                   false;
    }
    std::vector<double> r;
    if (!matrixValues(*nodes[4], "R", &r, why)) return false;
    if (r.size() == 3) {
        rotationFromVector(r.data(), rotation);
    } else if (r.size() == 9) {
        std::memcpy(rotation, r.data(), sizeof rotation);
    } else {
        return *why = located(*nodes[4], "R must be a 3x3 matrix or a rotation vector of 3"), false;
    }
    if (!fixedValues(*nodes[5], "T", 3, translation, why)) return false;

    int32_t size[2][2];
    bool found = false, foundSub = false;
    if (!readSize(n, {"imageSize", "image_size"}, {"image_width", "imageWidth", "width"},
                  {"image_height", "imageHeight", "height"}, size[0], &found, why))
        return false;
    if (!found) return *why = "the image size is missing (imageSize: [width, height])", false;
    if (!readSize(n, {"imageSize2", "image_size2"}, {}, {}, size[1], &foundSub, why)) return false;
    if (!foundSub) size[1][0] = size[0][0], size[1][1] = size[0][1];

    // Camera 2 as the main one: x1 = R^T x2 - R^T T.
    int main = 0;
    if (options.mainCamera == 2) {
        main = 1;
        double inverse[9], t[3];
        for (int i = 0; i < 3; ++i) {
            for (int k = 0; k < 3; ++k) inverse[3 * i + k] = rotation[3 * k + i];
        }
        for (int i = 0; i < 3; ++i)
            t[i] = -(inverse[3 * i] * translation[0] + inverse[3 * i + 1] * translation[1] +
                     inverse[3 * i + 2] * translation[2]);
        std::memcpy(rotation, inverse, sizeof rotation);
        std::memcpy(translation, t, sizeof t);
    }
    const int sub = 1 - main;
    TwinLensLensDist* lenses[2] = {&row->mainLensDist, &row->subLensDist};
    for (int role = 0; role < 2; ++role) {
        const int c = role == 0 ? main : sub;
        const double* m = camera[c];
        // The farthest corner's normalised radius; pixel centres at whole coordinates, as in OpenCV.
        double radius = 0;
        for (const double u : {-0.5, size[c][0] - 0.5}) {
            for (const double v : {-0.5, size[c][1] - 0.5})
                radius = std::max(radius, std::hypot((u - m[2]) / m[0], (v - m[5]) / m[4]));
        }
        if (!convertDistortion(distortion[c], names[2 * c + 1], radius, m[0], lenses[role], notes, why))
            return false;
    }
    row->extrinsicsForward = 1;
    row->mainCalibWidth = size[main][0], row->mainCalibHeight = size[main][1];
    row->subCalibWidth = size[sub][0], row->subCalibHeight = size[sub][1];
    std::memcpy(row->mainCameraMatrix, camera[main], sizeof row->mainCameraMatrix);
    std::memcpy(row->subCameraMatrix, camera[sub], sizeof row->subCameraMatrix);
    std::memcpy(row->stereoRotation, rotation, sizeof rotation);
    std::memcpy(row->stereoTranslation, translation, sizeof translation);
    return true;
}

// Translations to metres.
void toMetres(Calibration* c, LengthUnit unit) {
    const double* t = c->rows[0].stereoTranslation;
    const double baseline = std::sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
    double scale = 1;
    if (unit == LengthUnit::kCentimetre) scale = 0.01;
    if (unit == LengthUnit::kMillimetre) scale = 0.001;
    if (unit == LengthUnit::kAuto && baseline >= 1) {
        scale = 0.001;
        char text[160];
        std::snprintf(text, sizeof text,
                      "translation read as millimetres (baseline %.2f mm); --calib-unit m keeps metres",
                      baseline);
        c->notes.push_back(text);
    }
    for (TwinLensCameraParam& row : c->rows) {
        for (double& v : row.stereoTranslation) v *= scale;
    }
}

}  // namespace

std::string rowProblem(const TwinLensCameraParam& row) {
    auto finite = [](const double* v, int n) {
        for (int k = 0; k < n; ++k) {
            if (!std::isfinite(v[k])) return false;
        }
        return true;
    };
    auto isCamera = [](const double* m) {
        return m[0] > 0 && m[4] > 0 && m[1] == 0 && m[3] == 0 && m[6] == 0 && m[7] == 0 && m[8] == 1;
    };
    auto isRotation = [](const double* r) {
        for (int i = 0; i < 3; ++i) {
            for (int k = 0; k < 3; ++k) {
                const double dot =
                    r[3 * i] * r[3 * k] + r[3 * i + 1] * r[3 * k + 1] + r[3 * i + 2] * r[3 * k + 2];
                if (std::fabs(dot - (i == k)) > 1e-5) return false;
            }
        }
        const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[1] * (r[3] * r[8] - r[5] * r[6]) +
                           r[2] * (r[3] * r[7] - r[4] * r[6]);
        return det > 0;
    };
    const std::pair<const char*, const double*> matrices[] = {
        {"mainCameraMatrix", row.mainCameraMatrix},
        {"subCameraMatrix", row.subCameraMatrix},
        {"mainRectRotation", row.mainRectRotation},
        {"subRectRotation", row.subRectRotation},
        {"mainRectCameraMatrix", row.mainRectCameraMatrix},
        {"subRectCameraMatrix", row.subRectCameraMatrix},
        {"stereoRotation", row.stereoRotation}};
    for (const auto& [name, m] : matrices) {
        if (!finite(m, 9)) return std::string(name) + " holds a value that is not finite";
    }
    if (!finite(row.stereoTranslation, 3) || !std::isfinite(row.focusPosition))
        return "stereoTranslation or focusPosition is not finite";
    if (!isCamera(row.mainCameraMatrix))
        return "mainCameraMatrix is not a camera matrix (fx 0 cx; 0 fy cy; 0 0 1, fx and fy above 0)";
    if (!isCamera(row.subCameraMatrix))
        return "subCameraMatrix is not a camera matrix (fx 0 cx; 0 fy cy; 0 0 1, fx and fy above 0)";
    if (!isRotation(row.stereoRotation))
        return "stereoRotation is not a rotation (orthonormal within 1e-5, determinant +1)";
    const double* t = row.stereoTranslation;
    if (t[0] == 0 && t[1] == 0 && t[2] == 0) return "stereoTranslation is zero: the cameras must stand apart";
    if (row.mainCalibWidth < 1 || row.mainCalibHeight < 1 || row.subCalibWidth < 1 || row.subCalibHeight < 1)
        return "a calibration size is below 1";
    const double* first = row.mainRectRotation;
    if (first[0] != 0 || first[1] != 0 || first[2] != 0) {
        if (!isRotation(row.mainRectRotation) || !isRotation(row.subRectRotation))
            return "mainRectRotation or subRectRotation is not a rotation";
        if (!isCamera(row.mainRectCameraMatrix) || !isCamera(row.subRectCameraMatrix))
            return "mainRectCameraMatrix or subRectCameraMatrix is not a camera matrix";
        if (row.mainRectWidth < 1 || row.mainRectHeight < 1 || row.subRectWidth < 1 || row.subRectHeight < 1)
            return "a rectified size is below 1";
    }
    for (const TwinLensLensDist* lens : {&row.mainLensDist, &row.subLensDist}) {
        const char* name = lens == &row.mainLensDist ? "mainLensDist" : "subLensDist";
        if (lens->kind == 0) {
            if (!finite(lens->u.coeff.k, 6) || !finite(lens->u.coeff.p, 2))
                return std::string(name) + " is not finite";
        } else if (lens->kind == 1) {
            const TwinLensLensTable& d = lens->u.data;
            if (d.count < 2 || d.count > 41) return std::string(name) + ": a table has 2 to 41 entries";
            if (!finite(d.table, d.count) || !(d.maxRadius > 0) || !std::isfinite(d.maxRadius))
                return std::string(name) + ": the table or its maxRadius is not usable";
        } else {
            return std::string(name) + ": kind must be 0 (coefficients) or 1 (table)";
        }
    }
    return "";
}

namespace {

// Side-by-side rectification needs the sub camera's centre well off the
// main camera's view: with the epipole inside the picture, or near it, no
// pair of rotations makes the rows epipolar lines. And the two cameras must
// look roughly the same way: 30 degrees is far beyond any module or rig
// that matches well.
std::string geometryProblem(const TwinLensCameraParam& row) {
    const double* r = row.stereoRotation;
    const double* t = row.stereoTranslation;
    double c[3];
    for (int i = 0; i < 3; ++i) {
        // The sub camera's centre in main coordinates: -R^T t for forward
        // extrinsics; a reversed row holds R^T and -t, giving R t.
        c[i] = row.extrinsicsForward != 0 ? -(r[i] * t[0] + r[3 + i] * t[1] + r[6 + i] * t[2])
                                          : r[3 * i] * t[0] + r[3 * i + 1] * t[1] + r[3 * i + 2] * t[2];
    }
    const double* m = row.mainCameraMatrix;
    const double w = row.mainCalibWidth, h = row.mainCalibHeight;
    if (c[2] != 0) {
        const double u = m[0] * c[0] / c[2] + m[2], v = m[4] * c[1] / c[2] + m[5];
        if (u > -0.5 * w && u < 1.5 * w && v > -0.5 * h && v < 1.5 * h) {
            char text[200];
            std::snprintf(text, sizeof text,
                          "cannot be rectified: the baseline points into the view (the sub camera's centre "
                          "projects to pixel %.0f, %.0f of the main picture)",
                          u, v);
            return text;
        }
    }
    const double angle = std::acos(std::clamp((r[0] + r[4] + r[8] - 1) / 2, -1.0, 1.0)) * 180 / M_PI;
    if (angle > 30) {
        char text[120];
        std::snprintf(text, sizeof text,
                      "cannot be rectified: the cameras are turned %.1f degrees apart (30 at most)", angle);
        return text;
    }
    return "";
}

bool convertCalibration(const Node& root, const std::string& path, const CalibrationOptions& options,
                        Calibration* out, Problem* problem) {
    std::string why;
    out->rows.clear(), out->notes.clear();
    const std::vector<Node> single{root};
    const std::vector<Node>& entries = root.kind == Node::kList ? root.items : single;
    if (entries.empty() || entries.size() > TWIN_LENS_MAX_CAMERA_PARAMS)
        return fail(problem, kExitCalibration, path,
                    "holds 1 to 20 rows, not " + std::to_string(entries.size()));
    const Node& first = entries[0];
    if (first.kind != Node::kMap)
        return fail(problem, kExitCalibration, path,
                    located(first, "a mapping of calibration values expected"));
    if (first.find("mainCameraMatrix") != nullptr) {
        out->kind = "calibration row";
        for (const Node& entry : entries) {
            TwinLensCameraParam row;
            if (!readRow(entry, &row, &why)) return fail(problem, kExitCalibration, path, why);
            out->rows.push_back(row);
        }
    } else if (first.find("mainPixelPitch") != nullptr) {
        out->kind = "factory record";
        for (const Node& entry : entries) {
            RectifyDataConverterParam record;
            std::vector<float> tables[2];
            double focusPosition = 0;
            TwinLensCameraParam row;
            if (!readFactory(entry, &record, tables, &focusPosition, &why) ||
                !convertFactory(record, &row, &why))
                return fail(problem, kExitCalibration, path, why);
            row.focusPosition = focusPosition;
            out->rows.push_back(row);
        }
    } else {
        std::string name;
        if (entries.size() != 1 ||
            findAny(first, {"M1", "K1", "cameraMatrix1", "M2", "K2", "cameraMatrix2", "R", "T"}, &name) ==
                nullptr)
            return fail(
                problem, kExitCalibration, path,
                "not a calibration: expected a calibration row (mainCameraMatrix ...), a factory record "
                "(mainPixelPitch ...) or an OpenCV stereo calibration (M1, D1, M2, D2, R, T)");
        out->kind = "OpenCV stereo calibration";
        TwinLensCameraParam row;
        if (!convertOpenCv(first, options, &row, &out->notes, &why))
            return fail(problem, kExitCalibration, path, why);
        out->rows.push_back(row);
    }
    toMetres(out, options.unit);
    for (size_t k = 0; k < out->rows.size(); ++k) {
        std::string what = rowProblem(out->rows[k]);
        if (what.empty()) what = geometryProblem(out->rows[k]);
        if (!what.empty())
            return fail(problem, kExitCalibration, path,
                        out->rows.size() > 1 ? "row " + std::to_string(k) + ": " + what : what);
    }
    return true;
}

}  // namespace

bool parseCalibration(const std::string& text, const std::string& path, const CalibrationOptions& options,
                      Calibration* out, Problem* problem) {
    Node root;
    std::string why;
    if (!parseAny(text, &root, &why)) return fail(problem, kExitCalibration, path, "does not parse: " + why);
    return convertCalibration(root, path, options, out, problem);
}

bool loadCalibration(const std::vector<std::string>& paths, const CalibrationOptions& options,
                     Calibration* out, Problem* problem) {
    // OpenCV's stereo sample writes two files (intrinsics, extrinsics): their
    // keys are read as one mapping.
    Node merged;
    merged.kind = Node::kMap;
    for (const std::string& path : paths) {
        std::string text, why;
        Node root;
        if (!readFile(path, &text, problem)) return false;
        if (!parseAny(text, &root, &why))
            return fail(problem, kExitCalibration, path, "does not parse: " + why);
        if (paths.size() == 1) return convertCalibration(root, path, options, out, problem);
        if (root.kind != Node::kMap)
            return fail(problem, kExitCalibration, path, "files read together must each hold a mapping");
        for (auto& [key, value] : root.fields) {
            if (merged.find(key) != nullptr)
                return fail(problem, kExitCalibration, path,
                            "\"" + key + "\" is given in an earlier file too");
            merged.fields.emplace_back(key, std::move(value));
        }
    }
    std::string all;
    for (const std::string& path : paths) all += (all.empty() ? "" : " + ") + path;
    return convertCalibration(merged, all, options, out, problem);
}

std::string rowToJson(const TwinLensCameraParam& row) {
    std::string s = "{\n";
    auto list = [&](const char* name, const double* v, int n, bool last = false) {
        s += std::string("  \"") + name + "\": [";
        for (int k = 0; k < n; ++k) s += (k > 0 ? ", " : "") + number(v[k]);
        s += last ? "]\n" : "],\n";
    };
    auto integer = [&](const char* name, int32_t v) {
        s += std::string("  \"") + name + "\": " + std::to_string(v) + ",\n";
    };
    auto lens = [&](const char* name, const TwinLensLensDist& d) {
        s += std::string("  \"") + name + "\": {\"kind\": " + std::to_string(d.kind);
        if (d.kind == 1) {
            s += ", \"table\": [";
            for (int k = 0; k < d.u.data.count; ++k) s += (k > 0 ? ", " : "") + number(d.u.data.table[k]);
            s += "], \"maxRadius\": " + number(d.u.data.maxRadius) + "},\n";
        } else {
            s += ", \"k\": [" + number(d.u.coeff.k[0]) + ", " + number(d.u.coeff.k[1]) + ", " +
                 number(d.u.coeff.k[2]) + "], \"p\": [" + number(d.u.coeff.p[0]) + ", " +
                 number(d.u.coeff.p[1]) + "]},\n";
        }
    };
    s += "  \"focusPosition\": " + number(row.focusPosition) + ",\n";
    integer("extrinsicsForward", row.extrinsicsForward);
    integer("mainCalibWidth", row.mainCalibWidth);
    integer("mainCalibHeight", row.mainCalibHeight);
    integer("subCalibWidth", row.subCalibWidth);
    integer("subCalibHeight", row.subCalibHeight);
    list("mainCameraMatrix", row.mainCameraMatrix, 9);
    list("subCameraMatrix", row.subCameraMatrix, 9);
    lens("mainLensDist", row.mainLensDist);
    lens("subLensDist", row.subLensDist);
    const double* first = row.mainRectRotation;
    if (first[0] != 0 || first[1] != 0 || first[2] != 0) {
        integer("mainRectWidth", row.mainRectWidth);
        integer("mainRectHeight", row.mainRectHeight);
        integer("subRectWidth", row.subRectWidth);
        integer("subRectHeight", row.subRectHeight);
        list("mainRectRotation", row.mainRectRotation, 9);
        list("subRectRotation", row.subRectRotation, 9);
        list("mainRectCameraMatrix", row.mainRectCameraMatrix, 9);
        list("subRectCameraMatrix", row.subRectCameraMatrix, 9);
    }
    list("stereoRotation", row.stereoRotation, 9);
    list("stereoTranslation", row.stereoTranslation, 3, true);
    return s + "}\n";
}

}  // namespace vq_tl::twinlens
