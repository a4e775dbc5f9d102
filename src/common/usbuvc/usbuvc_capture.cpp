/*
 * Capture: locked forwards to the video layer for an open camera.  The lock
 * is held across the whole call, image waits included.
 */
#include "usbuvc_int.h"

/* Frames may be late by this much on top of the caller's timeout. */
constexpr uint32_t UVC_IMAGE_WAIT_MARGIN = 1500;

static inline int32_t MapStatus(int32_t status)
{
    return status == USBTR_STATUS_SUCCESS ? 0 : CAMERA_ERR_FAILURE;
}

/* The frame every capture function shares: under the interface lock, the
 * forward runs on the context of an open camera; an unknown or closed camera
 * is CAMERA_ERR_NO_DEVICE and nothing reaches the video layer. */
template <typename Forward> static int32_t WithOpenCamera(CAMERA_HANDLE handle, Forward forward)
{
    UVC_LOCK_GUARD guard;
    USBTR_CONTEXT *pContext = UVCOpenContext(handle);
    return pContext == nullptr ? CAMERA_ERR_NO_DEVICE : forward(pContext);
}

extern "C" CAMERA_API int32_t camera_start_capture(CAMERA_HANDLE handle, uint32_t slots)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult = WithOpenCamera(
        handle, [&](USBTR_CONTEXT *pContext) { return MapStatus(USBVDStartTransfer(pContext, slots)); });
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_stop_capture(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult = WithOpenCamera(
        handle, [&](USBTR_CONTEXT *pContext) { return MapStatus(USBVDStopTransfer(pContext, 1)); });
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_get_image(CAMERA_HANDLE handle, uint32_t timeout_ms, void **frame)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult = WithOpenCamera(handle, [&](USBTR_CONTEXT *pContext) {
        if (frame == nullptr) {
            /* Nowhere to put the frame: taking one would lose it. */
            DASSERT(false, "frame");
            return CAMERA_ERR_FAILURE;
        }
        /* u32 arithmetic on purpose: a huge timeout wraps like every other duration. */
        int32_t status = USBVDGetFrame(pContext, timeout_ms + UVC_IMAGE_WAIT_MARGIN, frame);
        if (status == USBTR_STATUS_TIMEOUT)
            return CAMERA_ERR_TIMEOUT;
        return MapStatus(status);
    });
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_put_image(CAMERA_HANDLE handle, void *frame)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult = WithOpenCamera(
        handle, [&](USBTR_CONTEXT *pContext) { return MapStatus(USBVDReleaseFrame(pContext, frame)); });
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_flush(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult =
        WithOpenCamera(handle, [&](USBTR_CONTEXT *pContext) { return MapStatus(USBVDFlush(pContext)); });
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}
