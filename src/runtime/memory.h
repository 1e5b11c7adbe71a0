// The library's one allocator seam: every block of the library is taken with
// Memory_alloc and given back with Memory_free. A build with
// VQ_TL_ALLOC_FAULTS can be told to fail the N-th allocation, so that tests
// walk every failure path; other builds call malloc and free directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace vq_tl {

#if defined(VQ_TL_ALLOC_FAULTS)
void* Memory_alloc(size_t size);
void Memory_free(void* block);
#else
inline void* Memory_alloc(size_t size) { return std::malloc(size); }
inline void Memory_free(void* block) { std::free(block); }
#endif

// The controls of a fault-injecting build; elsewhere they do nothing, and
// Memory_canInjectFaults answers false.
bool Memory_canInjectFaults();
// Restarts the count of allocations; the n-th one from here on returns null
// (n below 1: none fails).
void Memory_failAt(int64_t n);
// Allocations asked for since the last Memory_failAt, failed ones included.
int64_t Memory_getAllocCount();
// Blocks handed out and not yet given back.
int64_t Memory_getLiveCount();

}  // namespace vq_tl
