// Arena: a bump allocator over a block the caller owns. Pieces are carved
// one after the other, each starting on a 64-byte line and taking a whole
// number of lines, and are given back all at once by rewinding to a mark
// taken before them. Nothing is freed piece by piece and nothing touches
// the system allocator, so a block that is kept between calls is carved
// again without page faults.
//
// Sizing: a block of Arena_span(b1) + Arena_span(b2) + ... + kArenaAlign
// bytes always holds pieces of b1, b2, ... bytes, whatever the alignment of
// the block itself (the extra line covers the start's alignment).
//
// Threads: one caller per arena.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vq_tl {

constexpr size_t kArenaAlign = 64;

struct Arena {
    uint8_t* base;  // the first aligned byte of the block
    size_t size;    // bytes from base to the end of the block
    size_t used;
};

// The bytes a piece of `bytes` takes, its padding included.
inline size_t Arena_span(size_t bytes) { return (bytes + kArenaAlign - 1) & ~(kArenaAlign - 1); }

// An empty arena over size bytes at block (null or 0: an arena that refuses every piece).
inline void Arena_init(Arena* arena, void* block, size_t size) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(block);
    const size_t skip = block == nullptr ? 0 : ((kArenaAlign - (at & (kArenaAlign - 1))) & (kArenaAlign - 1));
    arena->base = block == nullptr || skip > size ? nullptr : static_cast<uint8_t*>(block) + skip;
    arena->size = arena->base == nullptr ? 0 : size - skip;
    arena->used = 0;
}

// A piece of at least `bytes` bytes (0 gives a piece of none), or null when
// the rest of the block is too small.
inline void* Arena_alloc(Arena* arena, size_t bytes) {
    const size_t span = Arena_span(bytes);
    if (arena->base == nullptr || span < bytes || span > arena->size - arena->used) return nullptr;
    void* piece = arena->base + arena->used;
    arena->used += span;
    return piece;
}

inline size_t Arena_mark(const Arena* arena) { return arena->used; }

// Gives back every piece carved since the mark was taken.
inline void Arena_rewind(Arena* arena, size_t mark) {
    if (mark < arena->used) arena->used = mark;
}

}  // namespace vq_tl
