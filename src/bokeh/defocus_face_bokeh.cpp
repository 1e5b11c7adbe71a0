// DefocusFaceBokeh: the object, its pyramid and the two blurs. The pixel
// passes are in defocus_face_bokeh_util.cpp; this file sizes the levels,
// cuts the views of a call out of the images of init, and chains the passes.
//
// Two passes of the plan are fused where nothing else reads their result:
// the last doubling to full size happens inside the final mix (blendLevel
// doubles the coarse level on the fly, with the same arithmetic), and the
// level-1 shrink of semi-planar chroma reads the interleaved pairs directly.
// So the level-0 blur images are never allocated, and chromaIn serves only
// the blur without a pyramid.
#include "bokeh/defocus_face_bokeh.h"

#include <cstring>
#include <initializer_list>

#include "bokeh/defocus_face_bokeh_util.h"
#include "imageproc/resize.h"

namespace vq_tl {

namespace {

constexpr int32_t kLevels = kDefocusFaceBokehLevels;
// At or below this sigma (after the limit) the blur is a copy.
constexpr double kCopySigma = 0.1;
// The largest sigma the 7-tap kernel serves at a level.
constexpr double kLevelSigma = 1.8;
constexpr int32_t kLumaScale = 65536;  // 7-tap kernel at a level
constexpr int32_t kLumaShift = 16;
constexpr int32_t kByteScale = 256;  // 3-tap chroma kernels, and the kernels without a pyramid

bool isSemiplanar420(uint32_t f) {
    return f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}
bool hasChroma(uint32_t f) { return f == IMAGE_FORMAT_YUV420_PLANAR || isSemiplanar420(f); }

// Luma and chroma sizes of levels 0 to 8 of a picture.
struct Sizes {
    int32_t lw[kLevels + 1], lh[kLevels + 1], cw[kLevels + 1], ch[kLevels + 1];
};

Sizes sizesOf(int32_t width, int32_t height) {
    Sizes z;
    for (int32_t k = 0; k <= kLevels; ++k) {
        z.lw[k] = DefocusFaceBokeh_getLumaSize(width, k);
        z.lh[k] = DefocusFaceBokeh_getLumaSize(height, k);
        z.cw[k] = DefocusFaceBokeh_getChromaSize(width, k);
        z.ch[k] = DefocusFaceBokeh_getChromaSize(height, k);
    }
    return z;
}

// What init allocates for a size, as UINT8 images: pyramid levels 1 to L - 1,
// weights and CoC of levels 1 to L (the chroma of the deepest level takes
// weight[L]), the full-size pair of separable intermediates, and the four
// half-size chroma planes of a semi-planar picture. Nothing for L = 0, where
// every blur is a copy.
template <typename F>
void forEachImage(int32_t width, int32_t height, uint32_t format, F&& f) {
    const int32_t levels = DefocusFaceBokeh_getLevelCount(width, height);
    const Sizes z = sizesOf(width, height);
    for (int32_t k = 1; k < levels; ++k) {
        f(0, k, z.lw[k], z.lh[k]);  // y, blurY
        f(1, k, z.cw[k], z.ch[k]);  // u, v, blurU, blurV
    }
    for (int32_t k = 1; k <= levels; ++k) f(2, k, z.lw[k], z.lh[k]);  // weight, coc
    if (levels > 0) {
        f(3, 0, z.lw[0], z.lh[0]);  // scratch
        if (isSemiplanar420(format)) f(4, 0, z.cw[0], z.ch[0]);
    }
}

Image* family(DefocusFaceBokeh* self, int32_t which, int32_t k, int32_t member) {
    switch (which) {
        case 0: return member == 0 ? &self->y[k] : &self->blurY[k];
        case 1: {
            Image* m[4] = {&self->u[k], &self->v[k], &self->blurU[k], &self->blurV[k]};
            return m[member];
        }
        case 2: return member == 0 ? &self->weight[k] : &self->coc[k];
        case 3: return &self->scratch[member];
        default: return &self->chromaIn[member];
    }
}
constexpr int32_t kFamilySize[5] = {2, 4, 2, 2, 4};

void recycleImages(DefocusFaceBokeh* self) {
    for (int32_t k = 0; k < kLevels; ++k) {
        Image* m[6] = {&self->y[k],     &self->u[k],     &self->v[k],
                       &self->blurY[k], &self->blurU[k], &self->blurV[k]};
        for (Image* i : m) Image_recycle(i);
    }
    for (int32_t k = 0; k <= kLevels; ++k) {
        Image_recycle(&self->weight[k]);
        Image_recycle(&self->coc[k]);
    }
    for (Image& m : self->scratch) Image_recycle(&m);
    for (Image& m : self->chromaIn) Image_recycle(&m);
}

// A borrowed view of the top-left width by height of one of the object's
// planes; the views of a call are cut from the images of init.
Image viewOf(const DefocusFaceBokeh* self, const Image* full, int32_t width, int32_t height, TLResult* r) {
    Image v;
    construct_Image(&v, self->env);
    *r |= Image_initSubImage(&v, full, 0, 0, width, height);
    return v;
}

Image lumaOf(const DefocusFaceBokeh* self, const Image* yuv, TLResult* r) {
    Image v;
    construct_Image(&v, self->env);
    *r |= Image_initSubImageY(&v, yuv, 0, 0, yuv->width, yuv->height);
    return v;
}

// Chroma plane k (1 or 2) of a 4:2:0 picture: UINT8 planes of a planar one,
// the UINT88 pairs of a semi-planar one. Cut by pitch, since the chroma of an
// odd size is half the size rounded up.
Image chromaOf(const DefocusFaceBokeh* self, const Image* yuv, int32_t k, TLResult* r) {
    const Sizes z = sizesOf(yuv->width, yuv->height);
    Image v;
    construct_Image(&v, self->env);
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    p.one = ImagePlanes1{yuv->plane[k], yuv->pitch[k]};
    const uint32_t format = isSemiplanar420(yuv->format) ? IMAGE_FORMAT_UINT88 : IMAGE_FORMAT_UINT8;
    *r |= Image_initWithPitch(&v, z.cw[0], z.ch[0], &p, format);
    return v;
}

bool hasPlanes(const Image* m) {
    const int32_t planes = Image_getPlaneCount(m->format);
    for (int32_t k = 0; k < planes; ++k) {
        if (m->plane[k] == nullptr) return false;
    }
    return planes > 0 && m->width > 0 && m->height > 0;
}

// Arguments of both blurs. Bad arguments are refused before anything is
// written, so a caller's mistake never leaves half a picture.
TLResult checkCall(const DefocusFaceBokeh* self, const Image* dst, const Image* src, const Image* cocMap) {
    if (self == nullptr || src == nullptr || cocMap == nullptr || !hasPlanes(src)) return TL_ERROR_PARAM;
    if (cocMap->format != IMAGE_FORMAT_UINT8 || !hasPlanes(cocMap)) return TL_ERROR_PARAM;
    if (dst != nullptr && (dst->width != src->width || dst->height != src->height ||
                           dst->format != src->format || !hasPlanes(dst)))
        return TL_ERROR_PARAM;
    Image probe;
    construct_Image(&probe, self->env);
    if (Image_initSubImageY(&probe, src, 0, 0, src->width, src->height) != TL_OK) return TL_ERROR_UNSUPPORTED;
    if (DefocusFaceBokeh_getLevelCount(src->width, src->height) == 0) return TL_OK;
    // Within the size of init, and with the chroma planes init made.
    const Sizes z = sizesOf(src->width, src->height);
    if (self->scratch[0].width < z.lw[0] || self->scratch[0].height < z.lh[0]) return TL_ERROR_PARAM;
    if (isSemiplanar420(src->format) &&
        (self->chromaIn[0].width < z.cw[0] || self->chromaIn[0].height < z.ch[0]))
        return TL_ERROR_PARAM;
    return TL_OK;
}

// What is left to do after the common steps of both blurs.
enum class Plan { kDone, kSingleLevel, kPyramid };

struct Prepared {
    Plan plan;
    double sigma;      // limited to maxBlurSigma
    const Image* map;  // cocMap, or its copy at src's size
};

TLResult prepare(DefocusFaceBokeh* self, Image* dst, const Image* src, const Image* cocMap, double sigma,
                 Prepared* p) {
    p->plan = Plan::kDone;
    TLResult r = checkCall(self, dst, src, cocMap);
    if (r != TL_OK) return r;
    self->width = src->width;
    self->height = src->height;
    const int32_t levels = DefocusFaceBokeh_getLevelCount(src->width, src->height);
    self->numLevels = static_cast<uint8_t>(levels);
    self->maxBlurSigma = DefocusFaceBokeh_getMaxBlurSigma(levels);
    const double s = sigma < self->maxBlurSigma ? sigma : self->maxBlurSigma;
    if (!(s > kCopySigma)) {  // a NaN sigma too
        return dst != nullptr && dst != src ? Image_copy(dst, src) : TL_OK;
    }
    int32_t n = 0;
    while (n < levels - 1 && s / static_cast<double>(1 << n) > kLevelSigma) ++n;
    self->depth = static_cast<uint8_t>(n);
    p->sigma = s;
    p->map = cocMap;
    if (cocMap->width != src->width || cocMap->height != src->height) {
        // The map goes to the work image of imageProc2, kept from call to call:
        // the public blur always brings a map of the depth size, and a fresh
        // block of the frame's size every time costs more in page faults than
        // the resize itself. ImageProc2_init and recycle release it.
        Image* resized = &self->imageProc2.scratch;
        r = Image_init(resized, src->width, src->height, nullptr, IMAGE_FORMAT_UINT8);
        if (r == TL_OK) r = ImageProc2_resizeImage(&self->imageProc2, resized, cocMap);
        if (r != TL_OK) return r;
        p->map = resized;
    }
    p->plan = n == 0 ? Plan::kSingleLevel : Plan::kPyramid;
    return TL_OK;
}

// Level k - 1 from level k by doubling, for k from n down to 2: luma, then
// chroma.
TLResult enlargeLevels(DefocusFaceBokeh* self, const Sizes& z, int32_t n, bool chroma) {
    TLResult r = TL_OK;
    for (int32_t k = n; k >= 2; --k) {
        Image from = viewOf(self, &self->blurY[k], z.lw[k], z.lh[k], &r);
        Image to = viewOf(self, &self->blurY[k - 1], z.lw[k - 1], z.lh[k - 1], &r);
        r |= DefocusFaceBokehUtil_enlargeImageTwofoldU8(self, &to, &from);
    }
    for (int32_t k = n; chroma && k >= 2; --k) {
        for (Image* planes : {self->blurU, self->blurV}) {
            Image from = viewOf(self, &planes[k], z.cw[k], z.ch[k], &r);
            Image to = viewOf(self, &planes[k - 1], z.cw[k - 1], z.ch[k - 1], &r);
            r |= DefocusFaceBokehUtil_enlargeImageTwofoldU8(self, &to, &from);
        }
    }
    return r;
}

// The full-size mix of both blurs: dst from src and the doubling of level 1
// under alpha = min(255, max(c - threshold, 0) << shift), luma under the
// map and chroma under coc[1].
TLResult mixFullSize(DefocusFaceBokeh* self, Image* dst, const Image* src, const Image* map,
                     int32_t threshold, int32_t shift) {
    const Sizes z = sizesOf(src->width, src->height);
    TLResult r = TL_OK;
    Image dy = lumaOf(self, dst, &r), sy = lumaOf(self, src, &r);
    Image by = viewOf(self, &self->blurY[1], z.lw[1], z.lh[1], &r);
    r |= DefocusFaceBokeh_blendLevel(self, &dy, &sy, &by, map, threshold, shift);
    if (!hasChroma(src->format)) return r;
    Image coc = viewOf(self, &self->coc[1], z.cw[0], z.ch[0], &r);
    Image bu = viewOf(self, &self->blurU[1], z.cw[1], z.ch[1], &r);
    Image bv = viewOf(self, &self->blurV[1], z.cw[1], z.ch[1], &r);
    if (isSemiplanar420(src->format)) {
        Image d = chromaOf(self, dst, 1, &r), s = chromaOf(self, src, 1, &r);
        return r | DefocusFaceBokehUtil_mixInterleaved(self, &d, &s, &bu, &bv, true, &coc, threshold, shift);
    }
    for (int32_t k = 1; k <= 2; ++k) {
        Image d = chromaOf(self, dst, k, &r), s = chromaOf(self, src, k, &r);
        r |= DefocusFaceBokeh_blendLevel(self, &d, &s, k == 1 ? &bu : &bv, &coc, threshold, shift);
    }
    return r;
}

}  // namespace

// ---- Object idiom ------------------------------------------------------------------

int32_t DefocusFaceBokeh_getBufferSize(int32_t width, int32_t height, uint32_t format) {
    if (width < 1 || height < 1) return -1;
    // imageProc2's work image holds the map at the frame's size.
    int64_t bytes = ImageProc2_getBufferSize(width, height, IMAGE_FORMAT_UINT16);
    if (bytes < 0) return -1;
    forEachImage(width, height, format, [&bytes](int32_t which, int32_t, int32_t w, int32_t h) {
        bytes += static_cast<int64_t>(Image_getSize(w, h, IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL)) *
                 kFamilySize[which];
    });
    return bytes > INT32_MAX ? -1 : static_cast<int32_t>(bytes);
}

TLResult construct_DefocusFaceBokeh(DefocusFaceBokeh* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    construct_ImageProc2(&self->imageProc2, env);
    for (int32_t k = 0; k < kLevels; ++k) {
        Image* m[6] = {&self->y[k],     &self->u[k],     &self->v[k],
                       &self->blurY[k], &self->blurU[k], &self->blurV[k]};
        for (Image* i : m) construct_Image(i, env);
    }
    for (int32_t k = 0; k <= kLevels; ++k) {
        construct_Image(&self->weight[k], env);
        construct_Image(&self->coc[k], env);
    }
    for (Image& m : self->scratch) construct_Image(&m, env);
    for (Image& m : self->chromaIn) construct_Image(&m, env);
    return TL_OK;
}

TLResult destruct_DefocusFaceBokeh(DefocusFaceBokeh* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    recycleImages(self);
    destruct_ImageProc2(&self->imageProc2);
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult DefocusFaceBokeh_recycle(DefocusFaceBokeh* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    recycleImages(self);
    ImageProc2_recycle(&self->imageProc2);
    std::memset(self->levelThreshold, 0, sizeof self->levelThreshold);
    self->numLevels = self->depth = 0;
    self->maxBlurSigma = 0.0;
    self->width = self->height = 0;
    return TL_OK;
}

TLResult DefocusFaceBokeh_setPel(DefocusFaceBokeh* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return ImageProc2_setPel(&self->imageProc2, pel);
}

TLResult DefocusFaceBokeh_init(DefocusFaceBokeh* self, int32_t width, int32_t height, uint32_t format) {
    if (self == nullptr || width < 1 || height < 1) return TL_ERROR_PARAM;
    // Images of the same size are initialised again without allocating, so
    // the public blur may call init for every picture; the others go.
    bool wanted[5][kLevels + 1][4] = {};
    TLResult r = TL_OK;
    forEachImage(width, height, format, [&](int32_t which, int32_t k, int32_t w, int32_t h) {
        for (int32_t m = 0; m < kFamilySize[which]; ++m) {
            wanted[which][k][m] = true;
            r |= Image_init(family(self, which, k, m), w, h, nullptr, IMAGE_FORMAT_UINT8);
        }
    });
    for (int32_t which = 0; which < 5; ++which) {
        const int32_t last = which == 2 ? kLevels : (which < 2 ? kLevels - 1 : 0);
        for (int32_t k = 0; k <= last; ++k) {
            for (int32_t m = 0; m < kFamilySize[which]; ++m) {
                if (!wanted[which][k][m]) Image_recycle(family(self, which, k, m));
            }
        }
    }
    r |= ImageProc2_init(&self->imageProc2);
    if (r != TL_OK) {
        recycleImages(self);
        return (r & TL_ERROR_MEMORY) == TL_ERROR_MEMORY ? TL_ERROR_MEMORY : TL_ERROR_GENERAL;
    }
    self->width = width;
    self->height = height;
    self->numLevels = static_cast<uint8_t>(DefocusFaceBokeh_getLevelCount(width, height));
    self->maxBlurSigma = DefocusFaceBokeh_getMaxBlurSigma(self->numLevels);
    self->depth = 0;
    return TL_OK;
}

// ---- Stages --------------------------------------------------------------------------

TLResult DefocusFaceBokeh_buildPyramid(DefocusFaceBokeh* self, const Image* src, const Image* cocMap) {
    if (self == nullptr || src == nullptr || cocMap == nullptr) return TL_ERROR_PARAM;
    const int32_t n = self->depth;
    if (n < 1 || n >= self->numLevels) return TL_ERROR_PARAM;
    const Sizes z = sizesOf(self->width, self->height);
    const bool chroma = hasChroma(src->format);
    TLResult r = TL_OK;
    auto level = [&](Image* planes, int32_t k, bool luma) {
        return luma ? viewOf(self, &planes[k], z.lw[k], z.lh[k], &r)
                    : viewOf(self, &planes[k], z.cw[k], z.ch[k], &r);
    };

    // Level 1: plain averages.
    Image sy = lumaOf(self, src, &r);
    Image y1 = level(self->y, 1, true);
    r |= DefocusFaceBokehUtil_shrinkImageU8(self, &y1, &sy);
    if (chroma) {
        Image u1 = level(self->u, 1, false), v1 = level(self->v, 1, false);
        if (isSemiplanar420(src->format)) {
            Image uv = chromaOf(self, src, 1, &r);
            r |= DefocusFaceBokehUtil_shrinkInterleavedU8(self, &u1, &uv, 0);
            r |= DefocusFaceBokehUtil_shrinkInterleavedU8(self, &v1, &uv, 1);
        } else {
            Image su = chromaOf(self, src, 1, &r), sv = chromaOf(self, src, 2, &r);
            r |= DefocusFaceBokehUtil_shrinkImageU8(self, &u1, &su);
            r |= DefocusFaceBokehUtil_shrinkImageU8(self, &v1, &sv);
        }
    }
    Image c1 = level(self->coc, 1, true), w1 = level(self->weight, 1, true);
    r |= DefocusFaceBokehUtil_shrinkImageU8(self, &c1, cocMap);
    r |= DefocusFaceBokehUtil_weightOfCoc(self, &w1, &c1);

    // Levels 2 to n: every 2 by 2 block weighted by how blurred it is meant
    // to be; a chroma plane of level k - 1 has the pixels of the luma of
    // level k, whose weights it takes.
    for (int32_t k = 2; k <= n; ++k) {
        Image yk = level(self->y, k, true), wk = level(self->weight, k, true);
        Image yp = level(self->y, k - 1, true), wp = level(self->weight, k - 1, true);
        r |= DefocusFaceBokehUtil_shrinkWeightedU8(self, &yk, &wk, &yp, &wp);
        if (chroma) {
            Image wc = viewOf(self, &self->weight[k], z.cw[k - 1], z.ch[k - 1], &r);
            for (Image* planes : {self->u, self->v}) {
                Image to = level(planes, k, false), from = level(planes, k - 1, false);
                r |= DefocusFaceBokehUtil_shrinkWeightedU8(self, &to, nullptr, &from, &wc);
            }
        }
        Image ck = level(self->coc, k, true), cp = level(self->coc, k - 1, true);
        r |= DefocusFaceBokehUtil_shrinkImageU8(self, &ck, &cp);
    }
    // The chroma of level n is weighted by level n + 1.
    Image wn = level(self->weight, n, true), wm = level(self->weight, n + 1, true);
    r |= DefocusFaceBokehUtil_shrinkImageU8(self, &wm, &wn);
    Image cn = level(self->coc, n, true), cm = level(self->coc, n + 1, true);
    r |= DefocusFaceBokehUtil_shrinkImageU8(self, &cm, &cn);
    return r;
}

TLResult DefocusFaceBokeh_blurLumaLevel(DefocusFaceBokeh* self, int32_t level, double sigma) {
    if (self == nullptr || level < 1 || level >= self->numLevels) return TL_ERROR_PARAM;
    const Sizes z = sizesOf(self->width, self->height);
    const int32_t w = z.lw[level], h = z.lh[level];
    TLResult r = TL_OK;
    Image src = viewOf(self, &self->y[level], w, h, &r), dst = viewOf(self, &self->blurY[level], w, h, &r);
    Image weight = viewOf(self, &self->weight[level], w, h, &r);
    Image mid0 = viewOf(self, &self->scratch[0], w, h, &r), mid1 = viewOf(self, &self->scratch[1], w, h, &r);
    if (r != TL_OK) return r;
    int32_t taps[7];
    if (!DefocusFaceBokeh_makeTaps(taps, 3, sigma, kLumaScale)) return Image_copy(&dst, &src);
    return DefocusFaceBokehUtil_blurWeightedU8(self, &dst, &src, &weight, &mid0, &mid1, taps, 3, kLumaShift);
}

TLResult DefocusFaceBokeh_blurChromaLevel(DefocusFaceBokeh* self, int32_t level, double sigma) {
    if (self == nullptr || level < 1 || level >= self->numLevels) return TL_ERROR_PARAM;
    const Sizes z = sizesOf(self->width, self->height);
    const int32_t w = z.cw[level], h = z.ch[level];
    TLResult r = TL_OK;
    Image weight = viewOf(self, &self->weight[level + 1], w, h, &r);
    Image mid0 = viewOf(self, &self->scratch[0], w, h, &r), mid1 = viewOf(self, &self->scratch[1], w, h, &r);
    int32_t taps[3];
    const bool blurs = DefocusFaceBokeh_makeTaps(taps, 1, sigma * 0.5, kByteScale);
    for (int32_t k = 0; k < 2 && r == TL_OK; ++k) {
        Image src = viewOf(self, k == 0 ? &self->u[level] : &self->v[level], w, h, &r);
        Image dst = viewOf(self, k == 0 ? &self->blurU[level] : &self->blurV[level], w, h, &r);
        if (r != TL_OK) break;
        r = blurs ? DefocusFaceBokehUtil_blurWeightedU8(self, &dst, &src, &weight, &mid0, &mid1, taps, 1, 8)
                  : Image_copy(&dst, &src);
    }
    return r;
}

TLResult DefocusFaceBokeh_blurPlane3(DefocusFaceBokeh* self, Image* dst, const Image* src, double sigma) {
    if (self == nullptr || src == nullptr || dst == nullptr) return TL_ERROR_PARAM;
    TLResult r = TL_OK;
    Image mid = viewOf(self, &self->scratch[0], src->width, src->height, &r);
    if (r != TL_OK) return r;
    int32_t taps[3];
    if (!DefocusFaceBokeh_makeTaps(taps, 1, sigma, kByteScale)) return Image_copy(dst, src);
    return DefocusFaceBokehUtil_blurU8(self, dst, src, &mid, taps, 1);
}

TLResult DefocusFaceBokeh_blurSingleLevel(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                          const Image* cocMap, double sigma) {
    if (self == nullptr || src == nullptr || cocMap == nullptr) return TL_ERROR_PARAM;
    // Without a pyramid every pass writes into dst: no dst, nothing to do.
    if (dst == nullptr) return TL_OK;
    const Sizes z = sizesOf(src->width, src->height);
    TLResult r = TL_OK;
    Image dy = lumaOf(self, dst, &r), sy = lumaOf(self, src, &r);
    if (r != TL_OK) return r;
    int32_t taps[7];
    if (DefocusFaceBokeh_makeTaps(taps, 3, sigma, kByteScale)) {
        Image mid = viewOf(self, &self->scratch[0], src->width, src->height, &r);
        Image blurred = viewOf(self, &self->scratch[1], src->width, src->height, &r);
        r |= DefocusFaceBokehUtil_blurU8(self, &blurred, &sy, &mid, taps, 3);
        r |= DefocusFaceBokehUtil_mixPlane(self, &dy, &sy, &blurred, cocMap, 0, 0);
    } else {
        r |= Image_copy(&dy, &sy);  // what the mix gives for b = p
    }
    if (!hasChroma(src->format)) return r;

    Image c1 = viewOf(self, &self->coc[1], z.lw[1], z.lh[1], &r);
    r |= DefocusFaceBokehUtil_shrinkImageU8(self, &c1, cocMap);
    Image coc = viewOf(self, &self->coc[1], z.cw[0], z.ch[0], &r);
    const double chromaSigma = sigma * 0.5;
    if (isSemiplanar420(src->format)) {
        Image d = chromaOf(self, dst, 1, &r), s = chromaOf(self, src, 1, &r);
        Image in0 = viewOf(self, &self->chromaIn[0], z.cw[0], z.ch[0], &r);
        Image in1 = viewOf(self, &self->chromaIn[1], z.cw[0], z.ch[0], &r);
        Image b0 = viewOf(self, &self->chromaIn[2], z.cw[0], z.ch[0], &r);
        Image b1 = viewOf(self, &self->chromaIn[3], z.cw[0], z.ch[0], &r);
        r |= DefocusFaceBokehUtil_splitInterleaved(self, &in0, &in1, &s);
        r |= DefocusFaceBokeh_blurPlane3(self, &b0, &in0, chromaSigma);
        r |= DefocusFaceBokeh_blurPlane3(self, &b1, &in1, chromaSigma);
        return r | DefocusFaceBokehUtil_mixInterleaved(self, &d, &s, &b0, &b1, false, &coc, 0, 0);
    }
    Image blurred = viewOf(self, &self->scratch[1], z.cw[0], z.ch[0], &r);
    for (int32_t k = 1; k <= 2; ++k) {
        Image d = chromaOf(self, dst, k, &r), s = chromaOf(self, src, k, &r);
        r |= DefocusFaceBokeh_blurPlane3(self, &blurred, &s, chromaSigma);
        r |= DefocusFaceBokehUtil_mixPlane(self, &d, &s, &blurred, &coc, 0, 0);
    }
    return r;
}

// ---- The two blurs -----------------------------------------------------------------------

// Without dst the passes still run and leave the blurred levels in the
// object; only the full-size mix is skipped.
TLResult DefocusFaceBokeh_getBlurImage(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                       const Image* cocMap, double sigma) {
    Prepared p;
    TLResult r = prepare(self, dst, src, cocMap, sigma, &p);
    if (r == TL_OK && p.plan == Plan::kSingleLevel)
        r = DefocusFaceBokeh_blurSingleLevel(self, dst, src, p.map, p.sigma);
    if (r == TL_OK && p.plan == Plan::kPyramid) {
        const int32_t n = self->depth;
        const bool chroma = hasChroma(src->format);
        const double t = p.sigma / static_cast<double>(1 << n);
        r = DefocusFaceBokeh_buildPyramid(self, src, p.map);
        r |= DefocusFaceBokeh_blurLumaLevel(self, n, t);
        if (chroma) r |= DefocusFaceBokeh_blurChromaLevel(self, n, t);
        r |= enlargeLevels(self, sizesOf(src->width, src->height), n, chroma);
        if (r == TL_OK && dst != nullptr) r = mixFullSize(self, dst, src, p.map, 0, 0);
    }
    return r;
}

TLResult DefocusFaceBokeh_getBlurImageMultiLayer(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                                 const Image* cocMap, double sigma) {
    Prepared p;
    TLResult r = prepare(self, dst, src, cocMap, sigma, &p);
    if (r == TL_OK && p.plan == Plan::kSingleLevel)
        r = DefocusFaceBokeh_blurSingleLevel(self, dst, src, p.map, p.sigma);
    if (r == TL_OK && p.plan == Plan::kPyramid) {
        const int32_t n = self->depth;
        const bool chroma = hasChroma(src->format);
        const Sizes z = sizesOf(src->width, src->height);
        // Level k takes over from k + 1 at a CoC byte that halves its distance
        // to 256 with every level towards the sharp end: 0, 128, 192, 224, ...
        std::memset(self->levelThreshold, 0, sizeof self->levelThreshold);
        int32_t threshold = 0;
        for (int32_t k = n - 1; k >= 1; --k) {
            threshold += 256 >> (n - k);
            self->levelThreshold[k] = static_cast<uint8_t>(threshold);
        }
        self->levelThreshold[0] = 255;
        const uint8_t* thr = self->levelThreshold;

        const double t = p.sigma / static_cast<double>(1 << n);
        r = DefocusFaceBokeh_buildPyramid(self, src, p.map);
        for (int32_t k = 1; k <= n; ++k) {
            r |= DefocusFaceBokeh_blurLumaLevel(self, k, t);
            if (chroma) r |= DefocusFaceBokeh_blurChromaLevel(self, k, t);
        }
        // Each level in place with the doubling of the next coarser one.
        for (int32_t k = n; k >= 2 && r == TL_OK; --k) {
            Image fine = viewOf(self, &self->blurY[k - 1], z.lw[k - 1], z.lh[k - 1], &r);
            Image coarse = viewOf(self, &self->blurY[k], z.lw[k], z.lh[k], &r);
            Image coc = viewOf(self, &self->coc[k - 1], z.lw[k - 1], z.lh[k - 1], &r);
            const int32_t shift = k < 3 ? n - 1 : n - (k - 1);
            r |= DefocusFaceBokeh_blendLevel(self, &fine, &fine, &coarse, &coc, thr[k], shift);
        }
        for (int32_t k = n - 1; chroma && k >= 1 && r == TL_OK; --k) {
            Image coc = viewOf(self, &self->coc[k + 1], z.cw[k], z.ch[k], &r);
            for (Image* planes : {self->blurU, self->blurV}) {
                Image fine = viewOf(self, &planes[k], z.cw[k], z.ch[k], &r);
                Image coarse = viewOf(self, &planes[k + 1], z.cw[k + 1], z.ch[k + 1], &r);
                r |= DefocusFaceBokeh_blendLevel(self, &fine, &fine, &coarse, &coc, thr[k + 1], n - k);
            }
        }
        if (r == TL_OK && dst != nullptr) r = mixFullSize(self, dst, src, p.map, thr[1], n - 1);
    }
    return r;
}

}  // namespace vq_tl
