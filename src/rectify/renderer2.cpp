#include "rectify/renderer2.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "runtime/parallel_executor.h"

namespace vq_tl {

namespace {

constexpr double kDefaultThreshold = 0.5;
constexpr int32_t kDefaultDivision = 16;
// Deviations are measured on a cell scaled to 128 pixels.
constexpr double kShapeScale = 128.0;
// One Q15 unit, the scale of the elements of an affine map in fixed point.
constexpr double kQ15Unit = 3.0517578125e-5;

struct KernelSet {
    Renderer2_DrawFn drawRect, drawRectParallel, drawRectNoRot;
};

constexpr KernelSet kUint8 = {Renderer2_Uint8_drawRect, Renderer2_Uint8_drawRectParallel,
                              Renderer2_Uint8_drawRectNoRot};
constexpr KernelSet kYuyv = {Renderer2_Yuv422Yuyv_drawRect, Renderer2_Yuv422Yuyv_drawRectParallel,
                             Renderer2_Yuv422Yuyv_drawRectNoRot};
constexpr KernelSet kUyvy = {Renderer2_Yuv422Uyvy_drawRect, Renderer2_Yuv422Uyvy_drawRectParallel,
                             Renderer2_Yuv422Uyvy_drawRectNoRot};
constexpr KernelSet kPlanar422 = {Renderer2_Yuv422Planar_drawRect, Renderer2_Yuv422Planar_drawRectParallel,
                                  Renderer2_Yuv422Planar_drawRectNoRot};
// Planar 4:2:0 by mode; mode 2 has no kernel.
constexpr KernelSet kPlanar420[4] = {
    {Renderer2_Yuv420Planar_drawRect, Renderer2_Yuv420Planar_drawRectParallel,
     Renderer2_Yuv420Planar_drawRectNoRot},
    {Renderer2_Yuv420PlanarHQ_drawRect, Renderer2_Yuv420PlanarHQ_drawRectParallel,
     Renderer2_Yuv420PlanarHQ_drawRectNoRot},
    {nullptr, nullptr, nullptr},
    {Renderer2_Yuv420Planar_drawRectMemcpy, Renderer2_Yuv420Planar_drawRectMemcpy,
     Renderer2_Yuv420Planar_drawRectMemcpy},
};
constexpr KernelSet kSemiplanar420[4] = {
    {Renderer2_Yuv420Semiplanar_drawRect, Renderer2_Yuv420Semiplanar_drawRectParallel,
     Renderer2_Yuv420Semiplanar_drawRectNoRot},
    {Renderer2_Yuv420SemiplanarHQ_drawRect, Renderer2_Yuv420SemiplanarHQ_drawRectParallel,
     Renderer2_Yuv420SemiplanarHQ_drawRectNoRot},
    {Renderer2_Yuv420SemiplanarNN_drawRect, Renderer2_Yuv420SemiplanarNN_drawRectParallel,
     Renderer2_Yuv420SemiplanarNN_drawRectNoRot},
    {Renderer2_Yuv420Semiplanar_drawRectMemcpy, Renderer2_Yuv420Semiplanar_drawRectMemcpy,
     Renderer2_Yuv420Semiplanar_drawRectMemcpy},
};

const KernelSet* kernelsFor(uint32_t format, int32_t mode) {
    switch (format) {
        case 16:  // YUV422_YUYV
        case 17:  // YUV422_YVYU
            return &kYuyv;
        case 20:  // YUV422_VYUY
        case 21:  // YUV422_UYVY
            return &kUyvy;
        case IMAGE_FORMAT_YUV422_PLANAR: return &kPlanar422;
        case IMAGE_FORMAT_UINT8: return &kUint8;
        case IMAGE_FORMAT_YUV420_PLANAR:
            return mode >= 0 && mode <= 3 && kPlanar420[mode].drawRect != nullptr ? &kPlanar420[mode]
                                                                                  : nullptr;
        case IMAGE_FORMAT_YUV420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU420_SEMIPLANAR: return mode >= 0 && mode <= 3 ? &kSemiplanar420[mode] : nullptr;
        default: return nullptr;
    }
}

bool hasPixels(const Image* image) {
    if (image->width < 1 || image->height < 1) return false;
    const int32_t planes = Image_getPlaneCount(image->format);
    if (planes < 1) return false;
    for (int32_t k = 0; k < planes; ++k) {
        if (image->plane[k] == nullptr) return false;
    }
    return true;
}

TLResult checkImages(const Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst->format != src->format || !hasPixels(dst) || !hasPixels(src)) return TL_ERROR_PARAM;
    return TL_OK;
}

TLResult checkGrid(const Renderer2_Params* g) {
    if (g->cols < 0 || g->rows < 0) return TL_ERROR_PARAM;
    if (int64_t{g->cols} * g->rows > kRenderer2MaxVertices) return TL_ERROR_PARAM;
    if (g->cols > 1 && g->rows > 1 &&
        (g->x == nullptr || g->y == nullptr || g->xs == nullptr || g->ys == nullptr)) {
        return TL_ERROR_PARAM;
    }
    return TL_OK;
}

int32_t cellCount(const Renderer2_Params* g) {
    return g->cols > 1 && g->rows > 1 ? (g->cols - 1) * (g->rows - 1) : 0;
}

// The source rectangle of this render, and the kernels of a new destination.
TLResult prepare(Renderer2* r, const Image* dst, const Image* src) {
    r->srcLeft = 0;
    r->srcTop = 0;
    r->srcRight = src->width;
    r->srcBottom = src->height;
    if (dst->width != r->width || dst->height != r->height || dst->format != r->format ||
        r->drawRect == nullptr) {
        r->width = dst->width;
        r->height = dst->height;
        r->format = dst->format;
        r->dstLeft = 0;
        r->dstTop = 0;
        r->dstRight = dst->width;
        r->dstBottom = dst->height;
        return Renderer2_selectKernels(r);
    }
    return TL_OK;
}

inline bool insideSource(const Renderer2* r, double x, double y) {
    return x >= r->srcLeft && x <= r->srcRight && y >= r->srcTop && y <= r->srcBottom;
}

inline double magnitude(double v) { return v < 0.0 ? -v : v; }

TLResult drawCell(const Renderer2* r, const Renderer2_Params* g, Image* dst, const Image* src, int32_t q) {
    const int32_t across = g->cols - 1;
    const int32_t tl = (q / across) * g->cols + q % across;
    const int32_t tr = tl + 1, bl = tl + g->cols, br = bl + 1;
    const int32_t corner[4] = {tl, tr, bl, br};
    double v[8];
    for (int i = 0; i < 4; ++i) {
        v[2 * i] = g->x[corner[i]];
        v[2 * i + 1] = g->y[corner[i]];
    }
    if (r->boundaryCheck == 0) {
        for (int i = 0; i < 4; ++i) {
            if (!insideSource(r, v[2 * i], v[2 * i + 1])) return TL_OK;
        }
    } else {
        for (double c : v) {
            if (!(c < kRenderer2InvalidVertex)) return TL_OK;
        }
        bool any = false;
        for (int i = 0; i < 4; ++i) any = any || insideSource(r, v[2 * i], v[2 * i + 1]);
        if (!any) return TL_OK;
    }
    const int32_t rect[4] = {g->xs[tl], g->ys[tl], g->xs[br], g->ys[br]};
    if (rect[2] <= rect[0] || rect[3] <= rect[1]) return TL_OK;
    // A grid laid out for a larger destination draws only the cells that fit.
    if (rect[0] < r->dstLeft || rect[1] < r->dstTop || rect[2] > r->dstRight || rect[3] > r->dstBottom) {
        return TL_OK;
    }

    Renderer2_DrawFn kernel = r->drawRect;
    const int32_t down = g->ys[bl] - g->ys[tl], across1 = g->xs[tr] - g->xs[tl];
    const int32_t side = down < across1 ? down : across1;
    if (side > 0) {
        // How far the quadrilateral is from a parallelogram (a, b) and its
        // top edge from level (c), in pixels of a 128-pixel cell.
        const double a = magnitude((v[0] + v[6] - v[2] - v[4]) * kShapeScale / side);
        const double b = magnitude((v[1] + v[7] - v[3] - v[5]) * kShapeScale / side);
        const double c = magnitude((v[1] - v[3]) * kShapeScale / side);
        if (a < r->parallelThreshold && b < r->parallelThreshold) {
            kernel = c < r->rotationThreshold ? r->drawRectNoRot : r->drawRectParallel;
        }
    }
    const Renderer2_DrawArg arg = {dst, src, v, rect, r->boundaryCheck};
    return kernel(&arg);
}

TLResult drawCellRange(const Renderer2_KernelArg* a, int32_t first, int32_t last) {
    const int32_t cells = cellCount(a->params);
    for (int32_t q = first; q < last && q < cells; ++q) {
        const TLResult r = drawCell(a->renderer, a->params, a->dst, a->src, q);
        if (r != TL_OK) return r;
    }
    return TL_OK;
}

TLResult cellStripe(void* arg, int32_t index, int32_t count) {
    (void)count;
    return Renderer2_drawCells(arg, index, nullptr);
}

// Bands of cell rows for a ParallelExecutor: two halves for two workers,
// otherwise four equal bands and a fifth for the remainder.
struct Bands {
    const Renderer2_KernelArg* arg;
    int32_t firstRow[6];
};

TLResult bandStripe(void* arg, int32_t index, int32_t count) {
    (void)count;
    const Bands* b = static_cast<const Bands*>(arg);
    const int32_t across = b->arg->params->cols - 1;
    return drawCellRange(b->arg, b->firstRow[index] * across, b->firstRow[index + 1] * across);
}

TLResult runOnExecutor(Renderer2* r, const Renderer2_KernelArg* arg) {
    const int32_t cellRows = arg->params->rows - 1;
    const int32_t workers = ImageStripe_getExecutorCount(r->parallelExecutor);
    if (workers == 1) return drawCellRange(arg, 0, cellCount(arg->params));
    Bands bands;
    bands.arg = arg;
    int32_t count;
    if (workers == 2) {
        count = 2;
        bands.firstRow[0] = 0;
        bands.firstRow[1] = cellRows / 2;
        bands.firstRow[2] = cellRows;
    } else {
        const int32_t share = cellRows / 4;
        for (int32_t i = 0; i <= 4; ++i) bands.firstRow[i] = i * share;
        count = 4;
        if (4 * share < cellRows) bands.firstRow[++count] = cellRows;
    }
    const ImageStripeExec exec = {nullptr, r->parallelExecutor};
    return ImageStripeExec_run(&exec, bandStripe, &bands, count);
}

}  // namespace

int32_t Renderer2_getBufferSize() { return Renderer2_Params_getBufferSize(); }

TLResult construct_Renderer2(Renderer2* renderer, Env* env) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    std::memset(renderer, 0, sizeof *renderer);
    renderer->env = env;
    renderer->division = kDefaultDivision;
    return construct_Renderer2_Params(&renderer->params, env);
}

TLResult destruct_Renderer2(Renderer2* renderer) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    destruct_Renderer2_Params(&renderer->params);
    std::memset(renderer, 0, sizeof *renderer);
    return TL_OK;
}

TLResult Renderer2_init(Renderer2* renderer, ParallelExecutor* parallelExecutor) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    renderer->parallelThreshold = kDefaultThreshold;
    renderer->rotationThreshold = kDefaultThreshold;
    renderer->parallelExecutor = parallelExecutor;
    renderer->pel = nullptr;
    return TL_OK;
}

TLResult Renderer2_initWithPel(Renderer2* renderer, Pel* pel) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    renderer->parallelThreshold = kDefaultThreshold;
    renderer->rotationThreshold = kDefaultThreshold;
    renderer->pel = pel;
    renderer->parallelExecutor = nullptr;
    return TL_OK;
}

TLResult Renderer2_setMode(Renderer2* renderer, int32_t mode) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    renderer->mode = mode;
    return renderer->width > 0 ? Renderer2_selectKernels(renderer) : TL_OK;
}

TLResult Renderer2_setBoundaryCheck(Renderer2* renderer, int32_t flag) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    renderer->boundaryCheck = flag != 0 ? 1 : 0;
    return TL_OK;
}

TLResult Renderer2_selectKernels(Renderer2* renderer) {
    if (renderer == nullptr) return TL_ERROR_PARAM;
    const KernelSet* set = kernelsFor(renderer->format, renderer->mode);
    renderer->drawRect = set != nullptr ? set->drawRect : nullptr;
    renderer->drawRectParallel = set != nullptr ? set->drawRectParallel : nullptr;
    renderer->drawRectNoRot = set != nullptr ? set->drawRectNoRot : nullptr;
    return set != nullptr ? TL_OK : TL_ERROR_UNSUPPORTED;
}

TLResult Renderer2_getKernelArg(Renderer2* renderer, Renderer2_KernelArg* arg, Image* dst, const Image* src,
                                const Renderer2_Params* params, int32_t count) {
    if (renderer == nullptr || arg == nullptr || params == nullptr || count < 1) return TL_ERROR_PARAM;
    TLResult r = checkImages(dst, src);
    if (r == TL_OK) r = checkGrid(params);
    if (r == TL_OK) r = prepare(renderer, dst, src);
    if (r != TL_OK) return r;
    *arg = Renderer2_KernelArg{renderer, params, dst, src, count};
    return TL_OK;
}

TLResult Renderer2_render(Renderer2* renderer, Image* dst, const Image* src, const Renderer2_Params* params) {
    Renderer2_KernelArg arg;
    const TLResult r = Renderer2_getKernelArg(renderer, &arg, dst, src, params, 1);
    if (r != TL_OK) return r;
    const int32_t cells = cellCount(params);
    if (cells == 0) return TL_OK;
    if (renderer->pel != nullptr) {
        const ImageStripeExec exec = {renderer->pel, nullptr};
        return ImageStripeExec_run(&exec, cellStripe, &arg, cells);
    }
    if (renderer->parallelExecutor != nullptr) return runOnExecutor(renderer, &arg);
    return drawCellRange(&arg, 0, cells);
}

TLResult Renderer2_renderWithMvec8Real(Renderer2* renderer, Image* dst, const Image* src,
                                       const Mvec8Real* matrix) {
    if (renderer == nullptr || matrix == nullptr) return TL_ERROR_PARAM;
    TLResult r = checkImages(dst, src);
    if (r == TL_OK) r = prepare(renderer, dst, src);
    if (r != TL_OK) return r;
    Renderer2_Params* g = &renderer->params;
    if (g->x == nullptr || g->left != 0 || g->top != 0 || g->right != dst->width ||
        g->bottom != dst->height) {
        r = Renderer2_Params_init(g, renderer, dst->width, dst->height, renderer->division);
        if (r != TL_OK) return r;
    }
    r = Renderer2_Params_setMvec8Real(g, matrix);
    return r != TL_OK ? r : Renderer2_render(renderer, dst, src, g);
}

TLResult Renderer2_renderWithMvec6F32(Renderer2* renderer, Image* dst, const Image* src,
                                      const Mvec6F32* matrix) {
    if (matrix == nullptr) return TL_ERROR_PARAM;
    Mvec8Real m;
    Mvec8Real_setIdentity(&m);
    const int32_t e[6] = {matrix->a, matrix->b, matrix->c, matrix->d, matrix->e, matrix->f};
    for (int i = 0; i < 6; ++i) m.m[i] = e[i] * kQ15Unit;
    return Renderer2_renderWithMvec8Real(renderer, dst, src, &m);
}

const PelKernel* Renderer2_getKernel(const Renderer2* renderer) {
    static constexpr PelKernel kCells = PelKernel_perIndex<Renderer2_drawCells>();
    return renderer != nullptr ? &kCells : nullptr;
}

PelIndexFunction Renderer2_getKernelFunc(const Renderer2* renderer) {
    return renderer != nullptr ? Renderer2_drawCells : nullptr;
}

uint32_t Renderer2_drawCells(void* arg, int32_t index, PelWorkInfo* context) {
    (void)context;
    const Renderer2_KernelArg* a = static_cast<const Renderer2_KernelArg*>(arg);
    if (a == nullptr || index < 0) return TL_ERROR_PARAM;
    const int64_t cells = cellCount(a->params);
    const int64_t first = int64_t{a->count} * index;
    if (first >= cells) return TL_OK;
    const int64_t last = first + a->count < cells ? first + a->count : cells;
    return drawCellRange(a, static_cast<int32_t>(first), static_cast<int32_t>(last));
}

}  // namespace vq_tl
