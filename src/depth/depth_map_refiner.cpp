#include "depth/depth_map_refiner.h"

#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "image/image_conv.h"
#include "imageproc/image_stripes.h"
#include "imageproc/resize.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr int32_t kKindCount = 5;
// The coarsest level filters with the widest window; its buffer keeps room
// for that window's half on two sides.
constexpr int32_t kCoarsestWindow = kDepthMapRefinerMaxWindow;
constexpr int32_t kRoom = kCoarsestWindow >> 1;
constexpr int32_t kTasks = 4;

// ---- Filter kinds -------------------------------------------------------------

// The pictures of one level for its filter. The weight pictures are null
// on a plain level.
struct LevelViews {
    Image* output;
    const Image* input;
    Image* temporary;
    const Image* guide;
    Image* outWeight;
    const Image* inWeight;
    Image* tempWeight;
};

struct KindOps {
    TLResult (*init)(DepthMapRefiner* self, int32_t width, int32_t height, int32_t smallWidth,
                     int32_t smallHeight);
    int64_t (*bufferSize)(int32_t width, int32_t height, int32_t smallWidth, int32_t smallHeight);
    TLResult (*filterLevel)(DepthMapRefiner* self, const LevelViews& v, int32_t window, float sigmaSpace,
                            float sigmaRange);
};

TLResult separableInit(DepthMapRefiner* self, int32_t width, int32_t height, int32_t, int32_t) {
    return SeparableBilateralFilter_init(&self->separable, width, height);
}

int64_t separableBufferSize(int32_t width, int32_t height, int32_t, int32_t) {
    return SeparableBilateralFilter_getBufferSize(width, height);
}

TLResult separableLevel(DepthMapRefiner* self, const LevelViews& v, int32_t window, float sigmaSpace,
                        float sigmaRange) {
    if (v.inWeight != nullptr) {
        return SeparableBilateralFilter_weightedCrossFilter(&self->separable, v.output, v.outWeight, v.input,
                                                            v.inWeight, v.guide, v.temporary, v.tempWeight,
                                                            window, sigmaSpace, sigmaRange);
    }
    return SeparableBilateralFilter_crossFilter(&self->separable, v.output, v.input, v.guide, v.temporary,
                                                window, sigmaSpace, sigmaRange);
}

// By filterKind; a kind without operations has no filter yet.
constexpr KindOps kKinds[kKindCount] = {
    {separableInit, separableBufferSize, separableLevel}, {}, {}, {}, {},
};

bool isKind(int32_t kind) { return kind >= 0 && kind < kKindCount; }

const KindOps* kindOps(int32_t kind) {
    if (!isKind(kind) || kKinds[kind].init == nullptr) return nullptr;
    return &kKinds[kind];
}

// ---- 2x enlargement -------------------------------------------------------------

// The 3:1 taps along a line: out[j] is the interpolation of s at j, scaled
// by 4 (exact for integers).
template <typename T, typename W>
void upsampleLine(W* out, const T* s, int32_t sw, int32_t dw) {
    auto at = [&](int32_t i) { return static_cast<W>(s[i < sw ? i : sw - 1]); };
    out[0] = 4 * at(0);
    for (int32_t i = 0; 2 * i + 1 < dw; ++i) {
        const W a = at(i), b = at(i + 1);
        out[2 * i + 1] = 3 * a + b;
        if (2 * i + 2 < dw) out[2 * i + 2] = a + 3 * b;
    }
    if ((dw & 1) == 0) out[dw - 1] = 4 * at((dw >> 1 < sw ? dw >> 1 : sw) - 1);
}

struct UpsampleJob {
    Image* dst;
    const Image* src;
    uint8_t* rows;  // per task: two lines of dst width
    size_t stride;
};

template <typename T>
TLResult upsampleTask(void* arg, int32_t index, int32_t count) {
    using W = std::conditional_t<std::is_floating_point_v<T>, float, int32_t>;
    const UpsampleJob& j = *static_cast<const UpsampleJob*>(arg);
    const int32_t dw = j.dst->width, dh = j.dst->height, sw = j.src->width, sh = j.src->height;
    W* h0 = reinterpret_cast<W*>(j.rows + j.stride * static_cast<size_t>(index));
    W* h1 = h0 + dw;
    auto srcRow = [&](int32_t y) {
        return reinterpret_cast<const T*>(j.src->plane[0] +
                                          static_cast<intptr_t>(j.src->pitch[0]) * (y < sh ? y : sh - 1));
    };
    int32_t first, last;
    ImageStripe_rows(dh, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        // Source rows and their weights out of 4 for this row.
        int32_t r0, w0;
        if (y == 0) {
            r0 = 0, w0 = 4;
        } else if ((dh & 1) == 0 && y == dh - 1) {
            r0 = (dh >> 1 < sh ? dh >> 1 : sh) - 1, w0 = 4;
        } else {
            r0 = (y - 1) >> 1, w0 = (y & 1) != 0 ? 3 : 1;
        }
        upsampleLine<T, W>(h0, srcRow(r0), sw, dw);
        if (w0 != 4) upsampleLine<T, W>(h1, srcRow(r0 + 1), sw, dw);
        T* d = reinterpret_cast<T*>(j.dst->plane[0] + static_cast<intptr_t>(j.dst->pitch[0]) * y);
        const W a = static_cast<W>(w0), b = static_cast<W>(4 - w0);
        for (int32_t x = 0; x < dw; ++x) {
            const W v = w0 == 4 ? 4 * h0[x] : a * h0[x] + b * h1[x];
            if constexpr (std::is_floating_point_v<T>) {
                d[x] = v * (1.0f / 16.0f);
            } else {
                d[x] = static_cast<T>((v + 8) >> 4);  // one rounding for both directions
            }
        }
    }
    return TL_OK;
}

TLResult upsample(Pel* pel, Image* dst, const Image* src) {
    const bool isFloat = src->format == IMAGE_FORMAT_FLOAT;
    const size_t stride = (2 * static_cast<size_t>(dst->width) * 4 + 15) & ~size_t{15};
    uint8_t* rows = static_cast<uint8_t*>(Memory_alloc(stride * kTasks));
    if (rows == nullptr) return TL_ERROR_MEMORY;
    UpsampleJob job{dst, src, rows, stride};
    const ImageStripeExec exec{pel, nullptr};
    const TLResult r =
        ImageStripeExec_run(&exec, isFloat ? upsampleTask<float> : upsampleTask<uint8_t>, &job, kTasks);
    Memory_free(rows);
    return r;
}

// ---- Levels -----------------------------------------------------------------------

struct Level {
    int32_t w, h;
    Image buffer, output, temporary, input;
    Image weightBuffer, weightOutput, weightTemporary, weightInput;
    Image guide;
};

void constructLevel(Level* lv, Env* env) {
    for (Image* m : {&lv->buffer, &lv->output, &lv->temporary, &lv->input, &lv->weightBuffer,
                     &lv->weightOutput, &lv->weightTemporary, &lv->weightInput, &lv->guide}) {
        construct_Image(m, env);
    }
}

void destructLevel(Level* lv) {
    for (Image* m : {&lv->buffer, &lv->output, &lv->temporary, &lv->input, &lv->weightBuffer,
                     &lv->weightOutput, &lv->weightTemporary, &lv->weightInput, &lv->guide}) {
        destruct_Image(m);
    }
}

// One buffer of (w + room, h + room) with output at (0, 0), temporary at
// (0, room) and input at (room, room): a horizontal pass from input to
// temporary and a vertical pass from temporary to output then run on one
// buffer, no write landing on a pixel still to be read.
TLResult makeBuffer(Image* buffer, Image* output, Image* temporary, Image* input, int32_t w, int32_t h,
                    int32_t room, uint32_t format) {
    TLResult r = Image_init(buffer, w + room, h + room, nullptr, format);
    if (r == TL_OK && output != nullptr) r = Image_initSubImage(output, buffer, 0, 0, w, h);
    if (r == TL_OK) r = Image_initSubImage(temporary, buffer, 0, room, w, h);
    if (r == TL_OK) r = Image_initSubImage(input, buffer, room, room, w, h);
    return r;
}

// RGB888 pictures go through the resizer as 3-byte pixels of format 30.
void resizable(Image* view, const Image* m) {
    *view = *m;
    view->external = 1;
    if (m->format == IMAGE_FORMAT_RGB888) view->format = IMAGE_FORMAT_YUV444_YUV;
}

bool hasLuma(uint32_t f) {
    return (f >= 24 && f <= 29) || f == IMAGE_FORMAT_YUV444_PLANAR || f == IMAGE_FORMAT_UINT8;
}
bool isSemiplanar420(uint32_t f) {
    return f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

// Checks the guide against the mode before anything is written.
TLResult checkGuide(const DepthMapRefiner* self, const Image* guide, int32_t mode, int32_t w, int32_t h) {
    const uint32_t f = guide->format;
    if (guide->plane[0] == nullptr || guide->width < 1 || guide->height < 1) return TL_ERROR_PARAM;
    const bool sameSize = guide->width == w && guide->height == h;
    switch (mode) {
        case 1:
            if (!hasLuma(f)) return TL_ERROR_UNSUPPORTED;
            return sameSize || hasLuma(self->work.format) ? TL_OK : TL_ERROR_UNSUPPORTED;
        case 2: return isSemiplanar420(f) ? TL_OK : TL_ERROR_UNSUPPORTED;
        default:
            if (!isSemiplanar420(f) && f != IMAGE_FORMAT_YUV420_PLANAR) return TL_ERROR_UNSUPPORTED;
            return sameSize || self->work.format == f ? TL_OK : TL_ERROR_UNSUPPORTED;
    }
}

// The colour guide's conversion in bands of whole chroma rows (pairs of
// image rows), one per Pel task: the workers take a source rectangle and
// write it at the same place.
struct GuideConversion {
    Image* dst;
    const Image* src;
    ImageConvWorker worker;
};

TLResult guideConversionTask(void* arg, int32_t index, int32_t count) {
    const GuideConversion& j = *static_cast<const GuideConversion*>(arg);
    int32_t first, last;
    ImageStripe_rows((j.src->height + 1) >> 1, index, count, &first, &last);
    const int32_t bottom = 2 * last < j.src->height ? 2 * last : j.src->height;
    if (2 * first >= bottom) return TL_OK;
    const ImageRect rect{0, 2 * first, j.src->width, bottom};
    return j.worker(j.dst, j.src, &rect);
}

// The guide of level 0, (w, h): a view of the caller's guide, the luma of
// work, or `owned`.
TLResult prepareGuide(DepthMapRefiner* self, const Image* guide, int32_t mode, int32_t w, int32_t h,
                      Image* prepared, Image* owned) {
    const bool sameSize = guide->width == w && guide->height == h;
    TLResult r;
    if (mode == 1) {
        Image luma;
        construct_Image(&luma, self->env);
        r = Image_initSubImageY(&luma, guide, 0, 0, guide->width, guide->height);
        if (r != TL_OK || sameSize) {
            *prepared = luma;
            return r;
        }
        r = Image_initSubImageY(prepared, &self->work, 0, 0, w, h);
        return r == TL_OK ? ImageProc_resizeImage(&self->imageProc, prepared, &luma) : r;
    }
    if (mode == 2) {
        Image uv;
        construct_Image(&uv, self->env);
        r = Image_initSubImageUV(&uv, guide, 0, 0, guide->width, guide->height);
        if (r != TL_OK || (uv.width == w && uv.height == h)) {
            *prepared = uv;
            return r;
        }
        r = Image_init(owned, w, h, nullptr, IMAGE_FORMAT_UINT88);
        if (r == TL_OK) r = ImageProc_resizeImage(&self->imageProc, owned, &uv);
        *prepared = *owned;
        prepared->external = 1;
        return r;
    }
    Image yuv;
    construct_Image(&yuv, self->env);
    r = sameSize ? Image_initSubImage(&yuv, guide, 0, 0, w, h)
                 : Image_initSubImage(&yuv, &self->work, 0, 0, w, h);
    if (r == TL_OK && !sameSize) r = ImageProc_resizeImage(&self->imageProc, &yuv, guide);
    if (r == TL_OK) r = Image_init(owned, w, h, nullptr, IMAGE_FORMAT_RGB888);
    if (r == TL_OK) {
        GuideConversion job{owned, &yuv,
                            guide->format == IMAGE_FORMAT_YUV420_PLANAR ? ImageYuv420Planar_toRgb888
                                                                        : ImageYuv420Semiplanar_toRgb888};
        const ImageStripeExec exec{self->pel, nullptr};
        r = ImageStripeExec_run(&exec, guideConversionTask, &job, kTasks);
    }
    *prepared = *owned;
    prepared->external = 1;
    return r;
}

bool hasPixels(const Image* m) { return m->plane[0] != nullptr && m->width > 0 && m->height > 0; }

TLResult refine(DepthMapRefiner* self, Image* out, const Image* map, const Image* weight, const Image* guide,
                int32_t window, int32_t guideMode, float sigmaSpace, float sigmaRange) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (self->filterKind < 0) return TL_ERROR_STATE;
    const KindOps* kind = kindOps(self->filterKind);
    if (kind == nullptr) return TL_ERROR_UNSUPPORTED;
    if (out == nullptr || map == nullptr || guide == nullptr) return TL_ERROR_PARAM;
    if (window < 0 || window > kDepthMapRefinerMaxWindow || guideMode < 1 || guideMode > 3)
        return TL_ERROR_PARAM;
    if (out->format != self->mapFormat || map->format != self->mapFormat || !hasPixels(out) ||
        !hasPixels(map))
        return TL_ERROR_PARAM;
    const int32_t w = out->width, h = out->height;
    if (w > self->width || h > self->height) return TL_ERROR_PARAM;
    if (weight != nullptr) {
        if (self->mapFormat != IMAGE_FORMAT_UINT8 || weight->format != IMAGE_FORMAT_UINT8)
            return TL_ERROR_UNSUPPORTED;
        if (!hasPixels(weight) || weight->width != map->width || weight->height != map->height)
            return TL_ERROR_PARAM;
    }
    TLResult r = checkGuide(self, guide, guideMode, w, h);
    if (r != TL_OK) return r;

    int32_t sizes[kDepthMapRefinerMaxLevels][2];
    const int32_t levels = DepthMapRefiner_getLevelSizes(w, h, map->width, map->height, sizes);
    const int32_t half = window >> 1;
    const int32_t top = levels - 1;
    Level lv[kDepthMapRefinerMaxLevels];
    for (int32_t l = 0; l < levels; ++l) {
        constructLevel(&lv[l], self->env);
        lv[l].w = sizes[l][0];
        lv[l].h = sizes[l][1];
    }
    Image preparedOwned;
    construct_Image(&preparedOwned, self->env);

    // Buffers: level 0 writes into out; the coarsest level's input is the
    // map itself when the sizes agree.
    for (int32_t l = 0; l < levels && r == TL_OK; ++l) {
        Level& v = lv[l];
        const int32_t room = l == top ? kRoom : half;
        r = makeBuffer(&v.buffer, l > 0 ? &v.output : nullptr, &v.temporary, &v.input, v.w, v.h, room,
                       self->mapFormat);
        if (r == TL_OK && l == 0) r = Image_initSubImage(&v.output, out, 0, 0, w, h);
        if (r == TL_OK && weight != nullptr && l > 0) {
            r = makeBuffer(&v.weightBuffer, &v.weightOutput, &v.weightTemporary, &v.weightInput, v.w, v.h,
                           room, IMAGE_FORMAT_UINT8);
        }
    }
    if (r == TL_OK) r = prepareGuide(self, guide, guideMode, w, h, &lv[0].guide, &preparedOwned);
    // Guide pyramid: 2:1 reductions on the Pel, the coarsest by the resizer.
    const ImageStripeExec pelExec{self->pel, nullptr};
    for (int32_t l = 1; l < levels && r == TL_OK; ++l) {
        r = Image_init(&lv[l].guide, lv[l].w, lv[l].h, nullptr, lv[0].guide.format);
        if (r != TL_OK) break;
        Image d, s;
        resizable(&d, &lv[l].guide);
        resizable(&s, &lv[l - 1].guide);
        r = l < top ? Resize_shrink2(&pelExec, &d, &s) : ImageProc_resizeImage(&self->imageProc, &d, &s);
    }
    Level& coarsest = lv[top];
    if (r == TL_OK) {
        if (map->width == coarsest.w && map->height == coarsest.h) {
            r = Image_initSubImage(&coarsest.input, map, 0, 0, coarsest.w, coarsest.h);
        } else {
            r = ImageProc_resizeImage(&self->imageProc, &coarsest.input, map);
        }
    }
    if (r == TL_OK && weight != nullptr && top > 0) {
        if (weight->width == coarsest.w && weight->height == coarsest.h) {
            r = Image_initSubImage(&coarsest.weightInput, weight, 0, 0, coarsest.w, coarsest.h);
        } else {
            r = ImageProc_resizeImage(&self->imageProc, &coarsest.weightInput, weight);
        }
    }

    // From the coarsest level up. Every step's result is checked: a level
    // that failed would hand garbage to the next.
    for (int32_t l = top; l >= 0 && r == TL_OK; --l) {
        Level& v = lv[l];
        const bool weighted = weight != nullptr && l > 0;
        const LevelViews views{&v.output,
                               &v.input,
                               &v.temporary,
                               &v.guide,
                               weighted ? &v.weightOutput : nullptr,
                               weighted ? &v.weightInput : nullptr,
                               weighted ? &v.weightTemporary : nullptr};
        const float levelSigma =
            static_cast<float>(static_cast<double>(sigmaSpace) / RawDouble_exp2(0.5 * l));
        r = kind->filterLevel(self, views, l == top ? kCoarsestWindow : window, levelSigma, sigmaRange);
        if (r != TL_OK || l == 0) break;
        Level& next = lv[l - 1];
        if (l == top) {
            r = ImageProc_resizeImage(&self->imageProc, &next.input, &v.output);
            if (r == TL_OK && weighted && l > 1)
                r = ImageProc_resizeImage(&self->imageProc, &next.weightInput, &v.weightOutput);
        } else {
            r = upsample(self->pel, &next.input, &v.output);
            if (r == TL_OK && weighted && l > 1) r = upsample(self->pel, &next.weightInput, &v.weightOutput);
        }
    }
    for (int32_t l = 0; l < levels; ++l) destructLevel(&lv[l]);
    destruct_Image(&preparedOwned);
    return r;
}

}  // namespace

int32_t DepthMapRefiner_getLevelSizes(int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight,
                                      int32_t sizes[kDepthMapRefinerMaxLevels][2]) {
    if (width < 1 || height < 1 || mapWidth < 1 || mapHeight < 1) return 0;
    for (int32_t l = 0; l < kDepthMapRefinerMaxLevels; ++l) {
        // Level 0 is the output itself, odd sizes included, so that every
        // pixel of out is written.
        const int32_t wl = l == 0 ? width : static_cast<int32_t>(((int64_t{width} + (2 << l) - 2) >> l) & ~1);
        const int32_t hl =
            l == 0 ? height : static_cast<int32_t>(((int64_t{height} + (2 << l) - 2) >> l) & ~1);
        sizes[l][0] = l == 0 || wl > mapWidth ? wl : mapWidth;
        sizes[l][1] = l == 0 || hl > mapHeight ? hl : mapHeight;
        if (wl <= mapWidth || hl <= mapHeight) return l + 1;
    }
    return kDepthMapRefinerMaxLevels;
}

int32_t DepthMapRefiner_getBufferSize(int32_t width, int32_t height, int32_t smallWidth, int32_t smallHeight,
                                      int32_t guideWidth, int32_t guideHeight, uint32_t mapFormat,
                                      uint32_t guideFormat, int32_t filterKind) {
    if (!isKind(filterKind) || guideWidth < 1 || guideHeight < 1) return -1;
    const KindOps* kind = kindOps(filterKind);
    if (mapFormat != IMAGE_FORMAT_UINT8 && mapFormat != IMAGE_FORMAT_FLOAT) return -1;
    int32_t sizes[kDepthMapRefinerMaxLevels][2];
    const int32_t levels = DepthMapRefiner_getLevelSizes(width, height, smallWidth, smallHeight, sizes);
    const int32_t proc = ImageProc_getBufferSize(width, height, IMAGE_FORMAT_FLOAT);
    const int64_t filter = kind != nullptr ? kind->bufferSize(width, height, smallWidth, smallHeight) : 0;
    const int32_t work = Image_getSize(width, height, guideFormat, IMAGE_SIZE_TOTAL);
    if (levels == 0 || proc < 0 || filter < 0 || work == 0) return -1;
    int64_t total =
        int64_t{proc} + filter + work + Image_getSize(width, height, IMAGE_FORMAT_RGB888, IMAGE_SIZE_TOTAL);
    for (int32_t l = 0; l < levels; ++l) {
        const int32_t wl = sizes[l][0], hl = sizes[l][1];
        total += Image_getSize(wl + kRoom, hl + kRoom, mapFormat, IMAGE_SIZE_TOTAL);
        if (l > 0) {
            total += Image_getSize(wl + kRoom, hl + kRoom, IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);
            total += Image_getSize(wl, hl, IMAGE_FORMAT_RGB888, IMAGE_SIZE_TOTAL);
        }
    }
    total += int64_t{kTasks} * 2 * width * 4;  // rows of the 2x enlargement
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_DepthMapRefiner(DepthMapRefiner* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    self->filterKind = -1;
    construct_ImageProc(&self->imageProc, env);
    construct_SeparableBilateralFilter(&self->separable, env);
    return construct_Image(&self->work, env);
}

TLResult destruct_DepthMapRefiner(DepthMapRefiner* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    destruct_Image(&self->work);
    destruct_SeparableBilateralFilter(&self->separable);
    destruct_ImageProc(&self->imageProc);
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult DepthMapRefiner_recycle(DepthMapRefiner* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Image_recycle(&self->work);
    SeparableBilateralFilter_recycle(&self->separable);
    self->filterKind = -1;
    self->width = self->height = 0;
    self->mapFormat = 0;
    return TL_OK;
}

TLResult DepthMapRefiner_setPel(DepthMapRefiner* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return SeparableBilateralFilter_setPel(&self->separable, pel);
}

TLResult DepthMapRefiner_setParallelExecutor(DepthMapRefiner* self, ParallelExecutor* executor) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->parallelExecutor = executor;
    return ImageProc_setParallelExecutor(&self->imageProc, executor);
}

TLResult DepthMapRefiner_init(DepthMapRefiner* self, int32_t width, int32_t height, int32_t smallWidth,
                              int32_t smallHeight, int32_t guideWidth, int32_t guideHeight,
                              uint32_t mapFormat, uint32_t guideFormat, int32_t filterKind) {
    if (self == nullptr || width < 1 || height < 1 || smallWidth < 1 || smallHeight < 1 || guideWidth < 1 ||
        guideHeight < 1) {
        return TL_ERROR_PARAM;
    }
    DepthMapRefiner_recycle(self);
    if (!isKind(filterKind)) return TL_ERROR_UNSUPPORTED;
    const KindOps* kind = kindOps(filterKind);
    if (mapFormat != IMAGE_FORMAT_UINT8 && mapFormat != IMAGE_FORMAT_FLOAT) return TL_ERROR_UNSUPPORTED;
    TLResult r = Image_init(&self->work, width, height, nullptr, guideFormat);
    if (r == TL_OK && kind != nullptr) r = kind->init(self, width, height, smallWidth, smallHeight);
    if (r != TL_OK) {
        DepthMapRefiner_recycle(self);
        return r;
    }
    self->width = width;
    self->height = height;
    self->mapFormat = mapFormat;
    self->filterKind = filterKind;
    return TL_OK;
}

TLResult DepthMapRefiner_crossFilter(DepthMapRefiner* self, Image* out, const Image* map, const Image* guide,
                                     int32_t window, int32_t guideMode, float sigmaSpace, float sigmaRange) {
    return refine(self, out, map, nullptr, guide, window, guideMode, sigmaSpace, sigmaRange);
}

TLResult DepthMapRefiner_weightedCrossFilter(DepthMapRefiner* self, Image* out, const Image* map,
                                             const Image* weight, const Image* guide, int32_t window,
                                             int32_t guideMode, float sigmaSpace, float sigmaRange) {
    if (weight == nullptr) return TL_ERROR_PARAM;
    return refine(self, out, map, weight, guide, window, guideMode, sigmaSpace, sigmaRange);
}

TLResult DepthMapRefiner_upsample2x(DepthMapRefiner* self, Image* dst, const Image* src) {
    if (self == nullptr || dst == nullptr || src == nullptr || !hasPixels(dst) || !hasPixels(src))
        return TL_ERROR_PARAM;
    if (dst->format != src->format) return TL_ERROR_PARAM;
    if (src->format != IMAGE_FORMAT_UINT8 && src->format != IMAGE_FORMAT_FLOAT) return TL_OK;
    return upsample(self->pel, dst, src);
}

}  // namespace vq_tl
