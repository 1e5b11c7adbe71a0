#include "imageproc/rotate.h"

#include <cstring>

#include "imageproc/image_proc2.h"
#include "imageproc/plane_views.h"

namespace vq_tl {

namespace {

// Row `from`, column `to`: the operation that takes one orientation to the
// other, from the group of the eight.
constexpr int8_t kOperation[8][8] = {
    {1, 2, 3, 4, 5, 8, 7, 6}, {2, 1, 4, 3, 8, 5, 6, 7}, {3, 4, 1, 2, 7, 6, 5, 8}, {4, 3, 2, 1, 6, 7, 8, 5},
    {5, 6, 7, 8, 1, 4, 3, 2}, {6, 5, 8, 7, 4, 1, 2, 3}, {7, 8, 5, 6, 3, 2, 1, 4}, {8, 7, 6, 5, 2, 3, 4, 1},
};

constexpr int32_t kBandRows = 64;  // source rows per stripe
constexpr int32_t kTile = 64;      // tile side for the operations that exchange the axes

template <int N>
struct Element {
    uint8_t b[N];
};

struct RotateArgs {
    uint8_t* dst;
    const uint8_t* src;
    int32_t dstPitch, srcPitch;
    int32_t width, height;  // of the source
    int32_t operation;
};

template <int N>
void rotateBand(const RotateArgs& a, int32_t y0, int32_t y1) {
    using E = Element<N>;
    const int32_t w = a.width, h = a.height;
    auto src = [&](int32_t x, int32_t y) {
        return reinterpret_cast<const E*>(a.src + intptr_t{a.srcPitch} * y) + x;
    };
    auto dstRow = [&](int32_t y) { return reinterpret_cast<E*>(a.dst + intptr_t{a.dstPitch} * y); };
    switch (a.operation) {
        case 1:
        case 4:
            for (int32_t y = y0; y < y1; ++y) {
                std::memcpy(dstRow(a.operation == 1 ? y : h - 1 - y), src(0, y), sizeof(E) * w);
            }
            return;
        case 2:
        case 3:
            for (int32_t y = y0; y < y1; ++y) {
                const E* s = src(0, y);
                E* d = dstRow(a.operation == 2 ? y : h - 1 - y) + (w - 1);
                for (int32_t x = 0; x < w; ++x) d[-x] = s[x];
            }
            return;
        default: break;
    }
    // Operations 5 to 8: destination row r takes source column x, in tiles,
    // so that both sides stay in cache. Destination (col, row) of S(x, y):
    // 5 (y, x), 6 (y, w-1-x), 7 (h-1-y, w-1-x), 8 (h-1-y, x).
    const bool flipRows = a.operation == 6 || a.operation == 7;  // dst row w-1-x
    const bool flipCols = a.operation == 7 || a.operation == 8;  // dst col h-1-y
    for (int32_t tx = 0; tx < w; tx += kTile) {
        const int32_t txEnd = tx + kTile < w ? tx + kTile : w;
        for (int32_t ty = y0; ty < y1; ty += kTile) {
            const int32_t tyEnd = ty + kTile < y1 ? ty + kTile : y1;
            for (int32_t x = tx; x < txEnd; ++x) {
                E* d = dstRow(flipRows ? w - 1 - x : x);
                const uint8_t* s = reinterpret_cast<const uint8_t*>(src(x, ty));
                if (flipCols) {
                    for (int32_t y = ty; y < tyEnd; ++y, s += a.srcPitch)
                        std::memcpy(d + (h - 1 - y), s, sizeof(E));
                } else {
                    for (int32_t y = ty; y < tyEnd; ++y, s += a.srcPitch) std::memcpy(d + y, s, sizeof(E));
                }
            }
        }
    }
}

using BandFn = void (*)(const RotateArgs&, int32_t, int32_t);

struct PlaneJob {
    RotateArgs args;
    BandFn band;
    int32_t bands;
};

struct RotateJobs {
    PlaneJob plane[3];
    int32_t count;
};

// One stripe is one band of one plane; the bands of all planes are numbered
// in a row so that the planes are waited for together.
TLResult rotateStripe(void* arg, int32_t index, int32_t count) {
    (void)count;
    const RotateJobs& jobs = *static_cast<const RotateJobs*>(arg);
    for (int32_t k = 0; k < jobs.count; ++k) {
        const PlaneJob& job = jobs.plane[k];
        if (index < job.bands) {
            const int32_t y0 = index * kBandRows;
            const int32_t y1 = y0 + kBandRows < job.args.height ? y0 + kBandRows : job.args.height;
            job.band(job.args, y0, y1);
            return TL_OK;
        }
        index -= job.bands;
    }
    return TL_OK;
}

// Element size of a single-plane view, or 0.
int32_t elementBytes(uint32_t f) {
    if (f == IMAGE_FORMAT_UINT8) return 1;
    if (f == IMAGE_FORMAT_UINT88 || f == IMAGE_FORMAT_RGB565 || f == IMAGE_FORMAT_UINT16 ||
        f == IMAGE_FORMAT_INT16) {
        return 2;
    }
    if (f == IMAGE_FORMAT_RGB888 || f == IMAGE_FORMAT_BGR888 || (f >= 30 && f <= 35) || f == IMAGE_FORMAT_HSV)
        return 3;
    if ((f >= 4 && f <= 15) || f == IMAGE_FORMAT_INT32 || f == IMAGE_FORMAT_FLOAT) return 4;
    return 0;
}

bool supportedPicture(uint32_t f) { return f == 26 || f == 27 || f == 29 || f == 36 || elementBytes(f) != 0; }

bool sharesPlane(const Image* a, const Image* b) {
    const int32_t na = Image_getPlaneCount(a->format), nb = Image_getPlaneCount(b->format);
    for (int32_t i = 0; i < na; ++i) {
        for (int32_t j = 0; j < nb; ++j) {
            if (a->plane[i] == b->plane[j]) return true;
        }
    }
    return false;
}

}  // namespace

int32_t Rotate_operation(int32_t from, int32_t to) {
    if (from < 1 || from > 8 || to < 1 || to > 8) return 0;
    return kOperation[from - 1][to - 1];
}

TLResult Rotate_rotateImageEx(const ImageStripeExec* exec, Image* dst, const Image* src, int32_t from,
                              int32_t to) {
    // Codes above 8 for `from` or below 1 for `to` would leave the table too.
    if (dst == nullptr || src == nullptr || from < 1 || to > 8 || from > 8 || to < 1) return TL_ERROR_PARAM;
    if (dst->format != src->format || !supportedPicture(src->format)) return TL_ERROR_UNSUPPORTED;
    const int32_t op = Rotate_operation(from, to);
    const bool swaps = op >= 5;
    const int32_t wantWidth = swaps ? src->height : src->width;
    const int32_t wantHeight = swaps ? src->width : src->height;
    if (dst->width != wantWidth || dst->height != wantHeight || sharesPlane(dst, src))
        return TL_ERROR_UNSUPPORTED;

    PlaneViews s, d;
    TLResult r = PlaneViews_split(&s, src);
    if (r == TL_OK) r = PlaneViews_split(&d, dst);
    if (r != TL_OK) return r;
    static constexpr BandFn kBands[4] = {rotateBand<1>, rotateBand<2>, rotateBand<3>, rotateBand<4>};
    RotateJobs jobs;
    std::memset(&jobs, 0, sizeof jobs);
    int32_t total = 0;
    for (int32_t k = 0; k < s.count; ++k) {
        const Image& sp = s.plane[k];
        const Image& dp = d.plane[k];
        const int32_t bytes = elementBytes(sp.format);
        if (bytes == 0) return TL_ERROR_UNSUPPORTED;
        PlaneJob& job = jobs.plane[jobs.count++];
        job.args = RotateArgs{dp.plane[0], sp.plane[0], dp.pitch[0], sp.pitch[0], sp.width, sp.height, op};
        job.band = kBands[bytes - 1];
        job.bands = (sp.height + kBandRows - 1) / kBandRows;
        total += job.bands;
    }
    return total > 0 ? ImageStripeExec_run(exec, rotateStripe, &jobs, total) : TL_OK;
}

}  // namespace vq_tl

namespace vq_tl {

TLResult ImageProc2_rotateImageEx(ImageProc2* self, Image* dst, const Image* src, int32_t from, int32_t to) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc2_getStripeExec(self);
    return Rotate_rotateImageEx(&exec, dst, src, from, to);
}

}  // namespace vq_tl
