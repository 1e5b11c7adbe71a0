// The run-time settings of a live session: the focus point, the calibration
// row in force and its camera matrices and sizes, and the estimator's tuning
// values. Every call runs on the caller's thread without a lock and touches
// single words or one row; the work they imply is left to the next frame,
// which the dirty mark tells to rebuild its grids.
#include <cmath>
#include <cstring>

#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"

namespace vq_tl {

namespace {

// The common head of the settings: a handle with a session (else
// TL_ERROR_PARAM) whose ready bit is set (else TL_ERROR_STATE).
TLResult readySession(TwinLensHandle* handle, TwinLensSession** session) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    if ((FencedWord_load(&handle->session->state) & kStateReady) == 0) return TL_ERROR_STATE;
    *session = handle->session;
    return TL_OK;
}

// Comparisons written so that a NaN fails them.
bool inUnitRange(double v) { return v >= 0.0 && v <= 1.0; }

// initialize keeps the index within the table; a stray value reads row 0, as the frame driver does.
int32_t rowInForce(TwinLensSession* s) {
    const int32_t index = FencedWord_load(&s->cameraParamIndex);
    return index >= 0 && index < TWIN_LENS_MAX_CAMERA_PARAMS ? index : 0;
}

// The rows setFocusPos chooses from: the count as given, within the table.
int32_t rowCount(const TwinLensSession* s) {
    const int32_t n = s->cameraParamCount;
    return n < 1 ? 1 : n > TWIN_LENS_MAX_CAMERA_PARAMS ? TWIN_LENS_MAX_CAMERA_PARAMS : n;
}

// Writes `edit` into the row in force and marks the session, once the row as
// it would become passes the checks of initialize: a matrix or size that
// cannot be rectified is refused here rather than failing the next frame.
// The fenced mark comes after the row, so a frame that sees it sees the row.
template <typename Edit>
TLResult editRowInForce(TwinLensSession* s, Edit edit) {
    TwinLensCameraParam* row = &s->cameraParams[rowInForce(s)];
    TwinLensCameraParam candidate;
    std::memcpy(&candidate, row, sizeof candidate);
    edit(&candidate);
    if (!TwinLens_cameraParamValid(&candidate)) return TL_ERROR_PARAM;
    edit(row);
    FencedWord_store(&s->cameraDirty, 1);
    return TL_OK;
}

}  // namespace

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

TLResult velquin_TwinLens_setFocusCoord(TwinLensHandle* handle, double x, double y) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    // The point is judged before the ready bit.
    if (!inUnitRange(x) || !inUnitRange(y)) return TL_ERROR_PARAM;
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    s->focusX = x;
    s->focusY = y;
    // Values in [0, 1] stay in [0, 1] as float, so the estimator takes them too.
    return DisparityEstimator_setFocusCoord(&s->estimator, static_cast<float>(x), static_cast<float>(y));
}

TLResult velquin_TwinLens_setFocusPos(TwinLensHandle* handle, double position) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    // A position that is not finite has no nearest row: refused rather than
    // falling to row 0, where every distance would tie.
    if (!std::isfinite(position)) return TL_ERROR_PARAM;
    // The first row of the least distance; later rows must be strictly nearer.
    int32_t best = 0;
    double bestDistance = std::fabs(position - s->cameraParams[0].focusPosition);
    const int32_t rows = rowCount(s);
    for (int32_t i = 1; i < rows; ++i) {
        const double distance = std::fabs(position - s->cameraParams[i].focusPosition);
        if (distance < bestDistance) {
            best = i;
            bestDistance = distance;
        }
    }
    // The row in force stays, and its grids with it.
    if (best == rowInForce(s)) return TL_OK;
    FencedWord_store(&s->cameraParamIndex, best);
    FencedWord_store(&s->cameraDirty, 1);
    return TL_OK;
}

TLResult velquin_TwinLens_getValidDepthRange(TwinLensHandle* handle, float* nearest, float* farthest) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    return DisparityEstimator_getValidDepthRange(&s->estimator, nearest, farthest);
}

TLResult velquin_TwinLens_setCameraMatrix(TwinLensHandle* handle, const TwinLensCameraParam* param) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    // A null record is refused rather than read.
    if (param == nullptr) return TL_ERROR_PARAM;
    // The lens inverse that initialize fitted is kept.
    return editRowInForce(s, [param](TwinLensCameraParam* row) {
        std::memcpy(row->mainCameraMatrix, param->mainCameraMatrix, sizeof row->mainCameraMatrix);
        std::memcpy(row->subCameraMatrix, param->subCameraMatrix, sizeof row->subCameraMatrix);
    });
}

TLResult velquin_TwinLens_setCalibSize(TwinLensHandle* handle, const TwinLensCameraParam* param) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    // A null record is refused rather than read.
    if (param == nullptr) return TL_ERROR_PARAM;
    return editRowInForce(s, [param](TwinLensCameraParam* row) {
        row->mainCalibWidth = param->mainCalibWidth;
        row->mainCalibHeight = param->mainCalibHeight;
        row->subCalibWidth = param->subCalibWidth;
        row->subCalibHeight = param->subCalibHeight;
    });
}

TLResult velquin_TwinLens_setLowerDispByMulParams(TwinLensHandle* handle, float low, float high, float rate) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    if (!(low >= 0.0f && low <= high && high <= 1.0f && rate >= 0.0f && rate <= 1.0f)) return TL_ERROR_PARAM;
    // Radii as fractions of the half diagonal, and the factor at the outer
    // one; the fine-mode frames read them, the next frame sees them whole.
    DisparityEstimator* e = &s->estimator;
    e->lowerInnerRadius = low;
    e->lowerOuterRadius = high;
    e->lowerRate = rate;
    return TL_OK;
}

TLResult velquin_TwinLens_getCurrentCameraParam(TwinLensHandle* handle, TwinLensCameraParam* param) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    if (param == nullptr) return TL_ERROR_PARAM;
    std::memcpy(param, &s->cameraParams[rowInForce(s)], sizeof *param);
    return TL_OK;
}

TLResult velquin_TwinLens_setRefineOnlyRate(TwinLensHandle* handle, int32_t rate) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    if (rate < 1) return TL_ERROR_PARAM;
    // Read by the frame worker; one word, stored whole.
    FencedWord_store(&s->refineOnlyRate, rate);
    return TL_OK;
}

TLResult velquin_TwinLens_setCorrectDispParams(TwinLensHandle* handle, double upper, double lower) {
    TwinLensSession* s = nullptr;
    const TLResult r = readySession(handle, &s);
    if (r != TL_OK) return r;
    if (!(upper >= lower)) return TL_ERROR_PARAM;
    return DisparityEstimator_setCorrectDispParams(&s->estimator, lower, upper);
}

TLResult velquin_TwinLens_setIONInfo(TwinLensHandle*, const void*) { return TL_ERROR_UNSUPPORTED; }

}  // extern "C"
