#include "runtime/lock.h"

#include <errno.h>
#include <sched.h>

#include <cstdlib>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

TLResult uninitTryLock(Lock* self, int32_t* acquired) {
    (void)self;
    *acquired = 0;
    return TL_ERROR_STATE;
}

TLResult uninitOp(Lock* self) {
    (void)self;
    return TL_ERROR_STATE;
}

pthread_mutex_t* mutexOf(const Lock* self) { return reinterpret_cast<pthread_mutex_t*>(self->impl); }

TLResult mutexTryLock(Lock* self, int32_t* acquired) {
    const int e = pthread_mutex_trylock(mutexOf(self));
    *acquired = e == 0 ? 1 : 0;
    return e == 0 || e == EBUSY ? TL_OK : TL_ERROR_SYSTEM;
}

TLResult mutexLock(Lock* self) { return pthread_mutex_lock(mutexOf(self)) == 0 ? TL_OK : TL_ERROR_SYSTEM; }

TLResult mutexUnlock(Lock* self) {
    return pthread_mutex_unlock(mutexOf(self)) == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

TLResult mutexDestroy(Lock* self) {
    pthread_mutex_t* m = mutexOf(self);
    const int e = pthread_mutex_destroy(m);
    // The block goes back even when pthread refuses (a held mutex): the
    // record is being torn down either way and must not keep a dangling word.
    Memory_free(m);
    self->impl = 0;
    return e == 0 ? TL_OK : TL_ERROR_SYSTEM;
}

// The spin word is read with plain loads until it looks free, so waiting
// threads do not bounce the cache line with failing compare-and-swaps. The
// sequentially consistent swap and store carry the full fences on both sides.
bool spinTryOnce(Lock* self) {
    uintptr_t expected = 0;
    return __atomic_compare_exchange_n(&self->impl, &expected, 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

TLResult spinTryLock(Lock* self, int32_t* acquired) {
    *acquired = spinTryOnce(self) ? 1 : 0;
    return TL_OK;
}

TLResult spinLock(Lock* self) {
    for (;;) {
        // Yield now and then: with more runnable threads than cores the
        // holder may be waiting for this very core.
        for (int spins = 0; __atomic_load_n(&self->impl, __ATOMIC_RELAXED) != 0; ++spins) {
            if ((spins & 63) == 63) sched_yield();
        }
        if (spinTryOnce(self)) return TL_OK;
    }
}

TLResult spinUnlock(Lock* self) {
    __atomic_store_n(&self->impl, 0, __ATOMIC_SEQ_CST);
    return TL_OK;
}

TLResult initMutex(Lock* self) {
    pthread_mutex_t* m = static_cast<pthread_mutex_t*>(Memory_alloc(sizeof(pthread_mutex_t)));
    if (m == nullptr) return TL_ERROR_MEMORY;
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        Memory_free(m);
        return TL_ERROR_SYSTEM;
    }
    int e = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (e == 0) e = pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
    if (e != 0) {
        Memory_free(m);
        return TL_ERROR_SYSTEM;
    }
    self->impl = reinterpret_cast<uintptr_t>(m);
    self->tryLock = mutexTryLock;
    self->lock = mutexLock;
    self->unlock = mutexUnlock;
    self->destroy = mutexDestroy;
    return TL_OK;
}

}  // namespace

int32_t Lock_getBufferSize(int32_t kind) {
    switch (kind) {
        case LOCK_KIND_RECURSIVE_MUTEX: return 4;
        case LOCK_KIND_SPIN: return 0;
        default: return -1;
    }
}

TLResult construct_Lock(Lock* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->env = env;
    self->impl = 0;
    self->tryLock = uninitTryLock;
    self->lock = uninitOp;
    self->unlock = uninitOp;
    self->destroy = nullptr;
    return TL_OK;
}

TLResult Lock_recycle(Lock* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = self->destroy != nullptr ? self->destroy(self) : TL_OK;
    construct_Lock(self, self->env);
    return r;
}

TLResult destruct_Lock(Lock* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = self->destroy != nullptr ? self->destroy(self) : TL_OK;
    *self = Lock{};
    return r;
}

TLResult Lock_init(Lock* self, int32_t kind) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (kind != LOCK_KIND_RECURSIVE_MUTEX && kind != LOCK_KIND_SPIN) return TL_ERROR_UNSUPPORTED;
    Lock_recycle(self);
    if (kind == LOCK_KIND_RECURSIVE_MUTEX) return initMutex(self);
    __atomic_store_n(&self->impl, 0, __ATOMIC_SEQ_CST);
    self->tryLock = spinTryLock;
    self->lock = spinLock;
    self->unlock = spinUnlock;
    return TL_OK;
}

TLResult Lock_lock(Lock* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->lock != nullptr ? self->lock(self) : TL_ERROR_STATE;
}

TLResult Lock_unlock(Lock* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return self->unlock != nullptr ? self->unlock(self) : TL_ERROR_STATE;
}

TLResult Lock_tryLock(Lock* self, int32_t* acquired) {
    if (self == nullptr || acquired == nullptr) return TL_ERROR_PARAM;
    if (self->tryLock == nullptr) {
        *acquired = 0;
        return TL_ERROR_STATE;
    }
    return self->tryLock(self, acquired);
}

pthread_mutex_t* Lock_getMutex(const Lock* self) {
    if (self == nullptr || self->lock != mutexLock) return nullptr;
    return mutexOf(self);
}

}  // namespace vq_tl
