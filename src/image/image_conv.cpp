// Conversion dispatchers, component orders and the fill family.
#include "image/image_conv.h"

#include <cstddef>
#include <cstring>

#include "image/image.h"

namespace vq_tl {

namespace {

// Place of each wanted letter in `order`; a letter wanted twice (the two Y
// of a 4:2:2 pair) takes its successive places.
void letterPlaces(const char* order, int32_t length, const char* wanted, int32_t* index) {
    bool taken[4] = {false, false, false, false};
    for (int32_t w = 0; wanted[w] != '\0'; ++w) {
        for (int32_t i = 0; i < length; ++i) {
            if (!taken[i] && order[i] == wanted[w]) {
                taken[i] = true;
                index[w] = i;
                break;
            }
        }
    }
}

// The component order is the format's name: "BGR888", "ARGB8888",
// "YUV422_UYVY", "YUV444_VUY", lowest address first.
TLResult placesFromName(uint32_t format, bool inFamily, int32_t skip, int32_t length, const char* wanted,
                        int32_t* index) {
    if (index == nullptr) return TL_ERROR_PARAM;
    if (!inFamily) return TL_ERROR_UNSUPPORTED;
    letterPlaces(Image_getImageFormatStr(format) + skip, length, wanted, index);
    return TL_OK;
}

}  // namespace

TLResult ImageRgb888_getRgbIndex(uint32_t format, int32_t index[3]) {
    const bool family = format == IMAGE_FORMAT_RGB888 || format == IMAGE_FORMAT_BGR888;
    return placesFromName(format, family, 0, 3, "RGB", index);
}

TLResult ImageUint8888_getUint8888Index(uint32_t format, int32_t index[4]) {
    return placesFromName(format, Image_isUint8888(format), 0, 4, "RGBA", index);
}

TLResult ImageYuv422Interleaved_getYuvIndex(uint32_t format, int32_t index[4]) {
    return placesFromName(format, Image_isYuv422Interleaved(format), 7, 4, "YYUV", index);
}

TLResult ImageYuv444Interleaved_getYuvIndex(uint32_t format, int32_t index[3]) {
    return placesFromName(format, Image_isYuv444Interleaved(format), 7, 3, "YUV", index);
}

// ---- Dispatchers ------------------------------------------------------------

namespace {

struct ConvRoute {
    bool (*accepts)(uint32_t format);
    ImageConvWorker worker;
};

template <uint32_t Code>
bool isCode(uint32_t f) {
    return f == Code;
}

template <size_t N>
TLResult dispatch(bool (*family)(uint32_t), const ConvRoute (&routes)[N], Image* dst, const Image* src,
                  const ImageRect* rect) {
    if (dst == nullptr || src == nullptr || !family(dst->format)) return TL_ERROR_PARAM;
    if (src->format == dst->format) return TL_OK;
    for (const ConvRoute& route : routes) {
        if (route.accepts(src->format)) return route.worker(dst, src, rect);
    }
    return TL_ERROR_UNSUPPORTED;
}

constexpr ConvRoute kToYuv422Planar[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv422Planar},
    {Image_isUint8888, ImageUint8888_toYuv422Planar},
};
constexpr ConvRoute kToYuv422Semiplanar[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv422Semiplanar},
    {Image_isUint8888, ImageUint8888_toYuv422Semiplanar},
};
constexpr ConvRoute kToYuv420Planar[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv420Planar},
    {Image_isUint8888, ImageUint8888_toYuv420Planar},
};

// The 10-bit sources convert whole images only: a rectangle short of the
// whole source is a mode they do not have.
TLResult wholeOnly(const ImageRect* rect, TLResult (*worker)(Image*, const Image*), Image* dst,
                   const Image* src) {
    if (rect != nullptr &&
        (rect->left != 0 || rect->top != 0 || rect->right != src->width || rect->bottom != src->height)) {
        return TL_ERROR_UNSUPPORTED;
    }
    return worker(dst, src);
}

constexpr ConvRoute kToYuv420Semiplanar[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv420Semiplanar},
    {Image_isUint8888, ImageUint8888_toYuv420Semiplanar},
    {isCode<IMAGE_FORMAT_YUV422_YUYV>, ImageYuv422Interleaved_toYuv420Semiplanar},
    {Image_isYuv10b420Semiplanar,
     [](Image* d, const Image* s, const ImageRect* r) {
         return wholeOnly(r, ImageYuv10b420Semiplanar_toYuv420Semiplanar, d, s);
     }},
    {Image_isYuv10bPacked420Semiplanar,
     [](Image* d, const Image* s, const ImageRect* r) {
         return wholeOnly(r, ImageYuv10bPacked420Semiplanar_toYuv420Semiplanar, d, s);
     }},
};

bool isSemi422(uint32_t f) {
    return f == IMAGE_FORMAT_YUV422_SEMIPLANAR || f == IMAGE_FORMAT_YVU422_SEMIPLANAR;
}
bool isSemi420(uint32_t f) {
    return f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

constexpr ConvRoute kToYvu420Semiplanar[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv420Semiplanar},
    {Image_isUint8888, ImageUint8888_toYuv420Semiplanar},
};

constexpr ConvRoute kToRgb888[] = {
    {Image_isUint8888, ImageUint8888_toRgb888},
    {isCode<IMAGE_FORMAT_RGB565>, ImageRgb565_toRgb888},
    {Image_isYuv422Interleaved, ImageYuv422Interleaved_toRgb888},
    {isCode<IMAGE_FORMAT_YUV422_PLANAR>, ImageYuv422Planar_toRgb888},
    {isSemi422, ImageYuv422Semiplanar_toRgb888},
    {isCode<IMAGE_FORMAT_YUV420_PLANAR>, ImageYuv420Planar_toRgb888},
    {isSemi420, ImageYuv420Semiplanar_toRgb888},
    {isCode<IMAGE_FORMAT_YUV444_YUV>, ImageYuv444Interleaved_toRgb888},
    {Image_isBayer8, ImageBayer8_toRgb888},
    {Image_isBayer16, ImageBayer16_toRgb888},
    {isCode<IMAGE_FORMAT_RGB161616>, ImageRgb161616_toRgb888},
};

constexpr ConvRoute kToUint8888[] = {
    {isCode<IMAGE_FORMAT_RGB565>, ImageRgb565_toUint8888},
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toUint8888},
    {Image_isYuv422Interleaved, ImageYuv422Interleaved_toUint8888},
    {isCode<IMAGE_FORMAT_YUV422_PLANAR>, ImageYuv422Planar_toUint8888},
    {isSemi422, ImageYuv422Semiplanar_toUint8888},
    {isCode<IMAGE_FORMAT_YUV420_PLANAR>, ImageYuv420Planar_toUint8888},
    {isSemi420, ImageYuv420Semiplanar_toUint8888},
};

constexpr ConvRoute kToRgb565[] = {
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toRgb565},
    {Image_isUint8888, ImageUint8888_toRgb565},
};

constexpr ConvRoute kToYuv422Interleaved[] = {
    {isCode<IMAGE_FORMAT_RGB565>, ImageRgb565_toYuv422Interleaved},
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYuv422Interleaved},
    {Image_isUint8888, ImageUint8888_toYuv422Interleaved},
    {isCode<IMAGE_FORMAT_YUV420_SEMIPLANAR>, ImageYuv420Semiplanar_toYuv422Interleaved},
};

// The no-rectangle dispatchers of one source each, or a few.
struct WholeRoute {
    bool (*accepts)(uint32_t format);
    TLResult (*worker)(Image* dst, const Image* src);
};

template <size_t N>
TLResult dispatchWhole(bool (*family)(uint32_t), const WholeRoute (&routes)[N], Image* dst,
                       const Image* src) {
    if (dst == nullptr || src == nullptr || !family(dst->format)) return TL_ERROR_PARAM;
    if (src->format == dst->format) return TL_OK;
    for (const WholeRoute& route : routes) {
        if (route.accepts(src->format)) return route.worker(dst, src);
    }
    return TL_ERROR_UNSUPPORTED;
}

TLResult withRect(TLResult (*dispatcher)(Image*, const Image*, const ImageRect*), Image* dst,
                  const Image* src, const ImageRect* rect) {
    return rect == nullptr ? TL_ERROR_PARAM : dispatcher(dst, src, rect);
}

TLResult toRgb888(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_RGB888>, kToRgb888, d, s, r);
}
TLResult toUint8888(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(Image_isUint8888, kToUint8888, d, s, r);
}
TLResult toRgb565(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_RGB565>, kToRgb565, d, s, r);
}
TLResult toYuv422Interleaved(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(Image_isYuv422Interleaved, kToYuv422Interleaved, d, s, r);
}
TLResult toYuv422Planar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YUV422_PLANAR>, kToYuv422Planar, d, s, r);
}
TLResult toYuv422Semiplanar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YUV422_SEMIPLANAR>, kToYuv422Semiplanar, d, s, r);
}
TLResult toYvu422Semiplanar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YVU422_SEMIPLANAR>, kToYuv422Semiplanar, d, s, r);
}
TLResult toYuv420Planar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YUV420_PLANAR>, kToYuv420Planar, d, s, r);
}
TLResult toYuv420Semiplanar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YUV420_SEMIPLANAR>, kToYuv420Semiplanar, d, s, r);
}
TLResult toYvu420Semiplanar(Image* d, const Image* s, const ImageRect* r) {
    return dispatch(isCode<IMAGE_FORMAT_YVU420_SEMIPLANAR>, kToYvu420Semiplanar, d, s, r);
}

}  // namespace

TLResult Image_conv_toRgb888(Image* dst, const Image* src) { return toRgb888(dst, src, nullptr); }
TLResult Image_conv_toRgb888_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toRgb888, dst, src, rect);
}
TLResult Image_conv_toUint8888(Image* dst, const Image* src) { return toUint8888(dst, src, nullptr); }
TLResult Image_conv_toUint8888_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toUint8888, dst, src, rect);
}
TLResult Image_conv_toRgb565(Image* dst, const Image* src) { return toRgb565(dst, src, nullptr); }
TLResult Image_conv_toRgb565_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toRgb565, dst, src, rect);
}
TLResult Image_conv_toYuv422Interleaved(Image* dst, const Image* src) {
    return toYuv422Interleaved(dst, src, nullptr);
}
TLResult Image_conv_toYuv422Interleaved_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYuv422Interleaved, dst, src, rect);
}
TLResult Image_conv_toYuv422Planar(Image* dst, const Image* src) { return toYuv422Planar(dst, src, nullptr); }
TLResult Image_conv_toYuv422Planar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYuv422Planar, dst, src, rect);
}
TLResult Image_conv_toYuv422Semiplanar(Image* dst, const Image* src) {
    return toYuv422Semiplanar(dst, src, nullptr);
}
TLResult Image_conv_toYuv422Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYuv422Semiplanar, dst, src, rect);
}
TLResult Image_conv_toYuv420Planar(Image* dst, const Image* src) { return toYuv420Planar(dst, src, nullptr); }
TLResult Image_conv_toYuv420Planar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYuv420Planar, dst, src, rect);
}
TLResult Image_conv_toYuv420Semiplanar(Image* dst, const Image* src) {
    return toYuv420Semiplanar(dst, src, nullptr);
}
TLResult Image_conv_toYuv420Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYuv420Semiplanar, dst, src, rect);
}
TLResult Image_conv_toYvu422Semiplanar(Image* dst, const Image* src) {
    return toYvu422Semiplanar(dst, src, nullptr);
}
TLResult Image_conv_toYvu422Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYvu422Semiplanar, dst, src, rect);
}
TLResult Image_conv_toYvu420Semiplanar(Image* dst, const Image* src) {
    return toYvu420Semiplanar(dst, src, nullptr);
}
TLResult Image_conv_toYvu420Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect) {
    return withRect(toYvu420Semiplanar, dst, src, rect);
}

namespace {

constexpr WholeRoute kToBayer8[] = {{isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toBayer8}};
constexpr WholeRoute kToBayer16[] = {{isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toBayer16}};
constexpr WholeRoute kToYuv10bPacked[] = {
    {isCode<IMAGE_FORMAT_YUV420_SEMIPLANAR>, ImageYuv420Semiplanar_toYuv10bPacked420Semiplanar},
    {Image_isYuv10b420Semiplanar, ImageYuv10b420Semiplanar_toYuv10bPacked420Semiplanar},
};
constexpr WholeRoute kToYuv10b[] = {
    {isCode<IMAGE_FORMAT_YUV420_SEMIPLANAR>, ImageYuv420Semiplanar_toYuv10b420Semiplanar},
    {Image_isYuv10b420Semiplanar, ImageYuv10b420Semiplanar_toYuv10b420Semiplanar},
    {Image_isYuv10bPacked420Semiplanar, ImageYuv10bPacked420Semiplanar_toYuv10b420Semiplanar},
};
constexpr WholeRoute kToUint8[] = {{isCode<IMAGE_FORMAT_UINT16>, ImageUint16_toUint8}};
constexpr WholeRoute kToUint16[] = {{isCode<IMAGE_FORMAT_UINT8>, ImageUint8_toUint16}};
constexpr WholeRoute kToRgb161616[] = {{isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toRgb161616}};

}  // namespace

TLResult Image_conv_toBayer8(Image* dst, const Image* src) {
    return dispatchWhole(Image_isBayer8, kToBayer8, dst, src);
}
TLResult Image_conv_toBayer16(Image* dst, const Image* src) {
    return dispatchWhole(Image_isBayerUnpacked, kToBayer16, dst, src);
}
TLResult Image_conv_toYuv10bPacked420Semiplanar(Image* dst, const Image* src) {
    return dispatchWhole(Image_isYuv10bPacked420Semiplanar, kToYuv10bPacked, dst, src);
}
TLResult Image_conv_toYuv10b420Semiplanar(Image* dst, const Image* src) {
    return dispatchWhole(isCode<IMAGE_FORMAT_YUV10B420_SEMIPLANAR>, kToYuv10b, dst, src);
}
TLResult Image_conv_toYvu10b420Semiplanar(Image* dst, const Image* src) {
    return dispatchWhole(isCode<IMAGE_FORMAT_YVU10B420_SEMIPLANAR>, kToYuv10b, dst, src);
}
TLResult Image_conv_toUint8(Image* dst, const Image* src) {
    return dispatchWhole(isCode<IMAGE_FORMAT_UINT8>, kToUint8, dst, src);
}
TLResult Image_conv_toUint16(Image* dst, const Image* src) {
    return dispatchWhole(isCode<IMAGE_FORMAT_UINT16>, kToUint16, dst, src);
}
TLResult Image_conv_toRgb161616(Image* dst, const Image* src) {
    return dispatchWhole(isCode<IMAGE_FORMAT_RGB161616>, kToRgb161616, dst, src);
}

// ---- Luminance at reduced size ---------------------------------------------

namespace {

using ShrinkWorker = TLResult (*)(Image*, const Image*, const ImageRect*, const int32_t*);

struct ShrinkRoute {
    bool (*accepts)(uint32_t format);
    ShrinkWorker worker;
};

bool isYuvPlanarOrSemiplanar(uint32_t f) {
    return (f >= IMAGE_FORMAT_YUV422_PLANAR && f <= IMAGE_FORMAT_YVU420_SEMIPLANAR) ||
           f == IMAGE_FORMAT_YUV444_PLANAR;
}

constexpr ShrinkRoute kShrinkRoutes[] = {
    {isCode<IMAGE_FORMAT_RGB565>, ImageRgb565_toYUint8Shrink},
    {isCode<IMAGE_FORMAT_RGB888>, ImageRgb888_toYUint8Shrink},
    {isCode<IMAGE_FORMAT_BGR888>, ImageRgb888_toYUint8Shrink},
    {Image_isUint8888, ImageUint8888_toYUint8Shrink},
    {Image_isYuv422Interleaved, ImageYuv422Interleaved_toYUint8Shrink},
    {isYuvPlanarOrSemiplanar, ImageYuvPlanarSemiplanar_toYUint8Shrink},
    {Image_isYuv444Interleaved, ImageYuv444Interleaved_toYUint8Shrink},
    {Image_isYuv10b420Semiplanar, ImageYuv10b420Semiplanar_toYUint8Shrink},
    {Image_isBayer8, ImageBayer8_toYUint8Shrink},
    {Image_isBayer10Unpacked, ImageBayer10Unpacked_toYUint8Shrink},
    {Image_isBayer10M8L2Packed, ImageBayer10M8L2Packed_toYUint8Shrink},
    {Image_isBayer12Unpacked, ImageBayer12Unpacked_toYUint8Shrink},
    {Image_isBayer16, ImageBayer16_toYUint8Shrink},
    {isCode<IMAGE_FORMAT_UINT8>, ImageUint8_toYUint8Shrink},
    {isCode<IMAGE_FORMAT_UINT16>, ImageUint16_toYUint8Shrink},
};

}  // namespace

TLResult Image_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect, const int32_t* factor) {
    if (dst == nullptr || src == nullptr || factor == nullptr) return TL_ERROR_PARAM;
    for (const ShrinkRoute& route : kShrinkRoutes) {
        if (route.accepts(src->format)) return route.worker(dst, src, rect, factor);
    }
    return TL_ERROR_UNSUPPORTED;
}

// ---- Fill ---------------------------------------------------------------------

namespace {

// Every plane k is filled with copies of pattern[k], one per unit of the
// descriptor's pkBytes bytes for pkPixels pixels, over the rows and bytes
// that the pixels occupy (as Image_copy measures them).
TLResult fillPlanes(Image* self, const uint8_t* const pattern[3]) {
    const ImageFormatDesc* d = Image_getFormatDesc(self->format);
    const int32_t count = Image_getPlaneCount(self->format);
    if (self->width < 1 || self->height < 1) return TL_OK;
    for (int k = 0; k < count; ++k) {
        if (self->plane[k] == nullptr) return TL_ERROR_PARAM;
    }
    const uint8_t bytes[3] = {d->p0Bytes, d->p1Bytes, d->p2Bytes};
    const uint8_t pixels[3] = {d->p0Pixels, d->p1Pixels, d->p2Pixels};
    const uint8_t rowsNum[3] = {d->p0RowsNum, d->p1RowsNum, d->p2RowsNum};
    const uint8_t rowsShift[3] = {d->p0RowsShift, d->p1RowsShift, d->p2RowsShift};
    for (int k = 0; k < count; ++k) {
        const int32_t units = (self->width + pixels[k] - 1) / pixels[k];
        const int32_t rows = ((self->height - 1 + (1 << rowsShift[k])) >> rowsShift[k]) * rowsNum[k];
        for (int32_t r = 0; r < rows; ++r) {
            uint8_t* p = self->plane[k] + static_cast<intptr_t>(self->pitch[k]) * r;
            if (bytes[k] == 1) {
                std::memset(p, pattern[k][0], static_cast<size_t>(units));
                continue;
            }
            for (int32_t i = 0; i < units; ++i)
                std::memcpy(p + static_cast<intptr_t>(i) * bytes[k], pattern[k], bytes[k]);
        }
    }
    return TL_OK;
}

TLResult fill(Image* self, bool inFamily, const uint8_t* p0, const uint8_t* p1 = nullptr,
              const uint8_t* p2 = nullptr) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (!inFamily) return TL_ERROR_UNSUPPORTED;
    const uint8_t* const patterns[3] = {p0, p1, p2};
    return fillPlanes(self, patterns);
}

template <typename T>
void put(uint8_t* pattern, int32_t index, T value) {
    std::memcpy(pattern + index * static_cast<int32_t>(sizeof(T)), &value, sizeof(T));
}

bool is(const Image* self, uint32_t code) { return self != nullptr && self->format == code; }

}  // namespace

TLResult ImageUint8_clear(Image* self, uint8_t value) {
    return fill(self, is(self, IMAGE_FORMAT_UINT8), &value);
}

TLResult ImageUint16_clear(Image* self, uint16_t value) {
    uint8_t p[2];
    put(p, 0, value);
    return fill(self, is(self, IMAGE_FORMAT_UINT16), p);
}

TLResult ImageUint88_clear(Image* self, uint8_t first, uint8_t second) {
    const uint8_t p[2] = {first, second};
    return fill(self, is(self, IMAGE_FORMAT_UINT88), p);
}

TLResult ImageUint1616_clear(Image* self, uint16_t first, uint16_t second) {
    uint8_t p[4];
    put(p, 0, first);
    put(p, 1, second);
    return fill(self, is(self, IMAGE_FORMAT_UINT1616), p);
}

TLResult ImageInt16_clear(Image* self, int16_t value) {
    uint8_t p[2];
    put(p, 0, value);
    return fill(self, is(self, IMAGE_FORMAT_INT16), p);
}

TLResult ImageInt32_clear(Image* self, int32_t value) {
    uint8_t p[4];
    put(p, 0, value);
    return fill(self, is(self, IMAGE_FORMAT_INT32), p);
}

TLResult ImageFloat_clear(Image* self, float value) {
    uint8_t p[4];
    put(p, 0, value);
    return fill(self, is(self, IMAGE_FORMAT_FLOAT), p);
}

TLResult ImageRgb565_clear(Image* self, uint16_t value) {
    uint8_t p[2];
    put(p, 0, value);
    return fill(self, is(self, IMAGE_FORMAT_RGB565), p);
}

TLResult ImageRgb888_clear(Image* self, uint8_t r, uint8_t g, uint8_t b) {
    int32_t i[3] = {0, 1, 2};
    const bool family = self != nullptr && ImageRgb888_getRgbIndex(self->format, i) == TL_OK;
    uint8_t p[3];
    p[i[0]] = r;
    p[i[1]] = g;
    p[i[2]] = b;
    return fill(self, family, p);
}

TLResult ImageRgb161616_clear(Image* self, uint16_t r, uint16_t g, uint16_t b) {
    uint8_t p[6];
    put(p, 0, r);
    put(p, 1, g);
    put(p, 2, b);
    return fill(self, is(self, IMAGE_FORMAT_RGB161616), p);
}

TLResult ImageUint8888_clear(Image* self, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    int32_t i[4] = {0, 1, 2, 3};
    const bool family = self != nullptr && ImageUint8888_getUint8888Index(self->format, i) == TL_OK;
    uint8_t p[4];
    p[i[0]] = r;
    p[i[1]] = g;
    p[i[2]] = b;
    p[i[3]] = a;
    return fill(self, family, p);
}

TLResult ImageYuv420Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    return fill(self, is(self, IMAGE_FORMAT_YUV420_PLANAR), &y, &u, &v);
}

TLResult ImageYuv422Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    return fill(self, is(self, IMAGE_FORMAT_YUV422_PLANAR), &y, &u, &v);
}

TLResult ImageYuv444Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    return fill(self, is(self, IMAGE_FORMAT_YUV444_PLANAR), &y, &u, &v);
}

namespace {

TLResult fillSemiplanar(Image* self, bool inFamily, uint8_t y, uint8_t u, uint8_t v) {
    const bool vu = self != nullptr && Image_isYvuSemiplanar(self->format);
    const uint8_t chroma[2] = {vu ? v : u, vu ? u : v};
    return fill(self, inFamily, &y, chroma);
}

}  // namespace

TLResult ImageYuv420Semiplanar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    return fillSemiplanar(
        self, is(self, IMAGE_FORMAT_YUV420_SEMIPLANAR) || is(self, IMAGE_FORMAT_YVU420_SEMIPLANAR), y, u, v);
}

TLResult ImageYuv422Semiplanar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    return fillSemiplanar(
        self, is(self, IMAGE_FORMAT_YUV422_SEMIPLANAR) || is(self, IMAGE_FORMAT_YVU422_SEMIPLANAR), y, u, v);
}

TLResult ImageYuv10b420Semiplanar_clear(Image* self, uint16_t y, uint16_t u, uint16_t v) {
    const bool vu = is(self, IMAGE_FORMAT_YVU10B420_SEMIPLANAR);
    uint8_t luma[2], chroma[4];
    put(luma, 0, y);
    put(chroma, 0, vu ? v : u);
    put(chroma, 1, vu ? u : v);
    return fill(self, self != nullptr && Image_isYuv10b420Semiplanar(self->format), luma, chroma);
}

TLResult ImageBayerUnpacked_clear(Image* self, uint16_t value) {
    uint8_t p[2];
    put(p, 0, value);
    return fill(self, self != nullptr && Image_isBayerUnpacked(self->format), p);
}

TLResult ImageYuv422Interleaved_clear_sub(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    int32_t i[4] = {0, 2, 1, 3};
    const bool family = self != nullptr && ImageYuv422Interleaved_getYuvIndex(self->format, i) == TL_OK;
    uint8_t p[4];
    p[i[0]] = y;
    p[i[1]] = y;
    p[i[2]] = u;
    p[i[3]] = v;
    return fill(self, family, p);
}

TLResult ImageYuv444Interleaved_clear_sub(Image* self, uint8_t y, uint8_t u, uint8_t v) {
    int32_t i[3] = {0, 1, 2};
    const bool family = self != nullptr && ImageYuv444Interleaved_getYuvIndex(self->format, i) == TL_OK;
    uint8_t p[3];
    p[i[0]] = y;
    p[i[1]] = u;
    p[i[2]] = v;
    return fill(self, family, p);
}

}  // namespace vq_tl
