#include "runtime/memory.h"

#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define VQ_TL_NO_BLOCK_CACHE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VQ_TL_NO_BLOCK_CACHE 1
#endif
#endif

namespace vq_tl {

namespace {

// Every block carries its capacity in front, in 16 bytes so that the caller's
// part keeps malloc's alignment.
constexpr size_t kHeader = 16;
constexpr size_t kLargeBlock = size_t{256} << 10;
constexpr int kCacheSlots = 32;
#if defined(VQ_TL_NO_BLOCK_CACHE)
constexpr size_t kCacheBudget = 0;
#else
// A 12 MP shot's per-frame blocks at the working size of 1080 x 810 with up
// to 64 candidates stay well below this.
constexpr size_t kCacheBudget = size_t{192} << 20;
#endif

struct BlockCache {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    void* blocks[kCacheSlots] = {};
    size_t capacity[kCacheSlots] = {};
    // When each block was kept: the oldest make room first, so a session that
    // changes its sizes or modes soon holds its own blocks, not stale ones.
    uint64_t keptAt[kCacheSlots] = {};
    uint64_t clock = 0;
    size_t bytes = 0;
};

BlockCache gCache;

#if defined(VQ_TL_ALLOC_FAULTS)
std::atomic<int64_t> gFailAt{0};
std::atomic<int64_t> gCount{0};
std::atomic<int64_t> gLive{0};
#endif

inline size_t& capacityOf(void* raw) { return *static_cast<size_t*>(raw); }

// A kept block of at least `size` bytes and at most a quarter more, the
// smallest such; null when there is none.
void* takeCached(size_t size) {
    void* found = nullptr;
    pthread_mutex_lock(&gCache.lock);
    int best = -1;
    for (int i = 0; i < kCacheSlots; ++i) {
        const size_t c = gCache.capacity[i];
        if (gCache.blocks[i] != nullptr && c >= size && c - size <= size / 4 &&
            (best < 0 || c < gCache.capacity[best]))
            best = i;
    }
    if (best >= 0) {
        found = gCache.blocks[best];
        gCache.bytes -= gCache.capacity[best];
        gCache.blocks[best] = nullptr;
        gCache.capacity[best] = 0;
    }
    pthread_mutex_unlock(&gCache.lock);
    return found;
}

// Keeps the block when it fits the budget at all, giving the oldest kept
// blocks back to the system until a slot and the budget allow; true when kept.
bool keep(void* raw, size_t capacity) {
    if (capacity > kCacheBudget) return false;
    void* evicted[kCacheSlots];
    int evictedCount = 0;
    pthread_mutex_lock(&gCache.lock);
    for (;;) {
        int freeSlot = -1, oldest = -1;
        for (int i = 0; i < kCacheSlots; ++i) {
            if (gCache.blocks[i] == nullptr) {
                if (freeSlot < 0) freeSlot = i;
            } else if (oldest < 0 || gCache.keptAt[i] < gCache.keptAt[oldest]) {
                oldest = i;
            }
        }
        if (freeSlot >= 0 && gCache.bytes + capacity <= kCacheBudget) {
            gCache.blocks[freeSlot] = raw;
            gCache.capacity[freeSlot] = capacity;
            gCache.keptAt[freeSlot] = ++gCache.clock;
            gCache.bytes += capacity;
            break;
        }
        evicted[evictedCount++] = gCache.blocks[oldest];
        gCache.bytes -= gCache.capacity[oldest];
        gCache.blocks[oldest] = nullptr;
        gCache.capacity[oldest] = 0;
    }
    pthread_mutex_unlock(&gCache.lock);
    for (int i = 0; i < evictedCount; ++i) std::free(evicted[i]);
    return true;
}

// Blocks from 4 MB on (the matcher's path planes and volumes, the 12 MP
// frames' planes) ask for 2 MB pages where the system offers them on
// request: their passes stream through tens of megabytes, and with 4 KB
// pages each stream misses the TLB every 4 KB (the matcher's mode 0 call
// took about 0.35 ms less here). Only the block's whole 2 MB spans are
// advised; where the system has no such pages the advice changes nothing.
void adviseLargePages(void* raw, size_t bytes) {
#if defined(MADV_HUGEPAGE)
    constexpr uintptr_t kPage = uintptr_t{2} << 20;
    if (bytes < (size_t{4} << 20)) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(raw) + kPage - 1) & ~(kPage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(raw) + bytes) & ~(kPage - 1);
    if (end > begin) (void)madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)raw;
    (void)bytes;
#endif
}

}  // namespace

void* Memory_alloc(size_t size) {
#if defined(VQ_TL_ALLOC_FAULTS)
    const int64_t n = gCount.fetch_add(1) + 1;
    if (n == gFailAt.load()) return nullptr;
#endif
    if (size > SIZE_MAX - kHeader) return nullptr;
    void* raw = size >= kLargeBlock && kCacheBudget > 0 ? takeCached(size) : nullptr;
    if (raw == nullptr) {
        raw = std::malloc(size + kHeader);
        if (raw == nullptr) return nullptr;
        capacityOf(raw) = size;
        adviseLargePages(raw, size + kHeader);
    }
#if defined(VQ_TL_ALLOC_FAULTS)
    gLive.fetch_add(1);
#endif
    return static_cast<unsigned char*>(raw) + kHeader;
}

void Memory_free(void* block) {
    if (block == nullptr) return;
#if defined(VQ_TL_ALLOC_FAULTS)
    gLive.fetch_sub(1);
#endif
    void* raw = static_cast<unsigned char*>(block) - kHeader;
    const size_t capacity = capacityOf(raw);
    if (capacity >= kLargeBlock && kCacheBudget > 0 && keep(raw, capacity)) return;
    std::free(raw);
}

void Memory_releaseCache() {
    void* blocks[kCacheSlots];
    pthread_mutex_lock(&gCache.lock);
    for (int i = 0; i < kCacheSlots; ++i) {
        blocks[i] = gCache.blocks[i];
        gCache.blocks[i] = nullptr;
        gCache.capacity[i] = 0;
    }
    gCache.bytes = 0;
    pthread_mutex_unlock(&gCache.lock);
    for (void* b : blocks) std::free(b);
}

size_t Memory_getCachedBytes() {
    pthread_mutex_lock(&gCache.lock);
    const size_t bytes = gCache.bytes;
    pthread_mutex_unlock(&gCache.lock);
    return bytes;
}

size_t Memory_getCacheBudget() { return kCacheBudget; }

#if defined(VQ_TL_ALLOC_FAULTS)

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
