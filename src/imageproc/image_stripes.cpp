#include "imageproc/image_stripes.h"

#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

namespace vq_tl {

namespace {

struct StripeCall {
    ImageStripeFn fn;
    void* arg;
    int32_t index;  // forked stripes only
    int32_t count;
};

uint32_t pelStripe(void* arg, int32_t index, PelWorkInfo* info) {
    (void)info;
    const StripeCall* call = static_cast<const StripeCall*>(arg);
    return call->fn(call->arg, index, call->count);
}

constexpr PelKernel kPelStripeKernel = PelKernel_perIndex<pelStripe>();

uint32_t forkedStripe(void* arguments) {
    const StripeCall* call = static_cast<const StripeCall*>(arguments);
    return call->fn(call->arg, call->index, call->count);
}

TLResult runHere(ImageStripeFn fn, void* arg, int32_t count) {
    TLResult result = TL_OK;
    for (int32_t i = 0; i < count; ++i) result |= fn(arg, i, count);
    return result;
}

// Pel_execute would drop the stripes' results with the event; this is the
// same enqueue and helping wait, reading the result before the release.
TLResult runOnPel(Pel* pel, ImageStripeFn fn, void* arg, int32_t count) {
    StripeCall call{fn, arg, 0, count};
    uint32_t event = 0;
    TLResult r = Pel_enqueueKernel(pel, &kPelStripeKernel, &call, count, 0, nullptr, &event);
    if (r != TL_OK) return r;
    if (event == 0) return runHere(fn, arg, count);  // the Pel is not running
    uint32_t result = 0;
    // The stripes read `call` on this frame and the caller's pictures: a wait
    // that runs out still waits for them before returning its timeout.
    // Their end also frees the event, late or not.
    r = Pel_waitForEventsToEnd(pel, 1, &event);
    if (r != TL_OK && r != TL_ERROR_TIMEOUT) return r;
    TLResult info = Pel_getEventInfo(pel, event, 0, &result);
    if (info == TL_OK) info = Pel_releaseEvent(pel, event);
    return r != TL_OK ? r : (info | result);
}

TLResult runOnExecutor(ParallelExecutor* executor, ImageStripeFn fn, void* arg, int32_t count) {
    TLResult result = TL_OK;
    for (int32_t i = 0; i < count; ++i) {
        const StripeCall call{fn, arg, i, count};
        if (ParallelExecutor_fork(executor, forkedStripe, &call, sizeof(call)) != TL_OK)
            result |= fn(arg, i, count);
    }
    return result | ParallelExecutor_join(executor);
}

}  // namespace

int32_t ImageStripeExec_getWorkerCount(const ImageStripeExec* exec) {
    if (exec == nullptr) return 1;
    if (exec->pel != nullptr) return Pel_getNumberOfWorkers(exec->pel);
    if (exec->executor != nullptr) return ImageStripe_getExecutorCount(exec->executor);
    return 1;
}

TLResult ImageStripeExec_run(const ImageStripeExec* exec, ImageStripeFn fn, void* arg, int32_t count) {
    if (fn == nullptr) return TL_ERROR_PARAM;
    if (count < 1) return TL_OK;
    if (exec != nullptr && exec->pel != nullptr) return runOnPel(exec->pel, fn, arg, count);
    if (exec != nullptr && exec->executor != nullptr) return runOnExecutor(exec->executor, fn, arg, count);
    return runHere(fn, arg, count);
}

void ImageStripe_rows(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last) {
    if (rows < 0) rows = 0;
    const int64_t run = count > 0 ? (int64_t{rows} + count - 1) / count : rows;
    const int64_t begin = index < 0 ? rows : int64_t{index} * run;
    const int64_t end = begin + run;
    *first = static_cast<int32_t>(begin < rows ? begin : rows);
    *last = static_cast<int32_t>(end < rows ? end : rows);
}

void ImageStripe_rowsEven(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last) {
    if (rows < 0) rows = 0;
    if (count < 1) count = 1;
    if (index < 0 || index >= count) {
        *first = rows;
        *last = rows;
        return;
    }
    *first = static_cast<int32_t>((int64_t{index} * rows + count - 1) / count);
    *last = static_cast<int32_t>((int64_t{index + 1} * rows + count - 1) / count);
}

int32_t ImageStripe_getExecutorCount(const ParallelExecutor* executor) {
    if (executor == nullptr) return 1;
    int32_t k;
    if (executor->pel == nullptr && executor->numberOfThreads > 0) {
        k = executor->numberOfThreads + (executor->callerWorks != 0 ? 1 : 0);
    } else if (executor->pelTasks != nullptr) {
        // The Pel engine has no queue of its own; its table of places holds
        // twice the queue capacity that init was given.
        k = executor->pelTasks->capacity / 2;
    } else {
        k = LinkedBlockingQueue_getCapacity(&executor->waitingQueue);
    }
    if (k > kImageStripeMaxExecutorCount) k = kImageStripeMaxExecutorCount;
    return k < 1 ? 1 : k;
}

}  // namespace vq_tl
