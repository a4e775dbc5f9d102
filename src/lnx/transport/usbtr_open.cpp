/*
 * Opening and closing a reader: discovery picks the device, the context is
 * allocated once (frame images included), the usbfs node is opened and
 * locked, the device is configured and its streaming endpoints are found.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "../../trace/dtraces.h"
#include "usbtr.h"

namespace {

constexpr int STREAMING_INTERFACE = 1;
constexpr int STREAMING_ALT_SETTING = 1;

/* Undoes the node part of a failed open: nothing may stay open or locked. */
void CloseNode(USBTR_CONTEXT *pContext)
{
    if (pContext->fdDevice != -1) {
        UnlockFD(pContext);
        close(pContext->fdDevice);
    }
    pContext->fdDevice = -1;
}

void StoreFirstInEndpoint(int32_t *piSlot, uint8_t bAddress)
{
    if ((bAddress & USB_TRANSFER_DIRECTION_MASK) != 0 && *piSlot == 0)
        *piSlot = bAddress;
}

void FindEndpoints(USBTR_CONTEXT *pContext, const USBTR_ALTSETTING *pAlt)
{
    pContext->iBulkReadEP = 0;
    pContext->iIsoReadEP = 0;
    pContext->iIntReadEP = 0;
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Found %d endpoints", pAlt->bNumEndpoints);
    /* The record holds at most USBTR_MAX_ENDPOINTS, whatever the descriptor declared. */
    uint32_t nEndpoints = pAlt->bNumEndpoints < USBTR_MAX_ENDPOINTS ? pAlt->bNumEndpoints : USBTR_MAX_ENDPOINTS;
    for (uint32_t e = 0; e < nEndpoints; e++) {
        const uint8_t bAddress = pAlt->aEndpoints[e].bEndpointAddress;
        switch (pAlt->aEndpoints[e].bmAttributes & 3) {
        case 2:
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Found BULK IN EP at 0x%02x", bAddress);
            StoreFirstInEndpoint(&pContext->iBulkReadEP, bAddress);
            break;
        case 3:
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Found INT IN EP at 0x%02x", bAddress);
            StoreFirstInEndpoint(&pContext->iIntReadEP, bAddress);
            break;
        case 1:
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Found ISO IN EP at 0x%02x", bAddress);
            StoreFirstInEndpoint(&pContext->iIsoReadEP, bAddress);
            break;
        default:
            break;
        }
    }
}

/* The node and device part once the node is open; the caller closes on failure. */
int32_t ConfigureDevice(USBTR_CONTEXT *pContext, const USBTR_CONFIG *pConfig)
{
    int32_t iStatus = LockFD(pContext);
    if (iStatus != USBTR_STATUS_SUCCESS)
        return iStatus;

    struct usbdevfs_ioctl aDetach = {0, USBDEVFS_DISCONNECT, nullptr};
    if (USBTRIOCtlEx(pContext, USBDEVFS_IOCTL, &aDetach, nullptr) != USBTR_STATUS_SUCCESS)
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Could not detach kernel driver from interface %d: %s, ignoring",
               0, strerror(errno));

    if ((iStatus = USBTRResetDevice(pContext)) != USBTR_STATUS_SUCCESS)
        return iStatus;
    if ((iStatus = USBTRIOCtlVal(pContext, USBDEVFS_SETCONFIGURATION, pConfig->bConfigurationValue,
                                 "USBTRSetConfiguration")) != USBTR_STATUS_SUCCESS)
        return iStatus;
    if ((iStatus = USBTRIOCtlVal(pContext, USBDEVFS_CLAIMINTERFACE, STREAMING_INTERFACE, "USBTRClaimInterface")) !=
        USBTR_STATUS_SUCCESS)
        return iStatus;
    if ((iStatus = USBTRSetInterfaceAlt(pContext, STREAMING_INTERFACE, 0)) != USBTR_STATUS_SUCCESS)
        return iStatus;

    FindEndpoints(pContext, &pConfig->pInterfaces[STREAMING_INTERFACE].aAltSettings[STREAMING_ALT_SETTING]);
    if (pContext->iIsoReadEP == 0) {
        DERROR("USBTR_STATUS_COMM_ERROR");
        return USBTR_STATUS_COMM_ERROR;
    }
    if (!USBTRIdentifyDevice(&pContext->aDeviceInfo, nullptr, &pContext->pVDDeviceInfo)) {
        DASSERT(false, "USBTRIdentifyDevice(&pContext->aDeviceInfo,((void *)0),&pContext->pVDDeviceInfo)");
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        return USBTR_STATUS_GENERAL_ERROR;
    }
    DASSERT(pContext->pVDDeviceInfo != nullptr, "pContext->pVDDeviceInfo");

    const USBTR_VIDEO_INFO *pVideo = pContext->pVDDeviceInfo;
    USBVD_IMAGE_FORMAT *pFormat = &pContext->aImageFormatList.aFormats[0];
    pContext->aImageFormatList.nCount = 1;
    pContext->nImageFormatIndex = 0;
    pFormat->dwFourCC = USBVD_FOURCC_YUYV;
    pFormat->dwWidth = pVideo->dwImageWidth;
    pFormat->dwHeight = pVideo->dwImageHeight / 2;
    pFormat->dwImageSize = pFormat->dwHeight * (pFormat->dwWidth * 2);
    pFormat->dwReserved = 0;
    pContext->dwFrameInterval = USBTRStreamingInterval(pVideo);
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "Frame interval is %u (%u fps)", pContext->dwFrameInterval,
           pContext->dwFrameInterval != 0 ? 10000000u / pContext->dwFrameInterval : 0u);
    return USBTR_STATUS_SUCCESS;
}

void PrepareGrabThreadAttributes(USBTR_CONTEXT *pCtx)
{
    pCtx->bGrabThreadAttributesValid = 0;
    if (pthread_attr_init(&pCtx->aGrabThreadAttributes) != 0) {
        DASSERT(false, "pthread_attr_init(&pCtx->aGrabThreadAttributes) == 0");
        return;
    }
    struct sched_param aParam;
    if (pthread_attr_getschedparam(&pCtx->aGrabThreadAttributes, &aParam) != 0) {
        DASSERT(false, "pthread_attr_getschedparam(&pCtx->aGrabThreadAttributes,&aParam) == 0");
    } else {
        aParam.sched_priority = sched_get_priority_max(SCHED_OTHER);
        if (pthread_attr_setschedparam(&pCtx->aGrabThreadAttributes, &aParam) != 0)
            DASSERT(false, "pthread_attr_setschedparam(&pCtx->aGrabThreadAttributes,&aParam) == 0");
        else
            pCtx->bGrabThreadAttributesValid = 1;
    }
    /* Attributes exist only while marked valid, so close knows what to destroy. */
    if (!pCtx->bGrabThreadAttributesValid)
        pthread_attr_destroy(&pCtx->aGrabThreadAttributes);
}

} // namespace

int32_t LockFD(USBTR_CONTEXT *pContext)
{
    DASSERT((USBTRStatusFlags(pContext) & USBTR_SF_EX_LOCKED) == 0,
            "(pContext->dwStatusFlags & USBTR_SF_EX_LOCKED) == 0");
    if (flock(pContext->fdDevice, LOCK_EX | LOCK_NB) == 0) {
        USBTRSetStatusFlag(pContext, USBTR_SF_EX_LOCKED);
        return USBTR_STATUS_SUCCESS;
    }
    int iErrno = errno;
    if (iErrno == EBADF) {
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        return USBTR_STATUS_GENERAL_ERROR;
    }
    if (iErrno == EWOULDBLOCK)
        return USBTR_STATUS_DEVICE_BUSY; /* another opener holds the reader */
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "flock() failed: %i, %s", iErrno, strerror(iErrno));
    DERROR("USBTR_STATUS_COMM_ERROR");
    return USBTR_STATUS_COMM_ERROR;
}

void UnlockFD(USBTR_CONTEXT *pContext)
{
    /* May run on any thread that meets ENODEV: clear the flag exactly once. */
    if (std::atomic_ref<uint32_t>(pContext->dwStatusFlags).fetch_and(~USBTR_SF_EX_LOCKED, std::memory_order_acq_rel) &
        USBTR_SF_EX_LOCKED)
        flock(pContext->fdDevice, LOCK_UN);
}

int32_t USBTRResetDevice(USBTR_CONTEXT *pContext)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(pContext));
    int32_t iStatus = USBTRIOCtlEx(pContext, USBDEVFS_RESET, nullptr, nullptr);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRSetInterfaceAlt(USBTR_CONTEXT *pContext, int iInterface, int iAltSetting)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%i,%i)", static_cast<void *>(pContext),
                 iInterface, iAltSetting);
    int32_t iStatus;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else {
        struct usbdevfs_setinterface aSetting = {static_cast<unsigned int>(iInterface),
                                                 static_cast<unsigned int>(iAltSetting)};
        iStatus = USBTRIOCtlEx(pContext, USBDEVFS_SETINTERFACE, &aSetting, nullptr);
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRInternalOpen(USBTR_CONTEXT *pContext, const USBTR_DEVICE_INFO *pDeviceInfo)
{
    if (pContext == nullptr) {
        DASSERT(false, "(pContext != ((void *)0))");
        return USBTR_STATUS_INVALID_HANDLE;
    }
    DASSERT(pContext->dwMagic == USBTR_CTX_MAGIC, "(pContext->dwMagic == 0x54425355)");
    DASSERT(pDeviceInfo != nullptr, "pDeviceInfo");
    DASSERT(gGlobalInitialised != 0, "gGlobalInitialised");
    DASSERT(gszUSBFSRoot[0] != '\0', "gszUSBFSRoot[0]");
    pContext->fdDevice = -1;
    if (pDeviceInfo == nullptr)
        return USBTR_STATUS_NO_DEVICE;

    char szPath[4096];
    /* A path cut to the buffer names no node: the open below then fails. */
    int nPath = snprintf(szPath, sizeof(szPath), "%s/%s/%s", gszUSBFSRoot, pDeviceInfo->szBusNum,
                         pDeviceInfo->szDevNum);
    DASSERT(nPath < static_cast<int>(sizeof(szPath)), "nPath < sizeof(szPath)");

    /* The streaming interface (1) and its alternate setting 1 must exist. */
    const USBTR_CONFIG *pConfig = &pDeviceInfo->aConfigs[0];
    if (pConfig->bNumInterfaces <= STREAMING_INTERFACE || pConfig->pInterfaces == nullptr) {
        DERROR("USBTR_STATUS_COMM_ERROR");
        return USBTR_STATUS_COMM_ERROR;
    }

    pContext->fdDevice = open(szPath, O_RDWR | O_CLOEXEC);
    if (pContext->fdDevice < 0) {
        int iErrno = errno;
        pContext->fdDevice = -1;
        return iErrno == EPERM ? USBTR_STATUS_ACCESS_DENIED : USBTR_STATUS_NO_DEVICE;
    }
    int32_t iStatus = ConfigureDevice(pContext, pConfig);
    if (iStatus != USBTR_STATUS_SUCCESS)
        CloseNode(pContext);
    return iStatus;
}

int32_t USBTROpen(void *pLibCtx, const USBTR_DEVICE_DESCRIPTION *pDeviceRequest, uint32_t dwOpenFlags,
                  USBTR_CONTEXT **phTransferHandle)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%p,%x,%p)", pLibCtx,
                 static_cast<const void *>(pDeviceRequest), dwOpenFlags, static_cast<void *>(phTransferHandle));
    if (pDeviceRequest != nullptr && pDeviceRequest->szDeviceName[0] != '\0')
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s() - open by name %.*s", __func__,
               static_cast<int>(sizeof(pDeviceRequest->szDeviceName)), pDeviceRequest->szDeviceName);

    int32_t iStatus = USBTR_STATUS_SUCCESS;
    USBTR_CONTEXT *pCtx = nullptr;
    USBTR_DEVICE_INFO **ppTable = nullptr;
    int32_t iCount = 0;

    if (!USBTRCheckLibContext(pLibCtx, true, __FILE__, __LINE__)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (phTransferHandle == nullptr) {
        /* Nowhere to put the handle: refuse before allocating anything. */
        DASSERT(false, "phTransferHandle");
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(): sizeof(USBTR_CONTEXT) = %u", __func__,
               static_cast<unsigned>(sizeof(USBTR_CONTEXT)));
        pCtx = static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT)));
        if (pCtx == nullptr) {
            DERROR("USBTR_STATUS_NO_MEMORY");
            iStatus = USBTR_STATUS_NO_MEMORY;
        }
    }

    if (pCtx != nullptr) {
        pCtx->dwMagic = USBTR_CTX_MAGIC;
        pCtx->fdDevice = -1;
        int32_t iRealDeviceCount = 0;
        USBTR_DEVICE_INFO *pFirst = nullptr;
        iStatus = USBTRInternalEnumerate(pDeviceRequest, &ppTable, &iCount, &iRealDeviceCount, &pFirst);
        if (iStatus == USBTR_STATUS_SUCCESS && pFirst == nullptr) {
            DASSERT(iRealDeviceCount == 0, "iRealDeviceCount == 0");
            iStatus = USBTR_STATUS_NO_DEVICE;
        }
        if (iStatus == USBTR_STATUS_SUCCESS) {
            DASSERT(iRealDeviceCount > 0, "iRealDeviceCount > 0");
            pCtx->aDeviceInfo.wVid = pFirst->aDeviceDescriptor.idVendor;
            pCtx->aDeviceInfo.wPid = pFirst->aDeviceDescriptor.idProduct;
            pCtx->aDeviceInfo.wRev = pFirst->aDeviceDescriptor.bcdDevice;
            iStatus = USBTRInternalOpen(pCtx, pFirst);
        }
        if (iStatus == USBTR_STATUS_SUCCESS) {
            DASSERT(pthread_mutex_init(&pCtx->aIntReadLock, nullptr) == 0,
                    "(pthread_mutex_init(&pCtx->aIntReadLock,((void *)0))) == 0");
            DASSERT(pthread_mutex_init(&pCtx->aGrabLock, nullptr) == 0,
                    "(pthread_mutex_init(&pCtx->aGrabLock,((void *)0))) == 0");
            DASSERT(pthread_mutex_init(&pCtx->aSyncSlotLock, nullptr) == 0,
                    "(pthread_mutex_init(&pCtx->aSyncSlotLock,((void *)0))) == 0");
            USBTROpenWake(pCtx);
            USBTRChangeCheckHandleCount(1);
            PrepareGrabThreadAttributes(pCtx);
            *phTransferHandle = pCtx;
        } else {
            free(pCtx);
        }
        USBTRFreeDevices(ppTable, iCount);
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRClose(USBTR_CONTEXT *pContext)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p)", static_cast<void *>(pContext));
    int32_t iStatus = USBTR_STATUS_INVALID_HANDLE;
    if (USBTR_CHECK_CONTEXT(pContext)) {
        /* No library thread may touch the context once it is gone. */
        USBVDStopTransfer(pContext, 0);
        if (pContext->fdDevice == -1) {
            DASSERT(false, "pContext->fdDevice != -1");
        } else {
            UnlockFD(pContext);
            close(pContext->fdDevice);
            pContext->fdDevice = -1;
        }
        USBTRCloseWake(pContext);
        pthread_mutex_destroy(&pContext->aIntReadLock);
        pthread_mutex_destroy(&pContext->aGrabLock);
        pthread_mutex_destroy(&pContext->aSyncSlotLock);
        if (pContext->bGrabThreadAttributesValid)
            pthread_attr_destroy(&pContext->aGrabThreadAttributes);
        /* A stale handle must fail the check rather than look valid. */
        pContext->dwMagic = 0;
        free(pContext);
        USBTRChangeCheckHandleCount(-1);
        iStatus = USBTR_STATUS_SUCCESS;
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}
