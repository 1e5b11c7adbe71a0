#include "imageproc/stripes.h"

namespace vq_tl {

namespace {

struct PelStripeCall {
    StripeRowFunction function;
    void* arg;
    int32_t rows;
    int32_t parts;
};

uint32_t pelStripe(void* arg, int32_t index, PelWorkInfo* info) {
    (void)info;
    const PelStripeCall* call = static_cast<const PelStripeCall*>(arg);
    const StripeRows s = Stripes_getPelRows(call->rows, call->parts, index);
    if (s.begin < s.end) call->function(call->arg, s.begin, s.end);
    return TL_OK;
}

constexpr PelKernel kPelStripeKernel = PelKernel_perIndex<pelStripe>();

// The copied arguments of one forked stripe.
struct ForkedStripe {
    StripeRowFunction function;
    void* arg;
    int32_t begin;
    int32_t end;
};

uint32_t forkedStripe(void* arguments) {
    const ForkedStripe* s = static_cast<const ForkedStripe*>(arguments);
    s->function(s->arg, s->begin, s->end);
    return TL_OK;
}

}  // namespace

StripeRows Stripes_getPelRows(int32_t rows, int32_t parts, int32_t index) {
    if (rows < 1 || parts < 1 || index < 0 || index >= parts) return {0, 0};
    const int64_t c = (int64_t{rows} + parts - 1) / parts;
    const int64_t begin = index * c < rows ? index * c : rows;
    const int64_t end = (index + 1) * c < rows ? (index + 1) * c : rows;
    return {static_cast<int32_t>(begin), static_cast<int32_t>(end)};
}

StripeRows Stripes_getExecutorRows(int32_t rows, int32_t parts, int32_t index) {
    if (rows < 1 || parts < 1 || index < 0 || index >= parts) return {0, 0};
    const int64_t begin = (int64_t{index} * rows + parts - 1) / parts;
    const int64_t end = (int64_t{index + 1} * rows + parts - 1) / parts;
    return {static_cast<int32_t>(begin), static_cast<int32_t>(end)};
}

int32_t Stripes_getExecutorParts(const ParallelExecutor* executor) {
    if (executor == nullptr) return 1;
    int32_t k;
    if (executor->pel == nullptr && executor->numberOfThreads > 0) {
        k = executor->numberOfThreads + (executor->callerWorks != 0 ? 1 : 0);
    } else if (executor->pelTasks != nullptr) {
        // The Pel engine has no queue of its own; its table holds twice the
        // queue capacity that init was given.
        k = executor->pelTasks->capacity / 2;
    } else {
        k = LinkedBlockingQueue_getCapacity(&executor->waitingQueue);
    }
    if (k > kStripesMaxExecutorParts) k = kStripesMaxExecutorParts;
    return k < 1 ? 1 : k;
}

TLResult Stripes_runOnPel(Pel* pel, StripeRowFunction function, void* arg, int32_t rows, int32_t parts) {
    if (function == nullptr || rows < 0) return TL_ERROR_PARAM;
    if (rows == 0) return TL_OK;
    PelStripeCall call{function, arg, rows, parts < 1 ? kStripesDefaultParts : parts};
    return Pel_execute(pel, &kPelStripeKernel, &call, call.parts);
}

TLResult Stripes_runOnExecutor(ParallelExecutor* executor, StripeRowFunction function, void* arg,
                               int32_t rows, int32_t parts) {
    if (function == nullptr || rows < 0) return TL_ERROR_PARAM;
    if (rows == 0) return TL_OK;
    if (parts < 1) parts = Stripes_getExecutorParts(executor);
    for (int32_t j = 0; j < parts; ++j) {
        const StripeRows s = Stripes_getExecutorRows(rows, parts, j);
        if (s.begin == s.end) continue;
        const ForkedStripe stripe{function, arg, s.begin, s.end};
        if (ParallelExecutor_fork(executor, forkedStripe, &stripe, sizeof(stripe)) != TL_OK &&
            executor != nullptr) {
            function(arg, s.begin, s.end);
        }
    }
    return ParallelExecutor_join(executor);
}

}  // namespace vq_tl
