#include "stereo/sgm_cost_aggregator.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "stereo/sgm_aggregation.h"

namespace vq_tl {

namespace {

constexpr int8_t kDx[kSgmMaxPaths] = {-1, +1, 0, 0, -1, +1, +1, -1};
constexpr int8_t kDy[kSgmMaxPaths] = {0, 0, -1, +1, -1, +1, -1, +1};
// The directions of each pass of the 2-way and serial shapes, in order; the
// first runs along the rows.
constexpr int32_t kForward[4] = {0, 2, 4, 6};
constexpr int32_t kBackward[4] = {1, 3, 5, 7};

constexpr int32_t kBands = 4;  // row bands of the preparing and summing kernels
constexpr uint8_t kSeparator = 255;

enum GuideKind : int32_t { GUIDE_NONE = 0, GUIDE_U8 = 1, GUIDE_U88 = 2 };

enum Shape : int32_t { SHAPE_PARALLEL, SHAPE_TWO_WAY, SHAPE_SERIAL };

// Everything a pass needs, checked once.
struct AggInputs {
    const uint8_t* cost;
    int32_t costPitch;
    const uint8_t* guide;  // the bordered guide; null without one
    int32_t guidePitch;
    int32_t guideKind;
    const uint8_t* penalty;  // the penalty image; null: the constant largePenalty
    int32_t penaltyPitch;
    uint8_t* rowPenalty;  // with a guide
    int32_t rowPenaltyPitch;
    uint8_t* path;
    int32_t pathPitch;
    int32_t width, height, numDisparities, numPaths;
    uint8_t smallPenalty, largePenalty;
};

// P2 of pixels x0 to x1 - 1 of row y in direction dir (into out from out[0]),
// from the guide step between the pixel and its previous one. The guide has
// a border of 1, so the previous pixel of a path's first pixel is read from
// the border.
template <int kChannels>
void fillPenaltyRow(const AggInputs& in, int32_t dir, int32_t y, int32_t x0, int32_t x1, uint8_t* out) {
    const int32_t dx = kDx[dir], dy = kDy[dir];
    AggregationPenalty row;
    row.out = out;
    row.guide = in.guide + static_cast<intptr_t>(in.guidePitch) * (y + 1) + (x0 + 1) * kChannels;
    row.guidePrev =
        in.guide + static_cast<intptr_t>(in.guidePitch) * (y + 1 + dy) + (x0 + 1 + dx) * kChannels;
    if (in.penalty != nullptr) {
        row.p2 = in.penalty + static_cast<intptr_t>(in.penaltyPitch) * y + x0;
        row.p2Step = 1;
    } else {
        row.p2 = &in.largePenalty;
        row.p2Step = 0;
    }
    row.lower = in.smallPenalty + 1;
    row.width = x1 - x0;
    const AggregationKernels* kernels = AggregationKernels_get();
    (kChannels == 1 ? kernels->penaltyU8 : kernels->penaltyU88)(&row);
}

using PenaltyRowFn = void (*)(const AggInputs&, int32_t, int32_t, int32_t, int32_t, uint8_t*);

PenaltyRowFn penaltyRowFn(const AggInputs& in) {
    if (in.guideKind == GUIDE_U8) return fillPenaltyRow<1>;
    if (in.guideKind == GUIDE_U88) return fillPenaltyRow<2>;
    return nullptr;
}

// Where a row's P2 values are: the row penalty segment with a guide, the
// penalty image's row, or the one constant (step 0).
struct PenaltyRow {
    const uint8_t* p;
    int32_t step;
};

PenaltyRow penaltyRow(const AggInputs& in, PenaltyRowFn fill, int32_t dir, int32_t y, uint8_t* segment) {
    if (fill != nullptr) {
        fill(in, dir, y, 0, in.width, segment);
        return PenaltyRow{segment, 1};
    }
    if (in.penalty != nullptr) return PenaltyRow{in.penalty + static_cast<intptr_t>(in.penaltyPitch) * y, 1};
    return PenaltyRow{&in.largePenalty, 0};
}

// Pixels per run of chainRows: the guided penalties of up to four runs sit
// on the stack.
constexpr int32_t kChainRun = 512;

// Chain rows (directions with dy = 0) of rows ys[0] to ys[count - 1] (count
// 1 to 4, or 8 with the table's chainRows8), side by side: each pixel of a
// chain row waits for the one before, and independent rows hide that wait. rows[i] describe the whole rows;
// they are cut into runs from the start of the path, each run taking its
// previous pixel from the run before, so the bytes are those of one call per
// row.
void chainRows(const AggInputs& in, const AggregationKernels* kernels, PenaltyRowFn fill, int32_t dir,
               const AggregationRow* rows, const int32_t* ys, int32_t count) {
    const int32_t W = in.width, D = in.numDisparities, S = D + 1;
    uint8_t penalties[8][kChainRun];
    const bool forward = kDx[dir] < 0;
    for (int32_t done = 0; done < W; done += kChainRun) {
        const int32_t len = W - done < kChainRun ? W - done : kChainRun;
        const int32_t x0 = forward ? done : W - done - len;
        AggregationRow run[8];
        for (int32_t i = 0; i < count; ++i) {
            run[i] = rows[i];
            run[i].out += static_cast<intptr_t>(x0) * S;
            run[i].cost += static_cast<intptr_t>(x0) * D;
            if (run[i].sum != nullptr) run[i].sum += static_cast<intptr_t>(x0) * (D + 2);
            run[i].width = len;
            if (fill != nullptr) {
                fill(in, dir, ys[i], x0, x0 + len, penalties[i]);
                run[i].p2 = penalties[i];
                run[i].p2Step = 1;
            } else if (in.penalty != nullptr) {
                run[i].p2 = in.penalty + static_cast<intptr_t>(in.penaltyPitch) * ys[i] + x0;
                run[i].p2Step = 1;
            } else {
                run[i].p2 = &in.largePenalty;
                run[i].p2Step = 0;
            }
        }
        int32_t i = 0;
        if (count == 8) {
            kernels->chainRows8(run);
            i = 8;
        }
        for (; i + 4 <= count; i += 4) kernels->chainRows4(&run[i]);
        if (i + 2 <= count) {
            kernels->chainRows2(&run[i], &run[i + 1]);
            i += 2;
        }
        if (i < count) kernels->chainRow(&run[i]);
    }
}

// --- Parallel shape: one task per direction over its own plane -------------

TLResult directionTask(void* arg, int32_t dir, int32_t count) {
    (void)count;
    const AggInputs& in = *static_cast<const AggInputs*>(arg);
    const int32_t W = in.width, H = in.height, D = in.numDisparities, S = D + 1;
    const int32_t dx = kDx[dir], dy = kDy[dir];
    const bool forward = (dir & 1) == 0;
    const PenaltyRowFn fill = penaltyRowFn(in);
    uint8_t* segment =
        in.rowPenalty != nullptr ? in.rowPenalty + static_cast<intptr_t>(in.rowPenaltyPitch) * dir : nullptr;
    const intptr_t planeRow = static_cast<intptr_t>(H + 1) * dir;
    const AggregationKernels* kernels = AggregationKernels_get();
    AggregationRow row{};
    row.width = W;
    row.numDisparities = D;
    row.dx = dx;
    row.smallPenalty = in.smallPenalty;
    row.sumMode = AGG_SUM_NONE;
    if (dy == 0) {
        // Rows along the path are independent of each other: eight at a
        // time where the table has an eight-row form, else four.
        const int32_t group = kernels->chainRows8 != nullptr ? 8 : 4;
        for (int32_t n = 0; n < H; n += group) {
            AggregationRow rows[8] = {row, row, row, row, row, row, row, row};
            int32_t ys[8];
            const int32_t count = H - n < group ? H - n : group;
            for (int32_t i = 0; i < count; ++i) {
                ys[i] = forward ? n + i : H - 1 - n - i;
                rows[i].out = in.path + in.pathPitch * (planeRow + ys[i] + 1) + S + 1;
                rows[i].cost = in.cost + static_cast<intptr_t>(in.costPitch) * ys[i];
            }
            chainRows(in, kernels, fill, dir, rows, ys, count);
        }
        return TL_OK;
    }
    // The other directions take the previous row, whose pixels are
    // independent of each other.
    for (int32_t n = 0; n < H; ++n) {
        const int32_t y = forward ? n : H - 1 - n;
        const PenaltyRow p2 = penaltyRow(in, fill, dir, y, segment);
        row.out = in.path + in.pathPitch * (planeRow + y + 1) + S + 1;
        row.prev = in.path + in.pathPitch * (planeRow + y + dy + 1) + (dx + 1) * S + 1;
        row.cost = in.cost + static_cast<intptr_t>(in.costPitch) * y;
        row.p2 = p2.p;
        row.p2Step = p2.step;
        kernels->crossRow(&row);
    }
    return TL_OK;
}

// --- 2-way and serial shapes: passes over rings of two rows ----------------

struct Pass {
    const AggInputs* in;
    uint16_t* aggregated;
    int32_t aggregatedPitch;  // in bytes
    const int32_t* dirs;
    int32_t count;
    bool set;                 // the first direction sets the entries, the others add
    bool segmentByDirection;  // row penalty segment: direction index (2-way) or place in the pass
};

void runPass(const Pass& pass) {
    const AggInputs& in = *pass.in;
    const int32_t W = in.width, H = in.height, D = in.numDisparities, S = D + 1;
    const bool forward = (pass.dirs[0] & 1) == 0;
    const PenaltyRowFn fill = penaltyRowFn(in);
    const AggregationKernels* kernels = AggregationKernels_get();
    AggregationRow row{};
    row.width = W;
    row.numDisparities = D;
    row.smallPenalty = in.smallPenalty;
    // Direction d keeps rows 2d and 2d + 1; row y goes to 2d + (y & 1).
    auto ringRow = [&](int32_t d, int32_t y) {
        return in.path + static_cast<intptr_t>(in.pathPitch) * (2 * d + (y & 1));
    };
    auto sumRow = [&](int32_t y) {
        return reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(pass.aggregated) +
                                           static_cast<intptr_t>(pass.aggregatedPitch) * y) +
               1;
    };
    // The directions of a pass touch disjoint rows, so each may do its whole
    // row before the next, and the first (along the rows, dy = 0) two rows at
    // a time; the sums and the pads of a pixel come out as when the
    // directions alternate pixel by pixel.
    for (int32_t n = 0; n < H; n += 2) {
        const int32_t count = n + 1 < H ? 2 : 1;
        int32_t ys[2];
        AggregationRow rows[2];
        const int32_t d0 = pass.dirs[0];
        for (int32_t i = 0; i < count; ++i) {
            ys[i] = forward ? n + i : H - 1 - n - i;
            rows[i] = row;
            rows[i].out = ringRow(d0, ys[i]) + S + 1;
            rows[i].cost = in.cost + static_cast<intptr_t>(in.costPitch) * ys[i];
            rows[i].sum = sumRow(ys[i]);
            rows[i].dx = kDx[d0];
            rows[i].sumMode = pass.set ? AGG_SUM_SET : AGG_SUM_ADD;
            rows[i].pads = pass.count == 1 ? 1 : 0;
        }
        chainRows(in, kernels, fill, d0, rows, ys, count);
        for (int32_t i = 0; i < count; ++i) {
            const int32_t y = ys[i];
            row.cost = rows[i].cost;
            row.sum = rows[i].sum;
            for (int32_t j = 1; j < pass.count; ++j) {
                const int32_t d = pass.dirs[j];
                uint8_t* segment =
                    in.rowPenalty != nullptr
                        ? in.rowPenalty + static_cast<intptr_t>(W) * (pass.segmentByDirection ? d : j)
                        : nullptr;
                const PenaltyRow p2 = penaltyRow(in, fill, d, y, segment);
                row.p2 = p2.p;
                row.p2Step = p2.step;
                row.out = ringRow(d, y) + S + 1;
                row.prev = ringRow(d, y + kDy[d]) + (kDx[d] + 1) * S + 1;
                row.dx = kDx[d];
                row.sumMode = AGG_SUM_ADD;
                row.pads = j == pass.count - 1 ? 1 : 0;
                kernels->crossRow(&row);
            }
        }
    }
}

struct TwoWayTask {
    Pass passes[2];
    int32_t passCount;
    int32_t ran;
};

uint32_t twoWayTask(void* arg, PelWorkInfo* info) {
    (void)info;
    TwoWayTask* t = static_cast<TwoWayTask*>(arg);
    for (int32_t i = 0; i < t->passCount; ++i) runPass(t->passes[i]);
    t->ran = 1;
    return TL_OK;
}

constexpr PelKernel kTwoWayKernel = PelKernel_task<twoWayTask>();

// --- Checks ------------------------------------------------------------------

struct Request {
    Shape shape;
    Image* pathCosts;
    const Image* costVolume;
    const Image* guide;
    Image* rowPenalty;
    const Image* penaltyImage;  // variable forms only
    bool variable;
    Image* aggregated;    // 2-way and serial
    Image* secondVolume;  // 2-way with 8 paths
    int32_t numDisparities;
    int32_t numPaths;
    uint8_t smallPenalty, largePenalty;
};

bool isImage(const Image* i, uint32_t format) {
    return i != nullptr && i->format == format && i->plane[0] != nullptr;
}

// TL_OK with *skip set: a guide without a kernel, nothing to do.
TLResult check(const SgmCostAggregator* agg, const Request& r, AggInputs* in, bool* skip) {
    *skip = false;
    if (agg == nullptr) return TL_ERROR_PARAM;
    if (agg->width == 0 || agg->height == 0) return TL_ERROR_STATE;
    if (r.numPaths == 16)
        return r.shape == SHAPE_SERIAL && r.guide != nullptr ? TL_ERROR_UNSUPPORTED : TL_ERROR_PARAM;
    if (r.numPaths != 4 && r.numPaths != 8) return TL_ERROR_PARAM;
    const int32_t D = r.numDisparities;
    if (D == 0 || (D & 7) != 0) return TL_ERROR_PARAM;
    const int64_t W = agg->width, H = agg->height;
    if (W * (D + 2) * 2 > INT32_MAX) return TL_ERROR_PARAM;
    if (!isImage(r.costVolume, IMAGE_FORMAT_UINT8) || r.costVolume->width != W * D ||
        r.costVolume->height != H)
        return TL_ERROR_PARAM;
    if ((r.guide == nullptr) != (r.rowPenalty == nullptr)) return TL_ERROR_PARAM;
    if (r.variable && (!isImage(r.penaltyImage, IMAGE_FORMAT_UINT8) || r.penaltyImage->width != W ||
                       r.penaltyImage->height != H))
        return TL_ERROR_PARAM;
    const int64_t pathRows = r.shape == SHAPE_PARALLEL ? r.numPaths * (H + 1) + 1 : 2 * r.numPaths;
    if (!isImage(r.pathCosts, IMAGE_FORMAT_UINT8) ||
        r.pathCosts->width != SgmCostAggregator_getPathCostsWidth(static_cast<int32_t>(W), D) ||
        r.pathCosts->height < pathRows)
        return TL_ERROR_PARAM;
    if (r.shape != SHAPE_PARALLEL) {
        if (r.aggregated == nullptr) return TL_ERROR_PARAM;
        if (r.aggregated->format != IMAGE_FORMAT_UINT16) return TL_ERROR_UNSUPPORTED;
        if (r.aggregated->plane[0] == nullptr || r.aggregated->width != W * (D + 2) ||
            r.aggregated->height != H)
            return TL_ERROR_PARAM;
        if (r.shape == SHAPE_TWO_WAY && r.numPaths == 8) {
            if (r.secondVolume == nullptr) return TL_ERROR_PARAM;
            if (r.secondVolume->format != IMAGE_FORMAT_UINT16) return TL_ERROR_UNSUPPORTED;
            if (r.secondVolume->plane[0] == nullptr || r.secondVolume->width != r.aggregated->width ||
                r.secondVolume->height != H)
                return TL_ERROR_PARAM;
        }
    }
    int32_t guideKind = GUIDE_NONE;
    if (r.guide != nullptr) {
        if (r.guide->format == IMAGE_FORMAT_UINT8) {
            guideKind = GUIDE_U8;
        } else if (r.guide->format == IMAGE_FORMAT_UINT88) {
            guideKind = GUIDE_U88;
        } else {
            *skip = true;
            return TL_OK;
        }
        if (r.guide->plane[0] == nullptr || r.guide->width != W + 2 || r.guide->height != H + 2)
            return TL_ERROR_PARAM;
        const int64_t segments = r.shape == SHAPE_PARALLEL ? 1 : (r.shape == SHAPE_TWO_WAY ? r.numPaths : 4);
        const int64_t rows = r.shape == SHAPE_PARALLEL ? r.numPaths : 1;
        if (!isImage(r.rowPenalty, IMAGE_FORMAT_UINT8) || r.rowPenalty->width < W * segments ||
            r.rowPenalty->height < rows)
            return TL_ERROR_PARAM;
    }
    std::memset(in, 0, sizeof *in);
    in->cost = r.costVolume->plane[0];
    in->costPitch = r.costVolume->pitch[0];
    in->guideKind = guideKind;
    if (guideKind != GUIDE_NONE) {
        in->guide = r.guide->plane[0];
        in->guidePitch = r.guide->pitch[0];
        in->rowPenalty = r.rowPenalty->plane[0];
        in->rowPenaltyPitch = r.rowPenalty->pitch[0];
    }
    if (r.variable) {
        in->penalty = r.penaltyImage->plane[0];
        in->penaltyPitch = r.penaltyImage->pitch[0];
    }
    in->path = r.pathCosts->plane[0];
    in->pathPitch = r.pathCosts->pitch[0];
    in->width = static_cast<int32_t>(W);
    in->height = static_cast<int32_t>(H);
    in->numDisparities = D;
    in->numPaths = r.numPaths;
    in->smallPenalty = r.smallPenalty;
    in->largePenalty = r.largePenalty;
    return TL_OK;
}

TLResult aggregateParallel(SgmCostAggregator* agg, const Request& r) {
    AggInputs in;
    bool skip;
    const TLResult c = check(agg, r, &in, &skip);
    if (c != TL_OK || skip) return c;
    const ImageStripeExec exec{agg->pel, nullptr};
    return ImageStripeExec_run(&exec, directionTask, &in, r.numPaths);
}

Pass makePass(const AggInputs* in, Image* volume, bool forward, int32_t count, bool set, bool byDirection) {
    Pass p;
    p.in = in;
    p.aggregated = reinterpret_cast<uint16_t*>(volume->plane[0]);
    p.aggregatedPitch = volume->pitch[0];
    p.dirs = forward ? kForward : kBackward;
    p.count = count;
    p.set = set;
    p.segmentByDirection = byDirection;
    return p;
}

TLResult aggregateSerial(SgmCostAggregator* agg, const Request& r) {
    AggInputs in;
    bool skip;
    const TLResult c = check(agg, r, &in, &skip);
    if (c != TL_OK || skip) return c;
    const int32_t half = r.numPaths / 2;
    runPass(makePass(&in, r.aggregated, true, half, true, false));
    runPass(makePass(&in, r.aggregated, false, half, false, false));
    return TL_OK;
}

}  // namespace

int32_t SgmCostAggregator_getBufferSize() { return 0; }

TLResult construct_SgmCostAggregator(SgmCostAggregator* aggregator, Env* env) {
    if (aggregator == nullptr) return TL_ERROR_PARAM;
    *aggregator = SgmCostAggregator{};
    aggregator->env = env;
    return TL_OK;
}

TLResult destruct_SgmCostAggregator(SgmCostAggregator* aggregator) {
    if (aggregator == nullptr) return TL_ERROR_PARAM;
    *aggregator = SgmCostAggregator{};
    return TL_OK;
}

TLResult SgmCostAggregator_recycle(SgmCostAggregator* aggregator) {
    return aggregator == nullptr ? TL_ERROR_PARAM : TL_OK;
}

TLResult SgmCostAggregator_init(SgmCostAggregator* aggregator, uint32_t width, uint32_t height) {
    if (aggregator == nullptr || width < 1 || height < 1 || width > INT32_MAX / 2 || height > INT32_MAX / 2)
        return TL_ERROR_PARAM;
    aggregator->width = width;
    aggregator->height = height;
    return TL_OK;
}

TLResult SgmCostAggregator_setPel(SgmCostAggregator* aggregator, Pel* pel) {
    if (aggregator == nullptr) return TL_ERROR_PARAM;
    aggregator->pel = pel;
    return TL_OK;
}

int32_t SgmCostAggregator_getPathCostsWidth(int32_t width, int32_t numDisparities) {
    if (width < 1 || numDisparities < 1) return -1;
    const int64_t w = (int64_t{width} + 2) * (numDisparities + 1) + 1;
    return w > INT32_MAX ? -1 : static_cast<int32_t>(w);
}

namespace {

struct PrepareJob {
    uint8_t* rows;
    int32_t pitch, width, height, step;
};

TLResult prepareStripe(void* arg, int32_t index, int32_t count) {
    const PrepareJob& j = *static_cast<const PrepareJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* row = j.rows + static_cast<intptr_t>(j.pitch) * y;
        std::memset(row, 0, static_cast<size_t>(j.width));
        for (int32_t b = 0; b < j.width; b += j.step) row[b] = kSeparator;
    }
    return TL_OK;
}

TLResult sumStripe(void* arg, int32_t index, int32_t count) {
    const SgmPathSum* sum = static_cast<const SgmPathSum*>(arg);
    int32_t first, last;
    ImageStripe_rows(sum->height, index, count, &first, &last);
    SgmCostAggregator_sumPathRows(sum, first, last);
    return TL_OK;
}

}  // namespace

TLResult SgmCostAggregator_preparePathCosts(Pel* pel, Image* pathCosts, int32_t numDisparities) {
    if (!isImage(pathCosts, IMAGE_FORMAT_UINT8) || numDisparities < 1) return TL_ERROR_PARAM;
    const int32_t step = numDisparities + 1;
    if (pathCosts->width < 2 * step + 1 || (pathCosts->width - 1) % step != 0) return TL_ERROR_PARAM;
    PrepareJob job{pathCosts->plane[0], pathCosts->pitch[0], pathCosts->width, pathCosts->height, step};
    const ImageStripeExec exec{pel, nullptr};
    return ImageStripeExec_run(&exec, prepareStripe, &job, kBands);
}

TLResult SgmCostAggregator_aggregateParallel(SgmCostAggregator* aggregator, Image* pathCosts,
                                             const Image* costVolume, const Image* guide, Image* rowPenalty,
                                             uint8_t numDisparities, uint8_t smallPenalty,
                                             uint8_t largePenalty, uint8_t numPaths) {
    Request r{};
    r.shape = SHAPE_PARALLEL;
    r.pathCosts = pathCosts;
    r.costVolume = costVolume;
    r.guide = guide;
    r.rowPenalty = rowPenalty;
    r.numDisparities = numDisparities;
    r.numPaths = numPaths;
    r.smallPenalty = smallPenalty;
    r.largePenalty = largePenalty;
    return aggregateParallel(aggregator, r);
}

TLResult SgmCostAggregator_aggregateParallelVariablePenalty(SgmCostAggregator* aggregator, Image* pathCosts,
                                                            const Image* costVolume, const Image* guide,
                                                            uint8_t smallPenalty, const Image* penaltyImage,
                                                            Image* rowPenalty, uint8_t numDisparities,
                                                            uint8_t numPaths) {
    Request r{};
    r.shape = SHAPE_PARALLEL;
    r.pathCosts = pathCosts;
    r.costVolume = costVolume;
    r.guide = guide;
    r.rowPenalty = rowPenalty;
    r.penaltyImage = penaltyImage;
    r.variable = true;
    r.numDisparities = numDisparities;
    r.numPaths = numPaths;
    r.smallPenalty = smallPenalty;
    return aggregateParallel(aggregator, r);
}

TLResult SgmCostAggregator_aggregate2wayParallel(SgmCostAggregator* aggregator, Image* aggregated,
                                                 Image* secondVolume, const Image* costVolume,
                                                 const Image* guide, Image* pathCosts, Image* rowPenalty,
                                                 uint8_t numDisparities, uint8_t smallPenalty,
                                                 uint8_t largePenalty, uint8_t numPaths) {
    Request r{};
    r.shape = SHAPE_TWO_WAY;
    r.pathCosts = pathCosts;
    r.costVolume = costVolume;
    r.guide = guide;
    r.rowPenalty = rowPenalty;
    r.aggregated = aggregated;
    r.secondVolume = secondVolume;
    r.numDisparities = numDisparities;
    r.numPaths = numPaths;
    r.smallPenalty = smallPenalty;
    r.largePenalty = largePenalty;
    AggInputs in;
    bool skip;
    const TLResult c = check(aggregator, r, &in, &skip);
    if (c != TL_OK || skip) return c;

    const int32_t half = numPaths / 2;
    TwoWayTask tasks[2];
    std::memset(tasks, 0, sizeof tasks);
    int32_t taskCount;
    if (numPaths == 4) {
        // One task does both halves into the one volume.
        tasks[0].passes[0] = makePass(&in, aggregated, true, half, true, true);
        tasks[0].passes[1] = makePass(&in, aggregated, false, half, false, true);
        tasks[0].passCount = 2;
        taskCount = 1;
    } else {
        tasks[0].passes[0] = makePass(&in, aggregated, true, half, true, true);
        tasks[1].passes[0] = makePass(&in, secondVolume, false, half, true, true);
        tasks[0].passCount = tasks[1].passCount = 1;
        taskCount = 2;
    }
    Pel* pel = aggregator->pel;
    uint32_t events[2] = {0, 0};
    TLResult result = TL_OK;
    int32_t enqueued = 0;
    for (int32_t i = 0; i < taskCount; ++i) {
        result = Pel_enqueueTask(pel, &kTwoWayKernel, &tasks[i], 0, nullptr, &events[i]);
        if (result != TL_OK) break;
        ++enqueued;
    }
    // Events of tasks that went to the pool; a null Pel ran them at once.
    uint32_t pending[2];
    int32_t pendingCount = 0;
    for (int32_t i = 0; i < enqueued; ++i) {
        if (events[i] != 0) pending[pendingCount++] = events[i];
    }
    if (pendingCount > 0) {
        // `tasks` lives in this frame and the volumes are the caller's: a wait
        // that runs out waits on for the tasks to end, then tells the lateness.
        const TLResult w = Pel_waitForEventsToEnd(pel, pendingCount, pending);
        // After another failed wait a task may still run on `tasks`: the
        // references stay held so that its slot is not reused under it.
        if (w != TL_OK && w != TL_ERROR_TIMEOUT) return w;
        for (int32_t i = 0; i < pendingCount; ++i) {
            uint32_t error = 0;
            if (Pel_getEventInfo(pel, pending[i], 0, &error) == TL_OK) result |= error;
            result |= Pel_releaseEvent(pel, pending[i]);
        }
        result |= w;
    }
    if (result != TL_OK) return result;
    // A Pel that is not running takes no task: the work is done here.
    for (int32_t i = 0; i < taskCount; ++i) {
        if (tasks[i].ran == 0) twoWayTask(&tasks[i], nullptr);
    }
    return TL_OK;
}

TLResult SgmCostAggregator_aggregateSerial(SgmCostAggregator* aggregator, Image* aggregated,
                                           const Image* costVolume, const Image* guide, Image* pathCosts,
                                           Image* rowPenalty, uint8_t numDisparities, uint8_t smallPenalty,
                                           uint8_t largePenalty, uint8_t numPaths) {
    Request r{};
    r.shape = SHAPE_SERIAL;
    r.pathCosts = pathCosts;
    r.costVolume = costVolume;
    r.guide = guide;
    r.rowPenalty = rowPenalty;
    r.aggregated = aggregated;
    r.numDisparities = numDisparities;
    r.numPaths = numPaths;
    r.smallPenalty = smallPenalty;
    r.largePenalty = largePenalty;
    return aggregateSerial(aggregator, r);
}

TLResult SgmCostAggregator_aggregateSerialVariablePenalty(SgmCostAggregator* aggregator, Image* aggregated,
                                                          const Image* costVolume, const Image* guide,
                                                          Image* pathCosts, uint8_t smallPenalty,
                                                          const Image* penaltyImage, Image* rowPenalty,
                                                          uint8_t numDisparities, uint8_t numPaths) {
    Request r{};
    r.shape = SHAPE_SERIAL;
    r.pathCosts = pathCosts;
    r.costVolume = costVolume;
    r.guide = guide;
    r.rowPenalty = rowPenalty;
    r.penaltyImage = penaltyImage;
    r.variable = true;
    r.aggregated = aggregated;
    r.numDisparities = numDisparities;
    r.numPaths = numPaths;
    r.smallPenalty = smallPenalty;
    return aggregateSerial(aggregator, r);
}

TLResult SgmCostAggregator_initPathSum(const SgmCostAggregator* aggregator, SgmPathSum* sum,
                                       Image* aggregated, const Image* pathCosts, uint8_t numDisparities,
                                       uint8_t numPaths) {
    if (aggregator == nullptr || sum == nullptr) return TL_ERROR_PARAM;
    if (aggregator->width == 0) return TL_ERROR_STATE;
    const int32_t D = numDisparities;
    if (D == 0 || (D & 7) != 0 || (numPaths != 4 && numPaths != 8)) return TL_ERROR_PARAM;
    const int64_t W = aggregator->width, H = aggregator->height;
    if (aggregated == nullptr || aggregated->plane[0] == nullptr || aggregated->width != W * (D + 2) ||
        aggregated->height != H)
        return TL_ERROR_PARAM;
    if (!isImage(pathCosts, IMAGE_FORMAT_UINT8) ||
        pathCosts->width != SgmCostAggregator_getPathCostsWidth(static_cast<int32_t>(W), D) ||
        pathCosts->height < numPaths * (H + 1) + 1)
        return TL_ERROR_PARAM;
    const AggregationKernels* kernels = AggregationKernels_get();
    if (aggregated->format == IMAGE_FORMAT_UINT8) {
        sum->fn = kernels->sumU8;
    } else if (aggregated->format == IMAGE_FORMAT_UINT16) {
        sum->fn = kernels->sumU16;
    } else {
        return TL_ERROR_UNSUPPORTED;
    }
    sum->out = aggregated->plane[0];
    sum->outPitch = aggregated->pitch[0];
    sum->path = pathCosts->plane[0];
    sum->pathPitch = pathCosts->pitch[0];
    sum->width = static_cast<int32_t>(W);
    sum->height = static_cast<int32_t>(H);
    sum->numDisparities = D;
    sum->numPaths = numPaths;
    return TL_OK;
}

void SgmCostAggregator_sumPathRow(const SgmPathSum* sum, int32_t y, void* out) {
    const int32_t S = sum->numDisparities + 1;
    AggregationPlaneSum row{};
    row.numPlanes = sum->numPaths;
    row.width = sum->width;
    row.numDisparities = sum->numDisparities;
    for (int32_t i = 0; i < sum->numPaths; ++i)
        row.planes[i] =
            sum->path +
            static_cast<intptr_t>(sum->pathPitch) * (static_cast<intptr_t>(sum->height + 1) * i + y + 1) + S +
            1;
    row.out = out;
    sum->fn(&row);
}

void SgmCostAggregator_sumPathRows(const SgmPathSum* sum, int32_t y0, int32_t y1) {
    for (int32_t y = y0; y < y1; ++y)
        SgmCostAggregator_sumPathRow(sum, y, sum->out + static_cast<intptr_t>(sum->outPitch) * y);
}

TLResult SgmCostAggregator_sumPaths(SgmCostAggregator* aggregator, Image* aggregated, const Image* pathCosts,
                                    uint8_t numDisparities, uint8_t numPaths) {
    SgmPathSum sum;
    const TLResult r =
        SgmCostAggregator_initPathSum(aggregator, &sum, aggregated, pathCosts, numDisparities, numPaths);
    if (r != TL_OK) return r;
    const ImageStripeExec exec{aggregator->pel, nullptr};
    return ImageStripeExec_run(&exec, sumStripe, &sum, kBands);
}

}  // namespace vq_tl
