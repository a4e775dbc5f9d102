/*
 * Private state of the camera interface: the camera device record, the
 * registry of known cameras, the one interface lock and the handle lookup,
 * shared by the usbuvc_*.cpp files.  Nothing here is exported.
 */
#ifndef ZTUVC_USBUVC_INT_H
#define ZTUVC_USBUVC_INT_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "../../lnx/platform/fpplat.h"
#include "../../lnx/transport/usbtr.h"
#include "../../trace/dtraces.h"
#include "ztuvc.h"

/* Set during an enumeration on a record whose reader is no longer listed. */
constexpr uint32_t CAMERA_DEVICE_FLAG_VANISHED = 0x1;
constexpr uint64_t CAMERA_MAX_DEVICES = 1024;

/* One per reader found by enumeration; its address is the camera handle. */
struct CAMERA_DEVICE {
    USBTR_DEVICE_DESCRIPTION aDeviceDescription; /* copy taken when first found */
    uint32_t dwFlags;
    USBTR_CONTEXT *hDeviceHandle; /* NULL while the camera is closed */
};

struct CAMERA_DEVICE_LIST {
    uint64_t nCount; /* written under the lock, read without it by camera_device_count */
    CAMERA_DEVICE *pList[CAMERA_MAX_DEVICES];
};

extern CAMERA_DEVICE_LIST gDeviceList;
extern pthread_mutex_t gUsbUVCGlobalLock;
extern void *ghLibraryHandle;

/* The registry record for a handle, or NULL; call with gUsbUVCGlobalLock held.
 * The handle is compared by identity only, never dereferenced. */
CAMERA_DEVICE *ListFind(CAMERA_HANDLE hHandle);

/* Holds gUsbUVCGlobalLock for a scope; a failing lock or unlock is reported
 * and the caller goes on. */
struct UVC_LOCK_GUARD {
    UVC_LOCK_GUARD()
    {
        DASSERT(pthread_mutex_lock(&gUsbUVCGlobalLock) == 0,
                "(pthread_mutex_lock(&gUsbUVCGlobalLock)) == 0");
    }
    ~UVC_LOCK_GUARD()
    {
        DASSERT(pthread_mutex_unlock(&gUsbUVCGlobalLock) == 0,
                "(pthread_mutex_unlock(&gUsbUVCGlobalLock)) == 0");
    }
    UVC_LOCK_GUARD(const UVC_LOCK_GUARD &) = delete;
    UVC_LOCK_GUARD &operator=(const UVC_LOCK_GUARD &) = delete;
};

/* The open device context of a known camera, or NULL (unknown or closed). */
inline USBTR_CONTEXT *UVCOpenContext(CAMERA_HANDLE hHandle)
{
    CAMERA_DEVICE *pDevice = ListFind(hHandle);
    return pDevice != nullptr ? pDevice->hDeviceHandle : nullptr;
}

#endif
