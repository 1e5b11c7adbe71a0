// LinkedBlockingQueue: a bounded FIFO of non-null pointers with a put lock
// and a take lock, so that producers and consumers do not contend, over a
// fixed ring of nodes (nothing is allocated after init).
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/condition.h"
#include "runtime/env.h"
#include "runtime/lock.h"

namespace vq_tl {

struct LinkedBlockingQueueNode {
    void* item;
    LinkedBlockingQueueNode* next;
};

struct LinkedBlockingQueue {
    Env* env;
    int32_t capacity;
    // capacity + 2 nodes. The live ones (the dummy before the first item and
    // at most capacity items) are a run of the ring that ends at tail, so
    // the node after tail is always free when count is below capacity.
    LinkedBlockingQueueNode* nodes;
    LinkedBlockingQueueNode* head;  // the dummy before the first item; under takeLock
    LinkedBlockingQueueNode* tail;  // the last item, or the dummy; under putLock
    std::atomic<int32_t> count;
    std::atomic<int32_t> cursor;  // next node of the ring to hand out, 0..capacity + 1
    Lock putLock;
    Lock takeLock;
    Condition notFull;   // on putLock
    Condition notEmpty;  // on takeLock
};

// -1 for a capacity below 1 or one whose size does not fit 31 bits.
int32_t LinkedBlockingQueue_getBufferSize(int32_t capacity);
TLResult construct_LinkedBlockingQueue(LinkedBlockingQueue* self, Env* env);
// TL_ERROR_STATE, changing nothing, while items are left: the owner drains
// the queue first, since the items usually own memory.
TLResult destruct_LinkedBlockingQueue(LinkedBlockingQueue* self);
// Same rule as destruct.
TLResult LinkedBlockingQueue_recycle(LinkedBlockingQueue* self);
// The record must stay at its address after init: its conditions point at
// its locks.
TLResult LinkedBlockingQueue_init(LinkedBlockingQueue* self, int32_t capacity);

int32_t LinkedBlockingQueue_getCapacity(const LinkedBlockingQueue* self);
int32_t LinkedBlockingQueue_size(const LinkedBlockingQueue* self);

// 1 if the item went in, 0 otherwise (also for a null item or an
// uninitialised queue). put waits without limit, offer not at all,
// offerMillis at most millis per wake-up (a negative value counts as 0).
int32_t LinkedBlockingQueue_put(LinkedBlockingQueue* self, void* item);
int32_t LinkedBlockingQueue_offer(LinkedBlockingQueue* self, void* item);
int32_t LinkedBlockingQueue_offerMillis(LinkedBlockingQueue* self, void* item, int32_t millis);

// The oldest item, or null. take waits without limit, poll not at all,
// pollMillis at most millis per wake-up (a negative value counts as 0).
void* LinkedBlockingQueue_take(LinkedBlockingQueue* self);
void* LinkedBlockingQueue_poll(LinkedBlockingQueue* self);
void* LinkedBlockingQueue_pollMillis(LinkedBlockingQueue* self, int32_t millis);

}  // namespace vq_tl
