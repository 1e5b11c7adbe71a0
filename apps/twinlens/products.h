// The files a shot leaves: the depth picture, metric depth, colour-mapped
// depth, the blurred and the background-replaced pictures, a point cloud.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "frames.h"
#include "problem.h"
#include "shot.h"

namespace vq_tl::twinlens {

// The depths at the two ends of the colour map, in metres: fixed, so that
// the colours of a depth do not change from shot to shot.
struct ColourRange {
    double nearest = 0.5, farthest = 5.0;
};

using OutputFile = std::pair<std::string, std::vector<uint8_t>>;

// depth.png (8 bits, the library's levels, 0 the nearest), depth_mm.png (16
// bits, millimetres, 0 unknown), depth_color.png, bokeh.jpg, background.jpg
// and points.ply. `row` is the calibration row in force, for the point cloud.
bool encodeShot(const ShotResult& result, const Frame& main, const TwinLensCameraParam& row,
                const ColourRange& range, std::vector<OutputFile>* files, Problem* problem);

// Turbo colour map (blue far, red near) of t in [0, 1], as B, G, R.
void turbo(double t, uint8_t bgr[3]);

// The ideal (undistorted) normalised point of a distorted one, by the
// lens record of a calibration row.
void undistortPoint(const TwinLensLensDist& lens, double xd, double yd, double* x, double* y);

// A binary little-endian PLY of the points with known depth: x right, y down,
// z forward from the main camera, metres; colours of `colour`, which has the
// depth picture's size.
std::vector<uint8_t> pointCloud(const ShotResult& result, const Bgr& colour, const TwinLensCameraParam& row);

}  // namespace vq_tl::twinlens
