#include "runtime/count_down_latch.h"

namespace vq_tl {

namespace {

constexpr int32_t kWaitForever = -1;

// The count is read outside the lock first, so that a latch already at 0
// costs no lock. Before sleeping it is read again under the lock: countDown
// takes the lock for its signal after lowering the count, so a waiter that
// still sees a positive count under the lock is asleep before that signal.
TLResult awaitZero(CountDownLatch* self, int32_t timeout) {
    if (self == nullptr) return TL_ERROR_PARAM;
    while (self->count.load() >= 1) {
        TLResult r = Lock_lock(&self->lock);
        if (r != TL_OK) return r;
        if (self->count.load() >= 1) {
            r = timeout < 0 ? Condition_await(&self->condition)
                            : Condition_awaitMillis(&self->condition, timeout);
            // An expiry that coincides with the last countDown still counts as done.
            if (r == TL_ERROR_TIMEOUT && self->count.load() < 1) r = TL_OK;
        }
        const TLResult u = Lock_unlock(&self->lock);
        if ((r | u) != TL_OK) return r | u;
    }
    return TL_OK;
}

TLResult constructMembers(CountDownLatch* self, Env* env) {
    self->env = env;
    self->count.store(0);
    return construct_Lock(&self->lock, env) | construct_Condition(&self->condition, env);
}

}  // namespace

int32_t CountDownLatch_getBufferSize() {
    return Lock_getBufferSize(LOCK_KIND_RECURSIVE_MUTEX) + Condition_getBufferSize();
}

TLResult construct_CountDownLatch(CountDownLatch* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return constructMembers(self, env);
}

TLResult destruct_CountDownLatch(CountDownLatch* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = destruct_Condition(&self->condition) | destruct_Lock(&self->lock);
    return r | constructMembers(self, nullptr);
}

TLResult CountDownLatch_recycle(CountDownLatch* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = destruct_Condition(&self->condition) | destruct_Lock(&self->lock);
    return r | constructMembers(self, self->env);
}

TLResult CountDownLatch_init(CountDownLatch* self, int32_t count) {
    if (self == nullptr || count < 0) return TL_ERROR_PARAM;
    CountDownLatch_recycle(self);
    TLResult r = Lock_init(&self->lock, LOCK_KIND_RECURSIVE_MUTEX);
    if (r == TL_OK) r = Condition_init(&self->condition, &self->lock);
    if (r != TL_OK) {
        CountDownLatch_recycle(self);
        return r;
    }
    self->count.store(count);
    return TL_OK;
}

TLResult CountDownLatch_await(CountDownLatch* self) { return awaitZero(self, kWaitForever); }

TLResult CountDownLatch_awaitMillis(CountDownLatch* self, int32_t millis) {
    return awaitZero(self, millis < 0 ? 0 : millis);
}

TLResult CountDownLatch_countDown(CountDownLatch* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    int32_t c = self->count.load();
    do {
        if (c < 1) return TL_OK;
    } while (!self->count.compare_exchange_weak(c, c - 1));
    if (c != 1) return TL_OK;
    TLResult r = Lock_lock(&self->lock);
    if (r != TL_OK) return r;
    r = Condition_signalAll(&self->condition);
    return r | Lock_unlock(&self->lock);
}

TLResult CountDownLatch_getCount(const CountDownLatch* self, int32_t* out) {
    if (self == nullptr || out == nullptr) return TL_ERROR_PARAM;
    *out = self->count.load();
    return TL_OK;
}

}  // namespace vq_tl
