/*
 * Stream start and stop, and the grab thread: it commits the stream
 * parameters, keeps a ring of isochronous requests in flight and cuts the
 * payload into frames by the frame identifier bit of the payload header.
 */
#include <cstring>
#include <sys/ioctl.h>

#include "usbtr.h"

#include "../../lnx/platform/fpplat.h"
#include "../../trace/dtraces.h"

static constexpr uint8_t USBVD_NO_SLOT = 0xFF;
static constexpr uint8_t USBVD_PAYLOAD_FID = 0x01;
/* How often a thread waiting for a request looks for a stop. */
static constexpr uint32_t USBVD_STOP_POLL = 50;

void USBVDPrepareISORequest(USBTR_CONTEXT *pContext, USBVD_ISO_REQUEST *pRequest, uint8_t *pBuffer)
{
    DASSERT(pContext->iIsoReadEP != 0, "pContext->iIsoReadEP != 0");
    USBTRPrepareRequest(pContext, &pRequest->aRequest, pContext->iIsoReadEP, USB_TRANSFER_DIRECTION_MASK,
                        USB_TRANSFER_TYPE_ISO, pBuffer, USBVD_ISO_BUFFER_SIZE);
    pRequest->aRequest.flags = USBDEVFS_URB_ISO_ASAP;
    pRequest->aRequest.number_of_packets = USBVD_ISO_PACKET_COUNT;
    for (uint32_t k = 0; k < USBVD_ISO_PACKET_COUNT; k++) {
        pRequest->aPackets[k].length = USBVD_ISO_PACKET_SIZE;
        /* Cleared so that a stale length can never pass for fresh data. */
        pRequest->aPackets[k].actual_length = 0;
        pRequest->aPackets[k].status = 0;
    }
    /* Not in flight until submitted. */
    USBTRSetRequestMark(&pRequest->aRequest, &pRequest->aRequest);
}

static inline void USBVDMarkReaped(USBTR_CONTEXT *pContext, void *pReaped)
{
    if (pReaped != nullptr)
        USBTRMarkReaped(pContext, (USBTR_REQUEST *)pReaped);
}

static bool USBVDRingCollected(USBTR_CONTEXT *pContext)
{
    for (uint32_t i = 0; i < USBVD_ISO_REQUEST_COUNT; i++) {
        if (USBTRRequestMark(&pContext->aIsoRequests[i].aRequest) == nullptr)
            return false;
    }
    return true;
}

/* Cancels every request of the ring and collects them, so that none is left
 * known to the kernel when the thread ends: a late reap would otherwise write
 * into a record that the next stream has submitted again.  Every request
 * reaped here is marked, whoever it belongs to, so that no other waiter
 * loses its completion. */
static void USBVDDiscardRing(USBTR_CONTEXT *pContext)
{
    for (uint32_t i = 0; i < USBVD_ISO_REQUEST_COUNT; i++) {
        USBTRDiscardRequest(pContext, &pContext->aIsoRequests[i].aRequest);
        void *pReaped = nullptr;
        if (USBTRIOCtlEx(pContext, USBDEVFS_REAPURBNDELAY, &pReaped, nullptr) == USBTR_STATUS_SUCCESS)
            USBVDMarkReaped(pContext, pReaped);
    }

    uint32_t dwStart = FPPltGetTime();
    while (!USBVDRingCollected(pContext)) {
        void *pReaped = nullptr;
        int32_t iStatus = USBTRIOCtlEx(pContext, USBDEVFS_REAPURBNDELAY, &pReaped, nullptr);
        if (iStatus == USBTR_STATUS_SUCCESS) {
            USBVDMarkReaped(pContext, pReaped);
            continue;
        }
        /* Gone or failing device: nothing more can be collected. */
        if (iStatus != USBTR_STATUS_TIMEOUT)
            break;
        if (FPPltGetTime() - dwStart > USBTR_DISCARD_COLLECT_TIMEOUT) {
            DTRACE(_DRegion_usbvd, DTRACE_LEVEL_WARNING, "%s: discarded requests not collected",
                   "USBDVGrabThread");
            break;
        }
        FPPltSleep(1);
    }
}

int32_t USBDVInitTransfer(USBTR_CONTEXT *pContext)
{
    DTRACE_ENTER(call, _DRegion_usbvd, DTRACE_LEVEL_DEBUG, "%s(%p)", (void *)pContext);
    int32_t iStatus = USBTR_STATUS_SUCCESS;

    for (uint32_t i = 0; i < USBVD_ISO_REQUEST_COUNT; i++)
        USBVDPrepareISORequest(pContext, &pContext->aIsoRequests[i], pContext->aIsoBuffers[i]);
    for (uint32_t i = 0; i < USBVD_ISO_REQUEST_COUNT; i++) {
        USBTR_REQUEST *pRequest = &pContext->aIsoRequests[i].aRequest;
        iStatus = USBTRSubmitRequest(pContext, pRequest);
        if (iStatus != USBTR_STATUS_SUCCESS) {
            /* Refused by the kernel: not in flight. */
            USBTRSetRequestMark(pRequest, pRequest);
            USBVDDiscardRing(pContext);
            break;
        }
    }

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

/* Per-stream working state of the grab thread. */
struct USBVD_ASSEMBLY {
    uint32_t nRealImageLength;
    uint32_t nImageOffset;
    uint32_t dwFrameStart;
    int32_t iLastFid;
    uint8_t nImageIndex;
    uint8_t *pSlot; /* the slot's image, null without a slot */
    bool bOverflow;
    bool bPayloadSeen;
};

static inline uint32_t USBVDNow(void)
{
    return FPPltGetTime() - gdwTimeStampBase;
}

/* A packet whose frame identifier differs from the last one ends a frame. */
static void USBVDFrameBoundary(USBTR_CONTEXT *pContext, USBVD_ASSEMBLY *pAsm, int32_t iFid)
{
    DTRACE(_DRegion_usbvd, DTRACE_LEVEL_DEBUG, "%s: new frame", "USBDVGrabThread");

    if (pAsm->nImageOffset >= pAsm->nRealImageLength && !pAsm->bOverflow) {
        /* Whoever waits for the start or for a frame is woken once the lock
         * is free again. */
        bool bSignal = false;
        pthread_mutex_lock(&pContext->aGrabLock);
        if (USBVDGrabState(pContext) == USBVD_GRAB_STATE_NOT_STARTED) {
            USBVDSetGrabState(pContext, USBVD_GRAB_STATE_RUNNING);
            /* The start waits on this: let it return now, before the slots fill. */
            bSignal = true;
        }
        DASSERT(pAsm->nImageOffset == pAsm->nRealImageLength, "nImageOffset == nRealImageLength");
        if (pAsm->nImageIndex != USBVD_NO_SLOT) {
            DASSERT(pAsm->nImageIndex < pContext->nFrameCount, "nImageIndex < pContext->nFrameCount");
            if (pContext->nFramesToDrop != 0) {
                LILOPut(pContext, USBVD_IMAGE_STATE_FREE, pAsm->nImageIndex);
                pContext->nFramesToDrop--;
            } else {
                if (pAsm->nImageIndex < USBVD_MAX_FRAMES)
                    pContext->aFrameStartTimes[pAsm->nImageIndex] = pAsm->dwFrameStart;
                LILOPut(pContext, USBVD_IMAGE_STATE_READY, pAsm->nImageIndex);
                bSignal = true;
            }
        }
        pAsm->nImageIndex = (uint8_t)LILOGet(pContext, USBVD_IMAGE_STATE_FREE);
        pAsm->pSlot = pAsm->nImageIndex != USBVD_NO_SLOT ? pContext->aImages[pAsm->nImageIndex] : nullptr;
        pthread_mutex_unlock(&pContext->aGrabLock);
        if (bSignal)
            FPPltSignalEvent(&pContext->dwFrameEvent);
        pAsm->bPayloadSeen = true;
    } else if (pAsm->nImageOffset != 0) {
        /* Short or overlong: thrown away, the slot stays for the next frame. */
        if (pAsm->bOverflow)
            DTRACE(_DRegion_usbvd, DTRACE_LEVEL_WARNING, "%s: skipping overflowed frame", "USBDVGrabThread");
        else
            DTRACE(_DRegion_usbvd, DTRACE_LEVEL_WARNING, "%s: skipping %u bytes of %u", "USBDVGrabThread",
                   pAsm->nImageOffset, pAsm->nRealImageLength);
    }

    pAsm->iLastFid = iFid;
    pAsm->nImageOffset = 0;
    pAsm->dwFrameStart = USBVDNow();
    pAsm->bOverflow = false;
}

/* The packets of one completed request; the only per-byte work is one copy
 * from the request buffer into the slot.  The working state lives in locals
 * between frame boundaries: the copy could alias it, which would make the
 * compiler reload it for every packet. */
static inline void USBVDAssemble(USBTR_CONTEXT *pContext, USBVD_ASSEMBLY *pAsm,
                                 const USBVD_ISO_REQUEST *pRequest, const uint8_t *pBuffer)
{
    uint32_t nOffset = pAsm->nImageOffset;
    uint8_t *pSlot = pAsm->pSlot;
    int32_t iLastFid = pAsm->iLastFid;
    for (uint32_t k = 0; k < USBVD_ISO_PACKET_COUNT; k++, pBuffer += USBVD_ISO_PACKET_SIZE) {
        uint32_t n = pRequest->aPackets[k].actual_length;
        /* One test for the usual packet: a header and at most a packet's bytes. */
        if (__builtin_expect(n - USBVD_PAYLOAD_HEADER_SIZE > USBVD_ISO_PACKET_SIZE - USBVD_PAYLOAD_HEADER_SIZE, 0)) {
            if (n < USBVD_PAYLOAD_HEADER_SIZE) {
                if (n != 0)
                    DTRACE(_DRegion_usbvd, DTRACE_LEVEL_ERROR, "Too small frame of %uB\n", n);
                continue;
            }
            /* Never read past the packet's own part of the buffer. */
            n = USBVD_ISO_PACKET_SIZE;
        }

        int32_t iFid = pBuffer[1] & USBVD_PAYLOAD_FID;
        if (__builtin_expect(iFid != iLastFid, 0)) {
            pAsm->nImageOffset = nOffset;
            USBVDFrameBoundary(pContext, pAsm, iFid);
            nOffset = pAsm->nImageOffset;
            pSlot = pAsm->pSlot;
            iLastFid = iFid;
        }

        uint32_t d = n - USBVD_PAYLOAD_HEADER_SIZE;
        uint32_t nRoom = pAsm->nRealImageLength - nOffset;
        if (__builtin_expect(d > nRoom, 0)) {
            DTRACE(_DRegion_usbvd, DTRACE_LEVEL_WARNING, "%s: cutting last data from %u to %u",
                   "USBDVGrabThread", d, nRoom);
            d = nRoom;
            pAsm->bOverflow = true;
        }
        if (pSlot != nullptr)
            memcpy(pSlot + nOffset, pBuffer + USBVD_PAYLOAD_HEADER_SIZE, d);
        nOffset += d;
    }
    pAsm->nImageOffset = nOffset;
}

/* Waits up to USBVD_ISO_REAP_TIMEOUT for one request of the ring, in slices,
 * so that a stop asked for meanwhile ends the wait without the full time-out
 * (the request is then discarded with the rest of the ring). */
static int32_t USBVDWaitRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, bool *pbStopped)
{
    /* The clock is read only once a slice has timed out: the slice itself
     * took more than USBVD_STOP_POLL, which places the start of the wait. */
    uint32_t dwStart = 0;
    bool bSliced = false;
    for (;;) {
        int32_t iStatus = USBTRPollReapThisRequest(pContext, pRequest, USBVD_STOP_POLL);
        if (iStatus != USBTR_STATUS_TIMEOUT)
            return iStatus;
        if (USBVDGrabState(pContext) == USBVD_GRAB_STATE_STOPPED) {
            *pbStopped = true;
            return USBTR_STATUS_SUCCESS;
        }
        uint32_t dwNow = FPPltGetTime();
        if (!bSliced) {
            dwStart = dwNow - (USBVD_STOP_POLL + 1);
            bSliced = true;
        }
        if (dwNow - dwStart >= USBVD_ISO_REAP_TIMEOUT)
            return USBTR_STATUS_TIMEOUT;
    }
}

/* Takes a request of the ring that has completed.  When it has not, the
 * thread has caught up with the ring: it sleeps while completions gather and
 * then takes them one by one, so that a wake-up serves several requests.
 * When even the awaited request has not come after the sleep, the stream is
 * slower than the gathering window; the thread then waits for each request
 * in poll() for one turn of the ring before it tries gathering again.  The
 * result is the last reap pass's: USBTR_STATUS_TIMEOUT when the caller must
 * wait for the request. */
static int32_t USBVDGather(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, uint32_t *pnPlainWaits)
{
    if (*pnPlainWaits != 0) {
        (*pnPlainWaits)--;
        return USBTR_STATUS_TIMEOUT;
    }
    int32_t iStatus = USBTRTryReapThisRequest(pContext, pRequest);
    if (iStatus != USBTR_STATUS_TIMEOUT)
        return iStatus;
    FPPltSleep(USBVD_GATHER_MS);
    iStatus = USBTRTryReapThisRequest(pContext, pRequest);
    if (iStatus == USBTR_STATUS_TIMEOUT)
        *pnPlainWaits = USBVD_ISO_REQUEST_COUNT;
    return iStatus;
}

static int32_t USBVDStreamLoop(USBTR_CONTEXT *pContext, uint32_t nRealImageLength)
{
    USBVD_ASSEMBLY aAsm;
    aAsm.nRealImageLength = nRealImageLength;
    aAsm.nImageOffset = nRealImageLength;
    aAsm.iLastFid = -1;
    aAsm.nImageIndex = USBVD_NO_SLOT;
    aAsm.pSlot = nullptr;
    aAsm.bOverflow = false;
    aAsm.bPayloadSeen = false;
    uint32_t dwLoopStart = FPPltGetTime();
    aAsm.dwFrameStart = dwLoopStart - gdwTimeStampBase;

    int32_t iStatus = USBTR_STATUS_SUCCESS;
    uint32_t i = 0;
    uint32_t nPlainWaits = 0;
    if (USBVDGrabState(pContext) != USBVD_GRAB_STATE_STOPPED) {
        for (;;) {
            USBVD_ISO_REQUEST *pRequest = &pContext->aIsoRequests[i];
            /* A request reaped by an earlier pass (this thread's or another's)
             * needs no wait at all. */
            if (USBTRRequestMark(&pRequest->aRequest) == nullptr) {
                bool bStopped = false;
                iStatus = USBVDGather(pContext, &pRequest->aRequest, &nPlainWaits);
                if (iStatus == USBTR_STATUS_TIMEOUT)
                    iStatus = USBVDWaitRequest(pContext, &pRequest->aRequest, &bStopped);
                if (iStatus != USBTR_STATUS_SUCCESS || bStopped)
                    break;
            }

            USBVDAssemble(pContext, &aAsm, pRequest, pContext->aIsoBuffers[i]);

            USBVDPrepareISORequest(pContext, pRequest, pContext->aIsoBuffers[i]);
            iStatus = USBTRSubmitRequest(pContext, &pRequest->aRequest);
            if (iStatus != USBTR_STATUS_SUCCESS) {
                USBTRSetRequestMark(&pRequest->aRequest, &pRequest->aRequest);
                break;
            }
            i = (i + 1) % USBVD_ISO_REQUEST_COUNT;

            /* Requests that complete without payload would keep the starter
             * waiting for ever. */
            if (!aAsm.bPayloadSeen && FPPltGetTime() - dwLoopStart > USBVD_START_TIMEOUT) {
                DTRACE(_DRegion_usbvd, DTRACE_LEVEL_ERROR, "%s: no payload within %u ms", "USBDVGrabThread",
                       USBVD_START_TIMEOUT);
                iStatus = USBTR_STATUS_TIMEOUT;
                break;
            }
            if (USBVDGrabState(pContext) == USBVD_GRAB_STATE_STOPPED)
                break;
        }
    }

    USBVDDiscardRing(pContext);
    if (iStatus == USBTR_STATUS_SUCCESS)
        iStatus = USBTR_STATUS_STOPPED;
    return iStatus;
}

static int32_t USBVDRunStream(USBTR_CONTEXT *pContext)
{
    const USBTR_VIDEO_INFO *pInfo = pContext->pVDDeviceInfo;
    if (pInfo == nullptr) {
        DASSERT(pInfo != nullptr, "pContext->pVDDeviceInfo");
        return USBTR_STATUS_GENERAL_ERROR;
    }
    uint32_t nRealImageLength = pInfo->dwImageWidth * pInfo->dwImageHeight;
    DTRACE(_DRegion_usbvd, DTRACE_LEVEL_DEBUG, "%s: Frame size: %u * %u = %u B", "USBDVGrabThread",
           pInfo->dwImageWidth, pInfo->dwImageHeight, nRealImageLength);
    DASSERT(nRealImageLength <= USBVD_IMAGE_BUFFER_SIZE, "nRealImageLength <= USBVD_IMAGE_BUFFER_SIZE");
    /* The image and its trailer must fit the slot. */
    if (nRealImageLength > USBVD_IMAGE_BUFFER_SIZE - USBVD_TIME_STAMP_SIZE)
        return USBTR_STATUS_GENERAL_ERROR;

    uint8_t aCommit[USBTR_STREAMING_CONTROL_SIZE];
    memcpy(aCommit, pInfo->aStreamingControl, sizeof(aCommit));
    uint32_t dwInterval = pContext->dwFrameInterval;
    aCommit[USBTR_SC_FRAME_INTERVAL + 0] = (uint8_t)dwInterval;
    aCommit[USBTR_SC_FRAME_INTERVAL + 1] = (uint8_t)(dwInterval >> 8);
    aCommit[USBTR_SC_FRAME_INTERVAL + 2] = (uint8_t)(dwInterval >> 16);
    aCommit[USBTR_SC_FRAME_INTERVAL + 3] = (uint8_t)(dwInterval >> 24);
    /* SET_CUR of VS_COMMIT_CONTROL on the streaming interface. */
    int32_t iStatus = USBTRControlTransferEx(pContext, 0x21, 0x01, 0x0200, 1, aCommit, sizeof(aCommit),
                                             USBVD_COMMIT_TIMEOUT);
    if (iStatus != USBTR_STATUS_SUCCESS) {
        DTRACE(_DRegion_usbvd, DTRACE_LEVEL_ERROR,
               "USBTRControlTransferEx(start transfer packet) failed, status = %d", iStatus);
        return iStatus;
    }

    iStatus = USBTRSetInterfaceAlt(pContext, 1, INTERFACE_NO_ACTIVE);
    if (iStatus != USBTR_STATUS_SUCCESS) {
        DTRACE(_DRegion_usbvd, DTRACE_LEVEL_ERROR, "USBTRSetInterfaceAlt(INTERFACE_NO_ACTIVE) failed, status = %d",
               iStatus);
        return iStatus;
    }

    iStatus = USBDVInitTransfer(pContext);
    if (iStatus != USBTR_STATUS_SUCCESS) {
        DTRACE(_DRegion_usbvd, DTRACE_LEVEL_ERROR, "USBDVInitTransfer() failed, status = %d", iStatus);
        return iStatus;
    }

    return USBVDStreamLoop(pContext, nRealImageLength);
}

void *USBDVGrabThread(void *pArgument)
{
    USBTR_CONTEXT *pContext = (USBTR_CONTEXT *)pArgument;
    DTRACE_ENTER(call, _DRegion_usbvd, DTRACE_LEVEL_DEBUG, "%s(%p)", pArgument);

    int32_t iStatus = USBVDRunStream(pContext);

    /* Idle setting on every way out. */
    USBTRSetInterfaceAlt(pContext, 1, 0);
    pthread_mutex_lock(&pContext->aGrabLock);
    USBVDSetGrabState(pContext, USBVD_GRAB_STATE_STOPPED);
    pContext->dwGrabStatus = (uint32_t)iStatus;
    FPPltSignalEvent(&pContext->dwFrameEvent);
    pthread_mutex_unlock(&pContext->aGrabLock);

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return nullptr;
}

int32_t USBVDStartTransfer(USBTR_CONTEXT *pContext, uint32_t nFrameCount)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u)", (void *)pContext, nFrameCount);
    int32_t iStatus = USBTR_STATUS_SUCCESS;

    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }
    if (nFrameCount == 0)
        nFrameCount = USBVD_DEFAULT_FRAMES;
    if (nFrameCount > USBVD_MAX_FRAMES) {
        _DAssert("nFrameCount <= 4", __FILE__, __LINE__);
        DERROR("USBTR_STATUS_NOT_SUPPORTED");
        iStatus = USBTR_STATUS_NOT_SUPPORTED;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    pthread_mutex_lock(&pContext->aGrabLock);
    uint32_t dwState = USBVDGrabState(pContext);
    pthread_mutex_unlock(&pContext->aGrabLock);
    if (dwState == USBVD_GRAB_STATE_RUNNING) {
        /* Already streaming: only the waiting frames go. */
        iStatus = USBVDFlush(pContext);
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }
    if (dwState == USBVD_GRAB_STATE_STOPPED) {
        /* The last thread ended by itself: collect it first. */
        iStatus = USBVDStopTransfer(pContext, 0);
        if (iStatus != USBTR_STATUS_SUCCESS) {
            DTRACE_EXIT(call, "%s() --> %d", iStatus);
            return iStatus;
        }
    }
    if ((USBTRStatusFlags(pContext) & USBTR_SF_DISCONNECTED) != 0) {
        iStatus = USBTR_STATUS_COMM_ERROR;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    /* No grab thread exists here; the lock only orders these writes for
     * whoever looks next. */
    pthread_mutex_lock(&pContext->aGrabLock);
    pContext->nFrameCount = nFrameCount;
    pContext->nFramesToDrop = 0;
    DASSERT(USBVDGrabState(pContext) == USBVD_GRAB_STATE_NOT_STARTED,
            "pContext->dwGrabState == USBVD_GRAB_STATE_NOT_STARTED");
    for (uint32_t s = 0; s < USBVD_IMAGE_STATE_MAX; s++)
        pContext->aLilo[s].nLength = 0;
    for (uint32_t i = 0; i < USBVD_MAX_FRAMES; i++) {
        if (i < nFrameCount) {
            pContext->aLilo[USBVD_IMAGE_STATE_FREE].aIndexes[i] = (uint8_t)i;
            pContext->aImageStates[i] = USBVD_IMAGE_STATE_FREE;
        } else {
            pContext->aImageStates[i] = USBVD_IMAGE_NO_STATE;
        }
    }
    pContext->aLilo[USBVD_IMAGE_STATE_FREE].nLength = nFrameCount;
    pContext->dwGrabStatus = 0;
    USBVDSetGrabState(pContext, USBVD_GRAB_STATE_NOT_STARTED);
    pthread_mutex_unlock(&pContext->aGrabLock);

    pthread_attr_t *pAttributes =
        pContext->bGrabThreadAttributesValid ? &pContext->aGrabThreadAttributes : nullptr;
    int iResult = pthread_create(&pContext->aGrabThread, pAttributes, USBDVGrabThread, pContext);
    DTRACE(_DRegion_usbvd, DTRACE_LEVEL_TRACE, "pthread_create() --> %i", iResult);
    if (iResult != 0) {
        iStatus = USBTR_STATUS_GENERAL_ERROR;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    /* The thread bounds its own start (no payload within USBVD_START_TIMEOUT
     * ends it), so this wait ends too. It wakes as soon as the thread reports
     * its first payload or its end; a frame arriving while it slept a whole
     * poll interval would find every slot taken and be lost. */
    for (;;) {
        pthread_mutex_lock(&pContext->aGrabLock);
        dwState = USBVDGrabState(pContext);
        if (dwState == USBVD_GRAB_STATE_NOT_STARTED) {
            uint32_t dwSeen = FPPltEventValue(&pContext->dwFrameEvent);
            pthread_mutex_unlock(&pContext->aGrabLock);
            FPPltWaitEvent(&pContext->dwFrameEvent, dwSeen, USBVD_START_POLL);
            continue;
        }
        pthread_mutex_unlock(&pContext->aGrabLock);
        if (dwState == USBVD_GRAB_STATE_RUNNING) {
            DTRACE(_DRegion_usbvd, DTRACE_LEVEL_TRACE, "Thread started :-)");
            iStatus = USBTR_STATUS_SUCCESS;
            break;
        }
        pthread_join(pContext->aGrabThread, nullptr);
        pthread_mutex_lock(&pContext->aGrabLock);
        iStatus = pContext->dwGrabStatus != 0 ? (int32_t)pContext->dwGrabStatus : USBTR_STATUS_GENERAL_ERROR;
        USBVDSetGrabState(pContext, USBVD_GRAB_STATE_NOT_STARTED);
        pthread_mutex_unlock(&pContext->aGrabLock);
        break;
    }

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDStopTransfer(USBTR_CONTEXT *pContext, uint32_t dwTraceTag)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u)", (void *)pContext, dwTraceTag);
    int32_t iStatus = USBTR_STATUS_SUCCESS;

    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }
    if (USBVDGrabState(pContext) == USBVD_GRAB_STATE_NOT_STARTED) {
        DTRACE_EXIT(call, "%s() --> %d", iStatus);
        return iStatus;
    }

    pthread_mutex_lock(&pContext->aGrabLock);
    USBVDSetGrabState(pContext, USBVD_GRAB_STATE_STOPPED);
    pthread_mutex_unlock(&pContext->aGrabLock);

    int iResult = pthread_join(pContext->aGrabThread, nullptr);
    DTRACE(_DRegion_usbvd, DTRACE_LEVEL_DEBUG, "pthread_join() --> %i, status = %i", iResult,
           (int)pContext->dwGrabStatus);
    USBVDSetGrabState(pContext, USBVD_GRAB_STATE_NOT_STARTED);

    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}
