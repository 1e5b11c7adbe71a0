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
 * (TL_ERROR_PARAM), calibration rows (TL_ERROR_PARAM), buffer size
 * (TL_ERROR_SYSTEM), lens kinds (TL_ERROR_GENERAL, the buffer untouched).
 * Sizes: each even, at most 16384; main and sub at least 76800 pixels, depth
 * at least 19200; aspect ratios of sub and depth within 0.1 of main.
 *
 * Calibration: the first cameraParamCount rows (at most 20) are checked and
 * refused when any real the session reads is NaN or infinite; when a camera
 * matrix has a focal length (element 0 or 4) of zero or below, a skew
 * (element 1 or 3) or a last row other than (0, 0, 1); when the stereo
 * rotation, or a per-camera rectifying rotation that is given, is not a
 * rotation (rows orthonormal within 1e-5, determinant +1); when the
 * translation is zero; when a calibration size, or a rectified size that is
 * given, is below 1; when a radial table has fewer than 2 or more than 41
 * entries or a last radius of zero or below. A lens kind other than 0 or 1
 * gives TL_ERROR_GENERAL. Row 0's translation sets the session's depth
 * scale: its unit, metres by convention, is the unit of every depth the
 * session reports. Any other failure while the session is assembled gives
 * TL_ERROR_GENERAL. */
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
 * TL_ERROR_PARAM for a null handle or frame, a frame of another size than
 * the session's, and in synchronous sessions a frame that lacks a plane its
 * format has or has a pitch below 1. A frame that fails in the estimator
 * returns the estimator's code (synchronous sessions); the depth result of
 * the last good frame stays in force.
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

/* The depth picture of the last finished frame, resized to the caller's
 * image: an 8-bit single-plane picture of any size (UINT8, plane0 only),
 * where 0 is the nearest and 255 the farthest depth of the frame.
 * *nearDepth and *farDepth receive the depths of levels 0 and 255, in the
 * calibration's unit (metres by convention). Depths beyond 10 units
 * saturate at 255 and the far limit stops there, so that a far tail does
 * not flatten the rest; a frame whose every level lies beyond is 255
 * throughout. mode 0: levels linear in depth. Any other mode: levels linear
 * in disparity, that is in 1 / depth: level v stands for
 * 1 / depth = 1 / near + (1 / far - 1 / near) v / 255.
 * The depths are those of the disparity as the matcher counts it, from its
 * lowest candidate (4 working pixels below zero in normal mode, 10 in fine
 * mode): a surface at depth z reads as f B / (f B / z + 4) in normal mode,
 * f the rectified focal length in working pixels and B the baseline. Near
 * surfaces read close to their depth, far ones markedly nearer.
 * Before the first frame the picture is 255 throughout and both limits 0.
 * The picture reads a result that the next frame but one overwrites, so in
 * asynchronous sessions one call must not outlast two frames; the call
 * itself may run while a frame is estimated. TL_ERROR_PARAM for a null
 * handle, image, plane0 or limit pointer. */
VELQUIN_TL_API TLResult velquin_TwinLens_getDepthImage(TwinLensHandle* handle, const TwinLensImage* image,
                                                       float* nearDepth, float* farDepth, int32_t mode);

/* The same with a record that carries its pitch. */
VELQUIN_TL_API TLResult velquin_TwinLens_getDepthImageEx(TwinLensHandle* handle, const TwinLensImageEx* image,
                                                         float* nearDepth, float* farDepth, int32_t mode);

/* The status of the last finished estimate, from a window round the focus
 * point: 0 usable; 1 the subject is too near (over 70 % of the window at the
 * near limit or not measurable); 2 too far (over 70 % below one pixel of
 * disparity). Frames that only refine keep the status of the last estimate.
 * TL_ERROR_PARAM for a null handle or status, TL_ERROR_STATE for a session
 * that is not ready. */
VELQUIN_TL_API TLResult velquin_TwinLens_getEstimateStatus(TwinLensHandle* handle, int32_t* status);

/* ---- Run-time settings ---- */

/* The settings below run on the caller's thread, take no lock and leave the
 * work to the next frame offered: a frame already in progress keeps the
 * calibration row it started with. Each answers TL_ERROR_PARAM for a null handle (or
 * a finalized one) and TL_ERROR_STATE for a session that is not ready, then
 * checks its own arguments (TL_ERROR_PARAM); a refused call changes
 * nothing. */

/* The focus point, as fractions of the frame: (0, 0) the top left pixel,
 * (1, 1) the bottom right; both in [0, 1], NaN refused. Blurred pictures
 * keep this point sharp, and the estimate status looks at a window round it
 * from the next estimate on. The point is checked before the session's
 * state. Starts at (0.5, 0.5). */
VELQUIN_TL_API TLResult velquin_TwinLens_setFocusCoord(TwinLensHandle* handle, double x, double y);

/* Puts in force the calibration row whose focusPosition lies nearest to
 * position, for the lens position the camera has moved to; of rows equally
 * near, the first. A position that is not finite is refused. Choosing the
 * row already in force changes nothing; another row is used from the next
 * frame, which rebuilds its rectification for it. */
VELQUIN_TL_API TLResult velquin_TwinLens_setFocusPos(TwinLensHandle* handle, double position);

/* The depths the matcher can tell apart with the calibration of the last
 * frame, in the calibration's unit (metres by convention): *farthest at one
 * working pixel of disparity, *nearest at the top of the disparity range.
 * Both 0 before the first frame. TL_ERROR_PARAM for a null pointer. */
VELQUIN_TL_API TLResult velquin_TwinLens_getValidDepthRange(TwinLensHandle* handle, float* nearest,
                                                            float* farthest);

/* Replaces the main and the sub camera matrix of the row in force with
 * those of *param (mainCameraMatrix, subCameraMatrix; nothing else of it is
 * read), for instance after the focal length moved with the focus. The
 * matrices are held to the rules of initialize (positive focal lengths, no
 * skew, last row (0, 0, 1), all finite); TL_ERROR_PARAM for a null param or
 * a row that would break them. The lens inverse fitted at initialize stays.
 * The next frame rebuilds its rectification. */
VELQUIN_TL_API TLResult velquin_TwinLens_setCameraMatrix(TwinLensHandle* handle,
                                                         const TwinLensCameraParam* param);

/* Replaces the four calibration sizes of the row in force (mainCalibWidth,
 * mainCalibHeight, subCalibWidth, subCalibHeight of *param; nothing else of
 * it is read): the image sizes, in pixels, the camera matrices refer to.
 * Each at least 1; TL_ERROR_PARAM for a null param or a row that would break
 * the rules of initialize. The next frame rebuilds its rectification. */
VELQUIN_TL_API TLResult velquin_TwinLens_setCalibSize(TwinLensHandle* handle,
                                                      const TwinLensCameraParam* param);

/* The radial lowering of disparity in the fine matching mode: disparity
 * keeps its value out to radius low and falls linearly to rate times its
 * value at radius high, radii as fractions of the half diagonal from the
 * frame's centre. 0 <= low <= high <= 1 and 0 <= rate <= 1 (NaN refused);
 * rate 0 turns the lowering off, which is the start. From the next frame. */
VELQUIN_TL_API TLResult velquin_TwinLens_setLowerDispByMulParams(TwinLensHandle* handle, float low,
                                                                 float high, float rate);

/* Copies out the calibration row in force, as the session holds it: with
 * the changes of setCameraMatrix and setCalibSize and the lens inverse
 * fitted at initialize. TL_ERROR_PARAM for a null param. */
VELQUIN_TL_API TLResult velquin_TwinLens_getCurrentCameraParam(TwinLensHandle* handle,
                                                               TwinLensCameraParam* param);

/* Asynchronous sessions with asyncMode 1 match only every rate-th frame and
 * refine the last match under the frames between; 1 matches every frame.
 * At least 1; starts at 2. Other sessions match every frame whatever the
 * rate. From the next frame. */
VELQUIN_TL_API TLResult velquin_TwinLens_setRefineOnlyRate(TwinLensHandle* handle, int32_t rate);

/* Bounds of the slope that the residual tilt correction may give the
 * disparity across the frame, in working pixels of disparity per pixel of
 * width: upper at least lower (equal values pass and fix the slope; NaN
 * refused). Both start at 0, which holds that slope at 0. From the next
 * estimate. */
VELQUIN_TL_API TLResult velquin_TwinLens_setCorrectDispParams(TwinLensHandle* handle, double upper,
                                                              double lower);

/* Kept for compatibility; does nothing and always answers
 * TL_ERROR_UNSUPPORTED, whatever its arguments. */
VELQUIN_TL_API TLResult velquin_TwinLens_setIONInfo(TwinLensHandle* handle, const void* info);

/* ---- Blurred picture and background ---- */

/* Renders src, a picture of the session's main size and format (normally the
 * main frame of the shot), into dst of the same size, blurred as a lens of
 * a wide aperture would blur it: sharp at the focus point of
 * velquin_TwinLens_setFocusCoord, more blurred the farther a surface lies in
 * front of or behind that depth, by the depth map of the last finished
 * frame. strength 0 to 300 sets the largest blur (about strength / 10 pixels
 * of sigma per dioptre of distance from the focus at a 16-megapixel
 * picture, scaled with the picture's size and capped by
 * velquin_TwinLens_setMaxSigma); 0 gives back src. dst may be src.
 * TL_ERROR_PARAM for a null handle or picture, a null plane0, a src of
 * another size than the main frame, a dst of another size than src, or a
 * strength outside 0 to 300 (NaN included); TL_ERROR_STATE for a session
 * that is not ready; dst is untouched on these refusals. Before the first
 * frame the result is src. Blur back-end 1 renders blurs of a sigma below
 * 2 and answers TL_ERROR_UNSUPPORTED for larger ones, back-end 2 answers
 * TL_ERROR_UNSUPPORTED (neither renderer is part of this build), any other
 * back-end returns TL_OK and leaves dst alone. Two blur calls on one handle
 * must not overlap, and one must not outlast two frames. */
VELQUIN_TL_API TLResult velquin_TwinLens_blur(TwinLensHandle* handle, const TwinLensImage* dst,
                                              const TwinLensImage* src, double strength);

/* The same with records that carry pitches. strength is not range-checked
 * here, by design: values beyond 300 blur more (up to the sigma cap). */
VELQUIN_TL_API TLResult velquin_TwinLens_blurEx(TwinLensHandle* handle, const TwinLensImageEx* dst,
                                                const TwinLensImageEx* src, double strength);

/* The picture that velquin_TwinLens_replaceBackground puts behind the
 * subject, in the session's format and of any size: the largest centred cut
 * of the depth picture's aspect is taken from it and scaled to the depth
 * size, where the session keeps its own copy (the caller's pixels are free
 * again on return). A null image clears the background. TL_ERROR_PARAM for
 * a null handle or a null plane0, TL_ERROR_STATE for a session that is not
 * ready; a picture too small to cut from gives the code of the cut, and the
 * previous background stays. */
VELQUIN_TL_API TLResult velquin_TwinLens_setBackgroundImage(TwinLensHandle* handle,
                                                            const TwinLensImage* image);
VELQUIN_TL_API TLResult velquin_TwinLens_setBackgroundImageEx(TwinLensHandle* handle,
                                                              const TwinLensImageEx* image);

/* dst = src with the background replaced: the foreground mask of the last
 * finished frame (the near side of the depth map's two-class split, with a
 * soft edge of a few depth levels) keeps src, the rest takes the background
 * picture scaled to src's size. Without a background, or before the first
 * frame (the mask is then all foreground), dst is a copy of src. src and dst
 * in the session's format, of one size, any size; for a size other than the
 * depth size the session makes two work images of that size at the first
 * call and keeps them. TL_ERROR_PARAM for a null handle or picture, a null
 * plane0 or sizes that differ; TL_ERROR_STATE for a session that is not
 * ready. */
VELQUIN_TL_API TLResult velquin_TwinLens_replaceBackground(TwinLensHandle* handle, const TwinLensImage* dst,
                                                           const TwinLensImage* src);
VELQUIN_TL_API TLResult velquin_TwinLens_replaceBackgroundEx(TwinLensHandle* handle,
                                                             const TwinLensImageEx* dst,
                                                             const TwinLensImageEx* src);

/* The coarse level (0 to 40, 40 at the start) of the layered renderer of
 * blur back-end 1; it takes effect at the next blur through that renderer.
 * TL_ERROR_PARAM for a null handle or a level above 40 (or a null level
 * pointer), TL_ERROR_STATE for a session that is not ready. */
VELQUIN_TL_API TLResult velquin_TwinLens_setCoarseBokehLevel(TwinLensHandle* handle, uint32_t level);
VELQUIN_TL_API TLResult velquin_TwinLens_getCoarseBokehLevel(TwinLensHandle* handle, int32_t* level);

/* The cap of the blur's sigma, in pixels at a 16-megapixel picture (scaled
 * with the picture's size like the blur); 15 at the start. 0 turns the blur
 * off. TL_ERROR_PARAM for a null handle or a sigma below 0 or NaN,
 * TL_ERROR_STATE for a session that is not ready. Takes effect at the next
 * blur. */
VELQUIN_TL_API TLResult velquin_TwinLens_setMaxSigma(TwinLensHandle* handle, float sigma);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VELQUIN_TWIN_LENS_H */
