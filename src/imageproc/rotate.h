// Turning and mirroring of images between the eight orientation codes 1 to 8.
// Rotate_rotateImageEx is the body of ImageProc2_rotateImageEx.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_stripes.h"

namespace vq_tl {

struct ImageProc2;

// Operation 1 copy, 2 mirror left to right, 3 half turn, 4 mirror top to
// bottom, 5 transpose, 6 quarter turn counter-clockwise, 7 anti-transpose,
// 8 quarter turn clockwise. Operations 5 to 8 exchange width and height.
int32_t Rotate_operation(int32_t from, int32_t to);

// Writes dst as src turned from orientation `from` to orientation `to`.
// Elements of 1 byte: 60, the planes of 26 and 36, the luma of 27 and 29;
// 2 bytes: 67, the chroma of 27 and 29, and 1, 64, 68; 3 bytes: 2, 3, 30 to
// 35, 62; 4 bytes: 4 to 15, 61, 66.
// TL_ERROR_PARAM for an absent image or a code outside 1..8; TL_ERROR_UNSUPPORTED
// for other formats, differing formats, a dst not of the size the operation
// gives, or planes shared between dst and src. In those cases nothing is written.
TLResult Rotate_rotateImageEx(const ImageStripeExec* exec, Image* dst, const Image* src, int32_t from,
                              int32_t to);

// The same over the Pel of an ImageProc2; a null object gives TL_ERROR_PARAM.
TLResult ImageProc2_rotateImageEx(ImageProc2* self, Image* dst, const Image* src, int32_t from, int32_t to);

}  // namespace vq_tl
