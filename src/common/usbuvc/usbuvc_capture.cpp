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

extern "C" CAMERA_API int32_t camera_start_capture(CAMERA_HANDLE handle, uint32_t slots)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        USBTR_CONTEXT *pContext = UVCOpenContext(handle);
        if (pContext == nullptr)
            iResult = CAMERA_ERR_NO_DEVICE;
        else
            iResult = MapStatus(USBVDStartTransfer(pContext, slots));
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_stop_capture(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        USBTR_CONTEXT *pContext = UVCOpenContext(handle);
        if (pContext == nullptr)
            iResult = CAMERA_ERR_NO_DEVICE;
        else
            iResult = MapStatus(USBVDStopTransfer(pContext, 1));
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_get_image(CAMERA_HANDLE handle, uint32_t timeout_ms,
                                               void **frame)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        USBTR_CONTEXT *pContext = UVCOpenContext(handle);
        if (pContext == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (frame == nullptr) {
            /* Nowhere to put the frame: taking one would lose it. */
            DASSERT(false, "frame");
            iResult = CAMERA_ERR_FAILURE;
        } else {
            /* u32 arithmetic on purpose: a huge timeout wraps like every other duration. */
            uint32_t dwWait = timeout_ms + UVC_IMAGE_WAIT_MARGIN;
            int32_t status = USBVDGetFrame(pContext, dwWait, frame);
            if (status == USBTR_STATUS_SUCCESS)
                iResult = 0;
            else if (status == USBTR_STATUS_TIMEOUT)
                iResult = CAMERA_ERR_TIMEOUT;
            else
                iResult = CAMERA_ERR_FAILURE;
        }
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_put_image(CAMERA_HANDLE handle, void *frame)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        USBTR_CONTEXT *pContext = UVCOpenContext(handle);
        if (pContext == nullptr)
            iResult = CAMERA_ERR_NO_DEVICE;
        else
            iResult = MapStatus(USBVDReleaseFrame(pContext, frame));
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_flush(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        USBTR_CONTEXT *pContext = UVCOpenContext(handle);
        if (pContext == nullptr)
            iResult = CAMERA_ERR_NO_DEVICE;
        else
            iResult = MapStatus(USBVDFlush(pContext));
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}
