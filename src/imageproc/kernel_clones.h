// VQ_TL_KERNEL_CLONES marks a hot pixel loop to be compiled twice on x86-64
// Linux, for AVX2 and for the baseline, the loader picking one by the
// processor. The loops are plain C++ or the compiler's vector types: both
// copies make the same IEEE operations in the same order, never fused into
// multiply-adds (the library builds with -ffp-contract=off), so they give
// the same bits; elsewhere, Arm with NEON included, the mark is empty and
// the baseline build is the code.
#pragma once

// ThreadSanitizer builds keep the baseline alone: the loader runs the clones'
// resolvers while it relocates the program, before the sanitizer's runtime is
// up, and their instrumented entries crash there. Clang builds (the fuzz
// targets) keep it too: clang refuses clones of function templates.
#if defined(__x86_64__) && defined(__linux__) && !defined(__ANDROID__) && defined(__has_attribute) && \
    !defined(__SANITIZE_THREAD__) && !defined(__clang__)
#if __has_attribute(target_clones)
#define VQ_TL_KERNEL_CLONES __attribute__((target_clones("avx2", "default")))
#endif
#endif
#ifndef VQ_TL_KERNEL_CLONES
#define VQ_TL_KERNEL_CLONES
#endif
