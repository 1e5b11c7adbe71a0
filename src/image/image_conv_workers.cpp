// The conversion workers. Every one of them is an instance of a handful of
// templates over the component order, the chroma subsampling and the sample
// type; the two pixel formulas and the chroma placement rule exist once, at
// the top of this file.
#include <cstring>
#include <type_traits>

#include "image/image.h"
#include "image/image_conv.h"
#include "image/image_conv_kernels.h"

namespace vq_tl {

namespace {

// ---- The pixel formulas ---------------------------------------------------
// BT.601 full range with 15 fractional bits. The luma weights sum to 32768,
// so white gives Y 255 exactly.

struct Rgb {
    int32_t r, g, b, a;
};

inline int32_t lumaOf(int32_t r, int32_t g, int32_t b) { return (9798 * r + 19235 * g + 3735 * b) >> 15; }

// A Q15 chroma sum to a byte: the sum lies in [-128, 127.5] * 32768, so only
// the upper end needs a limit; 128 is added by flipping the top bit of the
// low byte.
inline int32_t chromaByte(int32_t q15) {
    int32_t c = q15 >> 15;
    if (c > 127) c = 127;
    return (c & 0xFF) ^ 0x80;
}
inline int32_t uOf(int32_t r, int32_t g, int32_t b) { return chromaByte((b << 14) - 5538 * r - 10846 * g); }
inline int32_t vOf(int32_t r, int32_t g, int32_t b) { return chromaByte((r << 14) - 13730 * g - 2654 * b); }

// What a chroma pair adds to Y for R, takes from Y for G and adds for B;
// computed once per chroma block.
struct ChromaTerms {
    int32_t r, g, b;
};
inline ChromaTerms chromaTermsOf(int32_t cu, int32_t cv) {
    const int32_t u = cu - 128, v = cv - 128;
    return {(45941 * v) >> 15, (11272 * u + 23396 * v) >> 15, (58065 * u) >> 15};
}
inline int32_t clampByte(int32_t v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }
inline Rgb rgbOf(int32_t y, const ChromaTerms& t) {
    return {clampByte(y + t.r), clampByte(y - t.g), clampByte(y + t.b), 255};
}

// ---- Chroma placement -----------------------------------------------------
// Pixel (x, y) of a picture with chroma shared by 2 by 2^vShift pixels
// belongs to block (x >> 1, y >> vShift). Towards YUV a block's chroma comes
// from the rounded mean of the R, G, B of its pixels inside the image (one,
// two or four at odd edges); from YUV each pixel takes its block's chroma.

inline int32_t blockMean(int32_t sum, int32_t count) { return (sum + (count >> 1)) / count; }

// ---- Shared geometry -------------------------------------------------------

enum ConvFlags : int { kWholeColumns = 1, kWholeRows = 2, kMayScale = 4 };

struct ConvArea {
    int32_t left, top, right, bottom;
    bool scaled;  // the rectangle is stretched over the whole destination
    bool empty;
};

bool planesPresent(const Image* m) {
    const int32_t count = Image_getPlaneCount(m->format);
    for (int k = 0; k < count; ++k) {
        if (m->plane[k] == nullptr) return false;
    }
    return count > 0;
}

inline uint8_t* rowOf(const Image* m, int k, int32_t y) {
    return m->plane[k] + static_cast<intptr_t>(m->pitch[k]) * y;
}

// Every check before the first write: images, rectangle, destination size,
// and the rounding to whole chroma blocks.
TLResult prepare(const Image* dst, const Image* src, const ImageRect* rect, int flags, ConvArea* a) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    const ImageRect r = rect != nullptr ? *rect : ImageRect{0, 0, src->width, src->height};
    *a = ConvArea{r.left, r.top, r.right, r.bottom, false, r.right <= r.left || r.bottom <= r.top};
    if (a->empty) return TL_OK;
    if (r.left < 0 || r.top < 0 || r.right > src->width || r.bottom > src->height) return TL_ERROR_PARAM;
    if (!planesPresent(src) || !planesPresent(dst)) return TL_ERROR_PARAM;
    a->scaled = dst->width != src->width || dst->height != src->height;
    if (a->scaled)
        return (flags & kMayScale) != 0 && dst->width > 0 && dst->height > 0 ? TL_OK : TL_ERROR_PARAM;
    if ((flags & kWholeColumns) != 0) {
        a->left &= ~1;
        if (a->right != src->width) a->right += a->right & 1;
    }
    if ((flags & kWholeRows) != 0) {
        a->top &= ~1;
        if (a->bottom != src->height) a->bottom += a->bottom & 1;
    }
    return TL_OK;
}

// 16-bit samples are native words, as in every kernel of the library.
inline uint32_t load16(const uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline void store16(uint8_t* p, uint32_t v) {
    const uint16_t w = static_cast<uint16_t>(v);
    std::memcpy(p, &w, 2);
}

// ---- Whole-pixel formats --------------------------------------------------
// get() gives 8-bit R, G, B and A (255 where the format has none); put()
// writes them.

struct Rgb888Io {
    static constexpr int kBytes = 3;
    int32_t ir, ig, ib;
    Rgb get(const uint8_t* p) const { return {p[ir], p[ig], p[ib], 255}; }
    void put(uint8_t* p, const Rgb& c) const {
        p[ir] = static_cast<uint8_t>(c.r);
        p[ig] = static_cast<uint8_t>(c.g);
        p[ib] = static_cast<uint8_t>(c.b);
    }
};

struct Uint8888Io {
    static constexpr int kBytes = 4;
    int32_t ir, ig, ib, ia;
    Rgb get(const uint8_t* p) const { return {p[ir], p[ig], p[ib], p[ia]}; }
    void put(uint8_t* p, const Rgb& c) const {
        p[ir] = static_cast<uint8_t>(c.r);
        p[ig] = static_cast<uint8_t>(c.g);
        p[ib] = static_cast<uint8_t>(c.b);
        p[ia] = static_cast<uint8_t>(c.a);
    }
};

// R in bits 11 to 15, G in 5 to 10, B in 0 to 4; widening leaves the low
// bits 0, narrowing truncates.
struct Rgb565Io {
    static constexpr int kBytes = 2;
    Rgb get(const uint8_t* p) const {
        const int32_t w = static_cast<int32_t>(load16(p));
        return {(w >> 8) & 0xF8, (w >> 3) & 0xFC, (w << 3) & 0xF8, 255};
    }
    void put(uint8_t* p, const Rgb& c) const {
        store16(p, ((c.r & 0xF8) << 8) | ((c.g & 0xFC) << 3) | (c.b >> 3));
    }
};

// Three 16-bit words R, G, B. v * 257 spreads 0..255 over the whole 16-bit
// range, and its top byte gives v back.
struct Rgb161616Io {
    static constexpr int kBytes = 6;
    Rgb get(const uint8_t* p) const {
        return {static_cast<int32_t>(load16(p) >> 8), static_cast<int32_t>(load16(p + 2) >> 8),
                static_cast<int32_t>(load16(p + 4) >> 8), 255};
    }
    void put(uint8_t* p, const Rgb& c) const {
        store16(p, c.r * 257);
        store16(p + 2, c.g * 257);
        store16(p + 4, c.b * 257);
    }
};

// Y, U and V of every pixel, in any byte order; read only.
struct Yuv444Io {
    static constexpr int kBytes = 3;
    int32_t iy, iu, iv;
    Rgb get(const uint8_t* p) const { return rgbOf(p[iy], chromaTermsOf(p[iu], p[iv])); }
};

bool ioFor(uint32_t f, Rgb888Io* io) {
    int32_t i[3];
    if (ImageRgb888_getRgbIndex(f, i) != TL_OK) return false;
    *io = Rgb888Io{i[0], i[1], i[2]};
    return true;
}
bool ioFor(uint32_t f, Uint8888Io* io) {
    int32_t i[4];
    if (ImageUint8888_getUint8888Index(f, i) != TL_OK) return false;
    *io = Uint8888Io{i[0], i[1], i[2], i[3]};
    return true;
}
bool ioFor(uint32_t f, Rgb565Io*) { return f == IMAGE_FORMAT_RGB565; }
bool ioFor(uint32_t f, Rgb161616Io*) { return f == IMAGE_FORMAT_RGB161616; }
bool ioFor(uint32_t f, Yuv444Io* io) {
    int32_t i[3];
    if (ImageYuv444Interleaved_getYuvIndex(f, i) != TL_OK) return false;
    *io = Yuv444Io{i[0], i[1], i[2]};
    return true;
}

// Pixel to pixel, with nearest-neighbour stretching when the sizes differ.
template <class In, class Out>
void pixelsToPixels(const Image* dst, const Image* src, const ConvArea& a, const In& in, const Out& out) {
    if (!a.scaled) {
        const int32_t width = a.right - a.left;
        for (int32_t y = a.top; y < a.bottom; ++y) {
            const uint8_t* s = rowOf(src, 0, y) + static_cast<intptr_t>(a.left) * In::kBytes;
            uint8_t* d = rowOf(dst, 0, y) + static_cast<intptr_t>(a.left) * Out::kBytes;
            for (int32_t x = 0; x < width; ++x) out.put(d + x * Out::kBytes, in.get(s + x * In::kBytes));
        }
        return;
    }
    const int64_t rw = a.right - a.left, rh = a.bottom - a.top;
    for (int32_t y = 0; y < dst->height; ++y) {
        const uint8_t* s = rowOf(src, 0, a.top + static_cast<int32_t>(y * rh / dst->height));
        uint8_t* d = rowOf(dst, 0, y);
        for (int32_t x = 0; x < dst->width; ++x) {
            const int64_t sx = a.left + x * rw / dst->width;
            out.put(d + static_cast<intptr_t>(x) * Out::kBytes, in.get(s + sx * In::kBytes));
        }
    }
}

template <class In, class Out>
TLResult runPixelsToPixels(Image* dst, const Image* src, const ImageRect* rect) {
    In in{};
    Out out{};
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!ioFor(src->format, &in) || !ioFor(dst->format, &out)) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, rect, kMayScale, &a);
    if (r != TL_OK || a.empty) return r;
    pixelsToPixels(dst, src, a, in, out);
    return TL_OK;
}

// ---- Chroma-subsampled YUV layouts ----------------------------------------
// Luma of pixel x sits (x >> 1) * YBlock + (x & 1) * YOdd bytes after the
// row's first luma byte; the chroma of block i sits i * CStep bytes after
// the chroma row's first U (or V) byte; chroma rows are shared by
// 2^VShift image rows.

struct YuvPlanes {
    uint8_t* y;
    uint8_t* u;
    uint8_t* v;
    int32_t yPitch, uPitch, vPitch;
    int32_t yBlock, yOdd, cStep, vShift;
};

bool yuvPlanesOf(const Image* m, YuvPlanes* p) {
    const uint32_t f = m->format;
    uint8_t* const* pl = m->plane;
    if (Image_isYuv422Interleaved(f)) {
        int32_t i[4];
        ImageYuv422Interleaved_getYuvIndex(f, i);
        *p = YuvPlanes{pl[0] + i[0],
                       pl[0] + i[2],
                       pl[0] + i[3],
                       m->pitch[0],
                       m->pitch[0],
                       m->pitch[0],
                       4,
                       i[1] - i[0],
                       4,
                       0};
        return true;
    }
    switch (f) {
        case IMAGE_FORMAT_YUV422_PLANAR:
        case IMAGE_FORMAT_YUV420_PLANAR:
            *p = YuvPlanes{pl[0],       pl[1], pl[2], m->pitch[0], m->pitch[1],
                           m->pitch[2], 2,     1,     1,           f == IMAGE_FORMAT_YUV420_PLANAR ? 1 : 0};
            return true;
        case IMAGE_FORMAT_YUV422_SEMIPLANAR:
        case IMAGE_FORMAT_YUV420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU422_SEMIPLANAR:
        case IMAGE_FORMAT_YVU420_SEMIPLANAR: {
            const bool vu = Image_isYvuSemiplanar(f);
            const int32_t vShift = f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
            *p = YuvPlanes{pl[0],
                           pl[1] + (vu ? 1 : 0),
                           pl[1] + (vu ? 0 : 1),
                           m->pitch[0],
                           m->pitch[1],
                           m->pitch[1],
                           2,
                           1,
                           2,
                           vShift};
            return true;
        }
        default: return false;
    }
}

template <int YBlock, int YOdd, int CStep, int VShift>
struct YuvLayout {
    static constexpr int kYBlock = YBlock, kYOdd = YOdd, kCStep = CStep, kVShift = VShift;
    YuvPlanes p;

    static intptr_t lumaAt(int32_t x) { return static_cast<intptr_t>(x >> 1) * YBlock + (x & 1) * YOdd; }
    static intptr_t chromaAt(int32_t x) { return static_cast<intptr_t>(x >> 1) * CStep; }
    uint8_t* lumaRow(int32_t y) const { return p.y + static_cast<intptr_t>(p.yPitch) * y; }
    // Chroma rows by image row.
    uint8_t* uRow(int32_t y) const { return p.u + static_cast<intptr_t>(p.uPitch) * (y >> VShift); }
    uint8_t* vRow(int32_t y) const { return p.v + static_cast<intptr_t>(p.vPitch) * (y >> VShift); }
};

using Yuv422PairApart = YuvLayout<4, 2, 4, 0>;     // YUYV, YVYU, VYUY, UYVY
using Yuv422PairAdjacent = YuvLayout<4, 1, 4, 0>;  // YYUV, YYVU, VUYY, UVYY
using Yuv422PlanarLayout = YuvLayout<2, 1, 1, 0>;
using Yuv422SemiLayout = YuvLayout<2, 1, 2, 0>;  // UV or VU
using Yuv420PlanarLayout = YuvLayout<2, 1, 1, 1>;
using Yuv420SemiLayout = YuvLayout<2, 1, 2, 1>;  // UV or VU

template <class L>
bool layoutFor(const Image* m, L* l) {
    YuvPlanes p;
    if (!yuvPlanesOf(m, &p)) return false;
    if (p.yBlock != L::kYBlock || p.yOdd != L::kYOdd || p.cStep != L::kCStep || p.vShift != L::kVShift)
        return false;
    l->p = p;
    return true;
}

int32_t minInt(int32_t a, int32_t b) { return a < b ? a : b; }

// One band of Rows image rows sharing a chroma row, YUV to pixels. Column
// pairs first, then the last column of an odd right edge.
template <int Rows, class L, class Out>
void yuvBandToPixels(const Image* dst, const L& s, const ConvArea& a, int32_t y, const Out& out) {
    const uint8_t* ys[Rows];
    uint8_t* ds[Rows];
    for (int r = 0; r < Rows; ++r) {
        ys[r] = s.lumaRow(y + r);
        ds[r] = rowOf(dst, 0, y + r);
    }
    const uint8_t* u = s.uRow(y);
    const uint8_t* v = s.vRow(y);
    const int32_t pairEnd = a.left + ((a.right - a.left) & ~1);
    int32_t x = a.left;
    // RGB888 from planar or semi-planar rows: the row kernels of the table.
    if constexpr (std::is_same_v<Out, Rgb888Io> && L::kYBlock == 2 && L::kYOdd == 1) {
        if (out.ir == 0 && out.ig == 1 && out.ib == 2) {
            const ConvKernels* k = ConvKernels_get();
            const YuvToRgb888RowFn fn = L::kCStep == 2 ? k->semiplanarToRgb888 : k->planarToRgb888;
            for (int r = 0; r < Rows; ++r) {
                fn(ds[r] + x * Out::kBytes, ys[r] + L::lumaAt(x), u + L::chromaAt(x), v + L::chromaAt(x),
                   (pairEnd - x) >> 1);
            }
            x = pairEnd;
        }
    }
    // Chunks of up to 64 blocks: their chroma terms first, in a loop of its
    // own that the compiler vectorises, then the pixels of each row.
    constexpr int32_t kBlocks = 64;
    while (x < pairEnd) {
        const int32_t blocks = minInt(kBlocks, (pairEnd - x) >> 1);
        const uint8_t* uc = u + L::chromaAt(x);
        const uint8_t* vc = v + L::chromaAt(x);
        int16_t tr[kBlocks], tg[kBlocks], tb[kBlocks];
        for (int32_t c = 0; c < blocks; ++c) {
            const ChromaTerms t = chromaTermsOf(uc[c * L::kCStep], vc[c * L::kCStep]);
            tr[c] = static_cast<int16_t>(t.r);
            tg[c] = static_cast<int16_t>(t.g);
            tb[c] = static_cast<int16_t>(t.b);
        }
        for (int r = 0; r < Rows; ++r) {
            const uint8_t* yc = ys[r] + L::lumaAt(x);
            uint8_t* d = ds[r] + x * Out::kBytes;
            for (int32_t c = 0; c < blocks; ++c) {
                const ChromaTerms t{tr[c], tg[c], tb[c]};
                out.put(d + 2 * c * Out::kBytes, rgbOf(yc[c * L::kYBlock], t));
                out.put(d + (2 * c + 1) * Out::kBytes, rgbOf(yc[c * L::kYBlock + L::kYOdd], t));
            }
        }
        x += 2 * blocks;
    }
    if (x < a.right) {
        const ChromaTerms t = chromaTermsOf(u[L::chromaAt(x)], v[L::chromaAt(x)]);
        for (int r = 0; r < Rows; ++r) out.put(ds[r] + x * Out::kBytes, rgbOf(ys[r][L::lumaAt(x)], t));
    }
}

template <class L, class Out>
TLResult runYuvToPixels(Image* dst, const Image* src, const ImageRect* rect) {
    L s;
    Out out{};
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!layoutFor(src, &s) || !ioFor(dst->format, &out)) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, rect, kWholeColumns | (L::kVShift != 0 ? kWholeRows : 0), &a);
    if (r != TL_OK || a.empty) return r;
    constexpr int band = 1 << L::kVShift;
    for (int32_t y = a.top; y < a.bottom; y += band) {
        if (band == 2 && a.bottom - y >= 2) {
            yuvBandToPixels<2>(dst, s, a, y, out);
        } else {
            yuvBandToPixels<1>(dst, s, a, y, out);
        }
    }
    return TL_OK;
}

// One band of Rows image rows sharing a chroma row, pixels to YUV.
template <int Rows, class In, class L>
void pixelsToYuvBand(const Image* src, const L& d, const ConvArea& a, int32_t y, const In& in) {
    const uint8_t* ss[Rows];
    uint8_t* ys[Rows];
    for (int r = 0; r < Rows; ++r) {
        ss[r] = rowOf(src, 0, y + r);
        ys[r] = d.lumaRow(y + r);
    }
    uint8_t* u = d.uRow(y);
    uint8_t* v = d.vRow(y);
    for (int32_t x = a.left; x < a.right; x += 2) {
        const int32_t cols = minInt(2, a.right - x);
        int32_t sr = 0, sg = 0, sb = 0;
        for (int r = 0; r < Rows; ++r) {
            for (int32_t k = 0; k < cols; ++k) {
                const Rgb c = in.get(ss[r] + (x + k) * In::kBytes);
                ys[r][L::lumaAt(x + k)] = static_cast<uint8_t>(lumaOf(c.r, c.g, c.b));
                sr += c.r;
                sg += c.g;
                sb += c.b;
            }
        }
        const int32_t n = Rows * cols;
        const int32_t mr = blockMean(sr, n), mg = blockMean(sg, n), mb = blockMean(sb, n);
        u[L::chromaAt(x)] = static_cast<uint8_t>(uOf(mr, mg, mb));
        v[L::chromaAt(x)] = static_cast<uint8_t>(vOf(mr, mg, mb));
    }
}

template <class In, class L>
TLResult runPixelsToYuv(Image* dst, const Image* src, const ImageRect* rect) {
    In in{};
    L d;
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!ioFor(src->format, &in) || !layoutFor(dst, &d)) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, rect, kWholeColumns | (L::kVShift != 0 ? kWholeRows : 0), &a);
    if (r != TL_OK || a.empty) return r;
    constexpr int band = 1 << L::kVShift;
    for (int32_t y = a.top; y < a.bottom; y += band) {
        if (band == 2 && a.bottom - y >= 2) {
            pixelsToYuvBand<2>(src, d, a, y, in);
        } else {
            pixelsToYuvBand<1>(src, d, a, y, in);
        }
    }
    return TL_OK;
}

// YUV to YUV: luma copied; each destination chroma block takes the rounded
// mean of the source chroma over the rows of the block, which repeats rows
// going to finer and averages them going to coarser vertical sampling.
template <class LS, class LD>
TLResult runYuvToYuv(Image* dst, const Image* src, const ImageRect* rect) {
    LS s;
    LD d;
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!layoutFor(src, &s) || !layoutFor(dst, &d)) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const int rows = LS::kVShift != 0 || LD::kVShift != 0 ? kWholeRows : 0;
    const TLResult r = prepare(dst, src, rect, kWholeColumns | rows, &a);
    if (r != TL_OK || a.empty) return r;
    for (int32_t y = a.top; y < a.bottom; ++y) {
        const uint8_t* ys = s.lumaRow(y);
        uint8_t* yd = d.lumaRow(y);
        for (int32_t x = a.left; x < a.right; ++x) yd[LD::lumaAt(x)] = ys[LS::lumaAt(x)];
    }
    constexpr int band = 1 << LD::kVShift;
    for (int32_t y = a.top; y < a.bottom; y += band) {
        const int32_t n = minInt(band, a.bottom - y);
        uint8_t* u = d.uRow(y);
        uint8_t* v = d.vRow(y);
        for (int32_t x = a.left; x < a.right; x += 2) {
            int32_t su = 0, sv = 0;
            for (int32_t k = 0; k < n; ++k) {
                su += s.uRow(y + k)[LS::chromaAt(x)];
                sv += s.vRow(y + k)[LS::chromaAt(x)];
            }
            u[LD::chromaAt(x)] = static_cast<uint8_t>(blockMean(su, n));
            v[LD::chromaAt(x)] = static_cast<uint8_t>(blockMean(sv, n));
        }
    }
    return TL_OK;
}

// 4:2:2 interleaved formats come in two layouts of the luma pair.
bool yuv422PairAdjacent(const Image* m) {
    int32_t i[4];
    return m != nullptr && ImageYuv422Interleaved_getYuvIndex(m->format, i) == TL_OK && i[1] - i[0] == 1;
}

template <class In>
TLResult toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422PairAdjacent(dst) ? runPixelsToYuv<In, Yuv422PairAdjacent>(dst, src, rect)
                                   : runPixelsToYuv<In, Yuv422PairApart>(dst, src, rect);
}

template <class Out>
TLResult yuv422InterleavedToPixels(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422PairAdjacent(src) ? runYuvToPixels<Yuv422PairAdjacent, Out>(dst, src, rect)
                                   : runYuvToPixels<Yuv422PairApart, Out>(dst, src, rect);
}

// ---- 4:2:0 samples of 8 and 10 bits ---------------------------------------
// Rows of samples: luma rows of `width` samples, chroma rows of 2 * ceil(width
// / 2) interleaved samples. 8-bit bytes (27), 16-bit words (37, 38), or
// three 10-bit samples per little-endian 32-bit word, in bits 0 to 9, 10 to
// 19 and 20 to 29 (39).

enum class SampleKind { k8, k16, kPacked };

bool sampleKindOf(uint32_t f, SampleKind* kind, bool* vu) {
    *vu = f == IMAGE_FORMAT_YVU10B420_SEMIPLANAR;
    switch (f) {
        case IMAGE_FORMAT_YUV420_SEMIPLANAR: *kind = SampleKind::k8; return true;
        case IMAGE_FORMAT_YUV10B420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU10B420_SEMIPLANAR: *kind = SampleKind::k16; return true;
        case IMAGE_FORMAT_YUV10B_PACKED_LE_420S: *kind = SampleKind::kPacked; return true;
        default: return false;
    }
}

uint32_t getSample(SampleKind kind, const uint8_t* row, int32_t i) {
    switch (kind) {
        case SampleKind::k8: return row[i];
        case SampleKind::k16: return load16(row + 2 * static_cast<intptr_t>(i));
        default: {
            const uint8_t* w = row + static_cast<intptr_t>(i / 3) * 4;
            const uint32_t word = w[0] | (w[1] << 8) | (w[2] << 16) | (static_cast<uint32_t>(w[3]) << 24);
            return (word >> (10 * (i % 3))) & 0x3FF;
        }
    }
}

// Packed words are written whole: the first sample of a word starts it
// afresh (bits 30 and 31 zero), the next two are or'ed in, so rows must be
// written from left to right.
void putSample(SampleKind kind, uint8_t* row, int32_t i, uint32_t s) {
    switch (kind) {
        case SampleKind::k8: row[i] = static_cast<uint8_t>(s); return;
        case SampleKind::k16: store16(row + 2 * static_cast<intptr_t>(i), s); return;
        default: {
            uint8_t* w = row + static_cast<intptr_t>(i / 3) * 4;
            uint32_t word = 0;
            if (i % 3 != 0) word = w[0] | (w[1] << 8) | (w[2] << 16) | (static_cast<uint32_t>(w[3]) << 24);
            word |= s << (10 * (i % 3));
            for (int b = 0; b < 4; ++b) w[b] = static_cast<uint8_t>(word >> (8 * b));
        }
    }
}

uint32_t convertSample(SampleKind from, SampleKind to, uint32_t s, bool luma) {
    if (to == SampleKind::k8) {
        if (from == SampleKind::k8) return s;
        if (from == SampleKind::kPacked) return s >> 2;
        if (luma) return s < 1022 ? (s + 2) >> 2 : 255;
        return s < 1024 ? s >> 2 : 255;
    }
    if (from == SampleKind::k8) return s << 2;
    return s < 1023 ? s : 1023;
}

// Whole images of one size; `fromCodes` and `toCodes` name the worker's family.
TLResult convert420Samples(Image* dst, const Image* src, bool (*fromCodes)(uint32_t),
                           bool (*toCodes)(uint32_t)) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    SampleKind sk, dk;
    bool svu, dvu;
    if (!fromCodes(src->format) || !toCodes(dst->format) || !sampleKindOf(src->format, &sk, &svu) ||
        !sampleKindOf(dst->format, &dk, &dvu)) {
        return TL_ERROR_UNSUPPORTED;
    }
    ConvArea a;
    const TLResult r = prepare(dst, src, nullptr, 0, &a);
    if (r != TL_OK || a.empty) return r;
    if (a.scaled) return TL_ERROR_PARAM;
    const int32_t w = src->width, h = src->height;
    for (int32_t y = 0; y < h; ++y) {
        const uint8_t* s = rowOf(src, 0, y);
        uint8_t* d = rowOf(dst, 0, y);
        for (int32_t i = 0; i < w; ++i) putSample(dk, d, i, convertSample(sk, dk, getSample(sk, s, i), true));
    }
    const int32_t swap = svu != dvu ? 1 : 0;
    const int32_t chromaSamples = 2 * ((w + 1) / 2);
    for (int32_t y = 0; y < (h + 1) / 2; ++y) {
        const uint8_t* s = rowOf(src, 1, y);
        uint8_t* d = rowOf(dst, 1, y);
        for (int32_t i = 0; i < chromaSamples; ++i)
            putSample(dk, d, i, convertSample(sk, dk, getSample(sk, s, i ^ swap), false));
    }
    return TL_OK;
}

bool is27(uint32_t f) { return f == IMAGE_FORMAT_YUV420_SEMIPLANAR; }
bool is39(uint32_t f) { return f == IMAGE_FORMAT_YUV10B_PACKED_LE_420S; }

// ---- Bayer mosaics ----------------------------------------------------------

// Colour (0 R, 1 G, 2 B) of each site of the 2 by 2 pattern, site index
// (y & 1) * 2 + (x & 1), from the pattern letters that end the name.
bool bayerColoursOf(uint32_t f, int32_t colour[4]) {
    if (f < IMAGE_FORMAT_BAYER8_RGGB || f > IMAGE_FORMAT_BAYER16_RGGB + 3) return false;
    const char* name = Image_getImageFormatStr(f);
    const char* pattern = std::strrchr(name, '_') + 1;
    for (int i = 0; i < 4; ++i) colour[i] = pattern[i] == 'R' ? 0 : (pattern[i] == 'G' ? 1 : 2);
    return true;
}

int32_t bayerBitsOf(uint32_t f) {
    if (Image_isBayer8(f)) return 8;
    if (Image_isBayer10Unpacked(f) || Image_isBayer10M8L2Packed(f)) return 10;
    if (Image_isBayer12Unpacked(f)) return 12;
    return 16;
}

struct Bayer8Samples {
    uint32_t operator()(const uint8_t* row, int32_t x) const { return row[x]; }
};
struct Bayer16Samples {
    uint32_t operator()(const uint8_t* row, int32_t x) const {
        return load16(row + 2 * static_cast<intptr_t>(x));
    }
};
// Four pixels in five bytes: their top 8 bits, then a byte of their low 2
// bits, pixel k in bits 2k and 2k + 1.
struct BayerM8L2Samples {
    uint32_t operator()(const uint8_t* row, int32_t x) const {
        const uint8_t* g = row + static_cast<intptr_t>(x >> 2) * 5;
        const int32_t k = x & 3;
        return (static_cast<uint32_t>(g[k]) << 2) | ((g[4] >> (2 * k)) & 3);
    }
};

// Bilinear demosaicing at (x, y), at the samples' own depth.
template <class S>
Rgb demosaicAt(const Image* m, const S& sample, const int32_t colour[4], int32_t x, int32_t y) {
    int32_t sum[3] = {0, 0, 0}, count[3] = {0, 0, 0};
    for (int32_t yy = y - 1; yy <= y + 1; ++yy) {
        if (yy < 0 || yy >= m->height) continue;
        const uint8_t* row = rowOf(m, 0, yy);
        for (int32_t xx = x - 1; xx <= x + 1; ++xx) {
            if (xx < 0 || xx >= m->width || (xx == x && yy == y)) continue;
            const int32_t c = colour[(yy & 1) * 2 + (xx & 1)];
            sum[c] += static_cast<int32_t>(sample(row, xx));
            ++count[c];
        }
    }
    int32_t out[3];
    for (int c = 0; c < 3; ++c) out[c] = count[c] > 0 ? blockMean(sum[c], count[c]) : 0;
    out[colour[(y & 1) * 2 + (x & 1)]] = static_cast<int32_t>(sample(rowOf(m, 0, y), x));
    return {out[0], out[1], out[2], 255};
}

// `map` brings a demosaiced component to 8 bits.
template <class S, class Map>
TLResult bayerToRgb888(Image* dst, const Image* src, const ImageRect* rect, bool (*codes)(uint32_t),
                       const S& sample, const Map& map) {
    Rgb888Io out{};
    int32_t colour[4];
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!codes(src->format) || !bayerColoursOf(src->format, colour) || !ioFor(dst->format, &out))
        return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, rect, 0, &a);
    if (r != TL_OK || a.empty) return r;
    for (int32_t y = a.top; y < a.bottom; ++y) {
        uint8_t* d = rowOf(dst, 0, y);
        for (int32_t x = a.left; x < a.right; ++x) {
            const Rgb c = demosaicAt(src, sample, colour, x, y);
            out.put(d + x * Rgb888Io::kBytes, {map(c.r), map(c.g), map(c.b), 255});
        }
    }
    return TL_OK;
}

// Each site takes its colour's component; 8-bit values widen to the mosaic's
// depth by repeating their top bits, so that 255 becomes full scale.
template <class In>
TLResult pixelsToBayer(Image* dst, const Image* src, bool (*dstCodes)(uint32_t)) {
    In in{};
    int32_t colour[4];
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!ioFor(src->format, &in) || !dstCodes(dst->format) || !bayerColoursOf(dst->format, colour))
        return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, nullptr, 0, &a);
    if (r != TL_OK || a.empty) return r;
    const int32_t bits = bayerBitsOf(dst->format);
    for (int32_t y = a.top; y < a.bottom; ++y) {
        const uint8_t* s = rowOf(src, 0, y);
        uint8_t* d = rowOf(dst, 0, y);
        for (int32_t x = a.left; x < a.right; ++x) {
            const Rgb c = in.get(s + x * In::kBytes);
            const int32_t colourOfSite = colour[(y & 1) * 2 + (x & 1)];
            const int32_t v = colourOfSite == 0 ? c.r : (colourOfSite == 1 ? c.g : c.b);
            if (bits == 8) {
                d[x] = static_cast<uint8_t>(v);
            } else {
                store16(d + 2 * static_cast<intptr_t>(x), (v << (bits - 8)) | (v >> (16 - bits)));
            }
        }
    }
    return TL_OK;
}

// ---- Luminance at reduced size --------------------------------------------

template <class Luma>
TLResult shrinkLuma(Image* dst, const Image* src, const ImageRect* rect, const int32_t* factor,
                    bool (*codes)(uint32_t), const Luma& luma) {
    if (dst == nullptr || src == nullptr || factor == nullptr) return TL_ERROR_PARAM;
    if (!codes(src->format)) return TL_ERROR_UNSUPPORTED;
    if (factor[0] < 1 || factor[1] < 1 || dst->format != IMAGE_FORMAT_UINT8) return TL_ERROR_PARAM;
    const ImageRect r = rect != nullptr ? *rect : ImageRect{0, 0, src->width, src->height};
    if (r.right <= r.left || r.bottom <= r.top) return TL_OK;
    if (r.left < 0 || r.top < 0 || r.right > src->width || r.bottom > src->height) return TL_ERROR_PARAM;
    const int64_t fx = factor[0], fy = factor[1];
    const int64_t w = (r.right - r.left + fx - 1) / fx, h = (r.bottom - r.top + fy - 1) / fy;
    if (!planesPresent(src) || !planesPresent(dst) || dst->width != w || dst->height != h)
        return TL_ERROR_PARAM;
    for (int32_t dy = 0; dy < dst->height; ++dy) {
        const int32_t y0 = static_cast<int32_t>(r.top + dy * fy);
        const int32_t y1 = static_cast<int32_t>(r.bottom < y0 + fy ? r.bottom : y0 + fy);
        uint8_t* d = rowOf(dst, 0, dy);
        for (int32_t dx = 0; dx < dst->width; ++dx) {
            const int32_t x0 = static_cast<int32_t>(r.left + dx * fx);
            const int32_t x1 = static_cast<int32_t>(r.right < x0 + fx ? r.right : x0 + fx);
            int64_t sum = 0;
            for (int32_t y = y0; y < y1; ++y) {
                for (int32_t x = x0; x < x1; ++x) sum += luma(x, y);
            }
            const int64_t n = int64_t{x1 - x0} * (y1 - y0);
            d[dx] = static_cast<uint8_t>((sum + n / 2) / n);
        }
    }
    return TL_OK;
}

template <class Io>
struct LumaOfPixels {
    const Image* m;
    Io io;
    uint32_t operator()(int32_t x, int32_t y) const {
        const Rgb c = io.get(rowOf(m, 0, y) + static_cast<intptr_t>(x) * Io::kBytes);
        return static_cast<uint32_t>(lumaOf(c.r, c.g, c.b));
    }
};

template <class Io>
bool hasIo(uint32_t f) {
    Io io{};
    return ioFor(f, &io);
}

template <class Io>
TLResult shrinkPixels(Image* dst, const Image* src, const ImageRect* rect, const int32_t* factor) {
    LumaOfPixels<Io> luma{src, {}};
    if (src != nullptr) ioFor(src->format, &luma.io);
    return shrinkLuma(dst, src, rect, factor, hasIo<Io>, luma);
}

// Bayer luminance: the Y formula on the demosaiced site, brought to 8 bits.
template <class S>
TLResult shrinkBayer(Image* dst, const Image* src, const ImageRect* rect, const int32_t* factor,
                     bool (*codes)(uint32_t), const S& sample) {
    int32_t colour[4] = {0, 1, 1, 2};
    if (src != nullptr && codes(src->format)) bayerColoursOf(src->format, colour);
    const int32_t shift = src != nullptr ? bayerBitsOf(src->format) - 8 : 0;
    return shrinkLuma(dst, src, rect, factor, codes, [&](int32_t x, int32_t y) {
        const Rgb c = demosaicAt(src, sample, colour, x, y);
        return static_cast<uint32_t>(lumaOf(c.r >> shift, c.g >> shift, c.b >> shift));
    });
}

}  // namespace

// ---- RGB to YUV ------------------------------------------------------------

TLResult ImageRgb565_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect) {
    return toYuv422Interleaved<Rgb565Io>(dst, src, rect);
}
TLResult ImageRgb888_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect) {
    return toYuv422Interleaved<Rgb888Io>(dst, src, rect);
}
TLResult ImageUint8888_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect) {
    return toYuv422Interleaved<Uint8888Io>(dst, src, rect);
}
TLResult ImageRgb888_toYuv422Planar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Rgb888Io, Yuv422PlanarLayout>(dst, src, rect);
}
TLResult ImageUint8888_toYuv422Planar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Uint8888Io, Yuv422PlanarLayout>(dst, src, rect);
}
TLResult ImageRgb888_toYuv422Semiplanar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Rgb888Io, Yuv422SemiLayout>(dst, src, rect);
}
TLResult ImageUint8888_toYuv422Semiplanar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Uint8888Io, Yuv422SemiLayout>(dst, src, rect);
}
TLResult ImageRgb888_toYuv420Planar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Rgb888Io, Yuv420PlanarLayout>(dst, src, rect);
}
TLResult ImageUint8888_toYuv420Planar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Uint8888Io, Yuv420PlanarLayout>(dst, src, rect);
}
TLResult ImageRgb888_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Rgb888Io, Yuv420SemiLayout>(dst, src, rect);
}
TLResult ImageUint8888_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToYuv<Uint8888Io, Yuv420SemiLayout>(dst, src, rect);
}

// ---- YUV to RGB ------------------------------------------------------------

TLResult ImageYuv422Interleaved_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422InterleavedToPixels<Rgb888Io>(dst, src, rect);
}
TLResult ImageYuv422Interleaved_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422InterleavedToPixels<Uint8888Io>(dst, src, rect);
}
TLResult ImageYuv422Planar_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv422PlanarLayout, Rgb888Io>(dst, src, rect);
}
TLResult ImageYuv422Planar_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv422PlanarLayout, Uint8888Io>(dst, src, rect);
}
TLResult ImageYuv422Semiplanar_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv422SemiLayout, Rgb888Io>(dst, src, rect);
}
TLResult ImageYuv422Semiplanar_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv422SemiLayout, Uint8888Io>(dst, src, rect);
}
TLResult ImageYuv420Planar_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv420PlanarLayout, Rgb888Io>(dst, src, rect);
}
TLResult ImageYuv420Planar_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv420PlanarLayout, Uint8888Io>(dst, src, rect);
}
TLResult ImageYuv420Semiplanar_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv420SemiLayout, Rgb888Io>(dst, src, rect);
}
TLResult ImageYuv420Semiplanar_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runYuvToPixels<Yuv420SemiLayout, Uint8888Io>(dst, src, rect);
}
TLResult ImageYuv444Interleaved_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Yuv444Io, Rgb888Io>(dst, src, rect);
}

// ---- YUV to YUV ------------------------------------------------------------

TLResult ImageYuv420Semiplanar_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422PairAdjacent(dst) ? runYuvToYuv<Yuv420SemiLayout, Yuv422PairAdjacent>(dst, src, rect)
                                   : runYuvToYuv<Yuv420SemiLayout, Yuv422PairApart>(dst, src, rect);
}
TLResult ImageYuv422Interleaved_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect) {
    return yuv422PairAdjacent(src) ? runYuvToYuv<Yuv422PairAdjacent, Yuv420SemiLayout>(dst, src, rect)
                                   : runYuvToYuv<Yuv422PairApart, Yuv420SemiLayout>(dst, src, rect);
}

// ---- RGB to RGB ------------------------------------------------------------

TLResult ImageRgb565_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Rgb565Io, Rgb888Io>(dst, src, rect);
}
TLResult ImageUint8888_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Uint8888Io, Rgb888Io>(dst, src, rect);
}
TLResult ImageRgb161616_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Rgb161616Io, Rgb888Io>(dst, src, rect);
}
TLResult ImageRgb565_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Rgb565Io, Uint8888Io>(dst, src, rect);
}
TLResult ImageRgb888_toUint8888(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Rgb888Io, Uint8888Io>(dst, src, rect);
}
TLResult ImageRgb888_toRgb565(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Rgb888Io, Rgb565Io>(dst, src, rect);
}
TLResult ImageUint8888_toRgb565(Image* dst, const Image* src, const ImageRect* rect) {
    return runPixelsToPixels<Uint8888Io, Rgb565Io>(dst, src, rect);
}
TLResult ImageRgb888_toRgb161616(Image* dst, const Image* src) {
    Rgb888Io in{};
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (!ioFor(src->format, &in) || dst->format != IMAGE_FORMAT_RGB161616) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, nullptr, 0, &a);
    if (r != TL_OK || a.empty) return r;
    pixelsToPixels(dst, src, a, in, Rgb161616Io{});
    return TL_OK;
}

namespace {

// One channel between 8 and 16 bits, whole images of one size.
TLResult convertChannel(Image* dst, const Image* src, uint32_t from, uint32_t to) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (src->format != from || dst->format != to) return TL_ERROR_UNSUPPORTED;
    ConvArea a;
    const TLResult r = prepare(dst, src, nullptr, 0, &a);
    if (r != TL_OK || a.empty) return r;
    for (int32_t y = 0; y < src->height; ++y) {
        const uint8_t* s = rowOf(src, 0, y);
        uint8_t* d = rowOf(dst, 0, y);
        for (int32_t x = 0; x < src->width; ++x) {
            if (to == IMAGE_FORMAT_UINT8) {
                d[x] = static_cast<uint8_t>(load16(s + 2 * static_cast<intptr_t>(x)) >> 8);
            } else {
                store16(d + 2 * static_cast<intptr_t>(x), s[x] * 257u);
            }
        }
    }
    return TL_OK;
}

}  // namespace

TLResult ImageUint16_toUint8(Image* dst, const Image* src) {
    return convertChannel(dst, src, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT8);
}
TLResult ImageUint8_toUint16(Image* dst, const Image* src) {
    return convertChannel(dst, src, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16);
}

// ---- 10-bit 4:2:0 ----------------------------------------------------------

TLResult ImageYuv10b420Semiplanar_toYuv420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, Image_isYuv10b420Semiplanar, is27);
}
TLResult ImageYuv10bPacked420Semiplanar_toYuv420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, is39, is27);
}
TLResult ImageYuv420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, is27, Image_isYuv10b420Semiplanar);
}
TLResult ImageYuv10b420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, Image_isYuv10b420Semiplanar, Image_isYuv10b420Semiplanar);
}
TLResult ImageYuv10bPacked420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, is39, Image_isYuv10b420Semiplanar);
}
TLResult ImageYuv420Semiplanar_toYuv10bPacked420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, is27, is39);
}
TLResult ImageYuv10b420Semiplanar_toYuv10bPacked420Semiplanar(Image* dst, const Image* src) {
    return convert420Samples(dst, src, Image_isYuv10b420Semiplanar, is39);
}

// ---- Bayer -------------------------------------------------------------------

TLResult ImageBayer16ConvParam_init(ImageBayer16ConvParam* param, int32_t blackLevel, int32_t whiteLevel) {
    if (param == nullptr || blackLevel < 0 || whiteLevel <= blackLevel || whiteLevel > 65535)
        return TL_ERROR_PARAM;
    const int32_t range = whiteLevel - blackLevel;
    *param = ImageBayer16ConvParam{blackLevel, whiteLevel, ((255 << 16) + range / 2) / range};
    return TL_OK;
}

TLResult ImageBayer8_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    return bayerToRgb888(dst, src, rect, Image_isBayer8, Bayer8Samples{}, [](int32_t v) { return v; });
}

TLResult ImageBayer16_toRgb888WithParam(Image* dst, const Image* src, const ImageRect* rect,
                                        const ImageBayer16ConvParam* param) {
    if (param == nullptr) return TL_ERROR_PARAM;
    const ImageBayer16ConvParam p = *param;
    return bayerToRgb888(dst, src, rect, Image_isBayer16, Bayer16Samples{}, [p](int32_t v) {
        if (v <= p.blackLevel) return 0;
        const int64_t t = (static_cast<int64_t>(v - p.blackLevel) * p.gain + 32768) >> 16;
        return static_cast<int32_t>(t < 255 ? t : 255);
    });
}

TLResult ImageBayer16_toRgb888(Image* dst, const Image* src, const ImageRect* rect) {
    ImageBayer16ConvParam p;
    ImageBayer16ConvParam_init(&p, 0, 65535);
    return ImageBayer16_toRgb888WithParam(dst, src, rect, &p);
}

TLResult ImageRgb888_toBayer8(Image* dst, const Image* src) {
    return pixelsToBayer<Rgb888Io>(dst, src, Image_isBayer8);
}
TLResult ImageRgb888_toBayer16(Image* dst, const Image* src) {
    return pixelsToBayer<Rgb888Io>(dst, src, Image_isBayerUnpacked);
}
TLResult ImageYuv444Interleaved_toBayer8(Image* dst, const Image* src) {
    return pixelsToBayer<Yuv444Io>(dst, src, Image_isBayer8);
}

// ---- Luminance at reduced size ---------------------------------------------

TLResult ImageRgb565_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor) {
    return shrinkPixels<Rgb565Io>(dst, src, rect, factor);
}
TLResult ImageRgb888_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor) {
    return shrinkPixels<Rgb888Io>(dst, src, rect, factor);
}
TLResult ImageUint8888_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                      const int32_t* factor) {
    return shrinkPixels<Uint8888Io>(dst, src, rect, factor);
}

TLResult ImageYuv422Interleaved_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor) {
    int32_t i[4] = {0, 2, 1, 3};
    if (src != nullptr) ImageYuv422Interleaved_getYuvIndex(src->format, i);
    return shrinkLuma(dst, src, rect, factor, Image_isYuv422Interleaved, [&](int32_t x, int32_t y) {
        return static_cast<uint32_t>(rowOf(src, 0, y)[static_cast<intptr_t>(x >> 1) * 4 + i[x & 1]]);
    });
}

TLResult ImageYuvPlanarSemiplanar_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                                 const int32_t* factor) {
    return shrinkLuma(
        dst, src, rect, factor,
        [](uint32_t f) {
            return (f >= IMAGE_FORMAT_YUV422_PLANAR && f <= IMAGE_FORMAT_YVU420_SEMIPLANAR) ||
                   f == IMAGE_FORMAT_YUV444_PLANAR;
        },
        [&](int32_t x, int32_t y) { return static_cast<uint32_t>(rowOf(src, 0, y)[x]); });
}

TLResult ImageYuv444Interleaved_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor) {
    int32_t i[3] = {0, 1, 2};
    if (src != nullptr) ImageYuv444Interleaved_getYuvIndex(src->format, i);
    return shrinkLuma(dst, src, rect, factor, Image_isYuv444Interleaved, [&](int32_t x, int32_t y) {
        return static_cast<uint32_t>(rowOf(src, 0, y)[static_cast<intptr_t>(x) * 3 + i[0]]);
    });
}

TLResult ImageYuv10b420Semiplanar_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                                 const int32_t* factor) {
    return shrinkLuma(dst, src, rect, factor, Image_isYuv10b420Semiplanar, [&](int32_t x, int32_t y) {
        return convertSample(SampleKind::k16, SampleKind::k8, getSample(SampleKind::k16, rowOf(src, 0, y), x),
                             true);
    });
}

TLResult ImageBayer8_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor) {
    return shrinkBayer(dst, src, rect, factor, Image_isBayer8, Bayer8Samples{});
}
TLResult ImageBayer10Unpacked_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                             const int32_t* factor) {
    return shrinkBayer(dst, src, rect, factor, Image_isBayer10Unpacked, Bayer16Samples{});
}
TLResult ImageBayer10M8L2Packed_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor) {
    return shrinkBayer(dst, src, rect, factor, Image_isBayer10M8L2Packed, BayerM8L2Samples{});
}
TLResult ImageBayer12Unpacked_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                             const int32_t* factor) {
    return shrinkBayer(dst, src, rect, factor, Image_isBayer12Unpacked, Bayer16Samples{});
}
TLResult ImageBayer16_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                     const int32_t* factor) {
    return shrinkBayer(dst, src, rect, factor, Image_isBayer16, Bayer16Samples{});
}

TLResult ImageUint8_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                   const int32_t* factor) {
    return shrinkLuma(
        dst, src, rect, factor, [](uint32_t f) { return f == IMAGE_FORMAT_UINT8; },
        [&](int32_t x, int32_t y) { return static_cast<uint32_t>(rowOf(src, 0, y)[x]); });
}
TLResult ImageUint16_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor) {
    return shrinkLuma(
        dst, src, rect, factor, [](uint32_t f) { return f == IMAGE_FORMAT_UINT16; },
        [&](int32_t x, int32_t y) { return load16(rowOf(src, 0, y) + 2 * static_cast<intptr_t>(x)) >> 8; });
}

// ---- Row kernels of the conversion table ------------------------------------

namespace {

template <int CStep>
void yuvToRgb888Row(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pairs) {
    for (int32_t c = 0; c < pairs; ++c) {
        const ChromaTerms t = chromaTermsOf(u[c * CStep], v[c * CStep]);
        for (int k = 0; k < 2; ++k) {
            const Rgb p = rgbOf(y[2 * c + k], t);
            uint8_t* d = rgb + 6 * c + 3 * k;
            d[0] = static_cast<uint8_t>(p.r);
            d[1] = static_cast<uint8_t>(p.g);
            d[2] = static_cast<uint8_t>(p.b);
        }
    }
}

}  // namespace

void yuvSemiplanarToRgb888Row_c(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                                int32_t pairs) {
    yuvToRgb888Row<2>(rgb, y, u, v, pairs);
}

void yuvPlanarToRgb888Row_c(uint8_t* rgb, const uint8_t* y, const uint8_t* u, const uint8_t* v,
                            int32_t pairs) {
    yuvToRgb888Row<1>(rgb, y, u, v, pairs);
}

}  // namespace vq_tl
