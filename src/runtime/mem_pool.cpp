#include "runtime/mem_pool.h"

#include <cstdlib>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr uint32_t kCounterMask = 0xFFFu;
constexpr int kIndexShift = 12;
constexpr uint32_t kEmptyHead = 0xFFFFF000u;  // index -1, counter 0

int32_t headIndex(uint32_t head) { return static_cast<int32_t>(head) >> kIndexShift; }

uint32_t makeHead(int32_t index, uint32_t oldHead) {
    return (static_cast<uint32_t>(index) << kIndexShift) | ((oldHead + 1u) & kCounterMask);
}

// Index of a block from its byte offset: the upper half of
// 0xFFFFFFFF + offset * floor(0xFFFFFFFF / blockSize). The added all-ones word
// lifts exact multiples over the truncation of the reciprocal; block offsets are
// multiples of blockSize below 2^30, where the product's error stays below one.
int32_t blockIndex(const MemPool* self, const void* block) {
    const uint64_t offset = static_cast<uint64_t>(static_cast<const uint8_t*>(block) - self->blocks);
    return static_cast<int32_t>((0xFFFFFFFFull + offset * self->reciprocal) >> 32);
}

// The link word of a free block. Blocks of 5 or more bytes need not be 4-byte
// aligned, and a pop may read a link that a concurrent push is writing (its
// compare-and-swap then fails), so the word moves as four relaxed atomic bytes.
void storeLink(void* block, int32_t link) {
    uint8_t* b = static_cast<uint8_t*>(block);
    const uint32_t v = static_cast<uint32_t>(link);
    for (int i = 0; i < 4; ++i) __atomic_store_n(b + i, static_cast<uint8_t>(v >> (8 * i)), __ATOMIC_RELAXED);
}

int32_t loadLink(const void* block) {
    const uint8_t* b = static_cast<const uint8_t*>(block);
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v |= static_cast<uint32_t>(__atomic_load_n(b + i, __ATOMIC_RELAXED)) << (8 * i);
    return static_cast<int32_t>(v);
}

}  // namespace

int32_t MemPool_getBufferSize(int32_t blockSize, int32_t blockCount) {
    if (blockSize < 1 || blockCount < 1 || blockCount > kMemPoolMaxBlocks) return -1;
    const int64_t size = static_cast<int64_t>(blockCount) * (blockSize < 5 ? 4 : blockSize);
    return size > INT32_MAX ? -1 : static_cast<int32_t>(size);
}

TLResult construct_MemPool(MemPool* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->env = env;
    self->blocks = nullptr;
    self->blockSize = 0;
    self->reciprocal = 0;
    self->blockCount = 0;
    self->head.store(kEmptyHead, std::memory_order_relaxed);
    return TL_OK;
}

TLResult MemPool_recycle(MemPool* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Env* env = self->env;
    Memory_free(self->blocks);
    return construct_MemPool(self, env);
}

TLResult destruct_MemPool(MemPool* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->blocks);
    construct_MemPool(self, nullptr);
    return TL_OK;
}

TLResult MemPool_init(MemPool* self, int32_t blockSize, int32_t blockCount) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const int32_t total = MemPool_getBufferSize(blockSize, blockCount);
    if (total < 0) return TL_ERROR_PARAM;
    MemPool_recycle(self);
    self->blocks = static_cast<uint8_t*>(Memory_alloc(static_cast<size_t>(total)));
    if (self->blocks == nullptr) return TL_ERROR_MEMORY;
    self->blockSize = static_cast<uint32_t>(blockSize < 5 ? 4 : blockSize);
    self->reciprocal = 0xFFFFFFFFu / self->blockSize;
    self->blockCount = static_cast<uint32_t>(blockCount);
    for (int32_t i = blockCount - 1; i >= 0; --i) {
        MemPool_push(self, self->blocks + static_cast<size_t>(i) * self->blockSize);
    }
    return TL_OK;
}

TLResult MemPool_push(MemPool* self, void* block) {
    if (self == nullptr || block == nullptr || self->blocks == nullptr) return TL_ERROR_PARAM;
    // A pointer that is not one of our blocks would corrupt the list.
    const uint8_t* p = static_cast<const uint8_t*>(block);
    const uint8_t* end = self->blocks + static_cast<size_t>(self->blockCount) * self->blockSize;
    if (p < self->blocks || p >= end) return TL_ERROR_PARAM;
    const int32_t index = blockIndex(self, block);
    if (self->blocks + static_cast<size_t>(index) * self->blockSize != p) return TL_ERROR_PARAM;
    uint32_t old = self->head.load(std::memory_order_acquire);
    for (;;) {
        storeLink(block, headIndex(old));
        if (self->head.compare_exchange_weak(old, makeHead(index, old), std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
            return TL_OK;
        }
    }
}

void* MemPool_pop(MemPool* self) {
    if (self == nullptr || self->blocks == nullptr) return nullptr;
    uint32_t old = self->head.load(std::memory_order_acquire);
    for (;;) {
        const int32_t index = headIndex(old);
        if (index < 0) return nullptr;
        uint8_t* block = self->blocks + static_cast<size_t>(index) * self->blockSize;
        // The block may be popped and rewritten by another thread before our
        // compare-and-swap; the counter in head makes that swap fail, so a
        // stale link read here is never installed.
        const int32_t next = loadLink(block);
        if (self->head.compare_exchange_weak(old, makeHead(next, old), std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
            return block;
        }
    }
}

}  // namespace vq_tl
