// Turns the public image records into Image views, and small size questions.
#pragma once

#include "image/image.h"
#include "velquin/twin_lens_types.h"

namespace vq_tl {

// image must be constructed; the view borrows the caller's planes.
TLResult IF_initImage(Image* image, const TwinLensImage* plain, uint32_t format);
TLResult IF_initImageEx(Image* image, const TwinLensImageEx* ex, uint32_t format);
TLResult IF_initImageData(TwinLensImage* plain, const Image* image);

int32_t IF_isAvailableImage();
// 0 when an odd width of a 4:2:2 or 4:2:0 format comes with a pitch below
// the rounded-up minimum; 1 otherwise.
int32_t IF_isAvailableImageEx(const TwinLensImageEx* ex, uint32_t format);

int32_t IF_getImageSize(int32_t width, int32_t height, const char* formatName);
int32_t IF_getImageSizeY(int32_t width, int32_t height, const char* formatName);
int32_t IF_getImageSizeU(int32_t width, int32_t height, const char* formatName);
int32_t IF_getImageSizeV(int32_t width, int32_t height, const char* formatName);
int32_t IF_getImageSizeUV(int32_t width, int32_t height, const char* formatName);

// Named frame sizes: mode 0 to 24 from a pixel count, and back.
int32_t IF_getDisplayMode(int32_t width, int32_t height);
int32_t IF_getPixelSize(int32_t mode);

}  // namespace vq_tl
