// The pixel kernels of DefocusFaceBokeh: shrinks, doubling, the weighted and
// plain separable blurs, and the mixes. Each is a stripe function over the
// rows of its destination. The halvings, the doubling and the mixes hand
// their rows to the kernel table of bokeh_kernels.h (scalar, SSE4.1, AVX2,
// NEON; the same bytes from each); the blurs' loops are plain integer
// arithmetic over whole rows or chunks of a row, so that the compiler
// vectorises them.
#include "bokeh/defocus_face_bokeh_util.h"

#include <cstring>

#include "bokeh/bokeh_kernels.h"
#include "imageproc/image_stripes.h"
#include "imageproc/kernel_clones.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Pixels of a row done at a time: the padded rows and sums of a chunk live on
// the stack, so no pass allocates. Even, so that a chunk starts on a pair of
// doubled pixels.
constexpr int32_t kChunk = 256;
constexpr int32_t kMaxRadius = 3;
constexpr int32_t kMaxTaps = 2 * kMaxRadius + 1;

struct Plane {
    uint8_t* data;
    int32_t pitch, width, height;  // width in elements of one byte or pixels of a pair
    uint8_t* row(int32_t y) const { return data + static_cast<intptr_t>(pitch) * y; }
};

Plane planeOf(const Image* m) { return Plane{m->plane[0], m->pitch[0], m->width, m->height}; }

bool hasPixels(const Image* m, uint32_t format) {
    return m != nullptr && m->format == format && m->plane[0] != nullptr && m->width > 0 && m->height > 0;
}
bool isPlane(const Image* m) { return hasPixels(m, IMAGE_FORMAT_UINT8); }
bool covers(const Image* m, const Image* by) { return by->width >= m->width && by->height >= m->height; }
bool sameSize(const Image* a, const Image* b) { return a->width == b->width && a->height == b->height; }

inline int32_t clampIndex(int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

TLResult runStripes(const DefocusFaceBokeh* self, ImageStripeFn fn, void* job) {
    const ImageStripeExec exec{self != nullptr ? self->pel : nullptr, nullptr};
    return ImageStripeExec_run(&exec, fn, job, kImageStripeDefaultCount);
}

// ---- Shrinks ----------------------------------------------------------------

struct ShrinkJob {
    Plane dst, src;
    int32_t step, offset;  // elements step bytes apart from offset: 2 and 0 or 1 on interleaved chroma
};

template <int Step>
TLResult shrinkStripe(void* arg, int32_t index, int32_t count) {
    const ShrinkJob j = *static_cast<const ShrinkJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst.height, index, count, &first, &last);
    const BokehShrinkRowFn row = Step == 2 ? BokehKernels_get()->shrink2 : BokehKernels_get()->shrink;
    const int32_t dw = j.dst.width, sw = j.src.width;
    const int32_t full = dw < sw / 2 ? dw : sw / 2;
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* a = j.src.row(clampIndex(2 * y, j.src.height)) + j.offset;
        const uint8_t* b = j.src.row(clampIndex(2 * y + 1, j.src.height)) + j.offset;
        uint8_t* d = j.dst.row(y);
        row(d, a, b, full);
        const int32_t lastColumn = (sw - 1) * Step;
        const uint8_t edge = static_cast<uint8_t>((a[lastColumn] + b[lastColumn] + 1) >> 1);
        for (int32_t x = full; x < dw; ++x) d[x] = edge;
    }
    return TL_OK;
}

TLResult shrink(DefocusFaceBokeh* self, const Plane& dst, const Plane& src, int32_t step, int32_t offset) {
    ShrinkJob job{dst, src, step, offset};
    return runStripes(self, step == 2 ? shrinkStripe<2> : shrinkStripe<1>, &job);
}

struct WeightedShrinkJob {
    Plane dst, dstWeight, src, srcWeight;
};

// value = (sum of w p + (W >> 1)) / W, the numerator below 2^18.
//
// The quotients of this file are exact integer quotients taken by the
// floating-point divider, which divides whole vectors where integer division
// is scalar. For integers 0 <= n < 2^24 (a float; 2^53 for a double) and d >
// 0 the correctly rounded n / d lies within (n / d) 2^-24 < 1 / d of n / d,
// while the next integer above n / d is at least 1 / d away: the rounding
// never reaches it, so truncation gives the integer quotient, bit for bit.
inline uint8_t weightedMean(int32_t weightedSum, int32_t weightSum) {
    const float den = static_cast<float>(weightSum > 0 ? weightSum : 1);
    return static_cast<uint8_t>(
        static_cast<int32_t>(static_cast<float>(weightedSum + (weightSum >> 1)) / den));
}

template <bool KeepWeight>
TLResult weightedShrinkStripe(void* arg, int32_t index, int32_t count) {
    const WeightedShrinkJob j = *static_cast<const WeightedShrinkJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst.height, index, count, &first, &last);
    const BokehWeightedShrinkRowFn row = BokehKernels_get()->weightedShrink;
    const int32_t dw = j.dst.width, sw = j.src.width;
    const int32_t full = dw < sw / 2 ? dw : sw / 2;
    for (int32_t y = first; y < last; ++y) {
        const int32_t ra = clampIndex(2 * y, j.src.height), rb = clampIndex(2 * y + 1, j.src.height);
        const uint8_t* a = j.src.row(ra);
        const uint8_t* b = j.src.row(rb);
        const uint8_t* wa = j.srcWeight.row(ra);
        const uint8_t* wb = j.srcWeight.row(rb);
        uint8_t* d = j.dst.row(y);
        uint8_t* dwt = KeepWeight ? j.dstWeight.row(y) : nullptr;
        row(d, dwt, a, b, wa, wb, full);
        const int32_t w0 = wa[sw - 1], w2 = wb[sw - 1], sum = w0 + w2;
        const uint8_t edge = weightedMean(w0 * a[sw - 1] + w2 * b[sw - 1], sum);
        const uint8_t edgeWeight = static_cast<uint8_t>((sum + 1) >> 1);
        for (int32_t x = full; x < dw; ++x) {
            d[x] = edge;
            if constexpr (KeepWeight) dwt[x] = edgeWeight;
        }
    }
    return TL_OK;
}

// ---- Doubling -----------------------------------------------------------------

// Pixels [x0, x0 + n) of row y of the doubling of s, x0 even; b has room for
// n rounded up to even. Column sums first: v[m] = wa a + wc c of source
// column base + m (limited to the row), weights 1 and 3 or 3 and 1 by the
// destination row, both rows the same one at the top and bottom edges. Then
// each pair of destination columns (x0 + 2q, x0 + 2q + 1) mixes v[q], v[q + 1]
// and v[q + 1], v[q + 2] as 1:3 and 3:1, all in sixteenths.
//
// A pixel depends on its position alone, never on the destination's size:
// where a level is less than twice as wide as the next one (odd sizes), its
// last pixels interpolate rather than repeat the edge, as a wider one would.
void doubledChunk(uint8_t* b, const Plane& s, int32_t y, int32_t x0, int32_t n) {
    const BokehKernels* k = BokehKernels_get();
    const int32_t j = (y - 1) >> 1;  // y = 2j + 1 or 2j + 2; y = 0 gives j = -1
    const uint8_t* a = s.row(clampIndex(j, s.height));
    const uint8_t* c = s.row(clampIndex(j + 1, s.height));
    const uint16_t wa = (y & 1) != 0 ? 3 : 1, wc = static_cast<uint16_t>(4 - wa);
    const int32_t pairs = (n + 1) >> 1, base = (x0 >> 1) - 1, count = pairs + 2;
    uint16_t v[kChunk / 2 + 2];
    // Columns [lo, hi) of v read the row directly, the others its edge pixels.
    const int32_t lo = base < 0 ? -base : 0;
    const int32_t hi = s.width - base < count ? s.width - base : count;
    const uint16_t left = static_cast<uint16_t>(wa * a[0] + wc * c[0]);
    const uint16_t right = static_cast<uint16_t>(wa * a[s.width - 1] + wc * c[s.width - 1]);
    for (int32_t m = 0; m < lo; ++m) v[m] = left;
    if (hi > lo) k->columnSum(v + lo, a + base + lo, c + base + lo, wa, hi - lo);
    for (int32_t m = hi; m < count; ++m) v[m] = right;
    k->doubleRow(b, v, pairs);
}

struct EnlargeJob {
    Plane dst, src;
};

TLResult enlargeStripe(void* arg, int32_t index, int32_t count) {
    const EnlargeJob j = *static_cast<const EnlargeJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst.height, index, count, &first, &last);
    uint8_t tail[kChunk];
    for (int32_t y = first; y < last; ++y) {
        uint8_t* d = j.dst.row(y);
        for (int32_t x0 = 0; x0 < j.dst.width; x0 += kChunk) {
            const int32_t n = j.dst.width - x0 < kChunk ? j.dst.width - x0 : kChunk;
            if ((n & 1) == 0) {
                doubledChunk(d + x0, j.src, y, x0, n);
            } else {
                doubledChunk(tail, j.src, y, x0, n);
                std::memcpy(d + x0, tail, static_cast<size_t>(n));
            }
        }
    }
    return TL_OK;
}

// ---- Weighted blur ------------------------------------------------------------

struct WeightedBlurJob {
    Plane dst, src, weight, midValue, midWeight;
    int32_t taps[kMaxTaps];
};

// (N + (D >> 1)) / D with D the weight sum, N the weighted sum: with taps
// summing to 65536 and weights and values up to 255, N + (D >> 1) stays
// below 2^32, an exact quotient in doubles (see weightedMean). The unsigned
// value goes to a double as a signed one plus 2^31, which vectorises.
inline uint8_t normalised(uint32_t n, uint32_t d) {
    const uint32_t num = n + (d >> 1);
    const double top = static_cast<double>(static_cast<int32_t>(num ^ 0x80000000u)) + 2147483648.0;
    const double den = static_cast<double>(static_cast<int32_t>(d | (d == 0)));
    return static_cast<uint8_t>(static_cast<int32_t>(top / den));
}

// One run of n pixels of a row; p and w are padded by R on either side.
template <int R, int Shift>
VQ_TL_KERNEL_CLONES void weightedRun(uint8_t* outValue, uint8_t* outWeight, const uint8_t* p,
                                     const uint8_t* w, const int32_t* taps, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        uint32_t d = 0, s = 0;
        for (int32_t k = 0; k <= 2 * R; ++k) {
            const uint32_t t = static_cast<uint32_t>(taps[k]), wk = w[i + k];
            d += t * wk;
            s += t * (wk * p[i + k]);
        }
        outValue[i] = normalised(s, d);
        outWeight[i] = static_cast<uint8_t>((d + (1u << (Shift - 1))) >> Shift);
    }
}

// Copies [x0 - r, x0 + n + r) of a row into pad, the edge pixels repeated.
void padChunk(uint8_t* pad, const uint8_t* row, int32_t width, int32_t x0, int32_t n, int32_t r) {
    const int32_t lo = x0 - r, hi = x0 + n + r;
    const int32_t a = lo < 0 ? 0 : lo, b = hi > width ? width : hi;
    for (int32_t x = lo; x < a; ++x) pad[x - lo] = row[0];
    std::memcpy(pad + (a - lo), row + a, static_cast<size_t>(b - a));
    for (int32_t x = b; x < hi; ++x) pad[x - lo] = row[width - 1];
}

template <int R, int Shift>
TLResult weightedRowStripe(void* arg, int32_t index, int32_t count) {
    const WeightedBlurJob j = *static_cast<const WeightedBlurJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src.height, index, count, &first, &last);
    uint8_t p[kChunk + 2 * R], w[kChunk + 2 * R];
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* sp = j.src.row(y);
        const uint8_t* sw = j.weight.row(y);
        for (int32_t x0 = 0; x0 < j.src.width; x0 += kChunk) {
            const int32_t n = j.src.width - x0 < kChunk ? j.src.width - x0 : kChunk;
            padChunk(p, sp, j.src.width, x0, n, R);
            padChunk(w, sw, j.src.width, x0, n, R);
            weightedRun<R, Shift>(j.midValue.row(y) + x0, j.midWeight.row(y) + x0, p, w, j.taps, n);
        }
    }
    return TL_OK;
}

template <int R>
VQ_TL_KERNEL_CLONES TLResult weightedColumnStripe(void* arg, int32_t index, int32_t count) {
    const WeightedBlurJob j = *static_cast<const WeightedBlurJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src.height, index, count, &first, &last);
    const uint8_t* pv[kMaxTaps];
    const uint8_t* pw[kMaxTaps];
    uint32_t t[kMaxTaps];
    for (int32_t k = 0; k <= 2 * R; ++k) t[k] = static_cast<uint32_t>(j.taps[k]);
    const int32_t width = j.src.width;
    for (int32_t y = first; y < last; ++y) {
        for (int32_t k = 0; k <= 2 * R; ++k) {
            const int32_t r = clampIndex(y + k - R, j.src.height);
            pv[k] = j.midValue.row(r);
            pw[k] = j.midWeight.row(r);
        }
        uint8_t* d = j.dst.row(y);
        // A chunk at a time into a local row, so that the loop vectorises
        // without alias checks between dst and the rows it reads.
        for (int32_t x0 = 0; x0 < width; x0 += kChunk) {
            const int32_t n = width - x0 < kChunk ? width - x0 : kChunk;
            uint8_t out[kChunk];
            for (int32_t i = 0; i < n; ++i) {
                uint32_t den = 0, num = 0;
                for (int32_t k = 0; k <= 2 * R; ++k) {
                    const uint32_t wk = pw[k][x0 + i];
                    den += t[k] * wk;
                    num += t[k] * (wk * pv[k][x0 + i]);
                }
                out[i] = normalised(num, den);
            }
            std::memcpy(d + x0, out, static_cast<size_t>(n));
        }
    }
    return TL_OK;
}

// ---- Plain blur -----------------------------------------------------------------

struct PlainBlurJob {
    Plane dst, src, mid;
    int32_t taps[kMaxTaps];
};

// Taps summing to 256 over values up to 255: every sum fits in 16 bits.
inline uint8_t plainRound(uint32_t sum) {
    const uint32_t v = (sum + 128) >> 8;
    return static_cast<uint8_t>(v > 255 ? 255 : v);
}

template <int R>
VQ_TL_KERNEL_CLONES TLResult plainRowStripe(void* arg, int32_t index, int32_t count) {
    const PlainBlurJob j = *static_cast<const PlainBlurJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src.height, index, count, &first, &last);
    uint8_t p[kChunk + 2 * R];
    for (int32_t y = first; y < last; ++y) {
        for (int32_t x0 = 0; x0 < j.src.width; x0 += kChunk) {
            const int32_t n = j.src.width - x0 < kChunk ? j.src.width - x0 : kChunk;
            padChunk(p, j.src.row(y), j.src.width, x0, n, R);
            uint8_t* d = j.mid.row(y) + x0;
            for (int32_t i = 0; i < n; ++i) {
                uint32_t sum = 0;
                for (int32_t k = 0; k <= 2 * R; ++k) sum += static_cast<uint32_t>(j.taps[k]) * p[i + k];
                d[i] = plainRound(sum);
            }
        }
    }
    return TL_OK;
}

template <int R>
VQ_TL_KERNEL_CLONES TLResult plainColumnStripe(void* arg, int32_t index, int32_t count) {
    const PlainBlurJob j = *static_cast<const PlainBlurJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src.height, index, count, &first, &last);
    const uint8_t* p[kMaxTaps];
    for (int32_t y = first; y < last; ++y) {
        for (int32_t k = 0; k <= 2 * R; ++k) p[k] = j.mid.row(clampIndex(y + k - R, j.src.height));
        uint8_t* d = j.dst.row(y);
        for (int32_t x = 0; x < j.src.width; ++x) {
            uint32_t sum = 0;
            for (int32_t k = 0; k <= 2 * R; ++k) sum += static_cast<uint32_t>(j.taps[k]) * p[k][x];
            d[x] = plainRound(sum);
        }
    }
    return TL_OK;
}

// ---- Mixing ---------------------------------------------------------------------

struct MixJob {
    Plane out, fine, coc;
    Plane b[2];  // per channel: the blurred plane, or the coarse one to double
    int32_t threshold, shift;
};

// Channels C interleaved in out and fine; with Doubled the b planes are
// doubled on the fly.
template <int C, bool Doubled>
TLResult mixStripe(void* arg, int32_t index, int32_t count) {
    const MixJob j = *static_cast<const MixJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.out.height, index, count, &first, &last);
    const BokehKernels* k = BokehKernels_get();
    uint8_t doubled[C][kChunk];
    for (int32_t y = first; y < last; ++y) {
        for (int32_t x0 = 0; x0 < j.out.width; x0 += kChunk) {
            const int32_t n = j.out.width - x0 < kChunk ? j.out.width - x0 : kChunk;
            const uint8_t* b[C];
            for (int c = 0; c < C; ++c) {
                if constexpr (Doubled) {
                    doubledChunk(doubled[c], j.b[c], y, x0, n);
                    b[c] = doubled[c];
                } else {
                    b[c] = j.b[c].row(y) + x0;
                }
            }
            const uint8_t* cc = j.coc.row(y) + x0;
            const uint8_t* f = j.fine.row(y) + x0 * C;
            uint8_t* o = j.out.row(y) + x0 * C;
            if constexpr (C == 2) {
                k->mix2(o, f, b[0], b[1], cc, j.threshold, j.shift, n);
            } else {
                k->mix(o, f, b[0], cc, j.threshold, j.shift, n);
            }
        }
    }
    return TL_OK;
}

TLResult mix(DefocusFaceBokeh* self, MixJob* job, int32_t channels, bool doubled) {
    if (job->threshold < 0 || job->threshold > 255 || job->shift < 0 || job->shift > 8) return TL_ERROR_PARAM;
    if (channels == 2) return runStripes(self, doubled ? mixStripe<2, true> : mixStripe<2, false>, job);
    return runStripes(self, doubled ? mixStripe<1, true> : mixStripe<1, false>, job);
}

// b of out's size, or doubling to at least its size.
bool blurredFits(const Image* b, const Image* out, bool doubled) {
    if (!isPlane(b)) return false;
    if (!doubled) return sameSize(b, out);
    return 2 * static_cast<int64_t>(b->width) >= out->width &&
           2 * static_cast<int64_t>(b->height) >= out->height;
}

struct WeightJob {
    Plane dst, coc;
};

VQ_TL_KERNEL_CLONES TLResult weightStripe(void* arg, int32_t index, int32_t count) {
    const WeightJob j = *static_cast<const WeightJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* c = j.coc.row(y);
        uint8_t* d = j.dst.row(y);
        for (int32_t x = 0; x < j.dst.width; ++x) d[x] = static_cast<uint8_t>(c[x] == 0 ? 255 : 256 - c[x]);
    }
    return TL_OK;
}

struct SplitJob {
    Plane first, second, src;
};

VQ_TL_KERNEL_CLONES TLResult splitStripe(void* arg, int32_t index, int32_t count) {
    const SplitJob j = *static_cast<const SplitJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = j.src.row(y);
        uint8_t* a = j.first.row(y);
        uint8_t* b = j.second.row(y);
        for (int32_t x = 0; x < j.src.width; ++x) {
            a[x] = s[2 * x];
            b[x] = s[2 * x + 1];
        }
    }
    return TL_OK;
}

}  // namespace

// ---- Geometry and taps ----------------------------------------------------------

namespace {
int32_t levelSide(int32_t size, int32_t level) {
    int32_t s = size + 1;
    for (int32_t k = 0; k < level; ++k) s = 1 + (s >> 1);
    return s;
}
}  // namespace

int32_t DefocusFaceBokeh_getLumaSize(int32_t size, int32_t level) { return levelSide(size, level) & ~1; }
int32_t DefocusFaceBokeh_getChromaSize(int32_t size, int32_t level) { return levelSide(size, level) >> 1; }

int32_t DefocusFaceBokeh_getLevelCount(int32_t width, int32_t height) {
    // The 7-tap kernel wants a few pixels each side; a level below 32 is
    // more border than picture.
    constexpr int32_t kMinLevelSide = 32;
    const int32_t side = width < height ? width : height;
    int32_t levels = 0;
    while (levels < kDefocusFaceBokehLevels && side > 0 &&
           DefocusFaceBokeh_getLumaSize(side, levels) >= kMinLevelSide)
        ++levels;
    return levels;
}

double DefocusFaceBokeh_getMaxBlurSigma(int32_t levels) {
    // Kept a hair below the level's reach, so that the limit itself still
    // picks the deepest level and not one below it.
    constexpr double kMargin = 1e-6;
    constexpr double kLevelSigma = 1.8;
    if (levels < 1) return -kMargin;
    return static_cast<double>(1 << (levels - 1)) * kLevelSigma - kMargin;
}

bool DefocusFaceBokeh_makeTaps(int32_t* taps, int32_t radius, double sigma, int32_t scale) {
    if (taps == nullptr || radius < 1 || radius > kMaxRadius) return false;
    const int32_t n = 2 * radius + 1;
    if (!(sigma > 0.0)) {
        for (int32_t k = 0; k < n; ++k) taps[k] = k == radius ? scale : 0;
        return false;
    }
    float e[kMaxTaps];
    const double twoVar = 2.0 * sigma * sigma;
    for (int32_t k = 0; k < n; ++k) {
        const int32_t i = k - radius;
        e[k] = static_cast<float>(RawDouble_exp(-static_cast<double>(i * i) / twoVar));
    }
    float sum = 0.0f;
    for (int32_t k = 0; k < n; ++k) sum += e[k];
    int32_t side = 0;
    for (int32_t k = 0; k < n; ++k) {
        if (k == radius) continue;
        taps[k] = static_cast<int32_t>(e[k] / sum * static_cast<float>(scale));
        side += taps[k];
    }
    taps[radius] = scale - side;
    return side % scale != 0;
}

// ---- Kernels ----------------------------------------------------------------------

TLResult DefocusFaceBokehUtil_shrinkImageU8(DefocusFaceBokeh* self, Image* dst, const Image* src) {
    if (!isPlane(dst) || !isPlane(src)) return TL_ERROR_PARAM;
    return shrink(self, planeOf(dst), planeOf(src), 1, 0);
}

TLResult DefocusFaceBokehUtil_weightOfCoc(DefocusFaceBokeh* self, Image* dst, const Image* coc) {
    if (!isPlane(dst) || !isPlane(coc) || !covers(dst, coc)) return TL_ERROR_PARAM;
    WeightJob job{planeOf(dst), planeOf(coc)};
    return runStripes(self, weightStripe, &job);
}

TLResult DefocusFaceBokehUtil_shrinkInterleavedU8(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                                  int32_t channel) {
    if (!isPlane(dst) || !hasPixels(src, IMAGE_FORMAT_UINT88) || (channel != 0 && channel != 1))
        return TL_ERROR_PARAM;
    return shrink(self, planeOf(dst), planeOf(src), 2, channel);
}

TLResult DefocusFaceBokehUtil_shrinkWeightedU8(DefocusFaceBokeh* self, Image* dst, Image* dstWeight,
                                               const Image* src, const Image* srcWeight) {
    if (!isPlane(dst) || !isPlane(src) || !isPlane(srcWeight) || !covers(src, srcWeight))
        return TL_ERROR_PARAM;
    if (dstWeight != nullptr && (!isPlane(dstWeight) || !covers(dst, dstWeight))) return TL_ERROR_PARAM;
    WeightedShrinkJob job{planeOf(dst), dstWeight != nullptr ? planeOf(dstWeight) : Plane{}, planeOf(src),
                          planeOf(srcWeight)};
    return runStripes(self, dstWeight != nullptr ? weightedShrinkStripe<true> : weightedShrinkStripe<false>,
                      &job);
}

TLResult DefocusFaceBokehUtil_enlargeImageTwofoldU8(DefocusFaceBokeh* self, Image* dst, const Image* src) {
    if (!isPlane(dst) || !blurredFits(src, dst, true)) return TL_ERROR_PARAM;
    EnlargeJob job{planeOf(dst), planeOf(src)};
    return runStripes(self, enlargeStripe, &job);
}

TLResult DefocusFaceBokehUtil_blurWeightedU8(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                             const Image* weight, Image* midValue, Image* midWeight,
                                             const int32_t* taps, int32_t radius, int32_t shift) {
    if (!isPlane(dst) || !isPlane(src) || !isPlane(weight) || !isPlane(midValue) || !isPlane(midWeight) ||
        taps == nullptr || !sameSize(dst, src) || !covers(src, weight) || !covers(src, midValue) ||
        !covers(src, midWeight) || (radius != 1 && radius != 3) || (shift != 8 && shift != 16))
        return TL_ERROR_PARAM;
    WeightedBlurJob job{planeOf(dst),      planeOf(src),       planeOf(weight),
                        planeOf(midValue), planeOf(midWeight), {}};
    for (int32_t k = 0; k <= 2 * radius; ++k) {
        if (taps[k] < 0) return TL_ERROR_PARAM;
        job.taps[k] = taps[k];
    }
    const bool wide = radius == 3;
    TLResult r = runStripes(self,
                            wide ? (shift == 16 ? weightedRowStripe<3, 16> : weightedRowStripe<3, 8>)
                                 : (shift == 16 ? weightedRowStripe<1, 16> : weightedRowStripe<1, 8>),
                            &job);
    if (r == TL_OK) r = runStripes(self, wide ? weightedColumnStripe<3> : weightedColumnStripe<1>, &job);
    return r;
}

TLResult DefocusFaceBokehUtil_blurU8(DefocusFaceBokeh* self, Image* dst, const Image* src, Image* mid,
                                     const int32_t* taps, int32_t radius) {
    if (!isPlane(dst) || !isPlane(src) || !isPlane(mid) || taps == nullptr || !sameSize(dst, src) ||
        !covers(src, mid) || (radius != 1 && radius != 3))
        return TL_ERROR_PARAM;
    PlainBlurJob job{planeOf(dst), planeOf(src), planeOf(mid), {}};
    for (int32_t k = 0; k <= 2 * radius; ++k) {
        if (taps[k] < 0) return TL_ERROR_PARAM;
        job.taps[k] = taps[k];
    }
    const bool wide = radius == 3;
    TLResult r = runStripes(self, wide ? plainRowStripe<3> : plainRowStripe<1>, &job);
    if (r == TL_OK) r = runStripes(self, wide ? plainColumnStripe<3> : plainColumnStripe<1>, &job);
    return r;
}

namespace {

// One plane mixed with a blurred plane of its size or, doubled, of half its size.
TLResult mixOnePlane(DefocusFaceBokeh* self, Image* out, const Image* fine, const Image* blurred,
                     const Image* coc, int32_t threshold, int32_t shift, bool doubled) {
    if (!isPlane(out) || !isPlane(fine) || !isPlane(coc) || !sameSize(out, fine) || !covers(out, coc) ||
        !blurredFits(blurred, out, doubled))
        return TL_ERROR_PARAM;
    MixJob job{planeOf(out), planeOf(fine), planeOf(coc), {planeOf(blurred), Plane{}}, threshold, shift};
    return mix(self, &job, 1, doubled);
}

}  // namespace

TLResult DefocusFaceBokeh_blendLevel(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                     const Image* coarse, const Image* coc, int32_t threshold,
                                     int32_t shift) {
    return mixOnePlane(self, out, fine, coarse, coc, threshold, shift, true);
}

TLResult DefocusFaceBokehUtil_mixPlane(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                       const Image* blurred, const Image* coc, int32_t threshold,
                                       int32_t shift) {
    return mixOnePlane(self, out, fine, blurred, coc, threshold, shift, false);
}

TLResult DefocusFaceBokehUtil_mixInterleaved(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                             const Image* first, const Image* second, bool doubled,
                                             const Image* coc, int32_t threshold, int32_t shift) {
    if (!hasPixels(out, IMAGE_FORMAT_UINT88) || !hasPixels(fine, IMAGE_FORMAT_UINT88) || !isPlane(coc) ||
        !sameSize(out, fine) || !covers(out, coc) || !blurredFits(first, out, doubled) ||
        !blurredFits(second, out, doubled))
        return TL_ERROR_PARAM;
    MixJob job{planeOf(out), planeOf(fine), planeOf(coc), {planeOf(first), planeOf(second)},
               threshold,    shift};
    return mix(self, &job, 2, doubled);
}

TLResult DefocusFaceBokehUtil_splitInterleaved(DefocusFaceBokeh* self, Image* first, Image* second,
                                               const Image* src) {
    if (!hasPixels(src, IMAGE_FORMAT_UINT88) || !isPlane(first) || !isPlane(second) ||
        !sameSize(first, src) || !sameSize(second, src))
        return TL_ERROR_PARAM;
    SplitJob job{planeOf(first), planeOf(second), planeOf(src)};
    return runStripes(self, splitStripe, &job);
}

}  // namespace vq_tl
