/*
 * Image format and frame interval.  Both live in the device context; this
 * layer validates the handle, forwards and copies the answer out.
 */
#include "usbuvc_int.h"

extern "C" CAMERA_API int32_t camera_get_format(CAMERA_HANDLE handle, CAMERA_FORMAT *format)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_ERROR, "%s(%p,%p)", static_cast<void *>(handle),
                 static_cast<void *>(format));
    /* Not offered: camera_set_format reports the one format there is. */
    DFORCED_ASSERT();
    DTRACE_EXIT(call, "%s() --> CAMERA_ERR_FAILURE");
    return CAMERA_ERR_FAILURE;
}

extern "C" CAMERA_API int32_t camera_set_format(CAMERA_HANDLE handle, CAMERA_FORMAT *format)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", static_cast<void *>(handle),
                 static_cast<void *>(format));
    int32_t iResult = CAMERA_ERR_FAILURE;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        USBVD_IMAGE_FORMAT_LIST *pList = nullptr;
        if (pDevice == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (format == nullptr) {
            DASSERT(false, "format");
        } else if (USBVDListImageFormats(pDevice->hDeviceHandle, &pList) != USBTR_STATUS_SUCCESS) {
            /* A closed camera has no context; the video layer refuses it. */
        } else {
            DASSERT(pList != nullptr && pList->nCount == 1, "pList && pList->nCount == 1");
            if (pList != nullptr && pList->nCount >= 1 &&
                USBVDSetImageFormat(pDevice->hDeviceHandle, 0) == USBTR_STATUS_SUCCESS) {
                const USBVD_IMAGE_FORMAT *pFormat = &pList->aFormats[0];
                format->dwFourCC = pFormat->dwFourCC;
                format->dwWidth = pFormat->dwWidth;
                format->dwHeight = pFormat->dwHeight;
                format->dwImageSize = pFormat->dwImageSize;
                format->dwReserved = pFormat->dwReserved;
                DTRACE(_DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(format:%u x %u,%u,%u, %u )",
                       __func__, format->dwWidth, format->dwHeight, format->dwImageSize,
                       format->dwFourCC, format->dwReserved);
                iResult = 0;
            }
        }
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_get_frame_interval(CAMERA_HANDLE handle, uint32_t *interval_ms)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", static_cast<void *>(handle),
                 static_cast<void *>(interval_ms));
    int32_t iResult;
    uint32_t dwInterval = 0;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        if (pDevice == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (USBVDGetFrameInterval(pDevice->hDeviceHandle, &dwInterval) !=
                   USBTR_STATUS_SUCCESS) {
            iResult = CAMERA_ERR_FAILURE;
        } else {
            /* A caller without a place for the value still learns the camera is usable. */
            DASSERT(interval_ms != nullptr, "interval_ms");
            if (interval_ms != nullptr)
                *interval_ms = dwInterval;
            iResult = 0;
        }
    }
    DTRACE_EXIT(call, "%s() --> %d,%d", iResult, static_cast<int>(dwInterval));
    return iResult;
}

extern "C" CAMERA_API int32_t camera_set_frame_interval(CAMERA_HANDLE handle, uint32_t *interval_ms)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", static_cast<void *>(handle),
                 static_cast<void *>(interval_ms));
    int32_t iResult = CAMERA_ERR_FAILURE;
    uint32_t dwInterval = 0;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice;
        if (interval_ms == nullptr) {
            /* Checked before the handle: without a request there is nothing to do. */
            DASSERT(false, "interval_ms");
        } else if ((pDevice = ListFind(handle)) == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (USBVDSetFrameInterval(pDevice->hDeviceHandle, *interval_ms) !=
                   USBTR_STATUS_SUCCESS) {
            /* refused, e.g. a closed camera */
        } else if (USBVDGetFrameInterval(pDevice->hDeviceHandle, &dwInterval) !=
                   USBTR_STATUS_SUCCESS) {
            /* stored, but what is in effect is unknown: leave the caller's value */
        } else {
            /* Report what is in effect after the video layer's clamping. */
            *interval_ms = dwInterval;
            iResult = 0;
        }
    }
    DTRACE_EXIT(call, "%s() --> %d,%d", iResult, static_cast<int>(dwInterval));
    return iResult;
}
