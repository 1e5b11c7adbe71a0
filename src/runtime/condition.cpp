#include "runtime/condition.h"

#include <errno.h>
#include <time.h>

#include <cstdlib>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

TLResult uninitOp(Condition* self) {
    (void)self;
    return TL_ERROR_STATE;
}

TLResult uninitAwaitMillis(Condition* self, int32_t millis) {
    (void)self;
    (void)millis;
    return TL_ERROR_STATE;
}

TLResult uninitSignalAll(Condition* self) {
    (void)self;
    return TL_OK;
}

TLResult condAwait(Condition* self) {
    pthread_mutex_t* m = Lock_getMutex(self->lock);
    if (m == nullptr) return TL_ERROR_STATE;
    return pthread_cond_wait(self->impl, m) == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

TLResult condAwaitMillis(Condition* self, int32_t millis) {
    pthread_mutex_t* m = Lock_getMutex(self->lock);
    if (m == nullptr) return TL_ERROR_STATE;
    if (millis < 0) millis = 0;
    struct timespec deadline;
    if (clock_gettime(CLOCK_MONOTONIC, &deadline) != 0) return TL_ERROR_SYSTEM;
    // millis below 2^31 adds at most 2147483 s; tv_nsec stays below 2e9, so
    // one carry normalises it.
    deadline.tv_sec += millis / 1000;
    deadline.tv_nsec += static_cast<long>(millis % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    const int e = pthread_cond_timedwait(self->impl, m, &deadline);
    if (e == 0) return TL_OK;
    return e == ETIMEDOUT ? TL_ERROR_TIMEOUT : TL_ERROR_SYSTEM;
}

TLResult condSignal(Condition* self) {
    return pthread_cond_signal(self->impl) == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

TLResult condSignalAll(Condition* self) {
    return pthread_cond_broadcast(self->impl) == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

TLResult condDestroy(Condition* self) {
    const int e = pthread_cond_destroy(self->impl);
    Memory_free(self->impl);
    self->impl = nullptr;
    return e == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

}  // namespace

int32_t Condition_getBufferSize() { return 4; }

TLResult construct_Condition(Condition* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->env = env;
    self->impl = nullptr;
    self->lock = nullptr;
    self->await = uninitOp;
    self->awaitMillis = uninitAwaitMillis;
    self->signal = uninitOp;
    self->signalAll = uninitSignalAll;
    self->destroy = nullptr;
    return TL_OK;
}

TLResult Condition_recycle(Condition* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = self->destroy != nullptr ? self->destroy(self) : TL_OK;
    construct_Condition(self, self->env);
    return r;
}

TLResult destruct_Condition(Condition* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = self->destroy != nullptr ? self->destroy(self) : TL_OK;
    *self = Condition{};
    return r;
}

TLResult Condition_init(Condition* self, Lock* lock) {
    if (self == nullptr || lock == nullptr) return TL_ERROR_PARAM;
    Condition_recycle(self);
    pthread_cond_t* c = static_cast<pthread_cond_t*>(Memory_alloc(sizeof(pthread_cond_t)));
    if (c == nullptr) return TL_ERROR_MEMORY;
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        Memory_free(c);
        return TL_ERROR_SYSTEM;
    }
    // Deadlines on the monotonic clock: a wall-clock step (network time, the
    // user changing the date) must not stretch or cut a wait.
    int e = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (e == 0) e = pthread_cond_init(c, &attr);
    pthread_condattr_destroy(&attr);
    if (e != 0) {
        Memory_free(c);
        return TL_ERROR_SYSTEM;
    }
    self->impl = c;
    self->lock = lock;
    self->await = condAwait;
    self->awaitMillis = condAwaitMillis;
    self->signal = condSignal;
    self->signalAll = condSignalAll;
    self->destroy = condDestroy;
    return TL_OK;
}

TLResult Condition_await(Condition* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->await != nullptr ? self->await(self) : TL_ERROR_STATE;
}

TLResult Condition_awaitMillis(Condition* self, int32_t millis) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->awaitMillis != nullptr ? self->awaitMillis(self, millis) : TL_ERROR_STATE;
}

TLResult Condition_signal(Condition* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->signal != nullptr ? self->signal(self) : TL_ERROR_STATE;
}

TLResult Condition_signalAll(Condition* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->signalAll != nullptr ? self->signalAll(self) : TL_OK;
}

}  // namespace vq_tl
