// Fixed-size block allocator with a lock-free free list.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

struct MemPool {
    Env* env;
    uint8_t* blocks;      // owned: blockSize * blockCount bytes
    uint32_t blockSize;   // at least 4
    uint32_t reciprocal;  // 0xFFFFFFFF / blockSize: byte offset to index without a division
    uint32_t blockCount;
    // Upper 20 bits: index of the first free block (all ones when empty);
    // lower 12 bits: change counter against ABA.
    std::atomic<uint32_t> head;
};

constexpr int32_t kMemPoolMaxBlocks = 262144;  // 2^18 indices fit the 20-bit field with room for -1

int32_t MemPool_getBufferSize(int32_t blockSize, int32_t blockCount);
TLResult construct_MemPool(MemPool* self, Env* env);
TLResult destruct_MemPool(MemPool* self);
TLResult MemPool_recycle(MemPool* self);
TLResult MemPool_init(MemPool* self, int32_t blockSize, int32_t blockCount);
TLResult MemPool_push(MemPool* self, void* block);
void* MemPool_pop(MemPool* self);

}  // namespace vq_tl
