// The library's one allocator seam: every block of the library is taken with
// Memory_alloc and given back with Memory_free.
//
// Large blocks (256 KiB and up: the matcher's volumes, the refiner's guides,
// taken and given back once per frame) are kept after Memory_free for the
// next call that asks for about the same size, up to a fixed budget: without
// this every frame pays for first touches of fresh pages, about a sixth of a
// 12 MP shot. Memory_releaseCache gives the kept blocks back to the system;
// velquin_TwinLens_finalize calls it. Builds with AddressSanitizer keep
// nothing, so that a use after free is still caught.
//
// A build with VQ_TL_ALLOC_FAULTS can be told to fail the N-th allocation,
// so that tests walk every failure path.
//
// Threads: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vq_tl {

// At least 16-byte aligned, like malloc; null when the system has no memory.
void* Memory_alloc(size_t size);
void Memory_free(void* block);

// Gives every kept large block back to the system.
void Memory_releaseCache();
// Bytes of kept blocks now, and the most that may be kept (0: nothing is).
size_t Memory_getCachedBytes();
size_t Memory_getCacheBudget();

// The controls of a fault-injecting build; elsewhere they do nothing, and
// Memory_canInjectFaults answers false.
bool Memory_canInjectFaults();
// Restarts the count of allocations; the n-th one from here on returns null
// (n below 1: none fails).
void Memory_failAt(int64_t n);
// Allocations asked for since the last Memory_failAt, failed ones included.
int64_t Memory_getAllocCount();
// Blocks handed out and not yet given back (kept blocks are not counted).
int64_t Memory_getLiveCount();

}  // namespace vq_tl
