/*
 * Result codes and binary records shared by both public families of
 * libvelquin_twin_lens. Compiles as C99 and as C++.
 *
 * The records cross the boundary with a camera service, so their field order,
 * widths and byte positions are fixed. On targets with 4-byte pointers the
 * layout below is exact (checked at compile time); on 64-bit hosts the natural
 * layout of the same declarations holds. Reserved fields are spelled out so
 * that the layout does not depend on the ABI's alignment of doubles.
 */
#ifndef VELQUIN_TWIN_LENS_TYPES_H
#define VELQUIN_TWIN_LENS_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes (unsigned 32-bit). Failures of several steps may be or'ed. */
typedef uint32_t TLResult;

#define TL_OK ((TLResult)0x00000000u)
#define TL_ERROR_GENERAL ((TLResult)0x80000000u)     /* an internal step failed */
#define TL_ERROR_PARAM ((TLResult)0x80000001u)       /* bad argument */
#define TL_ERROR_STATE ((TLResult)0x80000002u)       /* not allowed in this state */
#define TL_ERROR_MEMORY ((TLResult)0x80000004u)      /* the allocator failed */
#define TL_ERROR_UNSUPPORTED ((TLResult)0x80000010u) /* unsupported format or mode */
#define TL_ERROR_EMPTY ((TLResult)0x80000020u)       /* queue empty or no such element */
#define TL_ERROR_TIMEOUT ((TLResult)0x80000080u)     /* a timed wait ran out */
#define TL_ERROR_SYSTEM ((TLResult)0xC0000000u)      /* buffer too small, or a system call failed */

/* Non-error marks of parallel results. */
#define TL_MARK_NOT_FINISHED ((TLResult)0x00010000u)
#define TL_MARK_CANCELLED ((TLResult)0x00020000u)

/* True for every failure code: they all have the top bit set. */
#define TL_FAILED(r) ((((TLResult)(r)) & 0x80000000u) != 0u)

/* Lens distortion of one camera, 352 bytes. kind 0: coefficient model with a
 * fitted inverse; kind 1: radial table. */
typedef struct TwinLensLensCoeff {
    double k[6];    /* radial k1..k6; the session uses k1, k2, k3 */
    double p[2];    /* tangential p1, p2 */
    double invK[6]; /* inverse radial coefficients; the first three are fitted */
    double invP[2]; /* inverse tangential coefficients */
    int32_t invValid;
    int32_t reserved;
} TwinLensLensCoeff;

typedef struct TwinLensLensTable {
    double table[41]; /* distorted radius of ideal radius i / (count - 1), both over maxRadius */
    int32_t count;    /* used entries, at most 41 */
    int32_t reserved;
    double maxRadius; /* ideal radius of the table's last entry */
} TwinLensLensTable;

typedef struct TwinLensLensDist {
    int32_t kind; /* 0 coefficients, 1 radial table */
    int32_t reserved;
    union {
        TwinLensLensCoeff coeff;
        TwinLensLensTable data;
    } u;
} TwinLensLensDist;

/* One calibration row, 1280 bytes. Matrices are row-major 3x3; camera
 * matrices hold the focal length in pixels at element 0. The translation
 * carries the row's length unit: the calibration's unit, metres by
 * convention, is the unit of the depth limits and depth tables that the
 * session reports. */
typedef struct TwinLensCameraParam {
    double focusPosition;      /* lens position; the key of setFocusPos */
    int32_t extrinsicsForward; /* 0: invert the stereo rotation and negate the translation */
    int32_t mainCalibWidth;
    int32_t mainCalibHeight;
    int32_t subCalibWidth;
    int32_t subCalibHeight;
    int32_t reserved;
    double mainCameraMatrix[9];
    double subCameraMatrix[9];
    TwinLensLensDist mainLensDist;
    TwinLensLensDist subLensDist;
    int32_t mainRectWidth;
    int32_t mainRectHeight;
    int32_t subRectWidth;
    int32_t subRectHeight;
    double mainRectRotation[9]; /* first row all 0.0: no per-camera rectification given */
    double subRectRotation[9];
    double mainRectCameraMatrix[9];
    double subRectCameraMatrix[9];
    double stereoRotation[9];
    double stereoTranslation[3]; /* its length is the baseline */
} TwinLensCameraParam;

#define TWIN_LENS_MAX_CAMERA_PARAMS 20

/* Asynchronous completion: dropped is 0 for a frame that went through the
 * estimator, 1 for one superseded before it began. The return value is not
 * used. */
typedef int32_t (*TwinLensCompletionCallback)(void* userData, uint32_t sequence, int32_t dropped);

/* Session parameters, 25672 bytes on 32-bit targets. Read only by
 * getBufferSize and initialize. */
typedef struct TwinLensParams {
    int32_t mainWidth;
    int32_t mainHeight;
    int32_t subWidth;
    int32_t subHeight;
    int32_t depthWidth;
    int32_t depthHeight;
    int32_t rotation;     /* quarter turns of the pair: 1, 2, 3, anything else is 0 */
    int32_t matchingMode; /* 1 fine, anything else normal */
    int32_t refineLevel;  /* 1, 2, 3 or anything else for none */
    int32_t blurBackend;  /* 0 CPU pyramid, 1 CPU disc, 2 OpenGL ES */
    const char* format;   /* pixel format name of every frame, e.g. "YUV420_SEMIPLANAR" */
    int32_t asyncMode;    /* 0 synchronous, else a frame worker; 1 also a second parallel layer */
    TwinLensCompletionCallback completionCallback; /* may be null */
    void* callbackUserData;                        /* handed to the callback, never read */
    int32_t cameraParamCount;
    int32_t reserved;
    TwinLensCameraParam cameraParams[TWIN_LENS_MAX_CAMERA_PARAMS];
    int32_t workerPriorityEnabled;
    int32_t workerPriority; /* nice value -20..19, honoured with asyncMode 1 only */
} TwinLensParams;

/* A frame or picture with tight rows. The format is the one named at
 * initialize for frames, UINT8 for depth pictures; unused planes are not read. */
typedef struct TwinLensImage {
    int32_t width;
    int32_t height;
    void* plane0; /* luminance, or the only plane */
    void* plane1; /* U plane of a planar format, chroma plane of a semi-planar one */
    void* plane2; /* V plane of a planar format */
} TwinLensImage;

/* The same with explicit pitches in bytes. */
typedef struct TwinLensImageEx {
    int32_t width;
    int32_t height;
    void* plane0;
    void* plane1;
    void* plane2;
    int32_t pitch0;
    int32_t pitch1;
    int32_t pitch2;
} TwinLensImageEx;

#ifdef __cplusplus
} /* extern "C" */
#endif

/* Layout of the binary records on 32-bit targets. */
#if defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4
#ifdef __cplusplus
#define VQ_TL_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define VQ_TL_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
VQ_TL_STATIC_ASSERT(sizeof(TwinLensLensDist) == 352, "lens record is 352 bytes");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.coeff.k) == 8, "k at 8");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.coeff.p) == 56, "p at 56");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.coeff.invK) == 72, "invK at 72");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.coeff.invP) == 120, "invP at 120");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.coeff.invValid) == 136, "invValid at 136");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.data.table) == 8, "table at 8");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.data.count) == 336, "count at 336");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensLensDist, u.data.maxRadius) == 344, "maxRadius at 344");
VQ_TL_STATIC_ASSERT(sizeof(TwinLensCameraParam) == 1280, "calibration row is 1280 bytes");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, extrinsicsForward) == 8, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subCalibHeight) == 24, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, mainCameraMatrix) == 32, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subCameraMatrix) == 104, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, mainLensDist) == 176, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subLensDist) == 528, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, mainRectWidth) == 880, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subRectHeight) == 892, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, mainRectRotation) == 896, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subRectRotation) == 968, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, mainRectCameraMatrix) == 1040, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, subRectCameraMatrix) == 1112, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, stereoRotation) == 1184, "row offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensCameraParam, stereoTranslation) == 1256, "row offset");
VQ_TL_STATIC_ASSERT(sizeof(TwinLensParams) == 25672, "parameters are 25672 bytes");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, format) == 40, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, asyncMode) == 44, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, completionCallback) == 48, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, callbackUserData) == 52, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, cameraParamCount) == 56, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, cameraParams) == 64, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, workerPriorityEnabled) == 25664, "params offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensParams, workerPriority) == 25668, "params offset");
VQ_TL_STATIC_ASSERT(sizeof(TwinLensImage) == 20, "image record is 20 bytes");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensImage, plane2) == 16, "image offset");
VQ_TL_STATIC_ASSERT(sizeof(TwinLensImageEx) == 32, "image record with pitches is 32 bytes");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensImageEx, pitch0) == 20, "image offset");
VQ_TL_STATIC_ASSERT(offsetof(TwinLensImageEx, pitch2) == 28, "image offset");
#undef VQ_TL_STATIC_ASSERT
#endif

#endif /* VELQUIN_TWIN_LENS_TYPES_H */
