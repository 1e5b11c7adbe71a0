/*
 * libvelquin_twin_lens: depth and synthetic shallow depth of field from a pair
 * of rear cameras. Compiles as C99 and as C++.
 *
 * Life cycle: size a buffer with velquin_TwinLens_getBufferSize, hand it to
 * velquin_TwinLens_initialize together with the parameters, drive the session
 * through the handle, close it with velquin_TwinLens_finalize. The buffer holds
 * the session record alone and must stay valid until finalize.
 *
 * Threads: all calls on one handle come from one thread of the caller at a
 * time; initialize and finalize must not overlap any other call on the same
 * handle. Different handles are independent. The handle's own address is part
 * of the session's guard, so a handle must not be copied elsewhere and then
 * finalized.
 */
#ifndef VELQUIN_TWIN_LENS_H
#define VELQUIN_TWIN_LENS_H

#include "velquin/twin_lens_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define VELQUIN_TL_API
#else
#define VELQUIN_TL_API __attribute__((visibility("default")))
#endif

struct TwinLensSession;

/* Caller-owned; session stays null until initialize succeeds. */
typedef struct TwinLensHandle {
    struct TwinLensSession* session;
} TwinLensHandle;

/* "Velquin Twin Lens Suite Ver.1.0.0 2019/03/26", a static string. */
VELQUIN_TL_API const char* velquin_TwinLens_getVersion(void);

/* Bytes that initialize needs, independent of the sizes; negative
 * (TL_ERROR_PARAM) for bad sizes. The format is not looked at here. */
VELQUIN_TL_API int32_t velquin_TwinLens_getBufferSize(const TwinLensParams* params);

/* Validates in this order: params (TL_ERROR_PARAM), the format name
 * (TL_ERROR_UNSUPPORTED unless "YUV420_PLANAR", "YUV420_SEMIPLANAR" or
 * "YVU420_SEMIPLANAR"), handle and buffer (TL_ERROR_PARAM), sizes
 * (TL_ERROR_PARAM), buffer size (TL_ERROR_SYSTEM). Sizes: each even, at most
 * 16384; main and sub at least 76800 pixels, depth at least 19200; aspect
 * ratios of sub and depth within 0.1 of main. */
VELQUIN_TL_API TLResult velquin_TwinLens_initialize(TwinLensHandle* handle, void* buffer, int32_t bufferSize,
                                                    const TwinLensParams* params);

/* Stops the frame worker, releases everything and clears the handle.
 * TL_ERROR_PARAM for a null or already finalized handle, TL_ERROR_STATE for
 * a copied handle or a buffer that holds no live session. */
VELQUIN_TL_API TLResult velquin_TwinLens_finalize(TwinLensHandle* handle);

/* Offers one synchronised pair of frames in the session's format and sizes.
 * Synchronous sessions estimate on the calling thread and store 0 in
 * *sequenceOut. Asynchronous sessions hand the pair to the frame worker
 * without copying it and store its sequence number (0, 1, 2, ...); the caller
 * keeps both frames untouched until the completion callback for that number
 * has run. While a frame is in progress a pair is not taken: the result is
 * TL_OK with *sequenceOut -1, and the pixels are the caller's again at once.
 * sequenceOut may be null. The callback runs on the worker thread (or, for a
 * superseded frame, inside this call) and must not call finalize.
 *
 * Two ways an asynchronous session stops taking pairs, kept for
 * compatibility: (1) out of memory: when the small record that carries the
 * pair to the worker cannot be allocated, the call still answers TL_OK with
 * *sequenceOut 0, but the pair is never estimated and no completion callback
 * ever comes for it; (2) a pair whose records the worker cannot borrow (a
 * pitch below 1, or a null plane that the format needs) is refused with
 * TL_ERROR_GENERAL. After either, every later pair is refused with -1. A
 * caller that waits for a callback should wait with a time limit; when it
 * runs out, or when pairs keep being refused, finalize the session and
 * initialize it again. Checking pitches and planes before the call avoids (2). */
VELQUIN_TL_API TLResult velquin_TwinLens_process(TwinLensHandle* handle, const TwinLensImage* main,
                                                 const TwinLensImage* sub, int32_t* sequenceOut);

/* The same with records that carry pitches. */
VELQUIN_TL_API TLResult velquin_TwinLens_processEx(TwinLensHandle* handle, const TwinLensImageEx* main,
                                                   const TwinLensImageEx* sub, int32_t* sequenceOut);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VELQUIN_TWIN_LENS_H */
