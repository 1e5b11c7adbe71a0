// The public calibration converter: its context in the caller's buffer and
// the conversion of a factory record into a calibration row.
#include <cstring>

#include "rectify/rectify_data_converter.h"
#include "runtime/raw_double.h"
#include "velquin/rectify_data_converter.h"

struct RectifyDataConverterContext {
    vq_tl::Env env;
    vq_tl::RectifyDataConverter converter;
    int32_t tableCapacity;
    int32_t coefficientCount;
    uint32_t initialized;  // bit 0
};

#if defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4
static_assert(sizeof(RectifyDataConverterContext) == 28, "the converter context is 28 bytes");
#endif

namespace vq_tl {

namespace {

constexpr int32_t kTableMax = 41;

// Nearest integer, halves away from zero, in double; saturated, NaN gives 0.
int32_t roundCrop(float value) {
    const double v = value;
    const double shifted = v >= 0.0 ? v + 0.5 : v - 0.5;
    if (!(shifted == shifted)) return 0;
    if (shifted >= 2147483647.0) return INT32_MAX;
    if (shifted <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(shifted);
}

struct CameraFields {
    float pixelPitch;  // micrometres
    float focalLength;
    int32_t sensorSize[2];
    float centerOffset[2];
    float cropLeft, cropTop, cropWidth, cropHeight;
    int32_t distKind;
    int32_t distCount;
    const float* distTable;
};

CameraFields mainFields(const RectifyDataConverterParam* p) {
    return CameraFields{p->mainPixelPitch,
                        p->mainFocalLength,
                        {p->mainSensorWidth, p->mainSensorHeight},
                        {p->mainCenterOffsetX, p->mainCenterOffsetY},
                        p->mainCropLeft,
                        p->mainCropTop,
                        p->mainCropWidth,
                        p->mainCropHeight,
                        p->mainDistKind,
                        p->mainDistCount,
                        p->mainDistTable};
}

CameraFields subFields(const RectifyDataConverterParam* p) {
    return CameraFields{p->subPixelPitch,
                        p->subFocalLength,
                        {p->subSensorWidth, p->subSensorHeight},
                        {p->subCenterOffsetX, p->subCenterOffsetY},
                        p->subCropLeft,
                        p->subCropTop,
                        p->subCropWidth,
                        p->subCropHeight,
                        p->subDistKind,
                        p->subDistCount,
                        p->subDistTable};
}

float pitchMm(const CameraFields& c) { return c.pixelPitch / 1000.0f; }

TLResult cameraMatrix(RectifyDataConverter* converter, double out[9], const CameraFields& c) {
    const int32_t crop[2] = {roundCrop(c.cropLeft), roundCrop(c.cropTop)};
    Mvec8Real m;
    const TLResult r = RectifyDataConverter_calculateCameraMatrix(converter, &m, c.sensorSize, c.centerOffset,
                                                                  crop, pitchMm(c), c.focalLength);
    if (r != TL_OK) return r;
    std::memcpy(out, m.m, sizeof m.m);
    return TL_OK;
}

bool allZero(const float* table, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        if (table[i] != 0.0f) return false;
    }
    return true;
}

TLResult lensRecord(RectifyDataConverter* converter, TwinLensLensDist* lens, const CameraFields& c) {
    // No table, or one of zeros: the lens counts as undistorted.
    if (c.distCount < 1 || (c.distTable != nullptr && allZero(c.distTable, c.distCount))) {
        lens->kind = 0;
        for (int i = 0; i < 3; ++i) lens->u.coeff.k[i] = 0.0;
        lens->u.coeff.p[0] = lens->u.coeff.p[1] = 0.0;
        return TL_OK;
    }
    // Entries promised by the count but not given.
    if (c.distTable == nullptr) return TL_ERROR_PARAM;
    if (c.distKind == 0) {
        lens->kind = 0;
        // A table longer than the converter's capacity is not fitted and gives zeros.
        double coeff[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        const TLResult r = RectifyDataConverter_calculateDistortionCoeff(
            converter, coeff, c.distTable, c.distCount, c.sensorSize, pitchMm(c), c.focalLength);
        if (r != TL_OK) return r;
        for (int i = 0; i < 3; ++i) lens->u.coeff.k[i] = coeff[i];
        lens->u.coeff.p[0] = coeff[6];
        lens->u.coeff.p[1] = coeff[7];
        return TL_OK;
    }
    if (c.distKind == 1) {
        if (c.distCount > kTableMax) return TL_ERROR_GENERAL;
        const float f = c.focalLength / pitchMm(c);
        const float w = static_cast<float>(c.sensorSize[0]) / f;
        const float h = static_cast<float>(c.sensorSize[1]) / f;
        lens->kind = 1;
        lens->u.data.count = c.distCount;
        lens->u.data.maxRadius = RawDouble_hypot(w, h) * 0.5;
        for (int32_t i = 0; i < c.distCount; ++i) lens->u.data.table[i] = c.distTable[i];
        return TL_OK;
    }
    return TL_ERROR_GENERAL;
}

void calibSizes(TwinLensCameraParam* row, const RectifyDataConverterParam* p) {
    row->mainCalibWidth = row->mainRectWidth = roundCrop(p->mainCropWidth);
    row->mainCalibHeight = row->mainRectHeight = roundCrop(p->mainCropHeight);
    row->subCalibWidth = row->subRectWidth = roundCrop(p->subCropWidth);
    row->subCalibHeight = row->subRectHeight = roundCrop(p->subCropHeight);
}

// The tests shared by the three conversions.
TLResult checkCall(RectifyDataConverterHandle* handle, const void* row, const void* param) {
    if (handle == nullptr || handle->context == nullptr || row == nullptr || param == nullptr) {
        return TL_ERROR_PARAM;
    }
    return (handle->context->initialized & 1u) != 0 ? TL_OK : TL_ERROR_STATE;
}

}  // namespace

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

const char* velquin_RectifyDataConverter_getVersion(void) {
    return "Velquin RectifyDataConverter Ver.1.0.0 2019/03/26";
}

uint32_t velquin_RectifyDataConverter_getBufferSize(int32_t tableCapacity, int32_t coefficientCount) {
    if (tableCapacity < 1 || coefficientCount < 1) return TL_ERROR_PARAM;
    return static_cast<uint32_t>(sizeof(RectifyDataConverterContext));
}

TLResult velquin_RectifyDataConverter_initialize(RectifyDataConverterHandle* handle, void* buffer,
                                                 int32_t bufferSize, int32_t tableCapacity,
                                                 int32_t coefficientCount) {
    if (handle == nullptr || buffer == nullptr || bufferSize < 1) return TL_ERROR_PARAM;
    // The context needs the alignment of its pointer; buffers from malloc have it.
    const uintptr_t start = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t align = alignof(RectifyDataConverterContext);
    const uintptr_t aligned = (start + align - 1) & ~(align - 1);
    if (aligned - start + sizeof(RectifyDataConverterContext) > static_cast<uintptr_t>(bufferSize)) {
        return TL_ERROR_SYSTEM;
    }
    RectifyDataConverterContext* ctx = reinterpret_cast<RectifyDataConverterContext*>(aligned);
    std::memset(static_cast<void*>(ctx), 0, sizeof *ctx);
    const int32_t used = static_cast<int32_t>(aligned - start + sizeof *ctx);
    construct_Env(&ctx->env, static_cast<uint8_t*>(buffer) + used, bufferSize - used);
    TLResult r = construct_RectifyDataConverter(&ctx->converter, &ctx->env);
    if (r == TL_OK) r = RectifyDataConverter_init(&ctx->converter, tableCapacity, coefficientCount);
    if (r != TL_OK) {
        return static_cast<int32_t>(destruct_Env(&ctx->env)) != 0 ? TL_ERROR_SYSTEM : TL_ERROR_GENERAL;
    }
    ctx->tableCapacity = tableCapacity;
    ctx->coefficientCount = coefficientCount;
    ctx->initialized = 1u;
    handle->context = ctx;
    return TL_OK;
}

TLResult velquin_RectifyDataConverter_finalize(RectifyDataConverterHandle* handle) {
    if (handle == nullptr || handle->context == nullptr) return TL_ERROR_PARAM;
    RectifyDataConverterContext* ctx = handle->context;
    if ((ctx->initialized & 1u) == 0) return TL_ERROR_STATE;
    destruct_RectifyDataConverter(&ctx->converter);
    const TLResult r = destruct_Env(&ctx->env);
    std::memset(static_cast<void*>(ctx), 0, sizeof *ctx);
    handle->context = nullptr;
    return r != TL_OK ? TL_ERROR_SYSTEM : TL_OK;
}

TLResult velquin_RectifyDataConverter_convert(RectifyDataConverterHandle* handle,
                                              TwinLensCameraParam* cameraParam,
                                              const RectifyDataConverterParam* param) {
    TLResult r = checkCall(handle, cameraParam, param);
    if (r != TL_OK) return r;
    RectifyDataConverter* converter = &handle->context->converter;
    cameraParam->extrinsicsForward = param->extrinsicsForward;
    Mvec8Real rotation;
    r = RectifyDataConverter_convertAngleToRotationMatrix(converter, &rotation, param->rotationX,
                                                          param->rotationY, param->rotationZ);
    if (r != TL_OK) return r;
    std::memcpy(cameraParam->stereoRotation, rotation.m, sizeof rotation.m);
    const CameraFields sub = subFields(param);
    const CameraFields main = mainFields(param);
    r = cameraMatrix(converter, cameraParam->subCameraMatrix, sub);
    if (r != TL_OK) return r;
    r = cameraMatrix(converter, cameraParam->mainCameraMatrix, main);
    if (r != TL_OK) return r;
    r = lensRecord(converter, &cameraParam->subLensDist, sub);
    if (r != TL_OK) return r;
    r = lensRecord(converter, &cameraParam->mainLensDist, main);
    if (r != TL_OK) return r;
    cameraParam->stereoTranslation[0] = param->translationX;
    cameraParam->stereoTranslation[1] = param->translationY;
    cameraParam->stereoTranslation[2] = param->translationZ;
    calibSizes(cameraParam, param);
    return TL_OK;
}

TLResult velquin_RectifyDataConverter_convertCameraMatrix(RectifyDataConverterHandle* handle,
                                                          TwinLensCameraParam* cameraParam,
                                                          const RectifyDataConverterParam* param) {
    TLResult r = checkCall(handle, cameraParam, param);
    if (r != TL_OK) return r;
    RectifyDataConverter* converter = &handle->context->converter;
    r = cameraMatrix(converter, cameraParam->subCameraMatrix, subFields(param));
    if (r != TL_OK) return r;
    return cameraMatrix(converter, cameraParam->mainCameraMatrix, mainFields(param));
}

TLResult velquin_RectifyDataConverter_convertCalibSize(RectifyDataConverterHandle* handle,
                                                       TwinLensCameraParam* cameraParam,
                                                       const RectifyDataConverterParam* param) {
    const TLResult r = checkCall(handle, cameraParam, param);
    if (r != TL_OK) return r;
    calibSizes(cameraParam, param);
    return TL_OK;
}

}  // extern "C"
