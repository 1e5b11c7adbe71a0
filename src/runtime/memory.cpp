#include "runtime/memory.h"

#include <atomic>

namespace vq_tl {

#if defined(VQ_TL_ALLOC_FAULTS)

namespace {

std::atomic<int64_t> gFailAt{0};
std::atomic<int64_t> gCount{0};
std::atomic<int64_t> gLive{0};

}  // namespace

void* Memory_alloc(size_t size) {
    const int64_t n = gCount.fetch_add(1) + 1;
    if (n == gFailAt.load()) return nullptr;
    void* block = std::malloc(size);
    if (block != nullptr) gLive.fetch_add(1);
    return block;
}

void Memory_free(void* block) {
    if (block == nullptr) return;
    gLive.fetch_sub(1);
    std::free(block);
}

bool Memory_canInjectFaults() { return true; }

void Memory_failAt(int64_t n) {
    gFailAt.store(0);
    gCount.store(0);
    gFailAt.store(n);
}

int64_t Memory_getAllocCount() { return gCount.load(); }
int64_t Memory_getLiveCount() { return gLive.load(); }

#else

bool Memory_canInjectFaults() { return false; }
void Memory_failAt(int64_t) {}
int64_t Memory_getAllocCount() { return 0; }
int64_t Memory_getLiveCount() { return 0; }

#endif

}  // namespace vq_tl
