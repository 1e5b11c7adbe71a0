// The picture side of a session: the synthetically blurred picture, the
// picture with its background replaced, the foreground mask behind that,
// and the few settings of the blur. Everything reads the finished slot of
// the double buffer, so these calls may run while the next frame is
// estimated.
#include <cmath>
#include <cstring>

#include "image/public_image.h"
#include "imageproc/image_stripes.h"
#include "imageproc/pixel_ops.h"
#include "imageproc/resize.h"
#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Blur amounts are defined at a 4608 x 3456 picture and scale with the
// square root of the pixel count.
constexpr double kReferencePixels = 15925248.0;
// Strength to the blur map's scale: the float 0.1 widened, so the product
// is the one a float-based caller of the map would form.
constexpr double kStrengthScale = static_cast<double>(0.1f);
constexpr double kMaxStrength = 300.0;
// Back-end 1 leaves blurs below this sigma to the pyramid bokeh.
constexpr double kHybridSmallSigma = 2.0;
constexpr uint32_t kMaxCoarseBokehLevel = 40;
// Half-width, in depth levels, of the soft edge of the foreground mask.
constexpr int32_t kMaskRamp = 4;

int32_t finishedSlot(TwinLensSession* s) { return 1 - FencedWord_load(&s->writeSlot); }

bool ready(TwinLensSession* s) { return (FencedWord_load(&s->state) & kStateReady) != 0; }

double rowZeroBaseline(const TwinLensSession* s) {
    const double* t = s->cameraParams[0].stereoTranslation;
    return RawDouble_sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
}

// ---- Foreground mask ---------------------------------------------------------------

}  // namespace

// Levels grow with disparity, so the upper class of the split is the near
// one: the subject. Its pixels get 1, the far class 0, with a linear edge of
// kMaskRamp levels either side of the split. A map without two classes is
// all foreground: there is no background to tell apart.
TLResult TwinLens_updateForegroundMask(TwinLensSession* s, int32_t slot) {
    const Image* map = &s->depthImage[slot];
    Image* mask = &s->foregroundMask[slot];
    if (map->width != mask->width || map->height != mask->height) return TL_ERROR_GENERAL;
    uint32_t histogram[kDisparityLevels] = {};
    for (int32_t y = 0; y < map->height; ++y) {
        const uint8_t* row = map->plane[0] + static_cast<ptrdiff_t>(map->pitch[0]) * y;
        for (int32_t x = 0; x < map->width; ++x) ++histogram[row[x]];
    }
    const int32_t split = Cocmap_getOtsuThreshold(histogram);
    float alpha[kDisparityLevels];
    for (int32_t level = 0; level < kDisparityLevels; ++level) {
        const float a =
            split == 0 ? 1.0f
                       : static_cast<float>(level - split + kMaskRamp) / static_cast<float>(2 * kMaskRamp);
        alpha[level] = a < 0.0f ? 0.0f : a > 1.0f ? 1.0f : a;
    }
    for (int32_t y = 0; y < map->height; ++y) {
        const uint8_t* in = map->plane[0] + static_cast<ptrdiff_t>(map->pitch[0]) * y;
        float* out = reinterpret_cast<float*>(mask->plane[0] + static_cast<ptrdiff_t>(mask->pitch[0]) * y);
        for (int32_t x = 0; x < map->width; ++x) out[x] = alpha[in[x]];
    }
    return TL_OK;
}

namespace {

// ---- Blur ----------------------------------------------------------------------------

// Back-end 1 with a large blur, and back-end 2, render where their modules
// stand; neither is part of this build.
TLResult renderHybrid(TwinLensSession* s, Image* dst, const Image* src, const Image* coc, double sigma) {
    if (sigma >= kHybridSmallSigma) return TL_ERROR_UNSUPPORTED;
    const TLResult r = DefocusFaceBokeh_init(&s->defocusFaceBokeh, s->mainWidth, s->mainHeight, src->format);
    if (r != TL_OK) return r;
    return DefocusFaceBokeh_getBlurImage(&s->defocusFaceBokeh, dst, src, coc, sigma);
}

}  // namespace

TLResult TwinLens_renderBlur(TwinLensSession* s, Image* dst, const Image* src, double strength) {
    const int32_t f = finishedSlot(s);
    const double sizeScale =
        RawDouble_sqrt(static_cast<double>(dst->width) * static_cast<double>(dst->height) / kReferencePixels);
    // The baseline of row 0 whatever the row in force, as the estimator's
    // depth scale was set at initialize; the focal length of the row in force.
    const float baseline = static_cast<float>(rowZeroBaseline(s));
    int32_t index = FencedWord_load(&s->cameraParamIndex);
    if (index < 0 || index >= TWIN_LENS_MAX_CAMERA_PARAMS) index = 0;
    const float focal = static_cast<float>(s->cameraParams[index].mainCameraMatrix[0]);
    const float scale = static_cast<float>(strength * kStrengthScale);
    const int32_t cocMode = s->blurBackend == 1 ? 0 : 1;
    float maxCoc = 0.0f;
    Image* coc = &s->cocImage[f];
    const TLResult r = Cocmap_getCocMapFromDisparityByCoord(
        &s->cocmap, coc, &maxCoc, &s->depthImage[f], s->slotInverseDepthTable[f], scale, focal, baseline,
        static_cast<float>(s->focusX), static_cast<float>(s->focusY), cocMode);
    if (r != TL_OK) return r;
    const double sigma = static_cast<double>(maxCoc * static_cast<float>(sizeScale));
    switch (s->blurBackend) {
        case 0: return DefocusFaceBokeh_getBlurImage(&s->defocusFaceBokeh, dst, src, coc, sigma);
        case 1: return renderHybrid(s, dst, src, coc, sigma);
        case 2: return TL_ERROR_UNSUPPORTED;
        default: return TL_OK;
    }
}

namespace {

template <typename Record>
bool pictureGiven(const Record* image) {
    return image != nullptr && image->plane0 != nullptr;
}

// Two borrowed views of the caller's pictures in the session's format,
// source first; closeViews takes both down on every path.
struct ViewPair {
    Image src, dst;
};

template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t)>
TLResult openViews(TwinLensSession* s, ViewPair* views, const Record* src, const Record* dst) {
    TLResult r = construct_Image(&views->src, &s->env);
    r |= construct_Image(&views->dst, &s->env);
    if (r == TL_OK) r = makeView(&views->src, src, s->formatCode);
    if (r == TL_OK) r = makeView(&views->dst, dst, s->formatCode);
    return r;
}

TLResult closeViews(ViewPair* views, TLResult result) {
    destruct_Image(&views->dst);
    destruct_Image(&views->src);
    return result;
}

template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t), bool checkStrength>
TLResult blur(TwinLensHandle* handle, const Record* dst, const Record* src, double strength) {
    if (handle == nullptr || handle->session == nullptr || !pictureGiven(src) || !pictureGiven(dst)) {
        return TL_ERROR_PARAM;
    }
    TwinLensSession* s = handle->session;
    if (src->width != s->mainWidth || src->height != s->mainHeight || dst->width != src->width ||
        dst->height != src->height) {
        return TL_ERROR_PARAM;
    }
    // The plain form keeps strength within 0 to 300 (NaN refused); the Ex
    // form takes any value.
    if (checkStrength && !(strength >= 0.0 && strength <= kMaxStrength)) return TL_ERROR_PARAM;
    if (!ready(s)) return TL_ERROR_STATE;
    ViewPair views;
    TLResult r = openViews<Record, makeView>(s, &views, src, dst);
    if (r == TL_OK) r = TwinLens_renderBlur(s, &views.dst, &views.src, strength);
    return closeViews(&views, r);
}

// ---- Background ------------------------------------------------------------------------

// The largest centred cut of the depth picture's aspect, with even sides
// and an even offset, so that 4:2:0 chroma stays aligned.
void centredCut(int32_t w, int32_t h, int32_t dw, int32_t dh, int32_t cut[4]) {
    const double dw_d = dw, dh_d = dh;
    if (dw_d / dh_d > static_cast<double>(w) / static_cast<double>(h)) {
        const int32_t height = static_cast<int32_t>(0.5 + static_cast<double>(w) / dw_d * dh_d) & ~1;
        cut[0] = 0;
        cut[1] = ((h - height) >> 1) & ~1;
        cut[2] = w;
        cut[3] = height;
    } else {
        const int32_t width = static_cast<int32_t>(0.5 + static_cast<double>(h) / dh_d * dw_d) & ~1;
        cut[0] = ((w - width) >> 1) & ~1;
        cut[1] = 0;
        cut[2] = width;
        cut[3] = h;
    }
}

template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t)>
TLResult setBackground(TwinLensHandle* handle, const Record* image) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if (!ready(s)) return TL_ERROR_STATE;
    if (image == nullptr) {
        s->background = nullptr;
        return TL_OK;
    }
    if (image->plane0 == nullptr) return TL_ERROR_PARAM;
    Image view, cut;
    TLResult r = construct_Image(&view, &s->env);
    r |= construct_Image(&cut, &s->env);
    if (r == TL_OK) r = makeView(&view, image, s->formatCode);
    if (r == TL_OK) {
        if (view.width == s->depthWidth && view.height == s->depthHeight) {
            r = Image_copy(&s->backgroundStore, &view);
        } else {
            int32_t rect[4];
            centredCut(view.width, view.height, s->depthWidth, s->depthHeight, rect);
            r = Image_initSubImage(&cut, &view, rect[0], rect[1], rect[2], rect[3]);
            if (r == TL_OK) r = ImageProc2_resizeImage(&s->imageProc2, &s->backgroundStore, &cut);
        }
    }
    if (r == TL_OK) s->background = &s->backgroundStore;
    destruct_Image(&cut);
    destruct_Image(&view);
    return r;
}

// maskCopy = the mask on the blend's 0..128 scale: the FLOAT alpha as a byte
// of 0..255, then (byte + 1) >> 1.
struct MaskJob {
    const Image* mask;
    Image* bytes;
};

TLResult maskToBlendStripe(void* arg, int32_t index, int32_t count) {
    const MaskJob* job = static_cast<const MaskJob*>(arg);
    int32_t first, last;
    ImageStripe_rowsEven(job->mask->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const float* in = reinterpret_cast<const float*>(job->mask->plane[0] +
                                                         static_cast<ptrdiff_t>(job->mask->pitch[0]) * y);
        uint8_t* out = job->bytes->plane[0] + static_cast<ptrdiff_t>(job->bytes->pitch[0]) * y;
        for (int32_t x = 0; x < job->mask->width; ++x) {
            const float a = in[x];
            // NaN and values outside 0..1 are taken as the nearer bound.
            const int32_t byte = a > 0.0f ? (a < 1.0f ? static_cast<int32_t>(a * 255.0f + 0.5f) : 255) : 0;
            out[x] = static_cast<uint8_t>((byte + 1) >> 1);
        }
    }
    return TL_OK;
}

// An owned work image of the given size and format, made again only when
// either changed.
TLResult ensureImage(Image* image, int32_t width, int32_t height, uint32_t format) {
    if (image->plane[0] != nullptr && image->width == width && image->height == height &&
        image->format == format) {
        return TL_OK;
    }
    return Image_init(image, width, height, nullptr, format);
}

TLResult blendBackground(TwinLensSession* s, Image* dst, const Image* src) {
    const Image* mask = &s->foregroundMask[finishedSlot(s)];
    if (mask->width < 1 || mask->height < 1) return TL_ERROR_PARAM;
    if (s->background == nullptr) return Image_copy(dst, src);

    const ImageStripeExec exec = {nullptr, &s->executor};
    MaskJob job = {mask, &s->maskCopy};
    TLResult r =
        ImageStripeExec_run(&exec, maskToBlendStripe, &job, ImageStripe_getExecutorCount(&s->executor));
    if (r != TL_OK) return r;
    if (src->width == mask->width && src->height == mask->height) {
        return ImageProc_blend(&s->imageProc, dst, src, s->background, &s->maskCopy);
    }
    // A picture of another size than the depth picture: the mask and the
    // background are brought to its size, in work images kept for the next call.
    r = ensureImage(&s->maskResized, src->width, src->height, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ensureImage(&s->backgroundResized, src->width, src->height, s->formatCode);
    if (r == TL_OK) r = ImageProc2_resizeImage(&s->imageProc2, &s->maskResized, &s->maskCopy);
    if (r == TL_OK) r = ImageProc2_resizeImage(&s->imageProc2, &s->backgroundResized, s->background);
    if (r == TL_OK) r = ImageProc_blend(&s->imageProc, dst, src, &s->backgroundResized, &s->maskResized);
    return r;
}

template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t)>
TLResult replaceBackground(TwinLensHandle* handle, const Record* dst, const Record* src) {
    if (handle == nullptr || handle->session == nullptr || !pictureGiven(src) || !pictureGiven(dst) ||
        src->width != dst->width || src->height != dst->height) {
        return TL_ERROR_PARAM;
    }
    TwinLensSession* s = handle->session;
    if (!ready(s)) return TL_ERROR_STATE;
    ViewPair views;
    TLResult r = openViews<Record, makeView>(s, &views, src, dst);
    if (r == TL_OK) r = blendBackground(s, &views.dst, &views.src);
    return closeViews(&views, r);
}

}  // namespace

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

TLResult velquin_TwinLens_blur(TwinLensHandle* handle, const TwinLensImage* dst, const TwinLensImage* src,
                               double strength) {
    return blur<TwinLensImage, IF_initImage, true>(handle, dst, src, strength);
}

TLResult velquin_TwinLens_blurEx(TwinLensHandle* handle, const TwinLensImageEx* dst,
                                 const TwinLensImageEx* src, double strength) {
    return blur<TwinLensImageEx, IF_initImageEx, false>(handle, dst, src, strength);
}

TLResult velquin_TwinLens_setBackgroundImage(TwinLensHandle* handle, const TwinLensImage* image) {
    return setBackground<TwinLensImage, IF_initImage>(handle, image);
}

TLResult velquin_TwinLens_setBackgroundImageEx(TwinLensHandle* handle, const TwinLensImageEx* image) {
    return setBackground<TwinLensImageEx, IF_initImageEx>(handle, image);
}

TLResult velquin_TwinLens_replaceBackground(TwinLensHandle* handle, const TwinLensImage* dst,
                                            const TwinLensImage* src) {
    return replaceBackground<TwinLensImage, IF_initImage>(handle, dst, src);
}

TLResult velquin_TwinLens_replaceBackgroundEx(TwinLensHandle* handle, const TwinLensImageEx* dst,
                                              const TwinLensImageEx* src) {
    return replaceBackground<TwinLensImageEx, IF_initImageEx>(handle, dst, src);
}

TLResult velquin_TwinLens_setCoarseBokehLevel(TwinLensHandle* handle, uint32_t level) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if (!ready(s)) return TL_ERROR_STATE;
    if (level > kMaxCoarseBokehLevel) return TL_ERROR_PARAM;
    s->coarseBokehLevel = static_cast<int32_t>(level);
    return TL_OK;
}

TLResult velquin_TwinLens_getCoarseBokehLevel(TwinLensHandle* handle, int32_t* level) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if (!ready(s)) return TL_ERROR_STATE;
    // A null destination is refused rather than written through.
    if (level == nullptr) return TL_ERROR_PARAM;
    *level = s->coarseBokehLevel;
    return TL_OK;
}

TLResult velquin_TwinLens_setMaxSigma(TwinLensHandle* handle, float sigma) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if (!ready(s)) return TL_ERROR_STATE;
    if (!(sigma >= 0.0f)) return TL_ERROR_PARAM;
    return Cocmap_setMaxSigma(&s->cocmap, sigma);
}

}  // extern "C"
