#include "alignment/feat_pnt.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "runtime/fixed_math.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;
// A scaled fourth root below 3.0 (Q15) is too weak for a split cell.
constexpr int64_t kAdaptiveMinRoot = 0x30000;
// 255.0 in Q15: roots from here on read as the strongest byte.
constexpr int64_t kStrongestRoot = 0x7F8000;

const uint8_t* pixelRow(const Image* i, int32_t y) {
    return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y;
}

int32_t* elementRow(const Image* i, int32_t y) {
    return reinterpret_cast<int32_t*>(i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y);
}

bool hasPixels(const Image* i) {
    return i != nullptr && i->plane[0] != nullptr && i->width > 0 && i->height > 0;
}

int32_t featSide(int32_t side, int32_t step) { return (side - 1) / step + 1; }

struct ResponseJob {
    Image* feat;
    const Image* image;
    int32_t step, window;
};

// The Harris measure from the window's sums of Ix^2, Iy^2 and Ix Iy. A and
// B reach 4 * 65025 / 4 per pixel of the window, so their products need 64
// bits; the response is saturated to 31 bits.
int32_t harris(int32_t sxx, int32_t syy, int32_t sxy) {
    const int64_t a = sxx >> 2, b = syy >> 2, c = sxy >> 2;
    const int64_t r = a * b - c * c - (((a + b) * (a + b)) >> 4);
    if (r <= 0) return 0;
    return r > INT32_MAX ? INT32_MAX : static_cast<int32_t>(r);
}

// Samples are taken in groups: for a group, the gradient products of the
// window's rows are summed down each column over the group's span, in plain
// loops along the row, then each sample adds up `window` column sums.
constexpr int32_t kGroup = 64;
constexpr int32_t kMaxSpan = (kGroup - 1) * 8 + 4;  // steps above 8 come in smaller groups

TLResult responseStripe(void* arg, int32_t index, int32_t count) {
    const ResponseJob& j = *static_cast<const ResponseJob*>(arg);
    const int32_t w = j.image->width, h = j.image->height, half = j.window / 2, step = j.step;
    const int32_t lo = half + 1, hiX = w - 1 - (j.window - half), hiY = h - 1 - (j.window - half);
    // Samples per group so that a group's columns fit the buffers.
    const int32_t group = step <= 8 ? kGroup : (kMaxSpan - j.window) / step + 1;
    int32_t sxx[kMaxSpan], syy[kMaxSpan], sxy[kMaxSpan];
    int32_t first, last;
    ImageStripe_rows(j.feat->height, index, count, &first, &last);
    for (int32_t fy = first; fy < last; ++fy) {
        int32_t* out = elementRow(j.feat, fy);
        const int32_t y = fy * step;
        // Samples inside the border: i0 to i1 - 1.
        const int32_t i0 = (lo + step - 1) / step, i1 = hiX >= 0 ? hiX / step + 1 : 0;
        for (int32_t i = 0; i < j.feat->width; ++i) out[i] = 0;
        if (y < lo || y > hiY) continue;
        for (int32_t g = i0; g < i1; g += group) {
            const int32_t n = i1 - g < group ? i1 - g : group;
            const int32_t left = g * step - half, span = (n - 1) * step + j.window;
            for (int32_t x = 0; x < span; ++x) sxx[x] = syy[x] = sxy[x] = 0;
            for (int32_t v = y - half; v < y - half + j.window; ++v) {
                const uint8_t* up = pixelRow(j.image, v - 1) + left;
                const uint8_t* row = pixelRow(j.image, v) + left;
                const uint8_t* down = pixelRow(j.image, v + 1) + left;
                for (int32_t x = 0; x < span; ++x) {
                    const int32_t ix = row[x + 1] - row[x - 1], iy = down[x] - up[x];
                    sxx[x] += ix * ix;
                    syy[x] += iy * iy;
                    sxy[x] += ix * iy;
                }
            }
            for (int32_t k = 0; k < n; ++k) {
                int32_t a = 0, b = 0, c = 0;
                for (int32_t u = k * step; u < k * step + j.window; ++u)
                    a += sxx[u], b += syy[u], c += sxy[u];
                out[g + k] = harris(a, b, c);
            }
        }
    }
    return TL_OK;
}

// The best element of a cell as a point; false when refused.
bool bestInCell(const int32_t cell[4], const Image* feat, int32_t step, int32_t adaptive,
                int32_t strengthScale, FeatPnt* out) {
    const int32_t i0 = (cell[0] + step - 1) / step, j0 = (cell[1] + step - 1) / step;
    int32_t i1 = (cell[2] - 1) / step, j1 = (cell[3] - 1) / step;
    if (i1 >= feat->width) i1 = feat->width - 1;
    if (j1 >= feat->height) j1 = feat->height - 1;
    int32_t best = 0, bx = -1, by = -1;
    for (int32_t j = j0; j <= j1; ++j) {
        const int32_t* row = elementRow(feat, j);
        for (int32_t i = i0; i <= i1; ++i) {
            if (row[i] >= best) best = row[i], bx = i, by = j;
        }
    }
    if (best <= 0) return false;
    const int64_t root = static_cast<int64_t>(isqrt(isqrt(static_cast<uint32_t>(best)))) * strengthScale;
    if (adaptive != 0 && root < kAdaptiveMinRoot) return false;
    std::memset(out, 0, sizeof *out);
    out->left = cell[0], out->top = cell[1], out->right = cell[2], out->bottom = cell[3];
    out->x = bx * step;
    out->y = by * step;
    out->strength = root >= kStrongestRoot ? 255 : static_cast<int32_t>(root >> 15);
    return true;
}

// Cell side and sampling step for count points on a w by h image.
void cellAndStep(int32_t w, int32_t h, int32_t count, int32_t* cell, int32_t* step) {
    const int32_t c = static_cast<int32_t>(isqrt(static_cast<uint32_t>(int64_t{w} * h / count)));
    if (c < 5) {
        *cell = 4, *step = 2;
        return;
    }
    *cell = c;
    *step = c < 9 ? 2 : c <= 35 ? c >> 2 : 8;
}

// Room for every cell, and for the quarters of adaptive passes: from at
// most count points a pass adds three each.
int32_t capacityFor(int32_t cellsAcross, int32_t cellsDown, int32_t count, int32_t adaptive) {
    const int64_t cells = int64_t{cellsAcross} * cellsDown;
    const int64_t need = adaptive != 0 && 4 * int64_t{count} > cells ? 4 * int64_t{count} : cells;
    return need > INT32_MAX / static_cast<int64_t>(sizeof(FeatPnt)) ? -1 : static_cast<int32_t>(need);
}

// Adaptive passes: split the cells of every point while the list is short.
TLResult adaptivePasses(FeatPntList* list, const Image* feat, int32_t step, int32_t count,
                        int32_t strengthScale) {
    TLResult r = TL_OK;
    while (r == TL_OK && list->count < count) {
        const int32_t before = list->count;
        for (int32_t i = 0; i < before; ++i) FeatPntList_div(list, i, feat, step, strengthScale);
        r = FeatPntList_strip(list, count);
        if (list->count <= before) break;
    }
    return r;
}

struct Prepared {
    int32_t cell, step, across, down;
};

// Cells and step for count points on a w by h image; false when the list
// stays empty.
bool plan(int32_t w, int32_t h, int32_t count, Prepared* p) {
    if (count < 1 || w < kFeatPntMinSide || h < kFeatPntMinSide) return false;
    cellAndStep(w, h, count, &p->cell, &p->step);
    p->across = (w + p->cell - 1) / p->cell;
    p->down = (h + p->cell - 1) / p->cell;
    return true;
}

int32_t responseBytes(int32_t w, int32_t h, const Prepared& p) {
    return Image_getSize(featSide(w, p.step), featSide(h, p.step), IMAGE_FORMAT_INT32, IMAGE_SIZE_TOTAL);
}

// Checks, sizes and the response image (in work when it fits); *done when
// the list is complete already (no points to look for).
TLResult prepare(FeatPntList* list, const Image* image, int32_t count, int32_t window, int32_t adaptive,
                 Image* feat, const ImageStripeExec* exec, void* work, int32_t workSize, Prepared* p,
                 bool* done) {
    *done = true;
    if (list != nullptr) list->count = 0;
    if (list == nullptr || !hasPixels(image) || count < 1) return TL_OK;
    if (image->format != IMAGE_FORMAT_UINT8) return TL_ERROR_PARAM;
    if (window != 3 && window != 4) return TL_ERROR_PARAM;
    const int32_t w = image->width, h = image->height;
    if (!plan(w, h, count, p)) return TL_OK;
    const int32_t capacity = capacityFor(p->across, p->down, count, adaptive);
    if (capacity < 0) return TL_ERROR_PARAM;
    TLResult r = TL_OK;
    if (list->capacity < capacity) r = FeatPntList_init(list, capacity);
    const int32_t bytes = responseBytes(w, h, *p);
    if (r == TL_OK)
        r = Image_init(feat, featSide(w, p->step), featSide(h, p->step),
                       work != nullptr && bytes > 0 && workSize >= bytes ? work : nullptr,
                       IMAGE_FORMAT_INT32);
    ResponseJob job{feat, image, p->step, window};
    if (r == TL_OK) r = ImageStripeExec_run(exec, responseStripe, &job, kBands);
    *done = r != TL_OK;
    return r;
}

void cellOf(const Prepared& p, const Image* image, int32_t cx, int32_t cy, int32_t cell[4]) {
    cell[0] = cx * p.cell;
    cell[1] = cy * p.cell;
    cell[2] = cell[0] + p.cell < image->width ? cell[0] + p.cell : image->width;
    cell[3] = cell[1] + p.cell < image->height ? cell[1] + p.cell : image->height;
}

struct CellJob {
    FeatPntList* list;  // slots: one point per cell, strength -1 when refused
    const Image* image;
    const Image* feat;
    Prepared p;
    int32_t adaptive, strengthScale;
};

TLResult cellStripe(void* arg, int32_t index, int32_t count) {
    const CellJob& j = *static_cast<const CellJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.p.down, index, count, &first, &last);
    for (int32_t cy = first; cy < last; ++cy) {
        for (int32_t cx = 0; cx < j.p.across; ++cx) {
            int32_t cell[4];
            cellOf(j.p, j.image, cx, cy, cell);
            FeatPnt* slot = &j.list->points[cy * j.p.across + cx];
            if (!bestInCell(cell, j.feat, j.p.step, j.adaptive, j.strengthScale, slot)) slot->strength = -1;
        }
    }
    return TL_OK;
}

}  // namespace

TLResult construct_FeatPntList(FeatPntList* list, Env* env) {
    if (list == nullptr) return TL_ERROR_PARAM;
    std::memset(list, 0, sizeof *list);
    list->env = env;
    return TL_OK;
}

TLResult destruct_FeatPntList(FeatPntList* list) {
    if (list == nullptr) return TL_ERROR_PARAM;
    if (list->external == 0) Memory_free(list->points);
    Env* env = list->env;
    std::memset(list, 0, sizeof *list);
    list->env = env;
    return TL_OK;
}

TLResult FeatPntList_init(FeatPntList* list, int32_t capacity) {
    if (list == nullptr || capacity < 0) return TL_ERROR_PARAM;
    if (list->external == 0) Memory_free(list->points);
    list->points = nullptr;
    list->count = list->capacity = list->external = 0;
    if (capacity == 0) return TL_OK;
    list->points = static_cast<FeatPnt*>(Memory_alloc(sizeof(FeatPnt) * static_cast<size_t>(capacity)));
    if (list->points == nullptr) return TL_ERROR_MEMORY;
    list->capacity = capacity;
    return TL_OK;
}

TLResult FeatPntList_initWithBuffer(FeatPntList* list, FeatPnt* points, int32_t capacity) {
    if (list == nullptr || capacity < 0 || (points == nullptr && capacity > 0)) return TL_ERROR_PARAM;
    TLResult r = FeatPntList_init(list, 0);
    list->points = points;
    list->capacity = capacity;
    list->external = 1;
    return r;
}

TLResult FeatPntList_add(FeatPntList* list, const FeatPnt* point) {
    if (list == nullptr || point == nullptr) return TL_ERROR_PARAM;
    if (list->count >= list->capacity) return TL_ERROR_STATE;
    list->points[list->count++] = *point;
    return TL_OK;
}

TLResult FeatPntList_addFeatPnt(FeatPntList* list, const int32_t cell[4], const Image* featImage,
                                int32_t step, int32_t adaptive, int32_t strengthScale) {
    if (list == nullptr || cell == nullptr || !hasPixels(featImage) || step < 1) return TL_ERROR_PARAM;
    if (featImage->format != IMAGE_FORMAT_INT32) return TL_ERROR_PARAM;
    if (list->count >= list->capacity) return TL_ERROR_STATE;
    FeatPnt p;
    if (!bestInCell(cell, featImage, step, adaptive, strengthScale, &p)) return TL_ERROR_STATE;
    list->points[list->count++] = p;
    return TL_OK;
}

TLResult FeatPntList_strip(FeatPntList* list, int32_t count) {
    if (list == nullptr) return TL_ERROR_PARAM;
    const int32_t n = list->count;
    if (n == 0) return TL_OK;
    // The room beyond the points, when it holds a second copy, spares a block.
    FeatPnt* const spare = list->capacity - n >= n ? list->points + n : nullptr;
    FeatPnt* sorted = spare != nullptr
                          ? spare
                          : static_cast<FeatPnt*>(Memory_alloc(sizeof(FeatPnt) * static_cast<size_t>(n)));
    if (sorted == nullptr) return TL_ERROR_MEMORY;
    // Counting sort on the strength byte, strongest first, stable.
    uint32_t start[256];
    std::memset(start, 0, sizeof start);
    for (int32_t i = 0; i < n; ++i) ++start[list->points[i].strength & 255];
    uint32_t sum = 0;
    for (int32_t s = 255; s >= 0; --s) {
        const uint32_t c = start[s];
        start[s] = sum;
        sum += c;
    }
    for (int32_t i = 0; i < n; ++i) sorted[start[list->points[i].strength & 255]++] = list->points[i];
    const int32_t kept = count < 0 ? 0 : count < n ? count : n;
    std::memcpy(list->points, sorted, sizeof(FeatPnt) * static_cast<size_t>(kept));
    list->count = kept;
    if (sorted != spare) Memory_free(sorted);
    return TL_OK;
}

TLResult FeatPntList_div(FeatPntList* list, int32_t index, const Image* featImage, int32_t step,
                         int32_t strengthScale) {
    if (list == nullptr || index < 0 || index >= list->count) return TL_ERROR_PARAM;
    const FeatPnt p = list->points[index];
    if (p.right - p.left < 2 || p.bottom - p.top < 2) return TL_OK;
    const int32_t mx = (p.left + p.right) / 2, my = (p.top + p.bottom) / 2;
    const int32_t quarters[4][4] = {{p.left, p.top, mx, my},
                                    {mx, p.top, p.right, my},
                                    {p.left, my, mx, p.bottom},
                                    {mx, my, p.right, p.bottom}};
    for (const auto& q : quarters) {
        if (p.x >= q[0] && p.x < q[2] && p.y >= q[1] && p.y < q[3]) {
            FeatPnt& own = list->points[index];
            own.left = q[0], own.top = q[1], own.right = q[2], own.bottom = q[3];
        } else {
            FeatPntList_addFeatPnt(list, q, featImage, step, 1, strengthScale);
        }
    }
    return TL_OK;
}

TLResult calcFeatImage(Image* featImage, const Image* image, int32_t step, int32_t window, uint32_t format) {
    if (!hasPixels(featImage) || !hasPixels(image) || step < 1 || (window != 3 && window != 4))
        return TL_ERROR_PARAM;
    if (format != IMAGE_FORMAT_INT32 || featImage->format != format || image->format != IMAGE_FORMAT_UINT8)
        return TL_ERROR_PARAM;
    if (featImage->width != featSide(image->width, step) ||
        featImage->height != featSide(image->height, step))
        return TL_ERROR_PARAM;
    ResponseJob job{featImage, image, step, window};
    return ImageStripeExec_run(nullptr, responseStripe, &job, 1);
}

TLResult calcFeatPntList(FeatPntList* list, const Image* image, int32_t count, int32_t window,
                         int32_t adaptive, int32_t strengthScale, uint32_t format) {
    if (format != IMAGE_FORMAT_INT32) return TL_ERROR_PARAM;
    Image feat;
    construct_Image(&feat, list != nullptr ? list->env : nullptr);
    Prepared p;
    bool done;
    TLResult r = prepare(list, image, count, window, adaptive, &feat, nullptr, nullptr, 0, &p, &done);
    if (!done) {
        // Cells row by row; refusals and a full list are ignored.
        for (int32_t cy = 0; cy < p.down; ++cy) {
            for (int32_t cx = 0; cx < p.across; ++cx) {
                int32_t cell[4];
                cellOf(p, image, cx, cy, cell);
                FeatPntList_addFeatPnt(list, cell, &feat, p.step, adaptive, strengthScale);
            }
        }
        r = FeatPntList_strip(list, count);
        if (r == TL_OK && adaptive != 0) r = adaptivePasses(list, &feat, p.step, count, strengthScale);
    }
    destruct_Image(&feat);
    return r;
}

TLResult MvecDetectMulti2_calcFeatPntListWithPel(Pel* pel, FeatPntList* list, const Image* image,
                                                 int32_t count, int32_t window, int32_t adaptive,
                                                 int32_t strengthScale) {
    return MvecDetectMulti2_calcFeatPntListWithWork(pel, list, image, count, window, adaptive, strengthScale,
                                                    nullptr, 0);
}

TLResult MvecDetectMulti2_calcFeatPntListWithWork(Pel* pel, FeatPntList* list, const Image* image,
                                                  int32_t count, int32_t window, int32_t adaptive,
                                                  int32_t strengthScale, void* work, int32_t workSize) {
    Image feat;
    construct_Image(&feat, list != nullptr ? list->env : nullptr);
    const ImageStripeExec exec{pel, nullptr};
    Prepared p;
    bool done;
    TLResult r = prepare(list, image, count, window, adaptive, &feat, &exec, work, workSize, &p, &done);
    if (!done) {
        // Each cell fills its own slot, then the slots are packed in raster
        // order: the list of the serial scan.
        CellJob job{list, image, &feat, p, adaptive, strengthScale};
        r = ImageStripeExec_run(&exec, cellStripe, &job, kBands);
        int32_t n = 0;
        for (int32_t k = 0; k < p.across * p.down; ++k) {
            if (list->points[k].strength >= 0) list->points[n++] = list->points[k];
        }
        list->count = n;
        if (r == TL_OK) r = FeatPntList_strip(list, count);
        if (r == TL_OK && adaptive != 0) r = adaptivePasses(list, &feat, p.step, count, strengthScale);
    }
    destruct_Image(&feat);
    return r;
}

int32_t FeatPntList_getCapacity(int32_t width, int32_t height, int32_t count, int32_t adaptive) {
    Prepared p;
    return plan(width, height, count, &p) ? capacityFor(p.across, p.down, count, adaptive) : 0;
}

int32_t FeatPnt_getResponseSize(int32_t width, int32_t height, int32_t count) {
    Prepared p;
    if (!plan(width, height, count, &p)) return 0;
    const int32_t bytes = responseBytes(width, height, p);
    return bytes > 0 ? bytes : -1;
}

}  // namespace vq_tl
