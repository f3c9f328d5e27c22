/*
 * VQXScanAttributes.h - a frame's image attributes for C clients.
 *
 * The function below lives in the static library VQXScanAttributes
 * (libVQXScanAttributes.a), linked into the client together with
 * libVQXScanInterface; the shared library's own interface stays its
 * seventeen VQXSI_* functions. C++ clients may call the session's
 * Get_image_attributes through the handle instead (VQXScanSession.h).
 *
 *     void* frame = VQXSI_GetNewScan(h);
 *     VQX_IMAGE_ATTRIBUTES a;
 *     a.size = sizeof a;
 *     if (frame && VQXSI_GetImageAttributes(h, frame, &a))
 *         ... a.exposure, a.gain, a.white_value, a.frame_number ...
 *     VQXSI_UnlockBuffer(h, frame);
 */
#ifndef VQX_SCAN_ATTRIBUTES_H
#define VQX_SCAN_ATTRIBUTES_H

#include <VQXScanInterface.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Fills the image attributes of a frame the client holds (from
 * VQXSI_GetNewScan or VQXSI_GetSingleFrame, not yet given back): the
 * exposure and gain it was taken with (engine units), its white value and
 * running frame number.
 *
 * handle:     an open session. The handle is checked first through the
 *             library (as every VQXSI_* function checks it), so a NULL,
 *             closed or never-opened handle is refused without being used.
 *             Closing the session in another thread while this call runs is
 *             not allowed.
 * frame:      the frame's address.
 * attributes: the caller sets attributes->size; min(size, 40) bytes are
 *             copied and size is set to that number.
 * Result: 1; 0 when the frame is not one of the driver's frame buffers
 * (errno unchanged). A frame already given back may carry a later frame's
 * attributes.
 * errno: EINVAL for a NULL or stale handle or a NULL attributes (result 0).
 * Blocks: no longer than the session's call in progress.
 */
VQXSI_BOOL VQXSI_GetImageAttributes(VQXSI_HANDLE handle, void* frame, VQX_IMAGE_ATTRIBUTES* attributes);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VQX_SCAN_ATTRIBUTES_H */
