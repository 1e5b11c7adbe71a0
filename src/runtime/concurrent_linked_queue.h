// ConcurrentLinkedQueue: a bounded lock-free FIFO of non-null pointers, the
// Michael-Scott queue over slot indices with a Treiber stack of free slots.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

// A tagged word: slot index in the upper 20 bits (all ones names no slot),
// a change counter in the lower 12 bits. Every compare-and-swap raises the
// counter, so a word that went from A to B and back to slot A no longer
// compares equal (the ABA problem) unless exactly 4096 changes came between.
constexpr uint32_t kClqIndexShift = 12;
constexpr uint32_t kClqCounterMask = 0xFFFu;
constexpr uint32_t kClqNoSlot = 0xFFFFFu;
constexpr int32_t kClqMaxCapacity = 262144;

inline uint32_t Clq_slotOf(uint32_t tagged) { return tagged >> kClqIndexShift; }
inline uint32_t Clq_counterOf(uint32_t tagged) { return tagged & kClqCounterMask; }

struct ConcurrentLinkedQueue {
    Env* env;
    int32_t capacity;
    void* block;  // owned: items, then links
    // capacity + 1 slots (one is always the dummy before the first item).
    // Both arrays are accessed with atomic builtins only.
    void** items;
    uint32_t* links;  // tagged: the next slot in the queue, or in the free stack
    std::atomic<uint32_t> freeHead;
    std::atomic<uint32_t> head;  // the dummy
    std::atomic<uint32_t> tail;  // the last slot, or one behind while an offer completes
    std::atomic<int32_t> size;
};

// 8 + 8 * capacity (two words per slot on the 32-bit target), -1 outside
// 1..262144.
int32_t ConcurrentLinkedQueue_getBufferSize(int32_t capacity);
TLResult construct_ConcurrentLinkedQueue(ConcurrentLinkedQueue* self, Env* env);
TLResult destruct_ConcurrentLinkedQueue(ConcurrentLinkedQueue* self);
TLResult ConcurrentLinkedQueue_recycle(ConcurrentLinkedQueue* self);
// TL_ERROR_PARAM outside 1..262144, TL_ERROR_MEMORY when malloc fails.
TLResult ConcurrentLinkedQueue_init(ConcurrentLinkedQueue* self, int32_t capacity);

// 1 if the item went in; 0 when full, for a null item or an uninitialised
// queue. A slot that a poll is just giving back may not be free yet, so an
// offer racing a poll on a full queue can still fail.
int32_t ConcurrentLinkedQueue_offer(ConcurrentLinkedQueue* self, void* item);
// The oldest item, or null when empty.
void* ConcurrentLinkedQueue_poll(ConcurrentLinkedQueue* self);

int32_t ConcurrentLinkedQueue_getCapacity(const ConcurrentLinkedQueue* self);
// Exact when no offer or poll runs; otherwise within 0..capacity.
int32_t ConcurrentLinkedQueue_size(const ConcurrentLinkedQueue* self);

}  // namespace vq_tl
