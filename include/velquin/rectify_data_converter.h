/*
 * Conversion of a camera module's factory calibration (focal lengths in
 * millimetres, pixel pitch in micrometres, sensor sizes, crop rectangles,
 * stereo angles in degrees, measured radial distortion tables) into the
 * calibration row TwinLensCameraParam that velquin_TwinLens_initialize takes.
 * Usable without a session. Compiles as C99 and as C++.
 *
 * Life cycle: size a buffer with velquin_RectifyDataConverter_getBufferSize,
 * hand it to velquin_RectifyDataConverter_initialize, convert any number of
 * records, close with velquin_RectifyDataConverter_finalize. The buffer must
 * stay valid until finalize.
 *
 * Threads: a handle is used by one thread at a time; initialize and finalize
 * must not overlap other calls on it. Different handles are independent.
 */
#ifndef VELQUIN_RECTIFY_DATA_CONVERTER_H
#define VELQUIN_RECTIFY_DATA_CONVERTER_H

#include <stddef.h>
#include <stdint.h>

#include "velquin/twin_lens_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define VELQUIN_RDC_API
#else
#define VELQUIN_RDC_API __attribute__((visibility("default")))
#endif

/* The factory record of a camera pair, 132 bytes on 32-bit targets. Crop
 * values are pixels on the sensor and are rounded to nearest, halves away
 * from zero. A distortion table entry T[i] is the distorted relative radius
 * of the ideal relative radius i / (count - 1), 1.0 being the half diagonal. */
typedef struct RectifyDataConverterParam {
    int32_t extrinsicsForward; /* copied to the row as it is */
    float mainPixelPitch;      /* micrometres */
    float subPixelPitch;
    float mainFocalLength; /* millimetres */
    float subFocalLength;
    int32_t mainSensorWidth; /* pixels */
    int32_t mainSensorHeight;
    int32_t subSensorWidth;
    int32_t subSensorHeight;
    float mainCenterOffsetX; /* principal point from the sensor centre, millimetres */
    float mainCenterOffsetY;
    float subCenterOffsetX;
    float subCenterOffsetY;
    float mainCropLeft; /* crop rectangle on the sensor, pixels */
    float mainCropTop;
    float mainCropWidth; /* also the main calibration size */
    float mainCropHeight;
    float subCropLeft;
    float subCropTop;
    float subCropWidth; /* also the sub calibration size */
    float subCropHeight;
    int32_t mainDistKind; /* 0: fit a coefficient model to the table; 1: keep the table */
    int32_t subDistKind;
    int32_t mainDistCount; /* entries of the table; a null table goes with a count of 0 */
    int32_t subDistCount;
    const float* mainDistTable;
    const float* subDistTable;
    float translationX; /* stereo translation, copied as given */
    float translationY;
    float translationZ;
    float rotationX; /* stereo rotation angles in degrees, about x, y and z */
    float rotationY;
    float rotationZ;
} RectifyDataConverterParam;

struct RectifyDataConverterContext;

/* Caller-owned; context stays null until initialize succeeds. */
typedef struct RectifyDataConverterHandle {
    struct RectifyDataConverterContext* context;
} RectifyDataConverterHandle;

/* "Velquin RectifyDataConverter Ver.1.0.0 2019/03/26", a static string. */
VELQUIN_RDC_API const char* velquin_RectifyDataConverter_getVersion(void);

/* Bytes of the context that initialize places in the caller's buffer (28 on
 * 32-bit targets), or TL_ERROR_PARAM when either argument is below 1.
 * tableCapacity is the longest table to be fitted, coefficientCount the number
 * of radial coefficients of the fit (3 gives k1, k2, k3). */
VELQUIN_RDC_API uint32_t velquin_RectifyDataConverter_getBufferSize(int32_t tableCapacity,
                                                                    int32_t coefficientCount);

/* TL_ERROR_PARAM for a null handle or buffer or a bufferSize below 1,
 * TL_ERROR_SYSTEM for a buffer too small, TL_ERROR_GENERAL when the converter
 * cannot be set up for these arguments. */
VELQUIN_RDC_API TLResult velquin_RectifyDataConverter_initialize(RectifyDataConverterHandle* handle,
                                                                 void* buffer, int32_t bufferSize,
                                                                 int32_t tableCapacity,
                                                                 int32_t coefficientCount);

/* TL_ERROR_PARAM for a null handle or context, TL_ERROR_STATE when not
 * initialised. Clears the handle. */
VELQUIN_RDC_API TLResult velquin_RectifyDataConverter_finalize(RectifyDataConverterHandle* handle);

/* Fills the whole row except focusPosition and the rectification rotations
 * and rectified camera matrices, which belong to the caller. The two rect
 * sizes take the calibration sizes. On an error the row may be half filled.
 * All three: TL_ERROR_PARAM for null arguments, TL_ERROR_STATE when not
 * initialised. */
VELQUIN_RDC_API TLResult velquin_RectifyDataConverter_convert(RectifyDataConverterHandle* handle,
                                                              TwinLensCameraParam* cameraParam,
                                                              const RectifyDataConverterParam* param);

/* Fills only mainCameraMatrix and subCameraMatrix. */
VELQUIN_RDC_API TLResult velquin_RectifyDataConverter_convertCameraMatrix(
    RectifyDataConverterHandle* handle, TwinLensCameraParam* cameraParam,
    const RectifyDataConverterParam* param);

/* Fills only the four calibration sizes and the four rect sizes. */
VELQUIN_RDC_API TLResult velquin_RectifyDataConverter_convertCalibSize(
    RectifyDataConverterHandle* handle, TwinLensCameraParam* cameraParam,
    const RectifyDataConverterParam* param);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* Layout of the factory record on 32-bit targets. */
#if defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4
#ifdef __cplusplus
#define VQ_RDC_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define VQ_RDC_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
VQ_RDC_STATIC_ASSERT(sizeof(RectifyDataConverterParam) == 132, "factory record is 132 bytes");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainPixelPitch) == 4, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainFocalLength) == 12, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainSensorWidth) == 20, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subSensorHeight) == 32, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainCenterOffsetX) == 36, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subCenterOffsetY) == 48, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainCropLeft) == 52, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainCropHeight) == 64, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subCropLeft) == 68, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subCropHeight) == 80, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainDistKind) == 84, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subDistKind) == 88, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainDistCount) == 92, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subDistCount) == 96, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, mainDistTable) == 100, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, subDistTable) == 104, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, translationX) == 108, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, translationZ) == 116, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, rotationX) == 120, "record offset");
VQ_RDC_STATIC_ASSERT(offsetof(RectifyDataConverterParam, rotationZ) == 128, "record offset");
#undef VQ_RDC_STATIC_ASSERT
#endif

#endif /* VELQUIN_RECTIFY_DATA_CONVERTER_H */
