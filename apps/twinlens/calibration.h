// The calibration of a camera pair, from any of three files, as the rows a
// session takes:
// - the library's own row as JSON (docs/calibration.md), one object or an
//   array of rows for several lens positions;
// - a stereo calibration in OpenCV's FileStorage YAML, XML or JSON: the two
//   camera matrices, distortion vectors, R, T and the image size;
// - a camera module's factory record as JSON, the fields of
//   RectifyDataConverterParam, converted by velquin_RectifyDataConverter_*.
// The kind is told by the keys the file holds.
#pragma once

#include <string>
#include <vector>

#include "problem.h"
#include "tree.h"
#include "velquin/twin_lens_types.h"

namespace vq_tl::twinlens {

enum class LengthUnit { kAuto, kMetre, kCentimetre, kMillimetre };
bool parseLengthUnit(const std::string& name, LengthUnit* unit);

struct CalibrationOptions {
    // The unit of the file's translation. kAuto: metres, unless the
    // baseline is 1 or longer, which no phone has in metres: millimetres then.
    LengthUnit unit = LengthUnit::kAuto;
    // Which camera of an OpenCV calibration is the main one (1 or 2).
    int mainCamera = 1;
};

struct Calibration {
    std::vector<TwinLensCameraParam> rows;  // 1 to 20, translations in metres
    std::string kind;                // "calibration row", "OpenCV stereo calibration", "factory record"
    std::vector<std::string> notes;  // conversions worth telling the user
};

// Reads, converts and checks; problems of the content are kExitCalibration,
// a missing or unreadable file kExitInput. Several files (OpenCV's stereo
// sample writes intrinsics and extrinsics apart) are read as one mapping.
bool loadCalibration(const std::vector<std::string>& paths, const CalibrationOptions& options,
                     Calibration* out, Problem* problem);
// The same from text already read; `path` names it in messages.
bool parseCalibration(const std::string& text, const std::string& path, const CalibrationOptions& options,
                      Calibration* out, Problem* problem);

// Checks a row by the rules a session holds rows to, so that a refusal names
// the field: "" when it passes.
std::string rowProblem(const TwinLensCameraParam& row);

// A row as JSON, in the layout the reader takes.
std::string rowToJson(const TwinLensCameraParam& row);

}  // namespace vq_tl::twinlens
