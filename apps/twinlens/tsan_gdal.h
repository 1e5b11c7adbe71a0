// Included once by each program that decodes or encodes pictures through
// OpenCV (twinlens and its tests).
#pragma once

// Thread sanitizer builds: GDAL, which Debian's OpenCV loads for its picture
// codecs, takes two of its own locks in both orders while it registers its
// drivers on the first decode or encode, on one thread; the sanitizer takes
// that for a possible deadlock. Nothing of this program's is concerned.
#if defined(__SANITIZE_THREAD__)
#define VQ_TL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VQ_TL_TSAN 1
#endif
#endif
#ifdef VQ_TL_TSAN
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libgdal\n"; }
#endif
