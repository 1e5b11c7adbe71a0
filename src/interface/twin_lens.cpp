// Life cycle of a session: version, buffer size, initialize, finalize.
#include <cstring>

#include "interface/twin_lens_session.h"
#include "rectify/rectify_lens_dist.h"
#include "runtime/fenced_word.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr int32_t kMaxSide = 16384;
constexpr int32_t kMinFramePixels = 76800;  // 320 x 240
constexpr int32_t kMinDepthPixels = 19200;  // 160 x 120
constexpr double kMaxAspectDifference = 0.1;

bool sideValid(int32_t side) {
    // Sizes must also be positive: a pair of negative sides passes the other tests.
    return side > 0 && side <= kMaxSide && (side & 1) == 0;
}

double aspect(int32_t width, int32_t height) {
    return static_cast<double>(width) / static_cast<double>(height);
}

double absDiff(double a, double b) { return a > b ? a - b : b - a; }

uint32_t guardOf(const TwinLensHandle* handle) {
    return kSessionGuardKey ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
}

// The rows the session copies: the count as given, at most the table's 20.
int32_t calibrationRows(const TwinLensParams* p) {
    const int32_t n = p->cameraParamCount;
    return n < 0 ? 0 : n > TWIN_LENS_MAX_CAMERA_PARAMS ? TWIN_LENS_MAX_CAMERA_PARAMS : n;
}

// The tail shared by the failure path of initialize and by finalize.
TLResult closeSession(TwinLensHandle* handle, TwinLensSession* session, TLResult success) {
    if (static_cast<int32_t>(destruct_Env(&session->env)) < 0) return TL_ERROR_SYSTEM;
    std::memset(static_cast<void*>(session), 0, sizeof *session);
    handle->session = nullptr;
    return success;
}

}  // namespace

namespace {

// Rows of a rotation must be orthonormal to this precision: rotations that
// went through single precision on their way into a row are off by about
// 1e-7, a scaled or sheared matrix by far more.
constexpr double kRotationTolerance = 1e-5;

bool allFinite(const double* values, int count) {
    for (int i = 0; i < count; ++i) {
        // NaN and both infinities fail: their difference with themselves is not 0.
        if (!(values[i] - values[i] == 0.0)) return false;
    }
    return true;
}

// fx and fy positive, no skew, last row (0, 0, 1): what rectification takes.
bool cameraMatrixValid(const double* m) {
    return allFinite(m, 9) && m[0] > 0.0 && m[4] > 0.0 && m[1] == 0.0 && m[3] == 0.0 && m[6] == 0.0 &&
           m[7] == 0.0 && m[8] == 1.0;
}

// R R^T = I and det R = +1 (a reflection has -1).
bool rotationValid(const double* r) {
    if (!allFinite(r, 9)) return false;
    for (int i = 0; i < 3; ++i) {
        for (int k = 0; k < 3; ++k) {
            const double dot =
                r[3 * i] * r[3 * k] + r[3 * i + 1] * r[3 * k + 1] + r[3 * i + 2] * r[3 * k + 2];
            if (absDiff(dot, i == k ? 1.0 : 0.0) > kRotationTolerance) return false;
        }
    }
    const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[1] * (r[3] * r[8] - r[5] * r[6]) +
                       r[2] * (r[3] * r[7] - r[4] * r[6]);
    return det > 0.0;
}

bool lensValid(const TwinLensLensDist& lens) {
    if (lens.kind == 0) return allFinite(lens.u.coeff.k, 6) && allFinite(lens.u.coeff.p, 2);
    if (lens.kind == 1) {
        const TwinLensLensTable& t = lens.u.data;
        return t.count >= 2 && t.count <= kRectifyLensTableMax && allFinite(t.table, t.count) &&
               allFinite(&t.maxRadius, 1) && t.maxRadius > 0.0;
    }
    return true;  // unknown kinds have a code of their own
}

}  // namespace

bool TwinLens_cameraParamValid(const TwinLensCameraParam* row) {
    if (!allFinite(&row->focusPosition, 1) || !cameraMatrixValid(row->mainCameraMatrix) ||
        !cameraMatrixValid(row->subCameraMatrix) || !lensValid(row->mainLensDist) ||
        !lensValid(row->subLensDist) || !rotationValid(row->stereoRotation) ||
        !allFinite(row->stereoTranslation, 3)) {
        return false;
    }
    const double* t = row->stereoTranslation;
    if (t[0] == 0.0 && t[1] == 0.0 && t[2] == 0.0) return false;
    if (row->mainCalibWidth < 1 || row->mainCalibHeight < 1 || row->subCalibWidth < 1 ||
        row->subCalibHeight < 1) {
        return false;
    }
    // The per-camera rectification is read only when its first row is given.
    const double* r = row->mainRectRotation;
    if (r[0] == 0.0 && r[1] == 0.0 && r[2] == 0.0) return true;
    return rotationValid(row->mainRectRotation) && rotationValid(row->subRectRotation) &&
           cameraMatrixValid(row->mainRectCameraMatrix) && cameraMatrixValid(row->subRectCameraMatrix) &&
           row->mainRectWidth > 0 && row->mainRectHeight > 0 && row->subRectWidth > 0 &&
           row->subRectHeight > 0;
}

bool TwinLens_lensKindsKnown(const TwinLensCameraParam* row) {
    return (row->mainLensDist.kind == 0 || row->mainLensDist.kind == 1) &&
           (row->subLensDist.kind == 0 || row->subLensDist.kind == 1);
}

bool TwinLens_sizesValid(const TwinLensParams* p) {
    const int32_t sides[6] = {p->mainWidth, p->mainHeight, p->subWidth,
                              p->subHeight, p->depthWidth, p->depthHeight};
    for (int32_t side : sides) {
        if (!sideValid(side)) return false;
    }
    // With every side in 2..16384 the products fit 32-bit signed arithmetic.
    if (p->mainWidth * p->mainHeight < kMinFramePixels) return false;
    if (p->subWidth * p->subHeight < kMinFramePixels) return false;
    if (p->depthWidth * p->depthHeight < kMinDepthPixels) return false;
    const double mainAspect = aspect(p->mainWidth, p->mainHeight);
    if (absDiff(mainAspect, aspect(p->subWidth, p->subHeight)) > kMaxAspectDifference) return false;
    if (absDiff(mainAspect, aspect(p->depthWidth, p->depthHeight)) > kMaxAspectDifference) return false;
    return true;
}

TwinLensSession* TwinLens_sessionInBuffer(void* buffer, int32_t bufferSize) {
    // A buffer from a byte array need not be aligned for the record's doubles;
    // the reported size leaves room to move to the next aligned address.
    const uintptr_t start = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t align = alignof(TwinLensSession);
    const uintptr_t aligned = (start + align - 1) & ~(align - 1);
    if (bufferSize < 0 || aligned - start + sizeof(TwinLensSession) > static_cast<uintptr_t>(bufferSize)) {
        return nullptr;
    }
    return reinterpret_cast<TwinLensSession*>(aligned);
}

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

const char* velquin_TwinLens_getVersion(void) { return "Velquin Twin Lens Suite Ver.1.0.0 2019/03/26"; }

int32_t velquin_TwinLens_getBufferSize(const TwinLensParams* params) {
    if (params == nullptr || !TwinLens_sizesValid(params)) return static_cast<int32_t>(TL_ERROR_PARAM);
    return static_cast<int32_t>(sizeof(TwinLensSession) + alignof(TwinLensSession) - 1);
}

TLResult velquin_TwinLens_initialize(TwinLensHandle* handle, void* buffer, int32_t bufferSize,
                                     const TwinLensParams* params) {
    if (params == nullptr) return TL_ERROR_PARAM;
    const uint32_t formatCode = Image_getImageFormat(params->format);
    if (formatCode != IMAGE_FORMAT_YUV420_PLANAR && formatCode != IMAGE_FORMAT_YUV420_SEMIPLANAR &&
        formatCode != IMAGE_FORMAT_YVU420_SEMIPLANAR) {
        return TL_ERROR_UNSUPPORTED;
    }
    if (handle == nullptr || buffer == nullptr || bufferSize < 1) return TL_ERROR_PARAM;
    if (!TwinLens_sizesValid(params)) return TL_ERROR_PARAM;
    const int32_t rows = calibrationRows(params);
    for (int32_t i = 0; i < rows; ++i) {
        if (!TwinLens_cameraParamValid(&params->cameraParams[i])) return TL_ERROR_PARAM;
    }
    handle->session = nullptr;
    TwinLensSession* s = TwinLens_sessionInBuffer(buffer, bufferSize);
    if (s == nullptr) return TL_ERROR_SYSTEM;
    // A lens of unknown kind is refused before the buffer is touched, so
    // nothing is built that would have to be taken down.
    for (int32_t i = 0; i < rows; ++i) {
        if (!TwinLens_lensKindsKnown(&params->cameraParams[i])) return TL_ERROR_GENERAL;
    }

    std::memset(static_cast<void*>(s), 0, sizeof *s);
    construct_Env(&s->env, nullptr, 0);

    s->mainWidth = params->mainWidth;
    s->mainHeight = params->mainHeight;
    s->subWidth = params->subWidth;
    s->subHeight = params->subHeight;
    s->depthWidth = params->depthWidth;
    s->depthHeight = params->depthHeight;
    s->formatCode = formatCode;
    s->matchingMode = params->matchingMode;
    s->refineLevel = params->refineLevel;
    s->blurBackend = params->blurBackend;
    s->asyncMode = params->asyncMode;
    s->rotation = params->rotation;
    s->callback = params->completionCallback;
    s->callbackUserData = params->callbackUserData;
    s->nextSequence = 0;
    s->coarseBokehLevel = 40;
    // The count is taken as given; rows beyond the table's 20 are not copied.
    s->cameraParamCount = params->cameraParamCount;
    if (rows > 0) std::memcpy(s->cameraParams, params->cameraParams, sizeof(TwinLensCameraParam) * rows);

    s->cameraDirty = 1;
    // The middle row; for an even count the lower of the two middle rows. A
    // count below 1 gives row 0 without forming count - 1, which overflows for INT32_MIN.
    int32_t index = params->cameraParamCount > 0 ? (params->cameraParamCount - 1) / 2 : 0;
    if (index >= TWIN_LENS_MAX_CAMERA_PARAMS) index = 0;
    FencedWord_store(&s->cameraParamIndex, index);
    s->focusX = 0.5;
    s->focusY = 0.5;
    s->frameCounter = -1;
    s->refineOnlyRate = 2;
    s->priorityEnabled = params->workerPriorityEnabled;
    s->priority = params->workerPriority;
    s->calibWidth = s->cameraParams[index].mainCalibWidth;
    s->calibHeight = s->cameraParams[index].mainCalibHeight;

    if (TwinLens_assembleSession(s) != TL_OK) {
        // The members built so far are taken down too, although the short
        // path would leave them: a service that retries after a memory
        // failure cannot afford what they took. The result code stays.
        TwinLens_destructMembers(s);
        return closeSession(handle, s, TL_ERROR_GENERAL);
    }

    s->magic = kSessionMagic;
    FencedWord_store(&s->state, kStateReady);
    s->guard = guardOf(handle);
    if (s->asyncMode != 0) {
        FencedWord_store(&s->workerFlags, kWorkerRun);
        if (Thread_start(&s->worker, TwinLens_frameWorker, s) != TL_OK) {
            TwinLens_destructMembers(s);
            return closeSession(handle, s, TL_ERROR_GENERAL);
        }
    }
    handle->session = s;
    return TL_OK;
}

TLResult velquin_TwinLens_finalize(TwinLensHandle* handle) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if (s->magic != kSessionMagic || s->guard != guardOf(handle) ||
        (FencedWord_load(&s->state) & kStateReady) == 0) {
        return TL_ERROR_STATE;
    }
    if (s->asyncMode != 0) {
        // The worker finishes a frame in progress, drains the queues and leaves.
        FencedWord_fetchOr(&s->workerFlags, kWorkerStop);
        Thread_join(&s->worker);
    }
    TwinLens_destructMembers(s);
    // The per-frame blocks kept for the next frame go back to the system.
    Memory_releaseCache();
    return closeSession(handle, s, TL_OK);
}

}  // extern "C"
