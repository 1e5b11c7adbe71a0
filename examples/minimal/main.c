/* Opens and closes a session through the installed package. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <velquin/twin_lens.h>

int main(void) {
    static TwinLensParams params; /* 25 KB: keep it off the stack */
    TwinLensHandle handle = {0};
    memset(&params, 0, sizeof params);
    params.mainWidth = 1440;
    params.mainHeight = 1080;
    params.subWidth = 1440;
    params.subHeight = 1080;
    params.depthWidth = 480;
    params.depthHeight = 360;
    params.format = "YUV420_SEMIPLANAR";
    /* One calibration row: two undistorted cameras of 1200 pixels' focal
     * length at the frame size, side by side 10 mm apart (metres). */
    params.cameraParamCount = 1;
    TwinLensCameraParam* row = &params.cameraParams[0];
    row->extrinsicsForward = 1;
    row->mainCalibWidth = row->subCalibWidth = 1440;
    row->mainCalibHeight = row->subCalibHeight = 1080;
    for (int i = 0; i < 2; ++i) {
        double* m = i == 0 ? row->mainCameraMatrix : row->subCameraMatrix;
        m[0] = m[4] = 1200.0;
        m[2] = 720.0;
        m[5] = 540.0;
        m[8] = 1.0;
    }
    row->stereoRotation[0] = row->stereoRotation[4] = row->stereoRotation[8] = 1.0;
    row->stereoTranslation[0] = -0.010;

    const int32_t size = velquin_TwinLens_getBufferSize(&params);
    if (size < 0) return 1;
    void* buffer = malloc((size_t)size);
    if (buffer == NULL) return 1;
    TLResult r = velquin_TwinLens_initialize(&handle, buffer, size, &params);
    if (r == TL_OK) r = velquin_TwinLens_finalize(&handle);
    free(buffer);
    printf("%s: session %s\n", velquin_TwinLens_getVersion(), r == TL_OK ? "opened and closed" : "failed");
    return r == TL_OK ? 0 : 1;
}
