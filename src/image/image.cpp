// Image records: owned and borrowed planes, sub-images, plane views, copies.
#include "image/image.h"

#include <cstdlib>
#include <cstring>

#include "image/image_geometry.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

bool ownsBlock(const Image* self) { return self->external == 0 && self->plane[0] != nullptr; }

int64_t ownedSize(const Image* self) {
    ImageGeometry g;
    if (!ownsBlock(self) || !ImageGeometry_compute(self->width, self->height, self->format, &g)) return 0;
    return g.total;
}

// The tests shared by every sub-image call, on the source's own rectangle.
bool subImageArgsValid(const Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                       int32_t height) {
    if (self == nullptr || source == nullptr || x < 0 || y < 0) return false;
    if (width > source->width || height > source->height) return false;
    if (static_cast<int64_t>(x) + width > source->width ||
        static_cast<int64_t>(y) + height > source->height) {
        return false;
    }
    const int32_t planes = Image_getPlaneCount(source->format);
    if (source->plane[0] == nullptr || source->pitch[0] < 1) return false;
    for (int k = 1; k < planes; ++k) {
        if (source->plane[k] == nullptr || source->pitch[k] < 1) return false;
    }
    // A view made into an owning record would free the pixels it points at.
    if (self == source && ownsBlock(source)) return false;
    return true;
}

TLResult initEmptyView(Image* self, int32_t width, int32_t height, uint32_t format) {
    ImagePlanes none;
    std::memset(&none, 0, sizeof none);
    return Image_initWithPitch(self, width, height, &none, format);
}

TLResult initOnePlaneView(Image* self, uint8_t* base, int32_t pitch, int32_t width, int32_t height,
                          uint32_t format) {
    if (width < 1 || height < 1) return initEmptyView(self, width, height, format);
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    p.one.plane0 = base;
    p.one.pitch0 = pitch;
    return Image_initWithPitch(self, width, height, &p, format);
}

uint8_t* at(uint8_t* plane, int32_t pitch, int32_t row, int64_t offset) {
    return plane + static_cast<int64_t>(pitch) * row + offset;
}

}  // namespace

TLResult construct_Image(Image* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    return TL_OK;
}

TLResult destruct_Image(Image* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (ownsBlock(self)) Memory_free(self->plane[0]);
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult Image_recycle(Image* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Env* env = self->env;
    destruct_Image(self);
    return construct_Image(self, env);
}

TLResult Image_initWithPitch(Image* self, int32_t width, int32_t height, const ImagePlanes* planes,
                             uint32_t format) {
    ImageGeometry g;
    if (self == nullptr || !ImageGeometry_compute(width, height, format, &g)) return TL_ERROR_PARAM;
    const int64_t oldSize = ownedSize(self);
    const int64_t newSize = planes != nullptr ? 0 : g.total;
    // Owned blocks are limited to what the 32-bit target can address.
    if (newSize > INT32_MAX) return TL_ERROR_PARAM;
    uint8_t* block = ownsBlock(self) ? self->plane[0] : nullptr;
    if (oldSize != newSize) {
        if (block != nullptr) Memory_free(block);
        block = nullptr;
        if (newSize != 0) {
            block = static_cast<uint8_t*>(Memory_alloc(static_cast<size_t>(newSize)));
            if (block == nullptr) {
                Env* env = self->env;
                construct_Image(self, env);
                return TL_ERROR_MEMORY;
            }
        }
    }
    const int32_t count = Image_getPlaneCount(format);
    for (int k = 0; k < 3; ++k) {
        self->plane[k] = nullptr;
        self->pitch[k] = 0;
    }
    if (planes != nullptr) {
        if (count == 1) {
            self->plane[0] = static_cast<uint8_t*>(planes->one.plane0);
            self->pitch[0] = planes->one.pitch0;
        } else if (count == 2) {
            self->plane[0] = static_cast<uint8_t*>(planes->two.plane0);
            self->plane[1] = static_cast<uint8_t*>(planes->two.plane1);
            self->pitch[0] = planes->two.pitch0;
            self->pitch[1] = planes->two.pitch1;
        } else if (count == 3) {
            self->plane[0] = static_cast<uint8_t*>(planes->three.plane0);
            self->plane[1] = static_cast<uint8_t*>(planes->three.plane1);
            self->plane[2] = static_cast<uint8_t*>(planes->three.plane2);
            self->pitch[0] = planes->three.pitch0;
            self->pitch[1] = planes->three.pitch1;
            self->pitch[2] = planes->three.pitch2;
        }
    } else {
        self->plane[0] = block;
        if (block != nullptr) {
            if (count >= 2) self->plane[1] = block + g.bytes[0];
            if (count >= 3) self->plane[2] = block + g.bytes[0] + g.bytes[1];
        }
        for (int k = 0; k < count; ++k) self->pitch[k] = static_cast<int32_t>(g.pitch[k]);
    }
    self->width = width;
    self->height = height;
    self->format = format;
    self->external = planes != nullptr ? 1 : 0;
    return TL_OK;
}

TLResult Image_init(Image* self, int32_t width, int32_t height, void* planes, uint32_t format) {
    if (planes == nullptr) return Image_initWithPitch(self, width, height, nullptr, format);
    ImageGeometry g;
    if (self == nullptr || !ImageGeometry_compute(width, height, format, &g)) return TL_ERROR_PARAM;
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    switch (Image_getPlaneCount(format)) {
        case 1:
            p.one.plane0 = planes;
            p.one.pitch0 = static_cast<int32_t>(g.pitch[0]);
            break;
        case 2: {
            void* const* list = static_cast<void* const*>(planes);
            p.two.plane0 = list[0];
            p.two.plane1 = list[1];
            p.two.pitch0 = static_cast<int32_t>(g.pitch[0]);
            p.two.pitch1 = static_cast<int32_t>(g.pitch[1]);
            break;
        }
        case 3: {
            void* const* list = static_cast<void* const*>(planes);
            p.three.plane0 = list[0];
            p.three.plane1 = list[1];
            p.three.plane2 = list[2];
            p.three.pitch0 = static_cast<int32_t>(g.pitch[0]);
            p.three.pitch1 = static_cast<int32_t>(g.pitch[1]);
            p.three.pitch2 = static_cast<int32_t>(g.pitch[2]);
            break;
        }
        default: break;
    }
    return Image_initWithPitch(self, width, height, &p, format);
}

TLResult Image_initSubImage(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                            int32_t height) {
    if (!subImageArgsValid(self, source, x, y, width, height)) return TL_ERROR_PARAM;
    const uint32_t f = source->format;
    if (width < 1 || height < 1) return initEmptyView(self, width, height, f);
    if (f < 1 || f > 69 || f == IMAGE_FORMAT_YUV10B_PACKED_LE_420S) return TL_ERROR_UNSUPPORTED;

    // Byte offset of column x in plane 0.
    int64_t off0 = x;
    if (f == 1 || f == 64 || f == 67 || f == 68 || (f >= 44 && f <= 47) || (f >= 52 && f <= 59)) {
        off0 = int64_t{x} * 2;
    } else if (f == 2 || f == 3 || (f >= 30 && f <= 35) || f == 62) {
        off0 = int64_t{x} * 3;
    } else if ((f >= 4 && f <= 15) || f == 61 || f == 66 || f == 69) {
        off0 = int64_t{x} * 4;
    } else if (f >= 16 && f <= 23) {
        off0 = (int64_t{x} * 2) & ~int64_t{3};
    } else if (f == 37 || f == 38) {
        off0 = int64_t{x} * 2;
    } else if (f >= 48 && f <= 51) {
        off0 = x + (x >> 2);
    } else if (f == 63) {
        off0 = int64_t{x} * 12;
    } else if (f == 65) {
        off0 = int64_t{x} * 6;
    }

    // Row and byte offset of the chroma planes.
    int32_t row1 = y;
    int64_t off1 = x;
    switch (f) {
        case 24: off1 = x >> 1; break;
        case 25:
        case 28: off1 = x & ~1; break;
        case 26:
            row1 = y >> 1;
            off1 = x >> 1;
            break;
        case 27:
        case 29:
            row1 = y >> 1;
            off1 = x & ~1;
            break;
        case 37:
        case 38:
            row1 = y >> 1;
            off1 = (int64_t{x} * 2) & ~int64_t{3};
            break;
        default: break;
    }

    Image src = *source;  // self may be source
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    switch (Image_getPlaneCount(f)) {
        case 1:
            p.one.plane0 = at(src.plane[0], src.pitch[0], y, off0);
            p.one.pitch0 = src.pitch[0];
            break;
        case 2:
            p.two.plane0 = at(src.plane[0], src.pitch[0], y, off0);
            p.two.plane1 = at(src.plane[1], src.pitch[1], row1, off1);
            p.two.pitch0 = src.pitch[0];
            p.two.pitch1 = src.pitch[1];
            break;
        default:
            p.three.plane0 = at(src.plane[0], src.pitch[0], y, off0);
            p.three.plane1 = at(src.plane[1], src.pitch[1], row1, off1);
            p.three.plane2 = at(src.plane[2], src.pitch[2], row1, off1);
            p.three.pitch0 = src.pitch[0];
            p.three.pitch1 = src.pitch[1];
            p.three.pitch2 = src.pitch[2];
            break;
    }
    return Image_initWithPitch(self, width, height, &p, f);
}

TLResult Image_initSubImageY(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height) {
    if (!subImageArgsValid(self, source, x, y, width, height)) return TL_ERROR_PARAM;
    const uint32_t f = source->format;
    if ((f >= 24 && f <= 29) || f == 36 || f == 60) {
        return initOnePlaneView(self, at(source->plane[0], source->pitch[0], y, x), source->pitch[0], width,
                                height, IMAGE_FORMAT_UINT8);
    }
    if (f == 37 || f == 38) {
        return initOnePlaneView(self, at(source->plane[0], source->pitch[0], y, int64_t{x} * 2),
                                source->pitch[0], width, height, IMAGE_FORMAT_UINT16);
    }
    return TL_ERROR_UNSUPPORTED;
}

namespace {

TLResult initChromaView(Image* self, const Image* source, int k, int32_t x, int32_t y, int32_t width,
                        int32_t height) {
    if (!subImageArgsValid(self, source, x, y, width, height)) return TL_ERROR_PARAM;
    uint8_t* plane = source->plane[k];
    const int32_t pitch = source->pitch[k];
    switch (source->format) {
        case 36:
            return initOnePlaneView(self, at(plane, pitch, y, x), pitch, width, height, IMAGE_FORMAT_UINT8);
        case 26:
            return initOnePlaneView(self, at(plane, pitch, y >> 1, x >> 1), pitch, width >> 1, height >> 1,
                                    IMAGE_FORMAT_UINT8);
        case 24:
            return initOnePlaneView(self, at(plane, pitch, y, x >> 1), pitch, width >> 1, height,
                                    IMAGE_FORMAT_UINT8);
        default: return TL_ERROR_UNSUPPORTED;
    }
}

}  // namespace

TLResult Image_initSubImageU(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height) {
    return initChromaView(self, source, 1, x, y, width, height);
}

TLResult Image_initSubImageV(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height) {
    return initChromaView(self, source, 2, x, y, width, height);
}

TLResult Image_initSubImageUV(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                              int32_t height) {
    if (!subImageArgsValid(self, source, x, y, width, height)) return TL_ERROR_PARAM;
    uint8_t* plane = source->plane[1];
    const int32_t pitch = source->pitch[1];
    switch (source->format) {
        case 25:
        case 28:
            return initOnePlaneView(self, at(plane, pitch, y, x & ~1), pitch, width >> 1, height,
                                    IMAGE_FORMAT_UINT88);
        case 27:
        case 29:
            return initOnePlaneView(self, at(plane, pitch, y >> 1, x & ~1), pitch, width >> 1, height >> 1,
                                    IMAGE_FORMAT_UINT88);
        case 37:
        case 38:
            return initOnePlaneView(self, at(plane, pitch, y >> 1, (int64_t{x} * 2) & ~int64_t{3}), pitch,
                                    width >> 1, height >> 1, IMAGE_FORMAT_UINT1616);
        default: return TL_ERROR_UNSUPPORTED;
    }
}

TLResult Image_copy(Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst == src || dst->plane[0] == src->plane[0]) return TL_OK;
    const uint32_t f = src->format;
    if (src->plane[0] == nullptr || src->width < 1 || src->height < 1 || f < 1 || f >= kImageFormatCount) {
        return TL_ERROR_PARAM;
    }
    const int32_t count = Image_getPlaneCount(f);
    for (int k = 1; k < count; ++k) {
        if (src->plane[k] == nullptr) return TL_ERROR_PARAM;
    }
    if (dst->external != 0) {
        if (dst->width != src->width || dst->height != src->height || dst->format != f) return TL_ERROR_PARAM;
        for (int k = 0; k < count; ++k) {
            if (dst->plane[k] == nullptr) return TL_ERROR_PARAM;
        }
    } else {
        const TLResult r = Image_init(dst, src->width, src->height, nullptr, f);
        if (r != TL_OK) return r;
    }
    const ImageFormatDesc* d = Image_getFormatDesc(f);
    const uint8_t bytes[3] = {d->p0Bytes, d->p1Bytes, d->p2Bytes};
    const uint8_t pixels[3] = {d->p0Pixels, d->p1Pixels, d->p2Pixels};
    const uint8_t rowsNum[3] = {d->p0RowsNum, d->p1RowsNum, d->p2RowsNum};
    const uint8_t rowsShift[3] = {d->p0RowsShift, d->p1RowsShift, d->p2RowsShift};
    for (int k = 0; k < count; ++k) {
        const size_t rowBytes = static_cast<size_t>((src->width + pixels[k] - 1) / pixels[k]) * bytes[k];
        const int32_t rows = ((src->height - 1 + (1 << rowsShift[k])) >> rowsShift[k]) * rowsNum[k];
        const uint8_t* s = src->plane[k];
        uint8_t* t = dst->plane[k];
        for (int32_t r = 0; r < rows; ++r) {
            std::memcpy(t, s, rowBytes);
            s += src->pitch[k];
            t += dst->pitch[k];
        }
    }
    return TL_OK;
}

TLResult Image_partialCopy(Image* dst, const Image* src, int32_t x, int32_t y, const int32_t rect[4]) {
    if (dst == nullptr || src == nullptr || rect == nullptr) return TL_ERROR_PARAM;
    if (dst == src || dst->plane[0] == src->plane[0]) return TL_OK;
    if (rect[2] <= rect[0] || rect[3] <= rect[1]) return TL_OK;
    const ImageFormatDesc* d = Image_getFormatDesc(dst->format);
    if (d == nullptr) return TL_ERROR_PARAM;
    const int32_t hUnit = d->hUnit > 0 ? d->hUnit : 1;
    const int32_t vUnit = 1 << d->vShift;
    if (x % hUnit != 0 || rect[0] % hUnit != 0 || y % vUnit != 0 || rect[1] % vUnit != 0)
        return TL_ERROR_PARAM;
    const int64_t w64 = int64_t{rect[2]} - rect[0];
    const int64_t h64 = int64_t{rect[3]} - rect[1];
    if (w64 > INT32_MAX || h64 > INT32_MAX) return TL_ERROR_PARAM;
    const int32_t w = static_cast<int32_t>(w64);
    const int32_t h = static_cast<int32_t>(h64);
    Image dstView;
    Image srcView;
    construct_Image(&dstView, dst->env);
    construct_Image(&srcView, src->env);
    TLResult r = Image_initSubImage(&dstView, dst, x, y, w, h);
    if (r == TL_OK) r = Image_initSubImage(&srcView, src, rect[0], rect[1], w, h);
    if (r == TL_OK) r = Image_copy(&dstView, &srcView);
    destruct_Image(&dstView);
    destruct_Image(&srcView);
    return r;
}

}  // namespace vq_tl
