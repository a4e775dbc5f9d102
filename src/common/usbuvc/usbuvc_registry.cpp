/*
 * Library lifecycle and the registry of known cameras.
 *
 * The registry keeps one record per reader the transport reports; a reader
 * that stays attached keeps its record (and so the application's handle)
 * across enumerations, keyed by the transport's device name.
 */
#include <cstdlib>
#include <cstring>

#include "usbuvc_int.h"

CAMERA_DEVICE_LIST gDeviceList;
pthread_mutex_t gUsbUVCGlobalLock = PTHREAD_MUTEX_INITIALIZER;
void *ghLibraryHandle;
static uint32_t gInitCount;

/* nCount is read without the lock by camera_device_count. */
static inline void SetDeviceCount(uint64_t nCount)
{
    std::atomic_ref<uint64_t>(gDeviceList.nCount).store(nCount, std::memory_order_release);
}

CAMERA_DEVICE *ListFind(CAMERA_HANDLE hHandle)
{
    if (hHandle == nullptr)
        return nullptr;
    for (uint64_t i = 0; i < gDeviceList.nCount; i++) {
        if (gDeviceList.pList[i] == hHandle)
            return gDeviceList.pList[i];
    }
    DTRACE(_DRegion_usbuvc, DTRACE_LEVEL_WARNING, "%s(): item %p not found", __func__,
           static_cast<void *>(hHandle));
    return nullptr;
}

extern "C" CAMERA_API void camera_init(void)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s()");
    {
        UVC_LOCK_GUARD guard;
        if (gInitCount != 0) {
            gInitCount++;
        } else {
            /* A failed earlier attempt may have left a handle; it is replaced,
             * so give it back first rather than lose it. */
            if (ghLibraryHandle != nullptr) {
                USBTRDone(ghLibraryHandle);
                ghLibraryHandle = nullptr;
            }
            int32_t status = USBTRInit(&ghLibraryHandle, 0);
            DASSERT(status == USBTR_STATUS_SUCCESS, "status == (0)");
            /* Left at 0 on failure so that the next call tries again. */
            if (status == USBTR_STATUS_SUCCESS)
                gInitCount = 1;
        }
    }
    DTRACE_EXIT(call, "%s() -->");
}

extern "C" CAMERA_API void camera_cleanup(void)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s()");
    {
        UVC_LOCK_GUARD guard;
        /* Unbalanced calls are the caller's error; the count is not guarded. */
        gInitCount--;
        if (gInitCount == 0) {
            USBTRDone(ghLibraryHandle);
            ghLibraryHandle = nullptr;
        }
    }
    DTRACE_EXIT(call, "%s() -->");
}

/* Marks every record whose name is missing from pList and takes the matched
 * entries out of the list (wVid 0); returns the number matched. */
static uint64_t MatchRegistry(USBTR_DEVICE_LIST *pList)
{
    uint64_t nMatched = 0;
    for (uint64_t i = 0; i < gDeviceList.nCount; i++) {
        CAMERA_DEVICE *pDevice = gDeviceList.pList[i];
        const char *pszName = pDevice->aDeviceDescription.szDeviceName;
        bool bFound = false;
        for (uint64_t j = 0; j < pList->nCount; j++) {
            USBTR_DEVICE_DESCRIPTION *pEntry = &pList->aDevices[j];
            if (pEntry->wVid == 0)
                continue;
            if (strncmp(pEntry->szDeviceName, pszName, sizeof(pEntry->szDeviceName)) == 0) {
                nMatched++;
                pEntry->wVid = 0;
                bFound = true;
                break;
            }
        }
        if (!bFound)
            pDevice->dwFlags |= CAMERA_DEVICE_FLAG_VANISHED;
    }
    return nMatched;
}

/* Deletes the marked records; the last record moves into each hole.  Walking
 * downwards means the moved record has already been examined. */
static void DeleteVanished(void)
{
    for (uint64_t i = gDeviceList.nCount; i-- > 0;) {
        CAMERA_DEVICE *pDevice = gDeviceList.pList[i];
        if ((pDevice->dwFlags & CAMERA_DEVICE_FLAG_VANISHED) == 0)
            continue;
        if (pDevice->hDeviceHandle != nullptr)
            USBTRClose(pDevice->hDeviceHandle);
        free(pDevice);
        uint64_t nLast = gDeviceList.nCount - 1;
        gDeviceList.pList[i] = gDeviceList.pList[nLast];
        gDeviceList.pList[nLast] = nullptr;
        SetDeviceCount(nLast);
    }
}

/* Appends a record for every list entry not taken by the matching step. */
static void AddNew(USBTR_DEVICE_LIST *pList, uint64_t nMatched)
{
    if (pList->nCount <= nMatched)
        return;
    uint64_t nNewCount = pList->nCount - nMatched;
    if (gDeviceList.nCount >= CAMERA_MAX_DEVICES) {
        DASSERT(nNewCount == 0, "nNewCount == 0");
        return;
    }
    for (uint64_t j = 0; j < pList->nCount && gDeviceList.nCount < CAMERA_MAX_DEVICES; j++) {
        const USBTR_DEVICE_DESCRIPTION *pEntry = &pList->aDevices[j];
        if (pEntry->wVid == 0)
            continue;
        CAMERA_DEVICE *pDevice = static_cast<CAMERA_DEVICE *>(calloc(1, sizeof(CAMERA_DEVICE)));
        gDeviceList.pList[gDeviceList.nCount] = pDevice;
        DASSERT(gDeviceList.pList[gDeviceList.nCount] != nullptr,
                "gDeviceList.pList[gDeviceList.nCount]");
        if (pDevice == nullptr)
            return; /* records added so far stay; the slot at nCount is still NULL */
        pDevice->aDeviceDescription = *pEntry;
        /* The strings are handed to the application: keep them terminated. */
        USBTR_DEVICE_DESCRIPTION *pCopy = &pDevice->aDeviceDescription;
        pCopy->szDeviceName[sizeof(pCopy->szDeviceName) - 1] = '\0';
        pCopy->szManufacturer[sizeof(pCopy->szManufacturer) - 1] = '\0';
        pCopy->szDescription[sizeof(pCopy->szDescription) - 1] = '\0';
        pCopy->szSerialNumber[sizeof(pCopy->szSerialNumber) - 1] = '\0';
        SetDeviceCount(gDeviceList.nCount + 1);
        DASSERT(nNewCount > 0, "nNewCount > 0");
        nNewCount--;
    }
    DASSERT(nNewCount == 0, "nNewCount == 0");
}

extern "C" CAMERA_API void camera_device_enumerate(void *pReserved, int32_t iReserved)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%d)", pReserved, iReserved);
    USBTR_DEVICE_LIST *pList = nullptr;
    {
        UVC_LOCK_GUARD guard;
        int32_t status = USBTREnumerate(ghLibraryHandle, nullptr, &pList);
        if (status == USBTR_STATUS_SUCCESS) {
            DASSERT(pList != nullptr, "pList");
            /* Without a list there is nothing to merge against: keep the registry. */
            if (pList != nullptr) {
                uint64_t nMatched = gDeviceList.nCount != 0 ? MatchRegistry(pList) : 0;
                DeleteVanished();
                DASSERT(pList->nCount >= nMatched, "nOldCount <= pList->nCount");
                AddNew(pList, nMatched);
            }
        }
    }
    free(pList);
    DTRACE_EXIT(call, "%s() -->");
}

extern "C" CAMERA_API uint32_t camera_device_count(void)
{
    return static_cast<uint32_t>(
        std::atomic_ref<uint64_t>(gDeviceList.nCount).load(std::memory_order_acquire));
}

extern "C" CAMERA_API CAMERA_HANDLE camera_get_by_index(uint32_t index)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%d)", static_cast<int>(index));
    CAMERA_HANDLE hResult = nullptr;
    {
        UVC_LOCK_GUARD guard;
        if (index < gDeviceList.nCount)
            hResult = gDeviceList.pList[index];
    }
    DTRACE_EXIT(call, "%s() --> %p", static_cast<void *>(hResult));
    return hResult;
}

extern "C" CAMERA_API CAMERA_HANDLE camera_get_by_vid_pid(uint16_t vid, uint16_t pid)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_ERROR, "%s(%d,%d)", vid, pid);
    /* Not offered: enumerate and compare camera_get_vid/camera_get_pid instead. */
    DFORCED_ASSERT();
    DTRACE_EXIT(call, "%s() --> %p", static_cast<void *>(nullptr));
    return nullptr;
}
