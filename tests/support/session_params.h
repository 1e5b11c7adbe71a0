// Valid session parameters for tests, to be changed one field at a time, and a session opened with them.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "velquin/twin_lens.h"

namespace vq_tl_test {

inline std::unique_ptr<TwinLensParams> makeParams(int32_t mainWidth = 640, int32_t mainHeight = 480,
                                                  int32_t depthWidth = 320, int32_t depthHeight = 240) {
    auto p = std::make_unique<TwinLensParams>();
    std::memset(p.get(), 0, sizeof *p);
    p->mainWidth = mainWidth;
    p->mainHeight = mainHeight;
    p->subWidth = mainWidth;
    p->subHeight = mainHeight;
    p->depthWidth = depthWidth;
    p->depthHeight = depthHeight;
    p->format = "YUV420_SEMIPLANAR";
    p->cameraParamCount = 1;
    // Rows that pass validation: two undistorted cameras of 3000 pixels'
    // focal length, side by side 10 mm apart (the unit is the metre).
    for (int i = 0; i < TWIN_LENS_MAX_CAMERA_PARAMS; ++i) {
        TwinLensCameraParam& row = p->cameraParams[i];
        row.focusPosition = i;
        row.extrinsicsForward = 1;
        row.mainCalibWidth = 4000 + i;
        row.mainCalibHeight = 3000 + i;
        row.subCalibWidth = 4000;
        row.subCalibHeight = 3000;
        for (double* m : {row.mainCameraMatrix, row.subCameraMatrix}) {
            m[0] = m[4] = 3000.0;
            m[2] = 2000.0;
            m[5] = 1500.0;
            m[8] = 1.0;
        }
        row.stereoRotation[0] = row.stereoRotation[4] = row.stereoRotation[8] = 1.0;
        row.stereoTranslation[0] = -0.010;
    }
    return p;
}

// A session in a buffer of getBufferSize's size (one for all parameters), finalized at the end of the scope.
struct OpenSession {
    std::vector<uint8_t> buffer;
    TwinLensHandle handle{nullptr};
    TLResult opened;
    explicit OpenSession(const TwinLensParams* p)
        : buffer(static_cast<size_t>(velquin_TwinLens_getBufferSize(makeParams().get()))) {
        opened = velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p);
    }
    ~OpenSession() {
        if (handle.session != nullptr) velquin_TwinLens_finalize(&handle);
    }
    OpenSession(const OpenSession&) = delete;
    OpenSession& operator=(const OpenSession&) = delete;
    TwinLensSession* s() const { return handle.session; }
};

}  // namespace vq_tl_test
