// Plane geometry of a format at a size, in 64-bit arithmetic.
#pragma once

#include <cstdint>

namespace vq_tl {

struct ImageGeometry {
    int64_t pitch[3];
    int64_t rows[3];
    int64_t bytes[3];
    int64_t total;
};

// False for negative sizes and codes above 71.
bool ImageGeometry_compute(int32_t width, int32_t height, uint32_t format, ImageGeometry* out);

}  // namespace vq_tl
