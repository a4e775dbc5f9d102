/*
 * Request engine: the usbfs ioctl wrapper with its errno mapping, the
 * asynchronous request primitives, the synchronous transfer built on them and
 * the bulk and interrupt reads.
 *
 * Any thread may reap any completed request of a device, so the reaper marks
 * what it reaps (usercontext := the record's own address, release store) and
 * every waiter decides from its own request's mark (acquire load).
 *
 * Between reap passes a waiter sleeps in poll() on the node: usbfs signals
 * POLLOUT while a completion waits to be reaped (POLLERR/POLLHUP once the
 * device is gone).  A completion that another thread reaps leaves no signal,
 * so the sleep lasts one millisecond at most.  A node that polls ready with
 * nothing to reap (not a usbfs node) cannot tell; waiters on it fall back to
 * fixed 200 us passes.
 *
 * Synchronous transfers run in context-owned slots (request record + bounce
 * buffer).  A piece that was discarded but could not be collected stays with
 * its slot, orphaned, until some later reap marks it; only then is the slot
 * reused.  The kernel therefore never writes through a record or buffer that
 * has gone away.  When every slot is busy or orphaned, a transfer first tries
 * to collect the orphans and otherwise fails with USBTR_STATUS_COMM_ERROR.
 */
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "../../trace/dtraces.h"
#include "../platform/fpplat.h"
#include "usbtr.h"

namespace {

constexpr uint32_t SLOT_FREE = 0;
constexpr uint32_t SLOT_USED = 1;
constexpr uint32_t SLOT_ORPHANED = 2;

/* The usbfs command number, as printed in failure records. */
int CommandNumber(unsigned long request)
{
    return static_cast<int>(_IOC_NR(request));
}

/* The status of a failed ioctl, from its errno. */
__attribute__((noinline)) int32_t FailureStatus(USBTR_CONTEXT *pContext, unsigned long request, int iErrno)
{
    switch (iErrno) {
    case EAGAIN:
        return USBTR_STATUS_TIMEOUT;
    case EPERM:
    case EACCES:
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Access denied");
        return USBTR_STATUS_ACCESS_DENIED;
    case ENODEV:
        USBTRSetStatusFlag(pContext, USBTR_SF_DISCONNECTED);
        UnlockFD(pContext);
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Device disconnected");
        return USBTR_STATUS_COMM_ERROR;
    default:
        /* EINVAL on a discard only means the request already completed. */
        if (_DIsTraceEnabled(&_DRegion_usbtr, DTRACE_LEVEL_ERROR) &&
            !(CommandNumber(request) == CommandNumber(USBDEVFS_DISCARDURB) && iErrno == EINVAL))
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "ioctl(%i) failed: %s", CommandNumber(request),
                   strerror(iErrno));
        return USBTR_STATUS_COMM_ERROR;
    }
}

/* The ioctl with its status mapping; *piErrno receives the errno of a failed
 * system call, 0 otherwise (also when no call was made). */
__attribute__((always_inline)) inline int32_t IOCtl(USBTR_CONTEXT *pContext, unsigned long request,
                                                     void *pArgument, int64_t *pnResult, int *piErrno)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "USBTRIOCtlEx", "%s(%p,%i,%p,%p)",
                    static_cast<void *>(pContext), static_cast<int>(request), pArgument,
                    static_cast<void *>(pnResult));
    *piErrno = 0;
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (pContext == nullptr) {
        DASSERT(false, "pContext");
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (USBTRStatusFlags(pContext) & USBTR_SF_DISCONNECTED) {
        iStatus = USBTR_STATUS_COMM_ERROR;
    } else {
        int iResult = ioctl(pContext->fdDevice, request, pArgument);
        if (iResult < 0)
            *piErrno = errno;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_LOUD, "ioctl() --> %i", iResult);
        if (iResult >= 0) {
            if (pnResult != nullptr)
                *pnResult = iResult;
        } else {
            iStatus = FailureStatus(pContext, request, *piErrno);
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

/* USBTRIOCtlEx, inline in the engine's own hot paths. */
__attribute__((always_inline)) inline int32_t IOCtlEx(USBTR_CONTEXT *pContext, unsigned long request,
                                                       void *pArgument, int64_t *pnResult)
{
    int iErrno;
    int32_t iStatus = IOCtl(pContext, request, pArgument, pnResult, &iErrno);
    /* Callers that report the failure themselves still find its errno. */
    if (iErrno != 0)
        errno = iErrno;
    return iStatus;
}

/* One reap pass (the records are USBTRTryReapThisRequest's); *pbReaped tells
 * whether it collected any request at all. */
__attribute__((always_inline)) inline int32_t TryReap(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest,
                                                      bool *pbReaped)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "USBTRTryReapThisRequest", "%s(%p,%p)",
                    static_cast<void *>(pContext), static_cast<void *>(pRequest));
    /* A null pRequest waits for nothing: the pass drains what is ready. */
    int32_t iStatus;
    for (;;) {
        void *pReaped = nullptr;
        iStatus = IOCtlEx(pContext, USBDEVFS_REAPURBNDELAY, &pReaped, nullptr);
        if (iStatus != USBTR_STATUS_SUCCESS)
            break;
        if (pReaped == nullptr) {
            DERROR("USBTR_STATUS_GENERAL_ERROR");
            iStatus = USBTR_STATUS_GENERAL_ERROR;
            break;
        }
        USBTR_REQUEST *pDone = static_cast<USBTR_REQUEST *>(pReaped);
        USBTRSetRequestMark(pDone, pDone);
        *pbReaped = true;
        if (pDone == pRequest)
            break;
    }
    /* Another thread may have reaped it for us. */
    if (pRequest != nullptr && USBTRRequestMark(pRequest) != nullptr)
        iStatus = USBTR_STATUS_SUCCESS;
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

/* Sleeps until the next reap pass; true when poll() said that a completion
 * (or the device's end) is there to be reaped. */
bool WaitBeforeNextPass(USBTR_CONTEXT *pContext, bool bAfterMiss)
{
    std::atomic_ref<uint32_t> aMisses(pContext->nPollMisses);
    /* Right after a wake-up that found nothing, sleep the fixed pass: a node
     * that always polls ready must not make the waiter spin. */
    if (!bAfterMiss && aMisses.load(std::memory_order_relaxed) < USBTR_POLL_BLIND_AFTER) {
        struct pollfd aPoll = {pContext->fdDevice, POLLOUT, 0};
        int n = poll(&aPoll, 1, USBTR_REAP_WAIT_MS);
        if (n <= 0)
            return false; /* the interval passed (or a signal came) */
        if ((aPoll.revents & POLLNVAL) == 0)
            return true;
        /* Not an open descriptor: poll() cannot tell anything about it. */
        aMisses.store(USBTR_POLL_BLIND_AFTER, std::memory_order_relaxed);
    }
    usleep(USBTR_REAP_POLL_US);
    return false;
}

/* After a pass that poll() woke: a pass that found something resets the
 * count of misses, one that found nothing adds to it. */
bool NoteWakeUp(USBTR_CONTEXT *pContext, bool bReaped)
{
    std::atomic_ref<uint32_t> aMisses(pContext->nPollMisses);
    uint32_t n = aMisses.load(std::memory_order_relaxed);
    if (bReaped) {
        if (n != 0 && n < USBTR_POLL_BLIND_AFTER)
            aMisses.store(0, std::memory_order_relaxed);
        return false;
    }
    if (n < USBTR_POLL_BLIND_AFTER)
        aMisses.store(n + 1, std::memory_order_relaxed);
    return true;
}

void LockOrReport(pthread_mutex_t *pLock)
{
    DASSERT(pthread_mutex_lock(pLock) == 0, "(pthread_mutex_lock(pLock)) == 0");
}

void UnlockOrReport(pthread_mutex_t *pLock)
{
    DASSERT(pthread_mutex_unlock(pLock) == 0, "(pthread_mutex_unlock(pLock)) == 0");
}

/* Under aSyncSlotLock: frees orphans that a reap has marked meanwhile and
 * takes the first free slot. */
USBTR_SYNC_SLOT *TakeFreeSlot(USBTR_CONTEXT *pContext)
{
    USBTR_SYNC_SLOT *pTaken = nullptr;
    LockOrReport(&pContext->aSyncSlotLock);
    for (USBTR_SYNC_SLOT &aSlot : pContext->aSyncSlots) {
        if (aSlot.dwBusy == SLOT_ORPHANED && USBTRRequestMark(&aSlot.aRequest) != nullptr)
            aSlot.dwBusy = SLOT_FREE;
        if (pTaken == nullptr && aSlot.dwBusy == SLOT_FREE) {
            aSlot.dwBusy = SLOT_USED;
            pTaken = &aSlot;
        }
    }
    UnlockOrReport(&pContext->aSyncSlotLock);
    return pTaken;
}

USBTR_SYNC_SLOT *AcquireSlot(USBTR_CONTEXT *pContext)
{
    USBTR_SYNC_SLOT *pSlot = TakeFreeSlot(pContext);
    if (pSlot != nullptr)
        return pSlot;
    /* Collect (and mark) whatever has completed meanwhile, then look again.
     * The pass waits for no particular request, so it touches no slot. */
    USBTRTryReapThisRequest(pContext, nullptr);
    pSlot = TakeFreeSlot(pContext);
    if (pSlot == nullptr) {
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "No free transfer slot: %u requests still pending",
               USBTR_SYNC_SLOT_COUNT);
        DERROR("USBTR_STATUS_COMM_ERROR");
    }
    return pSlot;
}

void ReleaseSlot(USBTR_CONTEXT *pContext, USBTR_SYNC_SLOT *pSlot, uint32_t dwState)
{
    LockOrReport(&pContext->aSyncSlotLock);
    pSlot->dwBusy = dwState;
    UnlockOrReport(&pContext->aSyncSlotLock);
}

} // namespace

int32_t USBTRIOCtlEx(USBTR_CONTEXT *pContext, unsigned long request, void *pArgument, int64_t *pnResult)
{
    return IOCtlEx(pContext, request, pArgument, pnResult);
}

int32_t USBTRIOCtlVal(USBTR_CONTEXT *pContext, unsigned long request, uint32_t dwValue, const char *pszName)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, pszName, "%s(%p)", static_cast<void *>(pContext));
    unsigned int uValue = dwValue;
    int32_t iStatus = USBTRIOCtlEx(pContext, request, &uValue, nullptr);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRSubmitRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(%p,%p)", static_cast<void *>(pContext),
                 static_cast<void *>(pRequest));
    USBTRSetRequestMark(pRequest, nullptr);
    int32_t iStatus = IOCtlEx(pContext, USBDEVFS_SUBMITURB, pRequest, nullptr);
    if (iStatus != USBTR_STATUS_SUCCESS)
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "USBTRIOCtl(IOCTL_USB_SUBMITURB) --> %d", iStatus);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRDiscardRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    int iErrno;
    int32_t iStatus = IOCtl(pContext, USBDEVFS_DISCARDURB, pRequest, nullptr, &iErrno);
    if (iStatus != USBTR_STATUS_SUCCESS && iErrno == EINVAL)
        iStatus = USBTR_STATUS_SUCCESS;
    return iStatus;
}

int32_t USBTRTryReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    bool bReaped = false;
    return TryReap(pContext, pRequest, &bReaped);
}

int32_t USBTRPollReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, uint32_t dwTimeout)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(%p,%p,%u)", static_cast<void *>(pContext),
                 static_cast<void *>(pRequest), dwTimeout);
    DASSERT(pRequest != nullptr, "pRequest");
    DASSERT(dwTimeout != 0, "dwTimeout");
    int32_t iStatus = USBTR_STATUS_GENERAL_ERROR;
    if (pRequest != nullptr) {
        /* The clock is read only once the first pass has found nothing: a
         * request that is already there costs no clock reading. */
        uint32_t dwStart = 0;
        bool bWaited = false;
        bool bWoken = false; /* the last wait ended by poll() saying ready */
        bool bMissed = false;
        for (;;) {
            bool bReaped = false;
            iStatus = TryReap(pContext, pRequest, &bReaped);
            if (bWoken)
                bMissed = NoteWakeUp(pContext, bReaped || iStatus != USBTR_STATUS_TIMEOUT);
            if (iStatus != USBTR_STATUS_TIMEOUT)
                break;
            if (!bWaited) {
                dwStart = FPPltGetTime();
                bWaited = true;
            } else if (dwTimeout != USBTR_TIMEOUT_INFINITE && FPPltGetTime() - dwStart > dwTimeout) {
                break;
            }
            bWoken = WaitBeforeNextPass(pContext, bWoken && bMissed);
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRSynchronousTransferEx(USBTR_CONTEXT *pContext, USBTR_REQUEST **ppRequest, pthread_mutex_t *pLock,
                                   int iEndPoint, int iDirection, int iType, void *pBuffer, uint64_t nLength,
                                   uint32_t dwTimeout, uint64_t *pnActualLength)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%i,%i,%i,%p,%u,%u)",
                 static_cast<void *>(pContext), iEndPoint, iDirection, iType, pBuffer,
                 static_cast<unsigned>(nLength), dwTimeout);
    uint64_t nLocalActual = 0;
    DASSERT(pnActualLength != nullptr, "pnActualLength");
    if (pnActualLength == nullptr)
        pnActualLength = &nLocalActual;
    *pnActualLength = 0;
    DASSERT((ppRequest == nullptr) == (pLock == nullptr), "(ppRequest == NULL) == (pLock == NULL)");
    if (pLock == nullptr)
        ppRequest = nullptr;
    if (ppRequest != nullptr) {
        LockOrReport(pLock);
        DASSERT(*ppRequest == nullptr, "(ppRequest == NULL) || (*ppRequest == NULL)");
        UnlockOrReport(pLock);
    }

    int32_t iStatus = USBTR_STATUS_SUCCESS;
    USBTR_SYNC_SLOT *pSlot = nullptr;
    if (pContext == nullptr || (pBuffer == nullptr && nLength != 0)) {
        DASSERT(pContext != nullptr, "pContext");
        DASSERT(pBuffer != nullptr, "pBuffer");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        pSlot = AcquireSlot(pContext);
        if (pSlot == nullptr)
            iStatus = USBTR_STATUS_COMM_ERROR;
    }

    uint8_t *pCursor = static_cast<uint8_t *>(pBuffer);
    uint64_t nRemaining = nLength;
    uint32_t dwSlotState = SLOT_FREE;
    while (pSlot != nullptr) {
        const uint32_t nPieceLength =
            static_cast<uint32_t>(nRemaining < USB_MAX_BULK_TRANSFER ? nRemaining : USB_MAX_BULK_TRANSFER);
        USBTR_REQUEST *pRequest = &pSlot->aRequest;
        USBTRPrepareRequest(pContext, pRequest, iEndPoint, iDirection, iType, pSlot->aBuffer, nPieceLength);
        if ((iDirection & USB_TRANSFER_DIRECTION_MASK) == 0 && nPieceLength > 0)
            memcpy(pSlot->aBuffer, pCursor, nPieceLength);

        iStatus = USBTRSubmitRequest(pContext, pRequest);
        if (iStatus != USBTR_STATUS_SUCCESS)
            break;

        if (ppRequest != nullptr) {
            LockOrReport(pLock);
            *ppRequest = pRequest;
            UnlockOrReport(pLock);
            iStatus = USBTRPollReapThisRequest(pContext, pRequest, dwTimeout);
            LockOrReport(pLock);
            *ppRequest = nullptr;
            UnlockOrReport(pLock);
        } else {
            iStatus = USBTRPollReapThisRequest(pContext, pRequest, dwTimeout);
        }

        if (iStatus != USBTR_STATUS_SUCCESS) {
            /* Take the request back from the kernel before giving up on it. */
            USBTRDiscardRequest(pContext, pRequest);
            USBTRPollReapThisRequest(pContext, pRequest, USBTR_DISCARD_COLLECT_TIMEOUT);
            if (USBTRRequestMark(pRequest) == nullptr)
                dwSlotState = SLOT_ORPHANED;
            break;
        }

        int iActual = pRequest->actual_length;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s: transferred %u bytes of %u", __func__,
               static_cast<unsigned>(iActual), nPieceLength);
        DASSERT(static_cast<int>(nPieceLength) >= iActual, "(int)nPieceLength >= aRequest.iActualLength");
        /* Never hand out more than was asked for, whatever the kernel claims. */
        uint32_t nMoved = iActual < 0 ? 0 : static_cast<uint32_t>(iActual);
        if (nMoved > nPieceLength)
            nMoved = nPieceLength;
        if ((iDirection & USB_TRANSFER_DIRECTION_MASK) != 0 && nMoved > 0)
            memcpy(pCursor, pSlot->aBuffer, nMoved);
        *pnActualLength += nMoved;
        nRemaining -= nMoved;
        if (nMoved < nPieceLength || nRemaining == 0)
            break;
        pCursor += nMoved;
    }
    if (pSlot != nullptr)
        ReleaseSlot(pContext, pSlot, dwSlotState);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRBulkRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength, uint64_t *pnActualLength,
                      uint32_t dwTimeout)
{
    if (!USBTR_CHECK_CONTEXT(pContext))
        return USBTR_STATUS_INVALID_HANDLE;
    if (pContext->iBulkReadEP == 0) {
        DERROR("USBTR_STATUS_NOT_SUPPORTED");
        return USBTR_STATUS_NOT_SUPPORTED;
    }
    uint64_t nActual = 0;
    int32_t iStatus = USBTRSynchronousTransferEx(pContext, nullptr, nullptr, pContext->iBulkReadEP,
                                                 USB_TRANSFER_DIRECTION_MASK, USB_TRANSFER_TYPE_BULK, pBuffer,
                                                 nLength, dwTimeout, &nActual);
    if (pnActualLength != nullptr)
        *pnActualLength = nActual;
    return iStatus;
}

int32_t USBTRInterruptRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength)
{
    if (!USBTR_CHECK_CONTEXT(pContext))
        return USBTR_STATUS_INVALID_HANDLE;
    /* Without an interrupt IN endpoint the request would go to endpoint 0. */
    if (pContext->iIntReadEP == 0) {
        DERROR("USBTR_STATUS_NOT_SUPPORTED");
        return USBTR_STATUS_NOT_SUPPORTED;
    }
    uint64_t nActual = 0;
    int32_t iStatus = USBTRSynchronousTransferEx(
        pContext, &pContext->pIntReadRequest, &pContext->aIntReadLock, pContext->iIntReadEP,
        USB_TRANSFER_DIRECTION_MASK, USB_TRANSFER_TYPE_INTERRUPT, pBuffer, nLength, USBTR_TIMEOUT_INFINITE, &nActual);
    if (iStatus == USBTR_STATUS_SUCCESS && nActual < nLength)
        iStatus = USBTR_STATUS_PARTIAL_TRANSFER;
    return iStatus;
}

int32_t USBTRCancel(USBTR_CONTEXT *pContext, uint32_t dwFlags)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p)", static_cast<void *>(pContext));
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (dwFlags & USBTR_CANCEL_INT_READ) {
        DASSERT(pthread_mutex_lock(&pContext->aIntReadLock) == 0,
                "(pthread_mutex_lock(&pContext->aIntReadLock)) == 0");
        if (pContext->pIntReadRequest != nullptr)
            USBTRDiscardRequest(pContext, pContext->pIntReadRequest);
        DASSERT(pthread_mutex_unlock(&pContext->aIntReadLock) == 0,
                "(pthread_mutex_unlock(&pContext->aIntReadLock)) == 0");
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}
