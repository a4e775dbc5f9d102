/*
 * Opening and closing cameras, and the identity queries answered from the
 * registry record (they work on closed cameras too).
 */
#include <cstring>

#include "usbuvc_int.h"

extern "C" CAMERA_API int32_t camera_open(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        if (pDevice == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (pDevice->hDeviceHandle != nullptr) {
            DASSERT(false, "pDevice->hDeviceHandle == ((void *)0)");
            iResult = CAMERA_ERR_FAILURE;
        } else {
            /* Zero ids match any reader: the device name alone selects it. */
            USBTR_DEVICE_DESCRIPTION aRequest;
            memset(&aRequest, 0, sizeof(aRequest));
            memcpy(aRequest.szDeviceName, pDevice->aDeviceDescription.szDeviceName,
                   sizeof(aRequest.szDeviceName));
            /* Only a successful open may touch the record. */
            USBTR_CONTEXT *pContext = nullptr;
            int32_t status = USBTROpen(ghLibraryHandle, &aRequest, 0, &pContext);
            if (status != USBTR_STATUS_SUCCESS) {
                iResult = CAMERA_ERR_NO_DEVICE;
            } else {
                DASSERT(pContext != nullptr, "pDevice->hDeviceHandle");
                pDevice->hDeviceHandle = pContext;
                iResult = 0;
            }
        }
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API void camera_close(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        if (pDevice != nullptr) {
            DASSERT(pDevice->hDeviceHandle != nullptr, "pDevice->hDeviceHandle");
            if (pDevice->hDeviceHandle != nullptr) {
                USBTRClose(pDevice->hDeviceHandle);
                pDevice->hDeviceHandle = nullptr;
            }
        }
    }
    DTRACE_EXIT(call, "%s() -->");
}

/* A string field of a known camera, or NULL. */
static const char *QueryString(CAMERA_HANDLE handle, size_t nOffset)
{
    UVC_LOCK_GUARD guard;
    CAMERA_DEVICE *pDevice = ListFind(handle);
    if (pDevice == nullptr)
        return nullptr;
    return reinterpret_cast<const char *>(&pDevice->aDeviceDescription) + nOffset;
}

/* A 16-bit identity field of a known camera, or CAMERA_ERR_NO_DEVICE. */
static int32_t QueryNumber(CAMERA_HANDLE handle, uint16_t USBTR_DEVICE_DESCRIPTION::*pField)
{
    UVC_LOCK_GUARD guard;
    CAMERA_DEVICE *pDevice = ListFind(handle);
    if (pDevice == nullptr)
        return CAMERA_ERR_NO_DEVICE;
    return pDevice->aDeviceDescription.*pField;
}

#define UVC_STRING_QUERY(function, field)                                                          \
    extern "C" CAMERA_API const char *function(CAMERA_HANDLE handle)                               \
    {                                                                                              \
        DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)",                          \
                     static_cast<void *>(handle));                                                 \
        const char *pszResult =                                                                    \
            QueryString(handle, offsetof(USBTR_DEVICE_DESCRIPTION, field));                        \
        DTRACE_EXIT(call, "%s() --> %s", pszResult != nullptr ? pszResult : "NULL");               \
        return pszResult;                                                                          \
    }

/* The exit record shows the id as a signed 16-bit number; the result is not affected. */
#define UVC_NUMBER_QUERY(function, field)                                                          \
    extern "C" CAMERA_API int32_t function(CAMERA_HANDLE handle)                                   \
    {                                                                                              \
        DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)",                          \
                     static_cast<void *>(handle));                                                 \
        int32_t iResult = QueryNumber(handle, &USBTR_DEVICE_DESCRIPTION::field);                   \
        DTRACE_EXIT(call, "%s() --> %d", static_cast<int>(static_cast<int16_t>(iResult)));         \
        return iResult;                                                                            \
    }

UVC_STRING_QUERY(camera_get_filename, szDeviceName)
UVC_STRING_QUERY(camera_get_product_name, szDescription)
UVC_STRING_QUERY(camera_get_manufacturer_name, szManufacturer)
UVC_STRING_QUERY(camera_get_serialnumber, szSerialNumber)
UVC_NUMBER_QUERY(camera_get_vid, wVid)
UVC_NUMBER_QUERY(camera_get_pid, wPid)
UVC_NUMBER_QUERY(camera_get_revision, wRev)
