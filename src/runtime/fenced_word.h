// Single-word handoffs between threads, with a full fence on each side.
#pragma once

#include <cstdint>

namespace vq_tl {

// Sequentially consistent accesses to plain words of shared records: the
// words keep their place in binary layouts and every access is ordered.
template <typename T>
inline T FencedWord_load(const T* word) {
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

template <typename T>
inline void FencedWord_store(T* word, T value) {
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}

template <typename T>
inline T FencedWord_fetchOr(T* word, T bits) {
    return __atomic_fetch_or(word, bits, __ATOMIC_SEQ_CST);
}

template <typename T>
inline T FencedWord_fetchAnd(T* word, T bits) {
    return __atomic_fetch_and(word, bits, __ATOMIC_SEQ_CST);
}

}  // namespace vq_tl
