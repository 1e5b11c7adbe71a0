#include "runtime/concurrent_linked_queue.h"

#include <cstdlib>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr uint32_t kEmptyLink = kClqNoSlot << kClqIndexShift;

uint32_t makeTagged(uint32_t slot, uint32_t old) {
    return (slot << kClqIndexShift) | ((old + 1u) & kClqCounterMask);
}

uint32_t loadLink(const ConcurrentLinkedQueue* self, uint32_t slot) {
    return __atomic_load_n(&self->links[slot], __ATOMIC_SEQ_CST);
}

bool casLink(ConcurrentLinkedQueue* self, uint32_t slot, uint32_t expected, uint32_t desired) {
    return __atomic_compare_exchange_n(&self->links[slot], &expected, desired, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

// Points the link of a slot that this thread owns (popped from the free
// stack, or a dummy just unlinked) at another slot. A stale thread may still
// try a compare-and-swap on it, so the word moves by compare-and-swap too,
// with its counter raised: the stale one then fails.
void setLink(ConcurrentLinkedQueue* self, uint32_t slot, uint32_t target) {
    uint32_t old = loadLink(self, slot);
    while (!casLink(self, slot, old, makeTagged(target, old))) {
        old = loadLink(self, slot);
    }
}

void pushFree(ConcurrentLinkedQueue* self, uint32_t slot) {
    uint32_t old = self->freeHead.load();
    for (;;) {
        setLink(self, slot, Clq_slotOf(old));
        if (self->freeHead.compare_exchange_weak(old, makeTagged(slot, old))) return;
    }
}

uint32_t popFree(ConcurrentLinkedQueue* self) {
    uint32_t old = self->freeHead.load();
    for (;;) {
        const uint32_t slot = Clq_slotOf(old);
        if (slot == kClqNoSlot) return kClqNoSlot;
        // The slot may be popped and its link rewritten before the swap
        // below; the counter in freeHead then makes the swap fail.
        const uint32_t next = Clq_slotOf(loadLink(self, slot));
        if (self->freeHead.compare_exchange_weak(old, makeTagged(next, old))) return slot;
    }
}

void clear(ConcurrentLinkedQueue* self, Env* env) {
    self->env = env;
    self->capacity = 0;
    self->block = nullptr;
    self->items = nullptr;
    self->links = nullptr;
    self->freeHead.store(kEmptyLink);
    self->head.store(kEmptyLink);
    self->tail.store(kEmptyLink);
    self->size.store(0);
}

}  // namespace

int32_t ConcurrentLinkedQueue_getBufferSize(int32_t capacity) {
    if (capacity < 1 || capacity > kClqMaxCapacity) return -1;
    return 8 + 8 * capacity;
}

TLResult construct_ConcurrentLinkedQueue(ConcurrentLinkedQueue* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    clear(self, env);
    return TL_OK;
}

TLResult destruct_ConcurrentLinkedQueue(ConcurrentLinkedQueue* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->block);
    clear(self, nullptr);
    return TL_OK;
}

TLResult ConcurrentLinkedQueue_recycle(ConcurrentLinkedQueue* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->block);
    clear(self, self->env);
    return TL_OK;
}

TLResult ConcurrentLinkedQueue_init(ConcurrentLinkedQueue* self, int32_t capacity) {
    if (self == nullptr || ConcurrentLinkedQueue_getBufferSize(capacity) < 0) return TL_ERROR_PARAM;
    ConcurrentLinkedQueue_recycle(self);
    const size_t slots = static_cast<size_t>(capacity) + 1;
    self->block = Memory_alloc(slots * (sizeof(void*) + sizeof(uint32_t)));
    if (self->block == nullptr) return TL_ERROR_MEMORY;
    self->capacity = capacity;
    self->items = static_cast<void**>(self->block);
    self->links = reinterpret_cast<uint32_t*>(self->items + slots);
    for (size_t i = 0; i < slots; ++i) {
        __atomic_store_n(&self->items[i], nullptr, __ATOMIC_RELAXED);
        __atomic_store_n(&self->links[i], kEmptyLink, __ATOMIC_RELAXED);
    }
    for (int32_t i = capacity; i >= 0; --i) pushFree(self, static_cast<uint32_t>(i));
    const uint32_t dummy = popFree(self);
    setLink(self, dummy, kClqNoSlot);
    self->head.store(dummy << kClqIndexShift);
    self->tail.store(dummy << kClqIndexShift);
    return TL_OK;
}

int32_t ConcurrentLinkedQueue_offer(ConcurrentLinkedQueue* self, void* item) {
    if (self == nullptr || item == nullptr || self->block == nullptr) return 0;
    const uint32_t slot = popFree(self);
    if (slot == kClqNoSlot) return 0;
    __atomic_store_n(&self->items[slot], item, __ATOMIC_SEQ_CST);
    setLink(self, slot, kClqNoSlot);
    for (;;) {
        uint32_t tail = self->tail.load();
        const uint32_t tailSlot = Clq_slotOf(tail);
        const uint32_t next = loadLink(self, tailSlot);
        if (tail != self->tail.load()) continue;
        if (Clq_slotOf(next) == kClqNoSlot) {
            if (casLink(self, tailSlot, next, makeTagged(slot, next))) {
                self->size.fetch_add(1);
                self->tail.compare_exchange_strong(tail, makeTagged(slot, tail));
                return 1;
            }
        } else {
            // Another offer linked its slot but has not moved tail yet: help it.
            self->tail.compare_exchange_strong(tail, makeTagged(Clq_slotOf(next), tail));
        }
    }
}

void* ConcurrentLinkedQueue_poll(ConcurrentLinkedQueue* self) {
    if (self == nullptr || self->block == nullptr) return nullptr;
    for (;;) {
        uint32_t head = self->head.load();
        uint32_t tail = self->tail.load();
        const uint32_t headSlot = Clq_slotOf(head);
        const uint32_t next = loadLink(self, headSlot);
        if (head != self->head.load()) continue;
        const uint32_t nextSlot = Clq_slotOf(next);
        if (nextSlot == kClqNoSlot) return nullptr;
        if (headSlot == Clq_slotOf(tail)) {
            // tail lags behind an offer that has linked its slot: help it on.
            self->tail.compare_exchange_strong(tail, makeTagged(nextSlot, tail));
            continue;
        }
        // Read before the swap: once head moves on, another poll may free
        // nextSlot and an offer may refill it. A stale read here goes with a
        // swap that fails.
        void* item = __atomic_load_n(&self->items[nextSlot], __ATOMIC_SEQ_CST);
        if (self->head.compare_exchange_strong(head, makeTagged(nextSlot, head))) {
            self->size.fetch_sub(1);
            pushFree(self, headSlot);
            return item;
        }
    }
}

int32_t ConcurrentLinkedQueue_getCapacity(const ConcurrentLinkedQueue* self) {
    return self == nullptr ? -1 : self->capacity;
}

int32_t ConcurrentLinkedQueue_size(const ConcurrentLinkedQueue* self) {
    if (self == nullptr) return -1;
    // A poll may lower size before the matching offer has raised it.
    const int32_t size = self->size.load();
    return size < 0 ? 0 : (size > self->capacity ? self->capacity : size);
}

}  // namespace vq_tl
