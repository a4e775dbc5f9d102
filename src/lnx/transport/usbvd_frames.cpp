/*
 * Frame hand-out: the caller takes finished frames from the ready queue,
 * reads them in place and gives them back; a flush throws the waiting ones
 * away.  Nothing is copied.
 */
#include <cstring>

#include "usbtr.h"

#include "../../lnx/platform/fpplat.h"
#include "../../trace/dtraces.h"

static constexpr uint32_t USBVD_GET_FRAME_POLL = 10;

static inline bool USBVDDisconnected(USBTR_CONTEXT *pContext)
{
    return (USBTRStatusFlags(pContext) & USBTR_SF_DISCONNECTED) != 0;
}

int32_t USBVDGetFrame(USBTR_CONTEXT *pContext, uint32_t dwTimeout, void **ppFrame)
{
    uint32_t t0 = FPPltGetTime();
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u,%p)", (void *)pContext, dwTimeout,
                 (void *)ppFrame);

    int32_t iStatus = USBTR_STATUS_SUCCESS;
    int32_t nIndex = -1;
    uint32_t dwFrameStart = 0;

    DASSERT(ppFrame != nullptr, "ppFrame");
    if (ppFrame == nullptr) {
        /* Nowhere to put a frame: taking one would lose it. */
        iStatus = USBTR_CHECK_CONTEXT(pContext) ? USBTR_STATUS_GENERAL_ERROR : USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }
    *ppFrame = nullptr;

    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }
    if (USBVDDisconnected(pContext)) {
        iStatus = USBTR_STATUS_COMM_ERROR;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    for (;;) {
        pthread_mutex_lock(&pContext->aGrabLock);
        if (USBVDGrabState(pContext) != USBVD_GRAB_STATE_RUNNING) {
            iStatus = pContext->dwGrabStatus != 0 ? (int32_t)pContext->dwGrabStatus
                                                  : USBTR_STATUS_GENERAL_ERROR;
            pthread_mutex_unlock(&pContext->aGrabLock);
            break;
        }
        nIndex = LILOGet(pContext, USBVD_IMAGE_STATE_READY);
        if ((nIndex & 0xFF) != 0xFF) {
            /* Keep the lock: the slot moves straight on to the in-use queue. */
            DASSERT((uint64_t)nIndex < pContext->nFrameCount, "nIndex < pContext->nFrameCount");
            LILOPut(pContext, USBVD_IMAGE_STATE_IN_USE, (uint8_t)nIndex);
            if (nIndex < (int32_t)USBVD_MAX_FRAMES)
                dwFrameStart = pContext->aFrameStartTimes[nIndex];
            pthread_mutex_unlock(&pContext->aGrabLock);
            break;
        }
        nIndex = -1;
        if (FPPltGetTime() - t0 > dwTimeout) {
            pthread_mutex_unlock(&pContext->aGrabLock);
            iStatus = USBTR_STATUS_TIMEOUT;
            break;
        }
        /* At most one poll interval with the lock released; the grab thread
         * wakes the wait as soon as it delivers, so a frame is handed out
         * without waiting for the rest of the interval. */
        uint32_t dwSeen = FPPltEventValue(&pContext->dwFrameEvent);
        pthread_mutex_unlock(&pContext->aGrabLock);
        FPPltWaitEvent(&pContext->dwFrameEvent, dwSeen, USBVD_GET_FRAME_POLL);
        if (USBVDDisconnected(pContext)) {
            iStatus = USBTR_STATUS_COMM_ERROR;
            break;
        }
    }

    if (nIndex >= 0 && nIndex < (int32_t)USBVD_MAX_FRAMES) {
        uint8_t *pFrame = pContext->aImages[nIndex];
        /* The trailer goes right behind the image; the slot is the caller's
         * now, so no lock is needed to write it. */
        const USBTR_VIDEO_INFO *pInfo = pContext->pVDDeviceInfo;
        uint32_t nOffset = pInfo != nullptr ? pInfo->dwImageWidth * pInfo->dwImageHeight : 0;
        DASSERT((nOffset % sizeof(uint32_t)) == 0, "(nOffset % sizeof(pTS->dwTMFrameStart)) == 0");
        if (nOffset > USBVD_IMAGE_BUFFER_SIZE - USBVD_TIME_STAMP_SIZE)
            nOffset = USBVD_IMAGE_BUFFER_SIZE - USBVD_TIME_STAMP_SIZE;
        USBVD_TIME_STAMP aStamp;
        memcpy(aStamp.dwTMSignature, "TmSt", 4);
        aStamp.dwTMFrameStart = dwFrameStart;
        aStamp.dwTMFrameReturned = FPPltGetTime() - gdwTimeStampBase;
        memcpy(pFrame + nOffset, &aStamp, sizeof(aStamp));
        *ppFrame = pFrame;
        iStatus = USBTR_STATUS_SUCCESS;
    } else if (nIndex >= 0) {
        /* A damaged queue handed out an index without a slot. */
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    }

    DASSERT(iStatus || *ppFrame, "status || *ppFrame");
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDReleaseFrame(USBTR_CONTEXT *pContext, void *pFrame)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", (void *)pContext, pFrame);
    int32_t iStatus = USBTR_STATUS_SUCCESS;

    DASSERT(pFrame != nullptr, "pFrame");
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    /* Only the exact start of a slot of the current stream is accepted;
     * anything else is reported and leaves the queues alone. */
    uintptr_t uFrame = (uintptr_t)pFrame;
    uintptr_t uBase = (uintptr_t)&pContext->aImages[0][0];
    bool bValid = pFrame != nullptr;
    if (bValid) {
        DASSERT(uFrame >= uBase, "pFrame >= pContext->aImages[0]");
        bValid = uFrame >= uBase;
    }
    uint64_t nIndex = 0;
    if (bValid) {
        uintptr_t uOffset = uFrame - uBase;
        nIndex = uOffset / USBVD_IMAGE_BUFFER_SIZE;
        DASSERT((uOffset % USBVD_IMAGE_BUFFER_SIZE) == 0, "(nIndex % USBVD_IMAGE_BUFFER_SIZE) == 0");
        DASSERT(nIndex < pContext->nFrameCount, "nIndex < pContext->nFrameCount");
        bValid = (uOffset % USBVD_IMAGE_BUFFER_SIZE) == 0 && nIndex < pContext->nFrameCount &&
                 nIndex < USBVD_MAX_FRAMES;
    }
    if (!bValid) {
        iStatus = USBTR_STATUS_GENERAL_ERROR;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    pthread_mutex_lock(&pContext->aGrabLock);
    if (LILOFindAndRemove(pContext, USBVD_IMAGE_STATE_IN_USE, (uint8_t)nIndex))
        LILOPut(pContext, USBVD_IMAGE_STATE_FREE, (uint8_t)nIndex);
    pthread_mutex_unlock(&pContext->aGrabLock);

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDFlush(USBTR_CONTEXT *pContext)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p)", (void *)pContext);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    pthread_mutex_lock(&pContext->aGrabLock);
    for (;;) {
        int32_t nIndex = LILOGet(pContext, USBVD_IMAGE_STATE_READY);
        if ((nIndex & 0xFF) == 0xFF)
            break;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s() flushing image %u", "USBVDFlush", (unsigned)nIndex);
        LILOPut(pContext, USBVD_IMAGE_STATE_FREE, (uint8_t)nIndex);
    }
    /* The frame being assembled began before the flush: drop it too. */
    if (pContext->nFramesToDrop <= 1)
        pContext->nFramesToDrop = 1;
    pthread_mutex_unlock(&pContext->aGrabLock);

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}
