#include "image/public_image.h"

#include <cstring>

namespace vq_tl {

namespace {

enum PlaneKind { kOnePlane, kSemiplanar, kPlanar };

PlaneKind planeKind(uint32_t format) {
    if (Image_isYuvPlanar(format)) return kPlanar;
    if (Image_isYuvSemiplanar(format) || Image_isYvuSemiplanar(format)) return kSemiplanar;
    return kOnePlane;
}

// Pixel counts that head the rows of the display mode table, modes 0 to 22.
constexpr int32_t kModePixels[23] = {
    33177600, 12000000, 10077696, 7990272, 7680000, 5038848, 3981312, 3145728,
    2073600,  1920000,  1470000,  1310720, 1228800, 1049088, 995328,  921600,
    786432,   480000,   307200,   76800,   57600,   25344,   12288,
};

}  // namespace

TLResult IF_initImage(Image* image, const TwinLensImage* plain, uint32_t format) {
    if (image == nullptr || plain == nullptr) return TL_ERROR_PARAM;
    void* planes[3] = {plain->plane0, plain->plane1, plain->plane2};
    switch (planeKind(format)) {
        case kPlanar:
        case kSemiplanar: return Image_init(image, plain->width, plain->height, planes, format);
        default: return Image_init(image, plain->width, plain->height, plain->plane0, format);
    }
}

TLResult IF_initImageEx(Image* image, const TwinLensImageEx* ex, uint32_t format) {
    if (image == nullptr || ex == nullptr) return TL_ERROR_PARAM;
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    switch (planeKind(format)) {
        case kPlanar:
            p.three = {ex->plane0, ex->plane1, ex->plane2, ex->pitch0, ex->pitch1, ex->pitch2};
            break;
        case kSemiplanar: p.two = {ex->plane0, ex->plane1, ex->pitch0, ex->pitch1}; break;
        default: p.one = {ex->plane0, ex->pitch0}; break;
    }
    return Image_initWithPitch(image, ex->width, ex->height, &p, format);
}

TLResult IF_initImageData(TwinLensImage* plain, const Image* image) {
    if (plain == nullptr || image == nullptr) return TL_ERROR_PARAM;
    plain->width = image->width;
    plain->height = image->height;
    const int32_t count = Image_getPlaneCount(image->format);
    plain->plane0 = image->plane[0];
    if (count >= 2) plain->plane1 = image->plane[1];
    if (count >= 3) plain->plane2 = image->plane[2];
    return TL_OK;
}

int32_t IF_isAvailableImage() { return 1; }

int32_t IF_isAvailableImageEx(const TwinLensImageEx* ex, uint32_t format) {
    if (ex == nullptr) return 0;
    const bool subsampled =
        Image_isYuv422(format) || Image_isYuv420(format) || Image_isYvu422(format) || Image_isYvu420(format);
    if (!subsampled || (ex->width & 1) == 0) return 1;
    const int32_t w = ex->width;
    if (ex->pitch0 < Image_getSize(w, 1, format, 4)) return 0;
    switch (planeKind(format)) {
        case kPlanar:
            if (ex->pitch1 < Image_getSize(w, 1, format, 7) || ex->pitch2 < Image_getSize(w, 1, format, 10))
                return 0;
            break;
        case kSemiplanar:
            if (ex->pitch1 < Image_getSize(w, 1, format, 13)) return 0;
            break;
        default: break;
    }
    return 1;
}

int32_t IF_getImageSize(int32_t width, int32_t height, const char* formatName) {
    return Image_getSize(width, height, Image_getImageFormat(formatName), 0);
}
int32_t IF_getImageSizeY(int32_t width, int32_t height, const char* formatName) {
    return Image_getSize(width, height, Image_getImageFormat(formatName), 2);
}
int32_t IF_getImageSizeU(int32_t width, int32_t height, const char* formatName) {
    return Image_getSize(width, height, Image_getImageFormat(formatName), 5);
}
int32_t IF_getImageSizeV(int32_t width, int32_t height, const char* formatName) {
    return Image_getSize(width, height, Image_getImageFormat(formatName), 8);
}
int32_t IF_getImageSizeUV(int32_t width, int32_t height, const char* formatName) {
    return Image_getSize(width, height, Image_getImageFormat(formatName), 11);
}

int32_t IF_getDisplayMode(int32_t width, int32_t height) {
    // The pixel count in 32-bit arithmetic, as the table's thresholds are; wrap-around is not UB here.
    const int32_t p = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
    if (p > kModePixels[0]) return 24;
    if (p == kModePixels[0]) return 0;
    for (int32_t mode = 1; mode < 23; ++mode) {
        if (p >= kModePixels[mode]) return mode;
    }
    return 23;
}

int32_t IF_getPixelSize(int32_t mode) { return mode >= 0 && mode < 23 ? kModePixels[mode] : 0; }

}  // namespace vq_tl
